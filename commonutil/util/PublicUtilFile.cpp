#include "util/FileHandle.h"
#include "util/Log.h"
#include "util/PublicUtil.h"
#include "zel_platform/prax.h"

namespace commonutil {

namespace {

constexpr char kLogFile[] = "commonutil/util/PublicUtil";
constexpr unsigned int kRead = 0;
constexpr unsigned int kNotRead = 1;

void Release(char** buffer) {
  void* memory = *buffer;
  PRAX_MemFreeSetNullD(&memory);
  *buffer = nullptr;
}

}  // namespace

unsigned int PublicUtil::UtilReadFile(const std::string& path, char** buffer) {
  if (buffer == nullptr) return kNotRead;
  *buffer = nullptr;
  if (path.empty()) {
    ZEL_LOG(kError) << "filePath is empty";
    return kNotRead;
  }
  unsigned long size = 0;
  const int ret = PRAX_GetFileSize(path.c_str(), &size);
  if (ret != 0) {
    ZEL_LOG(kError) << "get file size failed! uiRet[" << ret << "] lasterror[" << PRAX_GetLastErr()
                    << "]";
    return kNotRead;
  }
  if (size == 0) {
    ZEL_LOG(kError) << "uiFileSize:[" << size << "] is invalid!";
    return kNotRead;
  }
  *buffer = static_cast<char*>(PRAX_MemMallocS(size + 1));  // zeroed: ends in a NUL
  if (!*buffer) {
    ZEL_LOG(kError) << "mem alloc[" << size << "]bytes failed";
    return kNotRead;
  }
  const FileHandle file(PRAX_Fopen(path.c_str(), "rb"));
  if (!file) {
    ZEL_LOG(kError) << "open config file failed";
    Release(buffer);
    return kNotRead;
  }
  if (PRAX_Fread(*buffer, 1, size, file.get()) == 0) {
    ZEL_LOG(kError) << "read common config file failed";
    Release(buffer);
    return kNotRead;
  }
  return kRead;
}

}  // namespace commonutil
