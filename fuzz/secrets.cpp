// Base64 texts, and secrets decrypted from them.
#include <vector>

#include "FuzzInput.h"
#include "util/EncryptUtils.h"
#include "zel_platform/crypto.h"

namespace {

void DecodeText(const std::string& text) {
  unsigned char* bytes = nullptr;
  const int length = KLB_BASE64Decode(text.data(), static_cast<unsigned>(text.size()), &bytes);
  Require((length >= 0) == (bytes != nullptr), "decoding gives bytes or a failure");
  if (bytes == nullptr) return;
  char* again = nullptr;
  Require(KLB_BASE64Encode(bytes, static_cast<unsigned>(length), &again) == 0 && text == again,
          "one text only stands for given bytes");
  KLB_BASE64Free(again);
  KLB_BASE64Free(bytes);
}

void Decrypt(const commonutil::EncryptUtils& secrets, const std::string& text, int capacity) {
  (void)secrets.Base64DecodeThenDecrypt(text);
  std::vector<char> out(static_cast<std::size_t>(capacity));  // a byte beyond it is noticed
  (void)secrets.Base64DecodeThenDecrypt(text, out.data(), capacity);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const commonutil::EncryptUtils secrets;
  FuzzInput input(data, size);
  const auto capacity = static_cast<int>(input.TakeByte());
  const unsigned place = input.TakeByte();
  const unsigned change = input.TakeByte();
  const std::string text = input.Rest();
  DecodeText(text);
  Decrypt(secrets, text, capacity);

  const std::string plain = text.substr(0, text.find('\0'));
  std::string cipher = secrets.EncryptThenBase64Encode(plain);
  Require(secrets.Base64DecodeThenDecrypt(cipher) == plain, "a secret comes back");
  if (cipher.empty()) return 0;
  char& altered = cipher[place % cipher.size()];
  altered = static_cast<char>(static_cast<unsigned char>(altered) ^ change);
  Decrypt(secrets, cipher, capacity);
  return 0;
}
