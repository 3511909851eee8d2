// The library's counters for people and their tools.
#pragma once

#include <string>

namespace commonutil {

// One JSON object; the message rings are those of the present service, empty without one.
std::string StatisticsText();

}  // namespace commonutil
