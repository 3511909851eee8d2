// What the platform libraries call with their own diagnostics. Any thread; each touches the
// logger or the tracking library only and writes the text unchanged as one line.
#pragma once

#include "zel_platform/prax.h"

namespace commonutil {

void SupportCommonLog(const char* text);
// A timer error goes to the tracking library too, and is never logged as an error: deliberate.
void TimerDotLog(_PRAX_E_TimerLogLv level, const char* text);
// The adapter's levels rise with the severity, the logger's fall. The spelling is part of the
// interface.
void OsAdapaterDotLog(_PRAX_OS_LOG_LEVEL level, const char* text);
void WebSocketCommonLog(const char* text);
void LogDotLog(const char* text);

}  // namespace commonutil
