// The result codes that this library itself returns. 0 is success everywhere except in the
// message stores, which return 1 for a stored message and 0 for a refused one.
#pragma once

namespace commonutil {

// Plain integers at the interface.
enum ResultCode : int {
  kOk = 0,                       // success
  kFailed = 1,                   // generic failure
  kAlreadyInitialised = 2,       // the one initialisation has been entered before
  kPushNullCommand = -1,         // synchronous push of an empty callable
  kPushNoMemory = -2,            // no memory for a command, or no thread to run it
  kCacheBadArgument = 10000,     // cache add and delete
  kCacheNotReady = 10001,        // cache add and delete: database not initialised
  kBadParameter = 411000002,     // null, empty or of length 0
  kQueryNotReady = 415000001,    // cache query: database not initialised
  kQueryNoEntry = 415000002,     // cache query: no such entry
  kProxyUnfinished = 415000003,  // proxy detection is running, the answer comes later
};

}  // namespace commonutil
