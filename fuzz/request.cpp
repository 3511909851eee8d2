// One request to a library that is initialised and running on the double of the platform.
#include <memory>

#include <json/reader.h>

#include "FuzzInput.h"
#include "publicInc/CommonUtilEntry.h"
#include "support/PlatformDouble.h"
#include "support/TempDir.h"

namespace {

bool IsJson(const std::string& text) {
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  Json::Value message;
  return reader->parse(text.data(), text.data() + text.size(), &message, nullptr) &&
         message.isObject();
}

int TakeMessages() {
  int count = 0;
  for (char* message = nullptr; CommonUtilSendMsgExport(&message) == 1; ++count) {
    Require(IsJson(message), "every message for the host is a JSON object");
    CommonUtilFreeExportMsg(message);
  }
  return count;
}

void Process(std::string request) {
  Require(CommonUtilProcessRecvMsg(request.data()) == 0, "a request is handled whatever it holds");
}

bool Initialise() {
  static const support::TempDir& directory = *new support::TempDir;
  Process(
      "{\"cmd\":1,\"param\":{\"initParam\":{\"logLevel\":3,\"logSize\":1024,\"fileCount\":2,"
      "\"log_path\":\"" +
      directory.File("log/") + "\",\"dbPath\":\"" + directory.File("") + "\"}}}");
  return TakeMessages() > 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool isInitialised = Initialise();
  Require(isInitialised, "the initialisation is answered");
  Process(FuzzInput(data, size).Rest());
  (void)TakeMessages();
  Process("{\"cmd\":11,\"sno\":1}");
  Require(TakeMessages() > 0, "a good request is answered afterwards");
  support::ResetPlatformDouble();  // else its records grow
  return 0;
}
