// Loads the libraries named, as a host does that has nothing of theirs yet, and prints the
// nanoseconds it took and the kilobytes by which this process grew.
//   zel_loader [--init DIR | --derive -] LIBRARY...
// With --init the last library is libzel_utils, and is initialised in DIR; with --derive libcrypto
// alone derives a key, as every start asks of it.
#include <dlfcn.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>

#include "Resident.h"

namespace {

// False unless the library answers that it is initialised.
bool Initialise(void* library, const std::string& dir) {
  const auto process = reinterpret_cast<int (*)(char*)>(dlsym(library, "CommonUtilProcessRecvMsg"));
  const auto take = reinterpret_cast<int (*)(char**)>(dlsym(library, "CommonUtilSendMsgExport"));
  if (process == nullptr || take == nullptr) return false;
  std::string request = R"({"cmd":1,"sno":1,"description":"","param":{"initParam":{"log_path":")" +
                        dir + R"(/","logLevel":2,"logSize":5120,"fileCount":2,"dbPath":")" + dir +
                        R"(/"}}})";
  char* reply = nullptr;
  return process(request.data()) == 0 && take(&reply) == 1 &&
         std::strstr(reply, "\"result\" : 0") != nullptr;
}

// False unless the libraries loaded derive a key, and make random bytes.
bool Derive() {
  const auto random =
      reinterpret_cast<int (*)(unsigned char*, int)>(dlsym(RTLD_DEFAULT, "RAND_bytes"));
  const auto sha = reinterpret_cast<const void* (*)()>(dlsym(RTLD_DEFAULT, "EVP_sha256"));
  const auto derive =
      reinterpret_cast<int (*)(const char*, int, const unsigned char*, int, int, const void*, int,
                               unsigned char*)>(dlsym(RTLD_DEFAULT, "PKCS5_PBKDF2_HMAC"));
  unsigned char key[32] = {};
  return random != nullptr && sha != nullptr && derive != nullptr &&
         random(key, sizeof(key)) == 1 &&
         derive("text", 4, key, sizeof(key), 10000, sha(), sizeof(key), key) == 1;
}

}  // namespace

int main(int argc, char** argv) {
  const bool initialises = argc > 3 && std::strcmp(argv[1], "--init") == 0;
  const bool derives = argc > 3 && std::strcmp(argv[1], "--derive") == 0;
  const long before = bench::ResidentKb();
  const auto start = std::chrono::steady_clock::now();
  void* library = nullptr;
  for (int i = initialises || derives ? 3 : 1; i < argc; ++i) {
    library = dlopen(argv[i], RTLD_NOW | RTLD_GLOBAL);
    if (library == nullptr) {
      std::fprintf(stderr, "zel_loader: %s\n", dlerror());
      return 1;
    }
  }
  const auto end = std::chrono::steady_clock::now();
  if ((initialises && !Initialise(library, argv[2])) || (derives && !Derive())) {
    std::fprintf(stderr, "zel_loader: not initialised\n");
    return 1;
  }
  std::printf("%.0f %ld\n", std::chrono::duration<double, std::nano>(end - start).count(),
              bench::ResidentKb() - before);
  std::fflush(stdout);
  _exit(0);  // what a library does at its end is not measured
}
