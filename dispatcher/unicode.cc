#include "dispatcher/unicode.h"

#include <cstdint>
#include <cstring>

namespace dispatcher {

namespace {

char AsciiLower(char c) {
  return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

}  // namespace

// Eight bytes at a time: URLs can be megabytes long and are lowered for
// every classification.
void LowerAsciiInPlace(std::string& text) {
  constexpr uint64_t kOnes = 0x0101010101010101ull;
  constexpr uint64_t kHigh = 0x8080808080808080ull;
  size_t i = 0;
  for (; i + 8 <= text.size(); i += 8) {
    uint64_t word;
    std::memcpy(&word, text.data() + i, 8);
    uint64_t seven_bits = word & ~kHigh;
    // High bit of each byte: its low seven bits are >= 'A', and > 'Z'.
    uint64_t at_least_a = seven_bits + kOnes * (0x80 - 'A');
    uint64_t above_z = seven_bits + kOnes * (0x80 - 'Z' - 1);
    uint64_t upper = at_least_a & ~above_z & ~word & kHigh;
    if (upper == 0) continue;
    word |= upper >> 2;  // 0x80 >> 2 is the case bit 0x20
    std::memcpy(text.data() + i, &word, 8);
  }
  for (; i < text.size(); ++i) text[i] = AsciiLower(text[i]);
}

size_t Utf8SequenceLength(std::string_view text, size_t i) {
  auto byte = [&](size_t k) { return static_cast<uint8_t>(text[k]); };
  uint8_t lead = byte(i);
  size_t length;
  uint32_t min;
  if (lead < 0x80) return 1;
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
    min = 0x80;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    min = 0x800;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    min = 0x10000;
  } else {
    return 0;
  }
  if (i + length > text.size()) return 0;
  uint32_t code = lead & (0x7F >> length);
  for (size_t k = 1; k < length; ++k) {
    if ((byte(i + k) & 0xC0) != 0x80) return 0;
    code = (code << 6) | (byte(i + k) & 0x3F);
  }
  if (code < min || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return 0;
  return length;
}

std::string LowercaseUrlText(std::string_view text) {
  // Almost every URL is ASCII: one pass that the compiler vectorises tells,
  // and ASCII needs no validation and no platform call.
  unsigned char high_bits = 0;
  for (char c : text) high_bits |= static_cast<unsigned char>(c);
  if (high_bits < 0x80) {
    std::string result(text);
    LowerAsciiInPlace(result);
    return result;
  }
  bool valid = true;
  for (size_t i = 0; i < text.size() && valid;) {
    size_t length = Utf8SequenceLength(text, i);
    valid = length != 0;
    i += length;
  }
  // Whole valid text goes to the platform in one piece: some lowerings depend
  // on the neighbouring letters.
  if (valid) return internal::PlatformLowercaseUtf8(text);

  std::string result;
  result.reserve(text.size());
  // Runs of ASCII take the fast path; runs of valid multi-byte UTF-8 go to the
  // platform; invalid bytes are kept as they are.
  size_t i = 0;
  while (i < text.size()) {
    size_t start = i;
    while (i < text.size() && static_cast<uint8_t>(text[i]) < 0x80) ++i;
    for (size_t k = start; k < i; ++k) result += AsciiLower(text[k]);
    if (i == text.size()) break;
    start = i;
    size_t length;
    while (i < text.size() && static_cast<uint8_t>(text[i]) >= 0x80 &&
           (length = Utf8SequenceLength(text, i)) != 0) {
      i += length;
    }
    if (i > start) result += internal::PlatformLowercaseUtf8(text.substr(start, i - start));
    if (i < text.size() && static_cast<uint8_t>(text[i]) >= 0x80 && Utf8SequenceLength(text, i) == 0) {
      result += text[i];
      ++i;
    }
  }
  return result;
}

}  // namespace dispatcher
