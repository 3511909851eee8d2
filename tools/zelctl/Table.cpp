#include "Table.h"

#include <algorithm>
#include <cstddef>

namespace zelctl {
namespace {

constexpr double kBarWidth = 20;

}  // namespace

std::string TableText(const std::vector<std::vector<std::string>>& rows) {
  std::vector<std::size_t> widths;
  for (const auto& row : rows) {
    widths.resize(std::max(widths.size(), row.size()));
    for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
  }
  std::string text;
  for (const auto& row : rows) {
    std::string line;
    for (std::size_t i = 0; i < row.size(); ++i) {
      line += row[i] + std::string(widths[i] - row[i].size() + 2, ' ');
    }
    line.erase(line.find_last_not_of(' ') + 1);
    text += line + '\n';
  }
  return text;
}

std::string Bar(double value, double largest) {
  if (value <= 0 || largest <= 0) return "";
  const double width = std::max(1.0, kBarWidth * std::min(1.0, value / largest));
  return std::string(static_cast<std::size_t>(width), '#');
}

}  // namespace zelctl
