// The config cache in memory, the caller's part of an add, and the error-code look-up.
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "CommonUtil.h"
#include "Ratio.h"
#include "publicInc/CommonUtilPrivateManager.h"
#include "publicInc/GlobalErrorCodeTable.h"
#include "util/MsgMgr.h"

namespace bench {

namespace {

using commonutil::CommonUtil;
using commonutil::CommonUtilPrivateManager;
using commonutil::GlobalErrorCodeRow;
using commonutil::kGlobalErrorCodeRows;
using commonutil::ZelConfigCache;

constexpr int kRounds = 15;
constexpr int kQueries = 200000;
constexpr int kAdds = 500;
constexpr int kLookUps = 1000000;
constexpr std::size_t kKeys = 64;
constexpr std::size_t kPeerShards = 16;

std::string KeyOf(std::size_t number) { return "config/entry/" + std::to_string(number % kKeys); }

const std::vector<std::string>& Keys() {
  static const std::vector<std::string>& keys = *[] {
    auto* const made = new std::vector<std::string>;
    for (std::size_t i = 0; i < kKeys; ++i) made->push_back(KeyOf(i));
    return made;
  }();
  return keys;
}

// Each shard a map of shared texts behind a mutex.
class PeerCache {
 public:
  void Put(const std::string& key, const std::string& value) {
    Shard& shard = ShardOf(key);
    const std::lock_guard<std::mutex> hold(shard.lock);
    shard.values[key] = std::make_shared<const std::string>(value);
  }

  std::shared_ptr<const std::string> Get(const std::string& key) {
    Shard& shard = ShardOf(key);
    const std::lock_guard<std::mutex> hold(shard.lock);
    const auto found = shard.values.find(key);
    return found == shard.values.end() ? nullptr : found->second;
  }

 private:
  struct alignas(64) Shard {
    std::mutex lock;
    std::unordered_map<std::string, std::shared_ptr<const std::string>> values;
  };

  Shard& ShardOf(const std::string& key) {
    return m_shards[std::hash<std::string>()(key) % kPeerShards];
  }

  std::array<Shard, kPeerShards> m_shards;
};

void QueryOurs(std::size_t first, std::size_t step) {
  auto& manager = CommonUtilPrivateManager::getInst();
  ZelConfigCache row;
  std::size_t key = first;
  for (int i = 0; i < kQueries; ++i, key += step) {
    int count = 1;
    if (manager.QueryConfigCacheByKey(Keys()[key % kKeys], &row, &count) != 0) std::abort();
  }
}

void QueryPeer(PeerCache& peer, std::size_t first, std::size_t step) {
  std::string value;
  std::size_t key = first;
  for (int i = 0; i < kQueries; ++i, key += step) {
    const auto found = peer.Get(Keys()[key % kKeys]);
    if (found == nullptr) std::abort();
    value = *found;
  }
}

void OnThreads(std::size_t count, const std::function<void(std::size_t)>& body) {
  std::vector<std::thread> running;
  for (std::size_t i = 0; i < count; ++i) running.emplace_back(body, i);
  for (std::thread& thread : running) thread.join();
}

// A `step` of 0 asks for one key all the time, a `step` of 1 for all of them in turn.
void BenchQuery(const std::string& what, PeerCache& peer, std::size_t threads, std::size_t step) {
  const double queries = static_cast<double>(kQueries) * static_cast<double>(threads);
  Compare(
      {"query from memory, " + what, "sharded unordered_map of shared strings", 0, kRounds,
       queries},
      [&] { OnThreads(threads, [&](std::size_t thread) { QueryOurs(thread * step * 7, step); }); },
      [&] {
        OnThreads(threads, [&](std::size_t thread) { QueryPeer(peer, thread * step * 7, step); });
      });
}

void BenchQueries() {
  PeerCache peer;
  auto& manager = CommonUtilPrivateManager::getInst();
  for (const std::string& key : Keys()) {
    const std::string value = "a value of usual length: " + key;
    peer.Put(key, value);
    if (!manager.addConfigInfo(key, value)) std::abort();
  }
  BenchQuery("1 thread, 64 keys", peer, 1, 1);
  BenchQuery("4 threads, 64 keys", peer, 4, 1);
  BenchQuery("1 thread, 1 key", peer, 1, 0);
  BenchQuery("4 threads, 1 key", peer, 4, 0);
}

// What the caller waits for. The worker catches up between the rounds: how fast the disk takes
// the entries is another figure.
void BenchAdd() {
  auto& worker = commonutil::MsgMainThreadMgrHandler::GetInst();
  const std::function<int()> nothing = [] { return 0; };
  const ZelConfigCache row{0, KeyOf(1), "a value of usual length, all of it kept in memory"};
  PeerCache peer;
  using Clock = std::chrono::steady_clock;
  const auto timed = [&](const std::function<void()>& work) {
    const Clock::time_point start = Clock::now();
    for (int i = 0; i < kAdds; ++i) work();
    const Clock::time_point end = Clock::now();
    (void)worker.PushCmd(nothing, "bench");
    return std::chrono::duration<double, std::nano>(end - start).count();
  };
  CompareTimes(
      {"add one entry, the caller's part", "the peer's store alone", 0, kRounds, kAdds},
      [&] {
        return timed([&] {
          if (CommonUtilPrivateManager::getInst().SingleAddConfigCache(row) != 0) std::abort();
        });
      },
      [&] { return timed([&] { peer.Put(row.key, row.value); }); });
}

std::int32_t BinarySearch(std::int32_t code) {
  const GlobalErrorCodeRow* first = kGlobalErrorCodeRows;
  std::size_t count = std::size(kGlobalErrorCodeRows);
  while (count > 1) {
    const std::size_t half = count / 2;
    if (first[half].code <= code) first += half;
    count -= half;
  }
  return first->code == code ? first->globalCode : 0;
}

template <class LookUp>
void LookUpAll(const std::vector<std::int32_t>& codes, LookUp lookUp) {
  for (int i = 0; i < kLookUps; ++i) {
    const std::int32_t code = codes[static_cast<std::size_t>(i) % codes.size()];
    if (lookUp(code) != code) std::abort();
  }
}

void BenchErrorCodes() {
  std::vector<std::int32_t> codes;  // in no order that a processor could learn
  constexpr std::size_t kScatter = 7919;
  for (std::size_t i = 0; i < 4096; ++i) {
    codes.push_back(kGlobalErrorCodeRows[i * kScatter % std::size(kGlobalErrorCodeRows)].code);
  }
  Compare(
      {"look up an error code", "binary search by hand", 1.0, kRounds, kLookUps},
      [&] {
        LookUpAll(codes,
                  [](std::int32_t code) { return CommonUtil::getInst().GetGlobalErrorCode(code); });
      },
      [&] { LookUpAll(codes, BinarySearch); });
}

}  // namespace

void BenchCache() {
  BenchQueries();
  BenchAdd();
  BenchErrorCodes();
}

}  // namespace bench
