#!/usr/bin/env python3
"""The smallest host in Python: posts one request and prints the reply.

The library is looked for as the dynamic linker does, or at the path in ZEL_UTILS_LIB.
"""

import ctypes
import json
import os
import sys

DEADLINE_MS = 5000


def load():
    """The library with its message functions declared; null pointers come as None."""
    library = ctypes.CDLL(os.environ.get("ZEL_UTILS_LIB", "libzel_utils.so.1"))
    library.CommonUtilRecvMsgImport.argtypes = [ctypes.c_char_p, ctypes.c_ulong]
    library.CommonUtilWaitExportMsg.argtypes = [ctypes.c_uint]
    library.CommonUtilSendMsgExport.argtypes = [ctypes.POINTER(ctypes.c_void_p)]
    library.CommonUtilFreeExportMsg.argtypes = [ctypes.c_void_p]
    library.CommonUtilFreeExportMsg.restype = None
    library.CommonUtilServiceShutDown.restype = None
    return library


def next_message(library):
    """The next reply or notification as an object, or None when none came in time."""
    message = ctypes.c_void_p()
    if library.CommonUtilWaitExportMsg(DEADLINE_MS) != 1:
        return None
    if library.CommonUtilSendMsgExport(ctypes.byref(message)) != 1:
        return None
    try:
        return json.loads(ctypes.string_at(message))
    finally:
        library.CommonUtilFreeExportMsg(message)


def main():
    library = load()
    if library.CommonUtilServiceStartup() != 0:
        return "the service does not start"
    request = json.dumps({"cmd": 11, "sno": 1, "description": "hello"}).encode()
    if library.CommonUtilRecvMsgImport(request, len(request)) != 1:
        return "the request was refused"
    reply = next_message(library)
    if reply is None:
        return "no reply"
    library.CommonUtilServiceShutDown()
    print(json.dumps(reply, sort_keys=True))
    return 0


if __name__ == "__main__":
    sys.exit(main())
