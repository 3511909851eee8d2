// The caller's part of an add to the config cache.
#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "CommonUtil.h"
#include "Ratio.h"
#include "publicInc/CommonUtilPrivateManager.h"
#include "util/MsgMgr.h"

namespace bench {

namespace {

using commonutil::CommonUtil;
using commonutil::CommonUtilPrivateManager;
using commonutil::ZelConfigCache;

constexpr int kRounds = 11;
constexpr int kAdds = 200;
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

}  // namespace

void BenchCache() {
  std::string dir = (std::filesystem::temp_directory_path() / "zel-bench-cacheXXXXXX").string();
  if (mkdtemp(dir.data()) == nullptr) std::abort();
  Initialise(dir);
  PeerCache peer;
  BenchAdd(peer);
  std::filesystem::remove_all(dir);
}

}  // namespace bench
