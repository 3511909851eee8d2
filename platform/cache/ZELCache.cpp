#include <errno.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <mutex>
#include <new>
#include <shared_mutex>
#include <unordered_map>
#include <utility>

#include "cache/cache_ref.h"
#include "zel_platform/cache.h"

namespace {

using Value = std::shared_ptr<std::string>;

constexpr std::size_t kCopies = 4;
constexpr std::size_t kCacheLine = 64;

// A stored value as one copy of the table refers to it, with a reference count of its own. The
// counts of two holders lie on different cache lines without the cost of aligned memory.
struct Holder {
  Value value;
  char apart[kCacheLine - sizeof(Value)] = {};
};
using Holders = std::array<std::shared_ptr<Holder>, kCopies>;

struct alignas(kCacheLine) Table {
  std::shared_mutex lock;
  std::unordered_map<std::string, std::shared_ptr<Holder>> values;  // guarded by lock
};

// Threads are dealt out over the copies, so that four of them find one in a fair share each.
std::size_t CopyOfThisThread() {
  static std::atomic<std::size_t> next{0};
  thread_local const std::size_t mine = next.fetch_add(1, std::memory_order_relaxed) % kCopies;
  return mine;
}

Holders Hold(const Value& value) {
  Holders holders;
  for (auto& holder : holders) holder = std::make_shared<Holder>(Holder{value, {}});
  return holders;
}

// Keeps every value until it is replaced or removed.
//
// The table of keys exists in several copies, each with its lock and its reference counts; the
// texts exist once. A look-up touches the copy of its thread only, so that threads which read
// write to no memory in common, even for one key. A store changes all copies under all locks.
class MemoryCache : public ZELCache {
 public:
  int Get(const std::string& key, Value& out) override {
    Table& table = m_tables[CopyOfThisThread()];
    Value found;
    {
      const std::shared_lock<std::shared_mutex> hold(table.lock);
      const auto entry = table.values.find(key);
      if (entry == table.values.end()) return ENOENT;
      found = Value(entry->second, entry->second->value.get());
    }
    out = std::move(found);
    return 0;
  }

  int Put(const std::string& key, const Value& value) override {
    try {
      Holders holders = Hold(value);  // after the locks: what has been replaced
      const Writer writing(*this);
      if (m_refusals != 0) {
        --m_refusals;
        return m_refusalCode;
      }
      return StoreLocked(key, holders);
    } catch (const std::bad_alloc&) {
      return ENOMEM;
    }
  }

  int Remove(const std::string& key) override {
    std::array<decltype(Table::values)::node_type, kCopies> removed;  // die after the locks
    const Writer writing(*this);
    for (std::size_t i = 0; i < kCopies; ++i) removed[i] = m_tables[i].values.extract(key);
    return removed[0].empty() ? ENOENT : 0;
  }

  void RefuseStores(unsigned int count, int code) {
    const Writer writing(*this);
    m_refusals = count;
    m_refusalCode = code;
  }

  void Reset() {
    const Writer writing(*this);
    for (Table& table : m_tables) table.values.clear();
    m_refusals = 0;
  }

 private:
  // Holds every lock, taken in the order of the copies.
  class Writer {
   public:
    explicit Writer(MemoryCache& cache) : m_tables(cache.m_tables) {
      for (Table& table : m_tables) table.lock.lock();
    }
    ~Writer() {
      for (Table& table : m_tables) table.lock.unlock();
    }
    Writer(const Writer&) = delete;
    Writer& operator=(const Writer&) = delete;

   private:
    std::array<Table, kCopies>& m_tables;
  };

  // Without memory the key is forgotten, in all copies alike.
  int StoreLocked(const std::string& key, Holders& holders) {
    try {
      for (std::size_t i = 0; i < kCopies; ++i) m_tables[i].values[key].swap(holders[i]);
    } catch (const std::bad_alloc&) {
      for (Table& table : m_tables) table.values.erase(key);
      return ENOMEM;
    }
    return 0;
  }

  std::array<Table, kCopies> m_tables;
  unsigned int m_refusals = 0;  // guarded by all locks, as the next
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
