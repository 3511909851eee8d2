#include "BundleArchive.h"

#include <archive.h>
#include <archive_entry.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <new>
#include <system_error>

namespace zelctl {
namespace {

constexpr std::size_t kCopyBytes = 65536;
constexpr mode_t kPrivateMode = 0600;
constexpr char kManifest[] = "manifest.json";

[[noreturn]] void Throw(int error, const std::string& what) {
  throw std::system_error(error, std::generic_category(), what);
}

int OpenNameless() {
  std::string path = (std::filesystem::temp_directory_path() / "zelctl.XXXXXX").string();
  const int descriptor = ::mkostemp(path.data(), O_CLOEXEC);  // mode 0600
  if (descriptor < 0) Throw(errno, "no temporary file");
  ::unlink(path.c_str());
  return descriptor;
}

// A new file beside `path`, which goes with this object unless it was given the name.
class NewFile {
 public:
  explicit NewFile(const std::string& path) : m_path(path), m_temporary(path + ".XXXXXX") {
    m_descriptor = ::mkostemp(m_temporary.data(), O_CLOEXEC);
    if (m_descriptor < 0) Throw(errno, "cannot write beside the archive");
  }
  ~NewFile() {
    if (m_descriptor >= 0) ::close(m_descriptor);
    if (!m_isNamed) ::unlink(m_temporary.c_str());
  }
  NewFile(const NewFile&) = delete;
  NewFile& operator=(const NewFile&) = delete;

  int Descriptor() const { return m_descriptor; }

  void Name(bool force) {
    if (::fsync(m_descriptor) != 0) Throw(errno, "cannot write the archive");
    const unsigned int flags = force ? 0 : RENAME_NOREPLACE;
    int result = ::renameat2(AT_FDCWD, m_temporary.c_str(), AT_FDCWD, m_path.c_str(), flags);
    struct stat found;
    if (result != 0 && errno == EINVAL && ::lstat(m_path.c_str(), &found) != 0) {
      result = ::rename(m_temporary.c_str(), m_path.c_str());  // a file system without the flag
    }
    if (result != 0) Throw(errno, "cannot name the archive");
    m_isNamed = true;
  }

 private:
  const std::string m_path;
  std::string m_temporary;
  int m_descriptor = -1;
  bool m_isNamed = false;
};

// The calls of libarchive, whose failures are thrown.
class Writer {
 public:
  explicit Writer(int descriptor) : m_descriptor(descriptor), m_archive(::archive_write_new()) {
    if (!m_archive) throw std::bad_alloc();
    Check(::archive_write_set_format_pax_restricted(m_archive.get()));
    Check(::archive_write_add_filter_gzip(m_archive.get()));
    Check(::archive_write_set_bytes_in_last_block(m_archive.get(), 1));  // no padding
    Check(::archive_write_open(m_archive.get(), this, nullptr, &Writer::Take, nullptr));
  }

  void Begin(const std::string& name, std::uint64_t size, long long writtenAt) {
    const std::unique_ptr<archive_entry, FreeEntry> entry(::archive_entry_new());
    if (!entry) throw std::bad_alloc();
    ::archive_entry_set_pathname(entry.get(), name.c_str());
    ::archive_entry_set_size(entry.get(), static_cast<la_int64_t>(size));
    ::archive_entry_set_filetype(entry.get(), AE_IFREG);
    ::archive_entry_set_perm(entry.get(), kPrivateMode);
    ::archive_entry_set_mtime(entry.get(), writtenAt, 0);
    Check(::archive_write_header(m_archive.get(), entry.get()));
  }
  void Append(const char* data, std::size_t size) {
    const la_ssize_t written = ::archive_write_data(m_archive.get(), data, size);
    const bool isWhole = written >= 0 && static_cast<std::size_t>(written) == size;
    Check(isWhole ? ARCHIVE_OK : ARCHIVE_FATAL);
  }
  void Close() { Check(::archive_write_close(m_archive.get())); }

 private:
  struct FreeArchive {
    void operator()(archive* writer) const {
      (void)::archive_write_free(writer);  // what it still writes goes with the file
    }
  };
  struct FreeEntry {
    void operator()(archive_entry* entry) const { ::archive_entry_free(entry); }
  };

  // libarchive keeps memory of its own after a failed write, so it is told of none: from the first
  // one on nothing is written, and the next check throws.
  static la_ssize_t Take(archive*, void* self, const void* data, size_t size) {
    auto* const writer = static_cast<Writer*>(self);
    const char* const bytes = static_cast<const char*>(data);
    for (std::size_t done = 0; done < size && writer->m_error == 0;) {
      const ssize_t written = ::write(writer->m_descriptor, bytes + done, size - done);
      if (written < 0 && errno != EINTR) writer->m_error = errno;
      if (written > 0) done += static_cast<std::size_t>(written);
    }
    return static_cast<la_ssize_t>(size);
  }

  void Check(int result) {
    if (m_error != 0) Throw(m_error, "cannot write the archive");
    if (result != ARCHIVE_OK) Throw(EIO, "cannot make the archive");
  }

  const int m_descriptor;
  int m_error = 0;
  const std::unique_ptr<archive, FreeArchive> m_archive;
};

std::string Hex(const unsigned char* bytes, std::size_t count) {
  std::string hex;
  for (std::size_t i = 0; i < count; ++i) {
    char two[3] = "";
    (void)std::snprintf(two, sizeof(two), "%02x", bytes[i]);
    hex += two;
  }
  return hex;
}

}  // namespace

BundleParts::BundleParts() : m_descriptor(OpenNameless()), m_digest(EVP_MD_CTX_new()) {}

BundleParts::~BundleParts() { ::close(m_descriptor); }

void BundleParts::Begin(const std::string& name, long long writtenAt) {
  BundlePart part;
  part.name = name;
  part.writtenAt = writtenAt;
  m_parts.push_back(part);
  if (EVP_DigestInit_ex(m_digest.get(), EVP_sha256(), nullptr) != 1) throw std::bad_alloc();
}

void BundleParts::Append(const std::string& text) {
  for (std::size_t done = 0; done < text.size();) {
    const ssize_t written = ::write(m_descriptor, text.data() + done, text.size() - done);
    if (written < 0 && errno != EINTR) Throw(errno, "cannot write to the temporary directory");
    if (written > 0) done += static_cast<std::size_t>(written);
  }
  (void)EVP_DigestUpdate(m_digest.get(), text.data(), text.size());  // fails only uninitialised
  m_bytes += text.size();
  m_parts.back().size += text.size();
  m_parts.back().lines += static_cast<std::uint64_t>(std::count(text.begin(), text.end(), '\n'));
}

BundlePart& BundleParts::End() {
  unsigned char sum[EVP_MAX_MD_SIZE] = {};
  unsigned int length = 0;
  (void)EVP_DigestFinal_ex(m_digest.get(), sum, &length);  // fails only uninitialised
  m_parts.back().sha256 = Hex(sum, length);
  return m_parts.back();
}

std::uint64_t BundleParts::Write(const std::string& path, bool force, const std::string& manifest,
                                 const std::function<void()>& step) const {
  NewFile file(path);
  Writer writer(file.Descriptor());
  writer.Begin(kManifest, manifest.size(), std::time(nullptr));
  writer.Append(manifest.data(), manifest.size());
  std::vector<char> buffer(kCopyBytes);
  off_t offset = 0;
  for (const BundlePart& part : m_parts) {
    writer.Begin(part.name, part.size, part.writtenAt);
    for (std::uint64_t left = part.size; left > 0;) {
      step();
      const std::size_t wanted = std::min<std::uint64_t>(left, buffer.size());
      const ssize_t count = ::pread(m_descriptor, buffer.data(), wanted, offset);
      if (count < 0 && errno == EINTR) continue;
      if (count <= 0) Throw(count < 0 ? errno : EIO, "cannot read from the temporary directory");
      writer.Append(buffer.data(), static_cast<std::size_t>(count));
      offset += count;
      left -= static_cast<std::uint64_t>(count);
    }
  }
  writer.Close();
  struct stat written = {};
  (void)::fstat(file.Descriptor(), &written);  // an open file's facts can always be had
  step();
  file.Name(force);
  return static_cast<std::uint64_t>(written.st_size);
}

}  // namespace zelctl
