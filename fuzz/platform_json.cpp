// "platform.json" and look-ups in it.
#include "FuzzInput.h"
#include "config/config_ref.h"
#include "config/settings.h"
#include "support/TempDir.h"
#include "zel_platform/config.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const support::TempDir directory;
  FuzzInput input(data, size);
  const std::string path = input.TakeLine();
  support::WriteWholeFile(directory.File("platform.json"), input.Rest());
  orb_config_ref_clear();
  orb_config_set_directory(directory.Path());

  const bool isNumber = orb_config_int(path.c_str(), 1) == orb_config_int(path.c_str(), 2);
  const bool isText = orb_config_text(path.c_str(), "a") == orb_config_text(path.c_str(), "b");
  Require(!isNumber || !isText, "a member has one type");
  (void)OrbGetGlobalInt32CfgWithDefVal(17, 0);
  (void)orb_config_text("detect.addresses.0", "");
  return 0;
}
