// A host in C++: initialises the library in a directory, keeps a value in its encrypted cache, and
// lets a message that was posted be dispatched on the queue's thread.
//   facade_host DIRECTORY
#include <cstdio>
#include <cstring>
#include <future>
#include <string>

#include <zel_utils/CommonUtil.h>
#include <zel_utils/publicInc/CommonUtilPrivateManager.h>
#include <zel_utils/util/Message.h>
#include <zel_utils/util/PublicUtil.h>

namespace {

using commonutil::BuffMessageObject;
using commonutil::CommonMessageQueue;
using commonutil::CommonUtil;
using commonutil::CommonUtilPrivateManager;
using commonutil::MessageObject;
using commonutil::PublicUtil;

// False for a path that does not fit.
template <std::size_t Size>
bool Fill(char (&field)[Size], const std::string& text) {
  if (text.size() >= Size) return false;
  std::memcpy(field, text.c_str(), text.size() + 1);
  return true;
}

// 0 when the library is ready and keeps its files in `directory`.
int Initialise(const std::string& directory) {
  commonutil::tagZelUtilInitParam param{};
  param.logLevel = LOGGER_LEVEL_INFO;
  param.logSize = 5120;  // KB
  param.fileCount = 2;
  if (!Fill(param.logPath, directory) || !Fill(param.dbPath, directory)) return -1;
  return CommonUtil::getInst().InitCommonUtil(param, nullptr);
}

// Runs on the queue's thread; the message is the queue's own copy.
int OnMessage(int type, int id, MessageObject* message, void* user) {
  const auto* buffer = static_cast<const BuffMessageObject*>(message);
  const std::string text(static_cast<const char*>(buffer->Buffer()),
                         static_cast<std::size_t>(buffer->Length()));
  std::printf("message %d of type %d: %s\n", id, type, PublicUtil::urlEncode(text).c_str());
  static_cast<std::promise<void>*>(user)->set_value();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: facade_host DIRECTORY\n");
    return 2;
  }
  const int result = Initialise(argv[1]);
  if (result != 0) {
    std::fprintf(stderr, "the library cannot be initialised: %d\n", result);
    return 1;
  }
  std::printf("ready in %s\n", CommonUtil::getInst().GetDBPath().c_str());

  CommonUtilPrivateManager& cache = CommonUtilPrivateManager::getInst();
  std::string value;
  if (!cache.addConfigInfo("greeting", "hello") || !cache.queryConfigInfoByKey("greeting", value)) {
    return 1;
  }
  std::printf("greeting: %s\n", value.c_str());

  std::promise<void> dispatched;
  const std::string text = "from the host";
  const BuffMessageObject message(1, 0, text.data(), static_cast<int>(text.size()));
  if (CommonMessageQueue::getInst().postMsg(7, 42, &message, OnMessage, &dispatched) != 0) return 1;
  dispatched.get_future().wait();
  return CommonUtil::getInst().UninitCommonUtil();
}
