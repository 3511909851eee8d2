#include "logger/SensitiveWords.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <utility>
#include <vector>

namespace {

constexpr std::string_view kMask = "***";
constexpr std::string_view kAuthorityMark = "://";
// What ends the authority of an address; none of these may stand unescaped in a user part.
constexpr std::string_view kAuthorityEnd = "/?#\"<> \t\r\n";
constexpr std::size_t kNone = std::string_view::npos;

enum ByteKind : std::uint8_t {
  kControl = 1,    // to be escaped
  kWordStart = 2,  // some word begins with this byte
  kMarkStart = 4,  // the authority mark begins with it
};

bool IsControl(unsigned byte) { return (byte < 0x20 && byte != '\t') || byte == 0x7F; }

void AppendEscaped(unsigned char byte, std::string* out) {
  constexpr char kDigits[] = "0123456789ABCDEF";
  const char escaped[] = {'\\', 'x', kDigits[byte >> 4], kDigits[byte & 15]};
  out->append(escaped, sizeof(escaped));
}

// The end of the user part that begins at `begin`, or kNone. The last "@" counts, since
// careless hosts put one into the password.
std::size_t UserPartEnd(std::string_view text, std::size_t begin) {
  const std::size_t authorityEnd = text.find_first_of(kAuthorityEnd, begin);
  const std::string_view authority = text.substr(begin, authorityEnd - begin);
  const std::size_t at = authority.rfind('@');
  return at == kNone || at == 0 ? kNone : begin + at;
}

}  // namespace

struct SensitiveWords::Table {
  std::vector<std::string> words;          // by first byte, the longest first
  std::array<std::uint32_t, 257> begin{};  // words[begin[b]] up to words[begin[b + 1]] start with b
  std::array<std::uint8_t, 256> byteKind{};

  explicit Table(std::vector<std::string> unsorted);
  // Length of the longest word at `position`, 0 when there is none.
  std::size_t LongestWordAt(std::string_view text, std::size_t position) const;
};

SensitiveWords::Table::Table(std::vector<std::string> unsorted) : words(std::move(unsorted)) {
  const auto firstByte = [](const std::string& word) {
    return static_cast<unsigned char>(word.front());
  };
  std::sort(words.begin(), words.end(), [&](const std::string& a, const std::string& b) {
    if (firstByte(a) != firstByte(b)) return firstByte(a) < firstByte(b);
    return a.size() > b.size();
  });
  for (unsigned byte = 0; byte < byteKind.size(); ++byte) {
    if (IsControl(byte)) byteKind[byte] = kControl;
  }
  byteKind[static_cast<unsigned char>(kAuthorityMark.front())] |= kMarkStart;
  for (const std::string& word : words) {
    byteKind[firstByte(word)] |= kWordStart;
    ++begin[firstByte(word) + 1U];
  }
  for (std::size_t i = 1; i < begin.size(); ++i) begin[i] += begin[i - 1];
}

inline std::size_t SensitiveWords::Table::LongestWordAt(std::string_view text,
                                                        std::size_t position) const {
  const auto byte = static_cast<unsigned char>(text[position]);
  const char* rest = text.data() + position;
  const std::size_t restSize = text.size() - position;
  for (std::uint32_t i = begin[byte]; i < begin[byte + 1U]; ++i) {
    const std::string& word = words[i];
    if (word.size() > restSize) continue;
    // The last byte decides nearly always, without a call.
    if (word.back() != rest[word.size() - 1]) continue;
    if (std::memcmp(word.data(), rest, word.size()) == 0) return word.size();
  }
  return 0;
}

SensitiveWords& SensitiveWords::Instance() {
  static SensitiveWords& instance = *new SensitiveWords;
  return instance;
}

SensitiveWords::SensitiveWords()
    : m_table(std::make_shared<const Table>(std::vector<std::string>())) {}

void SensitiveWords::Add(const std::string& word) {
  if (word.empty()) return;
  const std::lock_guard<std::mutex> held(m_lock);
  std::vector<std::string> words = m_table->words;
  if (std::find(words.begin(), words.end(), word) != words.end()) return;
  words.push_back(word);
  m_table = std::make_shared<const Table>(std::move(words));
}

void SensitiveWords::Forget() {
  auto empty = std::make_shared<const Table>(std::vector<std::string>());
  const std::lock_guard<std::mutex> held(m_lock);
  m_table = std::move(empty);
}

std::shared_ptr<const SensitiveWords::Table> SensitiveWords::CurrentTable() const {
  const std::lock_guard<std::mutex> held(m_lock);
  return m_table;
}

void SensitiveWords::AppendMasked(std::string_view text, Controls controls,
                                  std::string* out) const {
  const std::shared_ptr<const Table> table = CurrentTable();
  const std::uint8_t wanted =
      kWordStart | kMarkStart | (controls == Controls::kEscape ? kControl : 0);
  std::size_t pending = 0;        // where the bytes neither written nor hidden begin
  std::size_t hiddenEnd = 0;      // the bytes before it that were hidden belong to the last mask
  std::size_t userBegin = kNone;  // a user part that lies ahead
  std::size_t userEnd = kNone;

  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    const unsigned kind = table->byteKind[byte] & wanted;
    if (kind == 0 && i != userBegin) continue;

    if ((kind & kMarkStart) != 0 && text.compare(i, kAuthorityMark.size(), kAuthorityMark) == 0 &&
        (userEnd == kNone || i >= userEnd)) {
      userEnd = UserPartEnd(text, i + kAuthorityMark.size());
      userBegin = userEnd == kNone ? kNone : i + kAuthorityMark.size();
    }
    std::size_t end = i == userBegin ? userEnd : i;
    if ((kind & kWordStart) != 0) end = std::max(end, i + table->LongestWordAt(text, i));

    if (end > i && i < hiddenEnd) {  // overlaps what the last mask stands for
      hiddenEnd = std::max(hiddenEnd, end);
      pending = hiddenEnd;
    } else if (end > i) {
      out->append(text, pending, i - pending);
      out->append(kMask);
      pending = hiddenEnd = end;
    } else if ((kind & kControl) != 0 && i >= hiddenEnd) {
      out->append(text, pending, i - pending);
      AppendEscaped(byte, out);
      pending = i + 1;
    }
  }
  if (pending < text.size()) out->append(text, pending, kNone);
}
