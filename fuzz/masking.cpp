// Every masking rule: of the product's values, of log lines and of URLs.
#include <algorithm>

#include "FuzzInput.h"
#include "http/HttpClient.h"
#include "logger/SensitiveWords.h"
#include "util/PublicUtil.h"

namespace {

using commonutil::PublicUtil;

// What a rule may add to what it was given.
bool IsMadeOf(const std::string& masked, const std::string& text) {
  return std::all_of(masked.begin(), masked.end(), [&](char byte) {
    return byte == '*' || byte == '@' || byte == ':' || text.find(byte) != std::string::npos;
  });
}

void MaskValue(int rule, const std::string& text) {
  const auto type = static_cast<commonutil::FILTER_WORD_TYPE>(rule);
  const std::string masked = PublicUtil::filterWord(text, type);
  Require(IsMadeOf(masked, text), "a masked value shows nothing that was not there");
  if (text.size() <= 3) Require(masked == std::string(text.size(), '*'), "short is all stars");
  for (const auto mask :
       {&PublicUtil::filterWordUuid, &PublicUtil::filterWordUsername, &PublicUtil::filterWordIp,
        &PublicUtil::filterWordReqUrl, &PublicUtil::filterWordGeneral}) {
    (void)mask(text);  // shorter texts than filterWord lets through
  }
  Require(PublicUtil::filterWordGeneral(text).size() == text.size(), "the general rule keeps size");
}

// The password of a whole URL, in each place that shows URLs.
void MaskPassword(const std::string& password) {
  if (password.size() < 4 || password.find_first_of("*:/@?#") != std::string::npos) return;
  const std::string url = "s://u:" + password + "@h";
  for (const std::string& masked : {PublicUtil::filterWordProxyUrl(url),
                                    PublicUtil::filterWordProxyUrlMode2(url), HttpMaskedUrl(url)}) {
    Require(masked.find(password) == std::string::npos, "no URL shows its password");
  }
}

void MaskLine(const std::string& word, const std::string& text) {
  SensitiveWords words;
  words.Add(word);
  words.Add(text.substr(0, 8));
  std::string escaped;
  words.AppendMasked(text, SensitiveWords::Controls::kEscape, &escaped);
  for (const char byte : escaped) {
    Require(byte == '\t' || static_cast<unsigned char>(byte) >= 0x20, "controls are escaped");
  }
  std::string masked;
  words.AppendMasked(text, SensitiveWords::Controls::kKeep, &masked);
  const bool isFit = !word.empty() && word.find('*') == std::string::npos;
  Require(!isFit || masked.find(word) == std::string::npos, "no line shows a sensitive word");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzInput input(data, size);
  const int rule = static_cast<int>(input.TakeByte() % 11);
  MaskValue(rule, input.Rest());
  const std::string word = input.TakeLine();
  MaskPassword(word);
  MaskLine(word, input.Rest());
  (void)HttpMaskedUrl(input.Rest());
  return 0;
}
