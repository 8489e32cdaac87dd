#include <Kesto/Util/TextEncoding.h>

#include <Kesto/Core/HashMix.h>

#include <fmt/format.h>

#include <cstring>

namespace Kesto::Util {

namespace {
constexpr char codeTable[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_=";
static_assert(sizeof codeTable == 64 + 1, "one character for each six-bit value");
// Six digits of six bits cover the 32 bits of the value.
constexpr int codeLength = 6;
} // namespace

String base64Encode(unsigned int value) {
  char code[codeLength];
  for (char& c : code) {
    c = codeTable[value & 63u];
    value >>= 6;
  }
  return String(code, codeLength);
}

unsigned int hash(const String& text) noexcept { return hash(text.data(), text.size()); }

unsigned int hash(const void* data, unsigned int length) noexcept {
  return Impl::HashMix::mix(Impl::HashMix::fnvOffset32, data, length);
}

unsigned long hash64(const String& text) noexcept { return hash64(text.data(), text.size()); }

unsigned long hash64(const void* data, unsigned int length) noexcept {
  return Impl::HashMix::mix(Impl::HashMix::fnvOffset64, data, length);
}

String decodeMagic(unsigned long magic) {
  char bytes[sizeof magic + 1] = {};
  std::memcpy(bytes, &magic, sizeof magic);
  return String(bytes);
}

String traceHandleName(String path, const String& prefix, bool temporary) {
  U32 end = path.size();
  while (end > 0 && path[end - 1] == '/')
    --end;
  path = path.substr(0, end);
  const U32 slash = path.rfind('/');
  const String base = slash == String::npos ? path : path.substr(slash + 1);
  return String(fmt::format("{}{}{}-{}", prefix, temporary ? "Temp-" : "", base64Encode(hash(path)), base));
}

} // namespace Kesto::Util

namespace Kesto {

String dumpHex(const void* data, int length) {
  if (length <= 0)
    return String();
  static constexpr char digits[] = "0123456789abcdef";
  auto* bytes = static_cast<const unsigned char*>(data);
  std::string text;
  text.reserve(std::size_t(length) * 2 + std::size_t(length) / 4);
  for (int i = 0; i < length; ++i) {
    text += digits[bytes[i] >> 4];
    text += digits[bytes[i] & 15];
    if (i % 4 == 3 && i + 1 < length)
      text += ' ';
  }
  return String(text);
}

} // namespace Kesto
