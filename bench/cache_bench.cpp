// The config cache in memory, the caller's part of an add, and the error-code look-up.
#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
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

constexpr int kRounds = 11;
constexpr int kQueries = 1000000;
constexpr int kAdds = 200;
constexpr int kLookUps = 1000000;
constexpr std::size_t kKeys = 64;
constexpr std::size_t kPeerShards = 16;

const std::vector<std::string>& Keys() {
  static const std::vector<std::string>& keys = *[] {
    auto* const made = new std::vector<std::string>;
    for (std::size_t i = 0; i < kKeys; ++i) made->push_back("config/entry/" + std::to_string(i));
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

// `step` 0 asks for one key all the time, 1 for all of them in turn.
void QueryOurs(int queries, std::size_t first, std::size_t step) {
  auto& manager = CommonUtilPrivateManager::getInst();
  ZelConfigCache row;
  std::size_t key = first;
  for (int i = 0; i < queries; ++i, key += step) {
    int count = 1;
    if (manager.QueryConfigCacheByKey(Keys()[key % kKeys], &row, &count) != 0) std::abort();
  }
}

void QueryPeer(PeerCache& peer, int queries, std::size_t first, std::size_t step) {
  std::string value;
  std::size_t key = first;
  for (int i = 0; i < queries; ++i, key += step) {
    const auto found = peer.Get(Keys()[key % kKeys]);
    if (found == nullptr) std::abort();
    value = *found;
  }
}

// Shares kQueries between the threads, which begin at different keys.
void Share(std::size_t threads, std::size_t step,
           const std::function<void(int queries, std::size_t first)>& body) {
  std::vector<std::thread> running;
  for (std::size_t i = 0; i < threads; ++i) {
    running.emplace_back(body, kQueries / static_cast<int>(threads), i * step * 7);
  }
  for (std::thread& thread : running) thread.join();
}

void BenchQuery(const std::string& keys, PeerCache& peer, std::size_t step) {
  const auto ours = [&](std::size_t threads) {
    Share(threads, step, [&](int queries, std::size_t first) { QueryOurs(queries, first, step); });
  };
  const auto peers = [&](std::size_t threads) {
    Share(threads, step,
          [&](int queries, std::size_t first) { QueryPeer(peer, queries, first, step); });
  };
  Compare(
      {"query from memory, " + keys + " (0.25 us)", "sharded unordered_map of shared strings", 0,
       kRounds, kQueries},
      [&] { ours(1); }, [&] { peers(1); });
  Compare(
      {"the same from 4 threads", "sharded unordered_map of shared strings", 0, kRounds, kQueries},
      [&] { ours(4); }, [&] { peers(4); });
  Compare(
      {"4 threads in total", "1 thread", 1.0, kRounds, kQueries}, [&] { ours(4); },
      [&] { ours(1); });
}

void BenchQueries(PeerCache& peer) {
  auto& manager = CommonUtilPrivateManager::getInst();
  for (const std::string& key : Keys()) {
    const std::string value = "a value of usual length: " + key;
    peer.Put(key, value);
    if (!manager.addConfigInfo(key, value)) std::abort();
  }
  BenchQuery("64 keys", peer, 1);
  BenchQuery("1 key", peer, 0);
}

// Real files behind the cache and the log.
void Initialise(const std::string& dir) {
  commonutil::tagZelUtilInitParam param = {};
  std::snprintf(param.dbPath, sizeof(param.dbPath), "%s", dir.c_str());
  std::snprintf(param.logPath, sizeof(param.logPath), "%s", dir.c_str());
  param.logLevel = 2;
  param.logSize = 5120;
  param.fileCount = 2;
  if (CommonUtil::getInst().InitCommonUtil(param, nullptr) != 0) std::abort();
}

// The usual nanoseconds of one `work`, as its caller meets them.
double UsualTime(const std::function<void()>& work) {
  using Clock = std::chrono::steady_clock;
  std::vector<double> times;
  for (int i = 0; i < kAdds; ++i) {
    const Clock::time_point start = Clock::now();
    work();
    times.push_back(std::chrono::duration<double, std::nano>(Clock::now() - start).count());
  }
  std::nth_element(times.begin(), times.begin() + kAdds / 2, times.end());
  // The worker catches up between the rounds: how fast the disk takes entries is another figure.
  const std::function<int()> nothing = [] { return 0; };
  (void)commonutil::MsgMainThreadMgrHandler::GetInst().PushCmd(nothing, "bench");
  return times[kAdds / 2];
}

void BenchAdd(PeerCache& peer) {
  const ZelConfigCache row{0, Keys()[1], "a value of usual length, all of it kept in memory"};
  const auto add = [&] {
    if (CommonUtilPrivateManager::getInst().SingleAddConfigCache(row) != 0) std::abort();
  };
  CompareTimes(
      {"add one entry, the caller's part (2 us)", "the peer's store alone", 0, kRounds, 1},
      [&] { return UsualTime(add); },
      [&] { return UsualTime([&] { peer.Put(row.key, row.value); }); });
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
      {"look up 1000 error codes (15 us)", "binary search by hand", 1.0, kRounds,
       kLookUps / 1000.0},
      [&] {
        LookUpAll(codes,
                  [](std::int32_t code) { return CommonUtil::getInst().GetGlobalErrorCode(code); });
      },
      [&] { LookUpAll(codes, BinarySearch); });
}

}  // namespace

void BenchCache() {
  std::string dir = (std::filesystem::temp_directory_path() / "zel-bench-cacheXXXXXX").string();
  if (mkdtemp(dir.data()) == nullptr) std::abort();
  Initialise(dir);
  PeerCache peer;
  BenchQueries(peer);
  BenchAdd(peer);
  BenchErrorCodes();
  std::filesystem::remove_all(dir);
}

}  // namespace bench
