#include "dispatcher/unicode.h"

#include <cstdint>
#include <cstring>

namespace dispatcher {

namespace {

char AsciiLower(char c) {
  return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

// RFC 3492's parameters for IDNA.
constexpr uint32_t kBase = 36, kTMin = 1, kTMax = 26, kSkew = 38, kDamp = 700;
constexpr uint32_t kInitialBias = 72, kInitialN = 0x80;
// Both directions take time quadratic in the label's length; real labels
// are at most 63 bytes, so this bounds the work without turning one away.
constexpr size_t kMaxPunycodeLabel = 1024;

uint32_t Adapt(uint32_t delta, uint32_t points, bool first) {
  delta = first ? delta / kDamp : delta / 2;
  delta += delta / points;
  uint32_t k = 0;
  while (delta > ((kBase - kTMin) * kTMax) / 2) {
    delta /= kBase - kTMin;
    k += kBase;
  }
  return k + (kBase - kTMin + 1) * delta / (delta + kSkew);
}

uint32_t Threshold(uint32_t k, uint32_t bias) {
  return k <= bias ? kTMin : k >= bias + kTMax ? kTMax : k - bias;
}

char PunycodeDigit(uint32_t d) { return static_cast<char>(d < 26 ? 'a' + d : '0' + d - 26); }

bool IsScalarValue(uint32_t c) { return c <= 0x10FFFF && (c < 0xD800 || c > 0xDFFF); }

// The code point of the valid sequence of `length` bytes at text[i].
char32_t DecodeUtf8(std::string_view text, size_t i, size_t length) {
  if (length == 1) return static_cast<uint8_t>(text[i]);
  uint32_t code = static_cast<uint8_t>(text[i]) & (0x7F >> length);
  for (size_t k = 1; k < length; ++k) code = (code << 6) | (static_cast<uint8_t>(text[i + k]) & 0x3F);
  return code;
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

void AppendUtf8(char32_t c, std::string& out) {
  if (c < 0x80) {
    out += static_cast<char>(c);
  } else if (c < 0x800) {
    out += static_cast<char>(0xC0 | (c >> 6));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else if (c < 0x10000) {
    out += static_cast<char>(0xE0 | (c >> 12));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (c >> 18));
    out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  }
}

bool PunycodeEncode(std::u32string_view label, std::string& out) {
  if (label.size() > kMaxPunycodeLabel) return false;
  uint32_t basic = 0;
  for (char32_t c : label) {
    if (c < 0x80) {
      out += static_cast<char>(c);
      ++basic;
    }
  }
  if (basic > 0) out += '-';
  uint32_t n = kInitialN, delta = 0, bias = kInitialBias, handled = basic;
  const uint32_t length = static_cast<uint32_t>(label.size());
  while (handled < length) {
    uint32_t m = UINT32_MAX;
    for (char32_t c : label) {
      if (c >= n && c < m) m = c;
    }
    // Scalar values and a bounded length keep delta far from overflowing.
    delta += (m - n) * (handled + 1);
    n = m;
    for (char32_t c : label) {
      if (c < n) ++delta;
      if (c != n) continue;
      uint32_t q = delta;
      for (uint32_t k = kBase;; k += kBase) {
        uint32_t t = Threshold(k, bias);
        if (q < t) break;
        out += PunycodeDigit(t + (q - t) % (kBase - t));
        q = (q - t) / (kBase - t);
      }
      out += PunycodeDigit(q);
      bias = Adapt(delta, handled + 1, handled == basic);
      delta = 0;
      ++handled;
    }
    ++delta;
    ++n;
  }
  return true;
}

bool PunycodeDecode(std::string_view label, std::u32string& out) {
  if (label.size() > kMaxPunycodeLabel) return false;
  size_t delimiter = label.rfind('-');
  size_t in = 0;
  if (delimiter != std::string_view::npos) {
    for (size_t k = 0; k < delimiter; ++k) {
      if (static_cast<uint8_t>(label[k]) >= 0x80) return false;
      out += static_cast<char32_t>(label[k]);
    }
    in = delimiter + 1;
  }
  uint64_t n = kInitialN, i = 0, bias = kInitialBias;
  while (in < label.size()) {
    uint64_t old_i = i, w = 1;
    for (uint32_t k = kBase;; k += kBase) {
      if (in >= label.size()) return false;
      char c = label[in++];
      uint32_t digit = c >= '0' && c <= '9'   ? c - '0' + 26
                       : c >= 'a' && c <= 'z' ? c - 'a'
                       : c >= 'A' && c <= 'Z' ? c - 'A'
                                              : kBase;
      if (digit >= kBase) return false;
      i += digit * w;
      uint32_t t = Threshold(k, static_cast<uint32_t>(bias));
      if (digit < t) break;
      w *= kBase - t;
      // Far beyond any scalar value: the label is not valid.
      if (i > 0xFFFFFFFFull || w > 0xFFFFFFFFull) return false;
    }
    uint64_t points = out.size() + 1;
    bias = Adapt(static_cast<uint32_t>(i - old_i), static_cast<uint32_t>(points), old_i == 0);
    n += i / points;
    i %= points;
    if (n < 0x80 || n > 0x10FFFF || !IsScalarValue(static_cast<uint32_t>(n))) return false;
    out.insert(out.begin() + static_cast<std::ptrdiff_t>(i), static_cast<char32_t>(n));
    ++i;
  }
  return true;
}

namespace {

// Each dot-separated label of `domain` through `label_to`, which appends it
// to `result`, the dots kept; false as soon as a label fails.
template <typename LabelTo>
bool MapDomainLabels(std::string_view domain, std::string& result, LabelTo label_to) {
  for (size_t start = 0;;) {
    size_t dot = domain.find('.', start);
    if (!label_to(domain.substr(start, dot == std::string_view::npos ? dot : dot - start), result)) return false;
    if (dot == std::string_view::npos) return true;
    result += '.';
    start = dot + 1;
  }
}

}  // namespace

std::optional<std::string> EncodeMappedDomain(std::string_view mapped) {
  std::string result;
  std::u32string label;
  bool encoded = MapDomainLabels(mapped, result, [&label](std::string_view text, std::string& out) {
    label.clear();
    bool ascii = true;
    for (size_t i = 0; i < text.size();) {
      size_t length = Utf8SequenceLength(text, i);
      if (length == 0) return false;
      label += DecodeUtf8(text, i, length);
      ascii = ascii && length == 1;
      i += length;
    }
    if (ascii) {
      out += text;
      return true;
    }
    out += "xn--";
    return PunycodeEncode(label, out);
  });
  return encoded ? std::optional(std::move(result)) : std::nullopt;
}

std::string DecodeDomainLabels(std::string_view domain) {
  std::string result;
  std::u32string label;
  MapDomainLabels(domain, result, [&label](std::string_view text, std::string& out) {
    label.clear();
    if (text.size() > 4 && text.substr(0, 4) == "xn--" && PunycodeDecode(text.substr(4), label)) {
      for (char32_t c : label) AppendUtf8(c, out);
    } else {
      out += text;
    }
    return true;
  });
  return result;
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
