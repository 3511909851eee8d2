#include "config/SettingsFile.h"

#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>

#include <json/reader.h>

#include "prax/descriptor.h"

namespace {

constexpr std::size_t kMaxBytes = std::size_t{1024} * 1024;
constexpr std::size_t kFirstBytes = 4096;
constexpr int kMaxDepth = 32;

SettingsFile Fault(const std::string& text) { return {Json::Value(), text}; }

// Reads on to one byte beyond the limit, so that a file that grows meanwhile is noticed. False
// with errno set when the file cannot be read.
bool ReadUpToLimit(int fd, std::string* content) {
  std::size_t length = 0;
  while (length <= kMaxBytes) {
    if (length == content->size()) {
      content->resize(std::clamp(2 * length, kFirstBytes, kMaxBytes + 1));
    }
    const ssize_t count = prax::Retried(
        [&] { return ::read(fd, content->data() + length, content->size() - length); });
    if (count < 0) return false;
    if (count == 0) break;
    length += static_cast<std::size_t>(count);
  }
  content->resize(length);
  return true;
}

// The parser's report begins "* Line 3, Column 5"; the rest of it may quote the file.
std::string PositionOf(const std::string& report) {
  unsigned int line = 0;
  unsigned int column = 0;
  if (::sscanf(report.c_str(), "* Line %u, Column %u", &line, &column) != 2) return "no JSON";
  return "broken at line " + std::to_string(line) + ", column " + std::to_string(column);
}

SettingsFile Parsed(const std::string& content) {
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  builder["stackLimit"] = kMaxDepth;
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  SettingsFile file;
  std::string report;
  try {
    if (!reader->parse(content.data(), content.data() + content.size(), &file.root, &report)) {
      return Fault(PositionOf(report));
    }
  } catch (const Json::Exception&) {  // how the parser reports the depth
    return Fault("nested too deeply");
  }
  return file.root.isObject() ? file : Fault("broken at line 1, column 1: no object");
}

}  // namespace

SettingsFile ReadSettingsFile(const std::string& path, bool mustExist) {
  // O_NONBLOCK: the open of a pipe without a writer returns.
  const prax::Descriptor file(path.c_str(), O_RDONLY | O_NONBLOCK);
  if (!file.IsOpen()) {
    const int error = errno;
    if (error == ENOENT && !mustExist) return {};
    return Fault("cannot be opened, errno " + std::to_string(error));
  }
  struct stat status = {};
  if (::fstat(file.Get(), &status) != 0 || !S_ISREG(status.st_mode)) {
    return Fault("is no regular file");
  }
  std::string content;
  if (!ReadUpToLimit(file.Get(), &content)) {
    return Fault("cannot be read, errno " + std::to_string(errno));
  }
  return content.size() > kMaxBytes ? Fault("is larger than 1 MB") : Parsed(content);
}
