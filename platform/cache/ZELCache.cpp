#include <errno.h>

#include <array>
#include <cstddef>
#include <functional>
#include <mutex>
#include <new>
#include <shared_mutex>
#include <unordered_map>
#include <utility>

#include "cache/cache_ref.h"
#include "zel_platform/cache.h"

namespace {

using Value = std::shared_ptr<std::string>;

constexpr std::size_t kShards = 16;
constexpr std::size_t kCacheLine = 64;

// A part of the keys. Readers share the lock. Values replaced or removed die after it.
class alignas(kCacheLine) Shard {
 public:
  int Get(const std::string& key, Value& out) {
    Value found;
    {
      const std::shared_lock<std::shared_mutex> hold(m_lock);
      const auto entry = m_values.find(key);
      if (entry == m_values.end()) return ENOENT;
      found = entry->second;
    }
    out = std::move(found);
    return 0;
  }

  int Put(const std::string& key, const Value& value) {
    Value replaced = value;
    const std::unique_lock<std::shared_mutex> hold(m_lock);
    try {
      m_values[key].swap(replaced);
    } catch (const std::bad_alloc&) {
      return ENOMEM;
    }
    return 0;
  }

  int Remove(const std::string& key) {
    decltype(m_values)::node_type removed;
    const std::unique_lock<std::shared_mutex> hold(m_lock);
    removed = m_values.extract(key);
    return removed.empty() ? ENOENT : 0;
  }

  void Clear() {
    const std::unique_lock<std::shared_mutex> hold(m_lock);
    m_values.clear();
  }

 private:
  std::shared_mutex m_lock;
  std::unordered_map<std::string, Value> m_values;  // guarded by m_lock
};

// Keeps every value until it is replaced or removed.
class MemoryCache : public ZELCache {
 public:
  int Get(const std::string& key, Value& out) override { return ShardOf(key).Get(key, out); }

  int Put(const std::string& key, const Value& value) override {
    const int refusal = TakeRefusal();
    return refusal != 0 ? refusal : ShardOf(key).Put(key, value);
  }

  int Remove(const std::string& key) override { return ShardOf(key).Remove(key); }

  void RefuseStores(unsigned int count, int code) {
    const std::lock_guard<std::mutex> hold(m_refusalLock);
    m_refusals = count;
    m_refusalCode = code;
  }

  void Reset() {
    for (Shard& shard : m_shards) shard.Clear();
    RefuseStores(0, 0);
  }

 private:
  Shard& ShardOf(const std::string& key) {
    return m_shards[std::hash<std::string>()(key) / kShards % kShards];
  }

  // The code of a refusal still due; 0 without one.
  int TakeRefusal() {
    const std::lock_guard<std::mutex> hold(m_refusalLock);
    if (m_refusals == 0) return 0;
    --m_refusals;
    return m_refusalCode;
  }

  std::array<Shard, kShards> m_shards;
  std::mutex m_refusalLock;
  unsigned int m_refusals = 0;  // guarded by m_refusalLock, as the next
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
