// Seam of the reference logger for tests; the product never includes it.
#pragma once

#include <functional>
#include <string>

#include "zel_platform/platform_export.h"

// One line as it goes to its module: masked and escaped, without the header and newline.
// The texts are valid during the call only.
struct LogSinkLine {
  const char* module;
  int level;
  int checkLevel;
  const char* file;
  const char* function;
  int line;
  const std::string& text;
};

using LogSink = std::function<void(const LogSinkLine&)>;

// Every line that its module's level lets through also goes to `sink`, on the logging
// thread, with no lock held. What the sink throws is dropped; what it logs does not reach
// it again. A call already under way on another thread may outlast its replacement.
// An empty function removes the sink.
ZEL_PLATFORM_API void logger_ref_set_sink(LogSink sink);

// Back to the state of a fresh process: no sink, no open module, no kept line, no word.
ZEL_PLATFORM_API void logger_ref_reset();
