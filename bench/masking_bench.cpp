// Masking, and the look-ups as small as it, against loops written by hand for just these bytes.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string>
#include <vector>

#include "CommonUtil.h"
#include "Ratio.h"
#include "publicInc/GlobalErrorCodeTable.h"
#include "util/PublicUtil.h"

namespace bench {

namespace {

using commonutil::CommonUtil;
using commonutil::GlobalErrorCodeRow;
using commonutil::kGlobalErrorCodeRows;
using commonutil::PublicUtil;

constexpr int kRounds = 11;
constexpr int kCalls = 200000;
constexpr int kLookUps = 1000000;
constexpr double kGoal = 2.0;
constexpr char kByHand[] = "a loop by hand";

// General masking of [begin, end).
void StarInside(std::string& text, std::size_t begin, std::size_t end) {
  const std::size_t size = end - begin;
  const std::size_t head = size < 4 ? 0 : size < 14 ? 1 : 2;
  const std::size_t tail = size < 6 ? 0 : size < 14 ? 1 : 3;
  for (std::size_t i = begin + head; i < end - tail; ++i) text[i] = '*';
}

std::string GeneralByHand(const std::string& text) {
  std::string masked = text;
  StarInside(masked, 0, masked.size());
  return masked;
}

// The bytes of the sequence at `i`, 0 for one that is not UTF-8.
std::size_t SequenceAt(const std::string& text, std::size_t i) {
  const auto byte = [&](std::size_t at) { return static_cast<unsigned char>(text[at]); };
  if (byte(i) < 0x80) return 1;
  const std::size_t length = byte(i) < 0xE0 ? 2 : byte(i) < 0xF0 ? 3 : 4;
  if (byte(i) < 0xC2 || byte(i) > 0xF4 || text.size() - i < length) return 0;
  for (std::size_t k = 1; k < length; ++k) {
    if ((byte(i + k) & 0xC0) != 0x80) return 0;
  }
  return length;
}

std::string NameByHand(const std::string& text) {
  std::string masked;
  for (std::size_t i = 0; i < text.size();) {
    const std::size_t length = SequenceAt(text, i);
    if (length == 0) return {};
    if (i == 0) {
      masked.append(text, 0, length);
    } else {
      masked += '*';
    }
    i += length;
  }
  return masked;
}

// Of a list of addresses.
std::string AddressesByHand(const std::string& text) {
  std::string masked = text;
  int dots = 0;
  int octet = 0;
  for (char& character : masked) {
    if (character == ';') {
      dots = octet = 0;
    } else if (character == '.') {
      ++dots;
      octet = 0;
    } else {
      octet = octet * 10 + (character - '0');
      if (octet < 0 || octet > 255) return {};
      if (dots == 3) character = '*';
    }
  }
  return masked;
}

std::string UrlByHand(const std::string& text) {
  std::string masked = text;
  std::size_t begin = 0;
  for (int piece = 0; begin < masked.size(); ++piece) {
    std::size_t end = begin;
    while (end < masked.size() && masked[end] != '/') ++end;
    if (piece >= 3) StarInside(masked, begin, end);
    begin = end + 1;
  }
  return masked;
}

std::string EncodedByHand(const std::string& text) {
  std::string encoded;
  for (const char character : text) {
    const auto byte = static_cast<unsigned char>(character);
    if ((byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') ||
        (byte >= '0' && byte <= '9') || std::strchr("-_.!~*'()/", byte) != nullptr) {
      encoded += character;
    } else {
      encoded += '%';
      encoded += "0123456789ABCDEF"[byte >> 4];
      encoded += "0123456789ABCDEF"[byte & 15];
    }
  }
  return encoded;
}

bool IsIPv4ByHand(const std::string& text) {
  const char* at = text.c_str();
  for (int i = 0; i < 4; ++i) {
    int octet = 0;
    const char* const begin = at;
    for (; *at >= '0' && *at <= '9'; ++at) octet = octet * 10 + (*at - '0');
    if (at == begin || at - begin > 3 || octet > 255 || *at != (i < 3 ? '.' : '\0')) return false;
    ++at;
  }
  return true;
}

template <class Ours, class Peer>
void BenchText(const char* what, const std::string& text, Ours ours, Peer peer) {
  if (ours(text) != peer(text)) std::abort();
  const auto repeat = [&text](auto function) {
    const auto expected = function(text);
    for (int i = 0; i < kCalls; ++i) {
      if (function(text) != expected) std::abort();
    }
  };
  Compare(
      {what, kByHand, kGoal, kRounds, kCalls / 1000.0}, [&] { repeat(ours); },
      [&] { repeat(peer); });
}

void BenchMask(const char* what, commonutil::FILTER_WORD_TYPE type, const std::string& text,
               std::string (*peer)(const std::string&)) {
  BenchText(
      what, text, [type](const std::string& word) { return PublicUtil::filterWord(word, type); },
      peer);
}

std::int32_t BinarySearch(std::int32_t code) {
  const GlobalErrorCodeRow* first = kGlobalErrorCodeRows;
  std::size_t count = std::size(kGlobalErrorCodeRows);
  while (count > 1) {
    const std::size_t half = count / 2;
    if (first[half].code <= code) first += half;
    count -= half;
  }
  return first->code == code ? first->globalCode : 0;
}

template <class LookUp>
void LookUpAll(const std::vector<std::int32_t>& codes, LookUp lookUp) {
  for (int i = 0; i < kLookUps; ++i) {
    const std::int32_t code = codes[static_cast<std::size_t>(i) % codes.size()];
    if (lookUp(code) != code) std::abort();
  }
}

void BenchErrorCodes() {
  std::vector<std::int32_t> codes;  // in no order that a processor could learn
  constexpr std::size_t kScatter = 7919;
  for (std::size_t i = 0; i < 4096; ++i) {
    codes.push_back(kGlobalErrorCodeRows[i * kScatter % std::size(kGlobalErrorCodeRows)].code);
  }
  Compare(
      {"look up 1000 error codes", "binary search by hand", kGoal, kRounds, kLookUps / 1000.0},
      [&] {
        LookUpAll(codes,
                  [](std::int32_t code) { return CommonUtil::getInst().GetGlobalErrorCode(code); });
      },
      [&] { LookUpAll(codes, BinarySearch); });
}

}  // namespace

void BenchMasking() {
  BenchMask("mask 1000 texts of 40 bytes", commonutil::FILTER_WORD_GENERAL, std::string(40, 't'),
            GeneralByHand);
  BenchMask("mask 1000 names of 20 bytes", commonutil::FILTER_WORD_USERNAME, std::string(20, 'n'),
            NameByHand);
  BenchMask("mask 1000 lists of 4 addresses", commonutil::FILTER_WORD_IP,
            "10.1.2.3;10.1.2.4;10.1.2.5;10.1.2.6", AddressesByHand);
  BenchMask("mask 1000 URLs of 60 bytes", commonutil::FILTER_WORD_REQ_URL,
            "https://service.example.org:8443/rest/v2/users/4711/settings", UrlByHand);
  BenchText("1000 times isIPv4", "192.168.100.200", &PublicUtil::isIPv4, IsIPv4ByHand);
  BenchText("encode 1000 URLs of 60 bytes",
            "https://service.example.org:8443/rest/v2?user=4711&name=a+b", &PublicUtil::urlEncode,
            EncodedByHand);
  BenchErrorCodes();
}

}  // namespace bench
