// The process-wide memory cache of shared texts. Any thread may call any operation.
// A value is shared and never changed once stored.
#pragma once

#include <memory>
#include <string>

#include "zel_platform/platform_export.h"

// The cache and its three operations. Virtual functions, whose order is part of the contract.
class ZEL_PLATFORM_API ZELCache {
 public:
  // Never null, lives to the end of the process.
  static ZELCache* GetInstance();

  // Never run: the one instance lives to the end of the process.
  virtual ~ZELCache();
  // 0 when the key is known. `out` may then still be null: a null value can be stored.
  virtual int Get(const std::string& key, std::shared_ptr<std::string>& out) = 0;
  // 0 when stored, replacing an earlier value.
  virtual int Put(const std::string& key, const std::shared_ptr<std::string>& value) = 0;
  // 0 when a value was removed.
  virtual int Remove(const std::string& key) = 0;
};
