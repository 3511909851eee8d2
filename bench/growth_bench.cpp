// The same work at 1, 10 and 100 times its size: what a piece costs must not grow with it.
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "Ratio.h"
#include "publicInc/CommonUtilEntry.h"
#include "publicInc/CommonUtilPrivateManager.h"
#include "track/TrackSpool.h"
#include "util/LogBusiness.h"
#include "util/MsgMgr.h"

namespace bench {

namespace {

namespace fs = std::filesystem;
using commonutil::CommonUtilPrivateManager;
using commonutil::LogBusiness;
using commonutil::ZelConfigCache;

constexpr std::size_t kEventBytes = 400;

double Time(const std::function<void()>& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - start).count();
}

class Folder {
 public:
  Folder() : m_path((fs::temp_directory_path() / "zel-bench-growXXXXXX").string()) {
    if (mkdtemp(m_path.data()) == nullptr) std::abort();
  }
  ~Folder() { fs::remove_all(m_path); }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;

  std::string Path() const { return m_path; }

 private:
  std::string m_path;
};

double Messages(int count) {
  std::string request = R"({"cmd":11,"sno":1,"description":"","param":{}})";
  return Time([&] {
    for (int i = 0; i < count; ++i) {
      char* reply = nullptr;
      if (CommonUtilProcessRecvMsg(request.data()) != 0 || CommonUtilSendMsgExport(&reply) != 1) {
        std::abort();
      }
      CommonUtilFreeExportMsg(reply);
    }
  });
}

// Until the last row is in the database.
double Rows(int count) {
  std::vector<ZelConfigCache> rows;
  for (int i = 0; i < count; ++i) {
    rows.push_back({0, "growth/" + std::to_string(i), "a value of usual length"});
  }
  return Time([&] {
    auto& manager = CommonUtilPrivateManager::getInst();
    if (manager.BatchAddConfigCache(rows.data(), count) != 0) std::abort();
    const std::function<int()> nothing = [] { return 0; };
    (void)commonutil::MsgMainThreadMgrHandler::GetInst().PushCmd(nothing, "bench");
  });
}

double Events(int count) {
  const Folder folder;
  const TrackKey key;
  TrackLimits limits;
  limits.bytes = std::uint64_t{1} << 30;
  TrackSpool spool(folder.Path() + "/", key, limits);
  if (!spool.Open(1)) std::abort();
  const std::string record(kEventBytes, 'e');
  return Time([&] {
    for (int i = 0; i < count; ++i) (void)spool.Append(record, 1);
  });
}

double Files(int count) {
  const Folder folder;
  const auto old = fs::file_time_type::clock::now() - std::chrono::hours(24 * 5);
  for (int i = 0; i < count; ++i) {
    const std::string directory = folder.Path() + "/" + std::to_string(i / 200);
    if (i % 200 == 0) fs::create_directory(directory);
    const std::string path = directory + "/module." + std::to_string(i) + ".txt";
    std::ofstream(path).put('x');
    fs::last_write_time(path, old);
  }
  LogBusiness::InitConfig(folder.Path(), 3);
  return Time([] {
    LogBusiness::DoAsyncDelete(LogBusiness::kAfterLogin);
    while (LogBusiness::IsCleaning()) std::this_thread::sleep_for(std::chrono::microseconds(100));
  });
}

}  // namespace

void BenchGrowth() {
  (void)LibraryDirectory();
  Grow("requests", 1000, Messages);
  Grow("rows added in one batch", 100, Rows);
  Grow("events stored", 1000, Events);
  Grow("old files cleaned up", 200, Files);
}

}  // namespace bench
