// Storing a tracking event against the encrypted append in it, and reading a full spool.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <openssl/evp.h>

#include "Ratio.h"
#include "Resident.h"
#include "track/TrackEvent.h"
#include "track/TrackSpool.h"
#include "track/track_ref.h"
#include "zel_platform/track.h"
#include "zel_platform/zorm.h"

namespace bench {

namespace {

constexpr int kRounds = 15;
constexpr int kEvents = 20000;
constexpr int kSpooled = 100000;
constexpr std::size_t kArgsBytes = 300;
constexpr std::int64_t kNowMs = 1700000000000;
constexpr char kDeadCollector[] = "http://127.0.0.1:9";

double Milliseconds(const Round& round) {
  const auto start = std::chrono::steady_clock::now();
  round();
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
      .count();
}

class Folder {
 public:
  Folder() : m_path((std::filesystem::temp_directory_path() / "zel-bench-trackXXXXXX").string()) {
    if (mkdtemp(m_path.data()) == nullptr) std::abort();
  }
  ~Folder() { std::filesystem::remove_all(m_path); }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;
  const std::string& Path() const { return m_path; }

 private:
  std::string m_path;
};

// What storing comes down to: AES-256-GCM with a kept context, and one write call.
class RawAppend {
 public:
  RawAppend(const std::string& path, std::size_t plainBytes)
      : m_file(open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600)),
        m_context(EVP_CIPHER_CTX_new()),
        m_plain(plainBytes, 'x'),
        m_frame(plainBytes + kTrackFrameOverhead) {
    const unsigned char key[32] = {};
    if (m_file < 0 ||
        EVP_EncryptInit_ex(m_context, EVP_aes_256_gcm(), nullptr, key, nullptr) != 1) {
      std::abort();
    }
  }
  ~RawAppend() {
    EVP_CIPHER_CTX_free(m_context);
    close(m_file);
  }
  RawAppend(const RawAppend&) = delete;
  RawAppend& operator=(const RawAppend&) = delete;

  void Append() {
    unsigned char nonce[12] = {};
    std::memcpy(nonce, &m_count, sizeof(m_count));
    ++m_count;
    int written = 0;
    unsigned char* const body = m_frame.data() + 8;
    if (EVP_EncryptInit_ex(m_context, nullptr, nullptr, nullptr, nonce) != 1 ||
        EVP_EncryptUpdate(m_context, body, &written, m_plain.data(),
                          static_cast<int>(m_plain.size())) != 1 ||
        EVP_EncryptFinal_ex(m_context, body + written, &written) != 1 ||
        EVP_CIPHER_CTX_ctrl(m_context, EVP_CTRL_AEAD_GET_TAG, 16, body + m_plain.size()) != 1 ||
        write(m_file, m_frame.data(), m_frame.size()) != static_cast<ssize_t>(m_frame.size())) {
      std::abort();
    }
  }
  void Empty() const {
    if (ftruncate(m_file, 0) != 0) std::abort();
  }

 private:
  const int m_file;
  EVP_CIPHER_CTX* const m_context;
  std::vector<unsigned char> m_plain;
  std::vector<unsigned char> m_frame;
  std::uint64_t m_count = 0;
};

void StartTracking(const std::string& dir) {
  setenv("OTEL_EXPORTER_OTLP_ENDPOINT", kDeadCollector, 1);  // the events stay where they are
  if (InitUnifiedTrack(2, 0, 0, dir.c_str(), dir.c_str()) != 0 ||
      orb_zorm_service_start_ex("", (dir + "/a").c_str(), (dir + "/b").c_str()) != 0) {
    std::abort();
  }
  (void)orb_zorm_service_stop();
  UTContextRecord context = {};
  std::strcpy(context.version, "1.0.0");
  std::strcpy(context.deviceId, "0123456789abcdef0123456789abcdef");
  std::strcpy(context.osName, "Linux");
  (void)Track_ConfigTanloContextPublicParam(&context);
}

// The bytes of one stored event.
std::size_t StoredBytes(const std::string& dir) {
  std::size_t bytes = 0;
  for (const auto& entry : std::filesystem::directory_iterator(dir + "/track")) {
    if (entry.path().extension() == ".spool") bytes += entry.file_size();
  }
  return bytes;
}

void CompareAdd() {
  const Folder folder;
  StartTracking(folder.Path());
  const std::string args(kArgsBytes, 'a');
  const UTEventRecord event = {"1001", "bench_event", nullptr, nullptr, args.c_str(), 0};
  const auto add = [&] {
    if (Track_AddUserTrack(&event) != 0) std::abort();
  };
  add();
  const std::size_t bytes = StoredBytes(folder.Path());
  RawAppend raw(folder.Path() + "/raw", bytes - kTrackFrameOverhead);
  double best = 0;
  Compare(
      {"Track_AddUserTrack, 300 bytes of args",
       "AES-256-GCM + write, " + std::to_string(bytes) + " bytes", 1.3, kRounds, kEvents},
      [&] {
        const double ms = Milliseconds([&] {
          for (int i = 0; i < kEvents; ++i) add();
        });
        best = std::max(best, kEvents / ms * 1000);
      },
      [&] {
        raw.Empty();
        for (int i = 0; i < kEvents; ++i) raw.Append();
      });
  PrintFigure("events stored a second (goal 50,000)", best);
  (void)Track_Uninit();
  track_ref_reset();
}

void ShowLoad() {
  const Folder folder;
  const TrackKey key;
  TrackLimits limits;
  limits.bytes = std::uint64_t{100} * 1024 * 1024;
  std::string record;
  AppendTrackHead({}, &record);
  record += TrackFields().Text(TrackField::kArgs, std::string(kArgsBytes, 'a').c_str()).Bytes();
  {
    TrackSpool spool(folder.Path() + "/", key, limits);
    if (!spool.Open(kNowMs)) std::abort();
    for (int i = 0; i < kSpooled; ++i) (void)spool.Append(record, kNowMs);
  }
  const long before = ResidentKb();
  long most = before;
  int count = 0;
  const double ms = Milliseconds([&] {
    TrackSpool spool(folder.Path() + "/", key, limits);
    if (!spool.Open(kNowMs)) std::abort();
    TrackReader reader(spool);
    TrackEvent event;
    for (; reader.Next(&record) && ReadTrackEvent(record, &event); ++count) {
      if (count % 10000 == 0) most = std::max(most, ResidentKb());
    }
  });
  if (count != kSpooled) std::abort();
  PrintFigure("100,000 spooled events read (goal 300 ms)", ms, "ms");
  PrintFigure("memory it took", static_cast<double>(most - before), "KB");
}

}  // namespace

void BenchTrack() {
  CompareAdd();
  ShowLoad();
}

}  // namespace bench
