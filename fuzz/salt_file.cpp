// The salt file beside the database, with key management running.
#include "FuzzInput.h"
#include "cacheDB/CommonUtilDBInterface.h"
#include "cacheDB/ECSData.h"
#include "support/TempDir.h"

namespace {

using commonutil::ECSUtil;

// A secret that this process's key management can open.
std::string StartAndEncrypt(const support::TempDir& directory) {
  ECSUtil& ecs = ECSUtil::GetInst();
  ecs.SetDBPath(directory.File(""));
  ecs.SetLogPath("/dev/null");
  Require(ecs.StartZORM() == 0, "key management starts");
  return ecs.EncryptZorm("00112233445566778899AABBCCDDEEFF");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const support::TempDir directory;
  static const std::string genuine = StartAndEncrypt(directory);
  FuzzInput input(data, size);
  std::string content = (input.TakeByte() & 1U) != 0 ? genuine : "";
  const unsigned change = input.TakeByte();
  if (!content.empty()) content[change % content.size()] ^= static_cast<char>(change & 1U);
  content += input.Rest();
  const ECSUtil& ecs = ECSUtil::GetInst();
  support::WriteWholeFile(ecs.GetConfigPath(), content);
  (void)ecs.DecryptZorm(content);

  auto& database = commonutil::SqliteInterfaceManager::GetInst();
  Require(database.CheckDBSaltKey() == 0, "there is a secret, whatever the file held");
  const std::string line = ecs.GetDBKeySalt();
  Require(!ecs.DecryptZorm(line.substr(0, line.find('|'))).empty(), "the secret can be opened");
  Require(database.CheckDBSaltKey() == 0 && ecs.GetDBKeySalt() == line, "and stays");
  return 0;
}
