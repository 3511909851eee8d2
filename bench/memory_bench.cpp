// Config entries that are found in memory.
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "PeerCache.h"
#include "Ratio.h"
#include "publicInc/CommonUtilPrivateManager.h"

namespace bench {

namespace {

using commonutil::CommonUtilPrivateManager;
using commonutil::ZelConfigCache;

constexpr int kRounds = 11;
constexpr int kQueries = 4000000;
constexpr std::size_t kKeys = 64;
constexpr std::size_t kValueBytes = 100;
constexpr char kPeer[] = "sharded unordered_map of shared strings";

// Of 24 bytes each.
const std::vector<std::string>& Keys() {
  static const std::vector<std::string>& keys = *[] {
    auto* const made = new std::vector<std::string>;
    char key[25];
    for (std::size_t i = 0; i < kKeys; ++i) {
      std::snprintf(key, sizeof(key), "config/entry/%011zu", i);
      made->push_back(key);
    }
    return made;
  }();
  return keys;
}

// `step` 0 asks for one key all the time, 1 for all of them in turn.
void QueryOurs(int queries, std::size_t key, std::size_t step) {
  auto& manager = CommonUtilPrivateManager::getInst();
  ZelConfigCache row;
  for (int i = 0; i < queries; ++i, key += step) {
    int count = 1;
    if (manager.QueryConfigCacheByKey(Keys()[key % kKeys], &row, &count) != 0) std::abort();
  }
}

void QueryPeer(PeerCache& peer, int queries, std::size_t key, std::size_t step) {
  std::string value;
  for (int i = 0; i < queries; ++i, key += step) {
    const auto found = peer.Get(Keys()[key % kKeys]);
    if (found == nullptr) std::abort();
    value = *found;
  }
}

// Work of one thread that shares nothing: how much more several threads do of it is what the
// machine has to give.
void Compute(int rounds) {
  volatile unsigned value = 1;
  for (int i = 0; i < 40 * rounds; ++i) value = value * 2654435761U + 1;
}

// Shares kQueries between the threads, which begin at different keys.
void Share(std::size_t threads, const std::function<void(int queries, std::size_t first)>& body) {
  std::vector<std::thread> running;
  for (std::size_t i = 0; i < threads; ++i) {
    running.emplace_back([&body, threads, i] {
      const Pinned evenly(static_cast<int>(i % std::thread::hardware_concurrency()));
      body(kQueries / static_cast<int>(threads), i * 7);
    });
  }
  for (std::thread& thread : running) thread.join();
}

void BenchQuery(const std::string& keys, PeerCache& peer, std::size_t step) {
  const auto ours = [&](std::size_t threads) {
    Share(threads, [&](int queries, std::size_t first) { QueryOurs(queries, first * step, step); });
  };
  const auto peers = [&](std::size_t threads) {
    Share(threads,
          [&](int queries, std::size_t first) { QueryPeer(peer, queries, first * step, step); });
  };
  Compare(
      {"query from memory, " + keys + " (goal 0.20 us)", kPeer, 0, kRounds, kQueries},
      [&] { ours(1); }, [&] { peers(1); });
  Compare(
      {"the same from 4 threads, in total", kPeer, 0, kRounds, kQueries}, [&] { ours(4); },
      [&] { peers(4); });
  Compare(
      {"4 threads, in total", "1 thread", 0.5, kRounds, kQueries}, [&] { ours(4); },
      [&] { ours(1); });
}

}  // namespace

void BenchMemory() {
  PeerCache peer;
  for (const std::string& key : Keys()) {
    const std::string value(kValueBytes, 'v');
    peer.Put(key, value);
    if (!CommonUtilPrivateManager::getInst().addConfigInfo(key, value)) std::abort();
  }
  BenchQuery("64 keys", peer, 1);
  BenchQuery("1 key", peer, 0);
  const auto compute = [](int queries, std::size_t /*first*/) { Compute(queries); };
  Compare(
      {"4 threads computing alone, in total", "1 thread", 0, kRounds, kQueries},
      [&] { Share(4, compute); }, [&] { Share(1, compute); });
}

}  // namespace bench
