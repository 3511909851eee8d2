"""The message interface of libzel_utils for Python: requests in, replies and notifications out.

    with zel_utils.Service() as service:
        reply = service.request(11, description="hello")

Needs the shared library, which is looked for as the dynamic linker does, or at the path in the
environment variable ZEL_UTILS_LIB. The library has one service in a process, so one Service is open
at a time; its methods are called from one thread.
"""

from __future__ import annotations

import collections
import ctypes
import itertools
import json
import os
import time
from typing import Any, Callable, Deque, Dict, Mapping, Optional

__all__ = ["Message", "RequestRefused", "Service", "ServiceError", "statistics", "version"]

Message = Dict[str, Any]

_STORED = 1
_LIBRARY = "libzel_utils.so.1"


class ServiceError(RuntimeError):
    """The service does not start or does not answer."""


class RequestRefused(ServiceError):
    """The inbound ring is full: 2048 requests wait."""


def _load() -> ctypes.CDLL:
    library = ctypes.CDLL(os.environ.get("ZEL_UTILS_LIB", _LIBRARY))
    library.CommonUtilRecvMsgImport.argtypes = [ctypes.c_char_p, ctypes.c_ulong]
    library.CommonUtilSendMsgExport.argtypes = [ctypes.POINTER(ctypes.c_void_p)]
    library.CommonUtilFreeExportMsg.argtypes = [ctypes.c_void_p]
    library.CommonUtilFreeExportMsg.restype = None
    library.CommonUtilServiceShutDown.restype = None
    library.CommonUtilServiceSetEager.argtypes = [ctypes.c_int]
    library.CommonUtilServiceSetEager.restype = None
    library.CommonUtilWaitExportMsg.argtypes = [ctypes.c_uint]
    library.CommonUtilVersion.restype = ctypes.c_char_p
    library.CommonUtilStatistics.restype = ctypes.c_void_p
    return library


_library: Optional[ctypes.CDLL] = None


def _lib() -> ctypes.CDLL:
    global _library
    if _library is None:
        _library = _load()
    return _library


def _taken(pointer: Optional[int]) -> Message:
    """The object in a text of the library, which is given back."""
    try:
        return json.loads(ctypes.string_at(pointer))
    finally:
        _lib().CommonUtilFreeExportMsg(pointer)


def version() -> str:
    """The library's version."""
    return _lib().CommonUtilVersion().decode()


def statistics() -> Message:
    """What the library has done; see docs/messages.md."""
    return _taken(_lib().CommonUtilStatistics())


class Service:
    """The running service. Notifications and late replies go to `on_message` when it is given, else
    they wait for `next_message`."""

    def __init__(self, on_message: Optional[Callable[[Message], None]] = None) -> None:
        self._on_message = on_message
        self._waiting: Deque[Message] = collections.deque()
        self._numbers = itertools.count(1)
        _lib().CommonUtilServiceSetEager(1)
        result = _lib().CommonUtilServiceStartup()
        if result != 0:
            raise ServiceError(f"the service does not start: {result}")

    def __enter__(self) -> Service:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def close(self) -> None:
        """Shuts the service down after the requests that wait. What is not taken is lost."""
        self.request(13)  # its answer proves that the thread runs, which a shut-down needs
        _lib().CommonUtilServiceShutDown()

    def send(self, message: Mapping[str, Any]) -> None:
        """Posts a request as it is, without waiting for its reply."""
        text = json.dumps(message).encode()
        if _lib().CommonUtilRecvMsgImport(text, len(text)) != _STORED:
            raise RequestRefused("the request was refused")

    def request(
        self,
        cmd: int,
        param: Optional[Mapping[str, Any]] = None,
        description: Optional[str] = None,
        timeout: float = 10.0,
    ) -> Message:
        """Posts a request and returns its reply; ServiceError when none comes in `timeout` seconds.
        What else comes meanwhile is treated as any message."""
        sno = next(self._numbers)
        message: Message = {"cmd": cmd, "sno": sno}
        if param is not None:
            message["param"] = dict(param)
        if description is not None:
            message["description"] = description
        self.send(message)
        deadline = time.monotonic() + timeout
        while True:
            reply = self._take(deadline)
            if reply is None:
                raise ServiceError(f"no reply to command {cmd} within {timeout} s")
            if reply.get("rsp") == cmd and reply.get("sno") == sno:
                return reply
            self._deliver(reply)

    def next_message(self, timeout: float = 0.0) -> Optional[Message]:
        """The oldest message that `request` did not return; None when none comes in time."""
        if self._waiting:
            return self._waiting.popleft()
        return self._take(time.monotonic() + timeout)

    def _deliver(self, message: Message) -> None:
        if self._on_message is not None:
            self._on_message(message)
        else:
            self._waiting.append(message)

    @staticmethod
    def _take(deadline: float) -> Optional[Message]:
        left_ms = max(0, round((deadline - time.monotonic()) * 1000))
        if _lib().CommonUtilWaitExportMsg(left_ms) != _STORED:
            return None
        pointer = ctypes.c_void_p()
        if _lib().CommonUtilSendMsgExport(ctypes.byref(pointer)) != _STORED:
            return None
        return _taken(pointer.value)
