// An open file of the operating system layer.
#pragma once

#include <cstdio>
#include <memory>

#include "zel_platform/prax.h"

namespace commonutil {

struct CloseFile {
  void operator()(FILE* file) const noexcept { (void)PRAX_Fclose(file); }  // nothing could be done
};
using FileHandle = std::unique_ptr<FILE, CloseFile>;

}  // namespace commonutil
