// Tracks events as a host does: track_host DIRECTORY COUNT. The collector's address comes from the
// environment.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "zel_platform/track.h"
#include "zel_platform/zorm.h"

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  const std::string dir = argv[1];
  if (InitUnifiedTrack(2, 1024, 2, dir.c_str(), dir.c_str()) != 0) return 3;
  if (orb_zorm_service_start_ex("", (dir + "/a").c_str(), (dir + "/b").c_str()) != 0) return 4;
  if (orb_zorm_service_stop() != 0) return 5;
  UTContextRecord context = {};
  std::strcpy(context.version, "1.2.3");
  std::memset(context.cpu, 'c', sizeof(context.cpu));  // without an end
  if (Track_ConfigTanloContextPublicParam(&context) != 0) return 6;
  const UTPublicSdkRecord sdk = {{"the uuid", "the account"}};
  if (Track_ConfigPublicSdkParam(&sdk) != 0) return 6;
  for (int i = 0; i < std::atoi(argv[2]); ++i) {
    const std::string args = "{\"n\":" + std::to_string(i) + "} \xff\xc3 \"\\\x01\n\xe2\x82\xac";
    const UTEventRecord event = {"17", "name", nullptr, "", args.c_str(), i};
    if (Track_AddUserTrack(&event) != 0) return 7;
  }
  if (Track_UploadUserTrack() != 0) return 8;
  return Track_Uninit();
}
