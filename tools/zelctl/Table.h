// Tables for people.
#pragma once

#include <string>
#include <vector>

namespace zelctl {

// Rows of cells as lines, each column as wide as its widest cell. The first row is the heading.
std::string TableText(const std::vector<std::vector<std::string>>& rows);

// A bar for `value` of `largest`, 20 characters at most; empty for 0.
std::string Bar(double value, double largest);

}  // namespace zelctl
