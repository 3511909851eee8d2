#include <errno.h>

#include <mutex>
#include <new>
#include <unordered_map>
#include <utility>

#include "cache/cache_ref.h"
#include "zel_platform/cache.h"

namespace {

using Value = std::shared_ptr<std::string>;

// Keeps every value until it is replaced or removed. Replaced values die after the lock.
class MemoryCache : public ZELCache {
 public:
  int Get(const std::string& key, Value& out) override {
    Value found;
    {
      const std::lock_guard<std::mutex> hold(m_lock);
      const auto entry = m_values.find(key);
      if (entry == m_values.end()) return ENOENT;
      found = entry->second;
    }
    out = std::move(found);
    return 0;
  }

  int Put(const std::string& key, const Value& value) override {
    Value replaced = value;
    const std::lock_guard<std::mutex> hold(m_lock);
    if (m_refusals != 0) {
      --m_refusals;
      return m_refusalCode;
    }
    try {
      m_values[key].swap(replaced);
    } catch (const std::bad_alloc&) {
      return ENOMEM;
    }
    return 0;
  }

  int Remove(const std::string& key) override {
    const std::lock_guard<std::mutex> hold(m_lock);
    return m_values.erase(key) == 1 ? 0 : ENOENT;
  }

  void RefuseStores(unsigned int count, int code) {
    const std::lock_guard<std::mutex> hold(m_lock);
    m_refusals = count;
    m_refusalCode = code;
  }

  void Reset() {
    const std::lock_guard<std::mutex> hold(m_lock);
    m_values.clear();
    m_refusals = 0;
  }

 private:
  std::mutex m_lock;  // guards all below
  std::unordered_map<std::string, Value> m_values;
  unsigned int m_refusals = 0;
  int m_refusalCode = 0;
};

MemoryCache& TheCache() {
  static MemoryCache* const instance = new MemoryCache;
  return *instance;
}

}  // namespace

ZELCache* ZELCache::GetInstance() { return &TheCache(); }

ZELCache::~ZELCache() = default;

void orb_cache_ref_refuse_stores(unsigned int count, int code) {
  TheCache().RefuseStores(count, code);
}

void orb_cache_ref_reset() { TheCache().Reset(); }
