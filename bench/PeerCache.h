// What the memory of the config cache is measured against.
#pragma once

#include <array>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

namespace bench {

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
  static constexpr std::size_t kShards = 16;
  struct alignas(64) Shard {
    std::mutex lock;
    std::unordered_map<std::string, std::shared_ptr<const std::string>> values;
  };

  Shard& ShardOf(const std::string& key) {
    return m_shards[std::hash<std::string>()(key) % kShards];
  }

  std::array<Shard, kShards> m_shards;
};

}  // namespace bench
