#include "dispatcher/web_url.h"

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <utility>

#include "dispatcher/unicode.h"

namespace dispatcher {

namespace {

enum ByteClass : uint8_t {
  kEncodeInFragment = 1 << 0,
  kEncodeInQuery = 1 << 1,
  kEncodeInPath = 1 << 2,
  kEncodeInUserinfo = 1 << 3,
  kEndsSegment = 1 << 4,
  kForbiddenInDomain = 1 << 5,
};

constexpr bool In(int c, std::string_view set) { return c < 0x80 && set.find(static_cast<char>(c)) != set.npos; }

// The standard's percent-encode sets (as browsers apply them today), the
// path's delimiters and the bytes no domain may hold, one lookup per byte.
constexpr std::array<uint8_t, 256> kByteClasses = [] {
  std::array<uint8_t, 256> classes{};
  for (int c = 0; c < 256; ++c) {
    bool control = c < 0x20 || c > 0x7E;
    bool path = control || In(c, " \"#<>?`{}");
    uint8_t bits = 0;
    if (control || In(c, " \"<>`")) bits |= kEncodeInFragment;
    if (control || In(c, " \"#<>'")) bits |= kEncodeInQuery;
    if (path) bits |= kEncodeInPath;
    if (path || In(c, "/:;=@[\\]^|")) bits |= kEncodeInUserinfo;
    if (In(c, "/\\?#")) bits |= kEndsSegment;
    if (c <= 0x20 || c == 0x7F || In(c, "#%/:<>?@[\\]^|")) bits |= kForbiddenInDomain;
    classes[c] = bits;
  }
  return classes;
}();

uint8_t ClassOf(char c) { return kByteClasses[static_cast<uint8_t>(c)]; }
bool IsAsciiAlpha(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool IsAsciiDigit(char c) { return c >= '0' && c <= '9'; }
char AsciiLower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }
int HexValue(char c) {
  if (IsAsciiDigit(c)) return c - '0';
  c = AsciiLower(c);
  return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}

bool EqualsIgnoringAsciiCase(std::string_view text, std::string_view lower) {
  if (text.size() != lower.size()) return false;
  for (size_t i = 0; i < text.size(); ++i) {
    if (AsciiLower(text[i]) != lower[i]) return false;
  }
  return true;
}

// The length of the UTF-8 sequence at text[i] and whether it is valid; an
// invalid one is its maximal subpart, which a decoder reads as one U+FFFD.
size_t Utf8Step(std::string_view text, size_t i, bool* valid) {
  uint8_t lead = static_cast<uint8_t>(text[i]);
  size_t needed;
  uint8_t lower = 0x80, upper = 0xBF;
  if (lead >= 0xC2 && lead <= 0xDF) {
    needed = 1;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    needed = 2;
    if (lead == 0xE0) lower = 0xA0;
    if (lead == 0xED) upper = 0x9F;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    needed = 3;
    if (lead == 0xF0) lower = 0x90;
    if (lead == 0xF4) upper = 0x8F;
  } else {
    *valid = lead < 0x80;
    return 1;
  }
  size_t k = 1;
  for (; k <= needed && i + k < text.size(); ++k) {
    uint8_t byte = static_cast<uint8_t>(text[i + k]);
    if (byte < lower || byte > upper) break;
    lower = 0x80;
    upper = 0xBF;
  }
  *valid = k == needed + 1;
  return k;
}

// Whether the text behind the authority may need any work: a byte that is
// percent-encoded in some part, a backslash, or a segment that may be a dot
// segment ("/." or "/%"). Most URLs need none, and URLs can be megabytes
// long: 16 bytes at a time, in the compilers' portable vector types.
bool MayNeedWork(std::string_view text) {
  typedef uint8_t Bytes __attribute__((vector_size(16)));
  const char* p = text.data();
  const size_t n = text.size();
  size_t i = 0;
  for (; i + 17 <= n; i += 16) {
    Bytes c, next;
    std::memcpy(&c, p + i, 16);
    std::memcpy(&next, p + i + 1, 16);
    Bytes outside = c - 0x21;  // wraps: controls, space and above "~" end up above 0x5D
    auto needs = (outside > 0x5D) | (c == '"') | (c == '<') | (c == '>') | (c == '`') | (c == '{') |
                 (c == '}') | (c == '\\') | (c == '\'') | ((c == '/') & ((next == '.') | (next == '%')));
    uint64_t words[2];
    std::memcpy(words, &needs, sizeof(words));
    if (words[0] | words[1]) return true;
  }
  for (; i < n; ++i) {
    uint8_t c = static_cast<uint8_t>(p[i]);
    char next = i + 1 < n ? p[i + 1] : '\0';
    if (c < 0x21 || c > 0x7E || In(c, "\"<>`{}\\'") || (c == '/' && (next == '.' || next == '%'))) return true;
  }
  return false;
}

// The serialisation as it is written. As long as it equals a prefix of the
// source (up to ASCII case where AppendFolded says so) it is not copied:
// most URLs are canonical already, and a canonical one of 2 MB then costs a
// pass over its bytes and no copy.
class Output {
 public:
  explicit Output(std::string_view source) : source_(source) {}
  bool mirrors() const { return mirrors_; }
  size_t size() const { return mirrors_ ? kept_ : text_.size(); }
  std::string_view view() const { return mirrors_ ? source_.substr(0, kept_) : std::string_view(text_); }

  // Appends source_[begin, end).
  void Keep(size_t begin, size_t end) {
    if (begin == end) return;
    if (mirrors_ && begin == kept_) {
      kept_ = end;
      return;
    }
    Diverge();
    text_.append(source_.data() + begin, end - begin);
  }
  void Append(std::string_view text) {
    if (mirrors_ && kept_ + text.size() <= source_.size()) {
      size_t k = 0;
      while (k < text.size() && source_[kept_ + k] == text[k]) ++k;
      if (k == text.size()) {
        kept_ += k;
        return;
      }
    }
    Diverge();
    text_ += text;
  }
  // `text` is in lower case; the source may hold it in any case.
  void AppendFolded(std::string_view text) {
    if (mirrors_ && EqualsIgnoringAsciiCase(source_.substr(kept_, text.size()), text)) {
      kept_ += text.size();
      return;
    }
    Diverge();
    text_ += text;
  }
  void AppendPercentEncoded(uint8_t byte) {
    static constexpr char kHex[] = "0123456789ABCDEF";
    const char encoded[3] = {'%', kHex[byte >> 4], kHex[byte & 0xF]};
    Append(std::string_view(encoded, 3));
  }
  void Truncate(size_t size) {
    Diverge();
    text_.resize(size);
  }
  std::string Take() {
    Diverge();
    return std::move(text_);
  }

 private:
  void Diverge() {
    if (!mirrors_) return;
    mirrors_ = false;
    text_.reserve(source_.size() + 16);
    text_.assign(source_.data(), kept_);
  }

  std::string_view source_;
  bool mirrors_ = true;
  size_t kept_ = 0;
  std::string text_;
};

// Appends source[begin, end), UTF-8 percent-encoded with the set `encode`.
void Encode(Output& out, std::string_view source, size_t begin, size_t end, uint8_t encode) {
  size_t run = begin;
  for (size_t i = begin; i < end;) {
    uint8_t byte = static_cast<uint8_t>(source[i]);
    if (!(kByteClasses[byte] & encode)) {
      ++i;
      continue;
    }
    out.Keep(run, i);
    bool valid = true;
    size_t length = byte < 0x80 ? 1 : Utf8Step(source.substr(0, end), i, &valid);
    if (valid) {
      for (size_t k = i; k < i + length; ++k) out.AppendPercentEncoded(static_cast<uint8_t>(source[k]));
    } else {
      out.Append("%EF%BF%BD");
    }
    i += length;
    run = i;
  }
  out.Keep(run, end);
}

// 1 for ".", 2 for "..", each dot also spelt "%2e"; 0 for any other segment.
int DotSegment(std::string_view segment) {
  int dots = 0;
  for (size_t i = 0; i < segment.size(); ++dots) {
    if (dots == 2) return 0;
    if (segment[i] == '.') {
      ++i;
    } else if (segment.size() - i >= 3 && segment[i] == '%' && segment[i + 1] == '2' &&
               AsciiLower(segment[i + 2]) == 'e') {
      i += 3;
    } else {
      return 0;
    }
  }
  return dots;
}

// Path, query and fragment from source[i]: the path's segments behind "/"
// or "\" with "." and ".." (also as "%2e") resolved, each part
// percent-encoded with its set.
void WritePathQueryAndFragment(Output& out, std::string_view source, size_t i) {
  const size_t n = source.size();
  const size_t path_begin = out.size();
  if (i < n && (source[i] == '/' || source[i] == '\\')) ++i;
  while (true) {
    size_t segment = i;
    uint8_t seen = 0;
    for (; i < n; ++i) {
      uint8_t bits = ClassOf(source[i]);
      if (bits & kEndsSegment) break;
      seen |= bits;
    }
    bool last = i == n || source[i] == '?' || source[i] == '#';
    int dots = DotSegment(source.substr(segment, i - segment));
    if (dots == 2 && out.size() > path_begin) {
      out.Truncate(out.view().rfind('/'));
    }
    if (dots == 0) {
      out.Append("/");
      if (seen & kEncodeInPath) {
        Encode(out, source, segment, i, kEncodeInPath);
      } else {
        out.Keep(segment, i);
      }
    } else if (last) {
      out.Append("/");
    }
    if (last) break;
    ++i;
  }
  if (i < n && source[i] == '?') {
    out.Append("?");
    const void* hash = std::memchr(source.data() + i + 1, '#', n - i - 1);
    size_t query_end = hash ? static_cast<size_t>(static_cast<const char*>(hash) - source.data()) : n;
    Encode(out, source, i + 1, query_end, kEncodeInQuery);
    i = query_end;
  }
  if (i < n) {
    out.Append("#");
    Encode(out, source, i + 1, n, kEncodeInFragment);
  }
}

// Values of 2^32 and above all fail later; they are kept at 2^32.
bool ParseIpv4Number(std::string_view text, uint64_t* value) {
  if (text.empty()) return false;
  int radix = 10;
  if (text.size() >= 2 && text[0] == '0' && AsciiLower(text[1]) == 'x') {
    text.remove_prefix(2);
    radix = 16;
  } else if (text.size() >= 2 && text[0] == '0') {
    text.remove_prefix(1);
    radix = 8;
  }
  *value = 0;
  for (char c : text) {
    int digit = HexValue(c);
    if (digit < 0 || digit >= radix) return false;
    *value = *value * radix + digit;
    if (*value > 0xFFFFFFFFull) *value = 0x100000000ull;
  }
  return true;
}

bool EndsInANumber(std::string_view domain) {
  size_t dot = domain.rfind('.');
  std::string_view last = dot == std::string_view::npos ? domain : domain.substr(dot + 1);
  if (last.empty() && dot != std::string_view::npos) {
    domain = domain.substr(0, dot);
    dot = domain.rfind('.');
    last = dot == std::string_view::npos ? domain : domain.substr(dot + 1);
  }
  bool digits = !last.empty();
  for (char c : last) digits = digits && IsAsciiDigit(c);
  uint64_t ignored;
  return digits || ParseIpv4Number(last, &ignored);
}

bool ParseIpv4(std::string_view domain, std::string* host) {
  if (!domain.empty() && domain.back() == '.') domain.remove_suffix(1);
  uint64_t numbers[4];
  size_t count = 0;
  for (size_t start = 0;; ++count) {
    size_t dot = domain.find('.', start);
    if (count == 4) return false;
    std::string_view part = domain.substr(start, dot == std::string_view::npos ? dot : dot - start);
    if (!ParseIpv4Number(part, &numbers[count])) return false;
    if (dot == std::string_view::npos) break;
    start = dot + 1;
  }
  ++count;
  for (size_t i = 0; i + 1 < count; ++i) {
    if (numbers[i] > 255) return false;
  }
  if (numbers[count - 1] >= (1ull << (8 * (5 - count)))) return false;
  uint64_t address = numbers[count - 1];
  for (size_t i = 0; i + 1 < count; ++i) address += numbers[i] << (8 * (3 - i));
  *host = std::to_string(address >> 24) + "." + std::to_string((address >> 16) & 0xFF) + "." +
          std::to_string((address >> 8) & 0xFF) + "." + std::to_string(address & 0xFF);
  return true;
}

bool ParseIpv6(std::string_view text, uint16_t (&address)[8]) {
  std::memset(address, 0, sizeof(address));
  size_t piece = 0, p = 0;
  std::optional<size_t> compress;
  auto at = [&](size_t k) { return k < text.size() ? text[k] : '\0'; };
  if (at(p) == ':') {
    if (at(p + 1) != ':') return false;
    p += 2;
    compress = ++piece;
  }
  while (p < text.size()) {
    if (piece == 8) return false;
    if (text[p] == ':') {
      if (compress) return false;
      ++p;
      compress = ++piece;
      continue;
    }
    uint32_t value = 0;
    int length = 0;
    while (length < 4 && HexValue(at(p)) >= 0) {
      value = value * 16 + HexValue(at(p));
      ++p;
      ++length;
    }
    if (at(p) == '.') {
      // An IPv4 address in the last two pieces.
      if (length == 0 || piece > 6) return false;
      p -= length;
      int numbers_seen = 0;
      while (p < text.size()) {
        if (numbers_seen > 0) {
          if (text[p] != '.' || numbers_seen >= 4) return false;
          ++p;
        }
        if (!IsAsciiDigit(at(p))) return false;
        int number = -1;
        while (IsAsciiDigit(at(p))) {
          if (number == 0) return false;
          number = (number < 0 ? 0 : number * 10) + (text[p] - '0');
          if (number > 255) return false;
          ++p;
        }
        address[piece] = static_cast<uint16_t>(address[piece] * 0x100 + number);
        ++numbers_seen;
        if (numbers_seen == 2 || numbers_seen == 4) ++piece;
      }
      if (numbers_seen != 4) return false;
      break;
    }
    if (at(p) == ':') {
      ++p;
      if (p == text.size()) return false;
    } else if (p < text.size()) {
      return false;
    }
    address[piece++] = static_cast<uint16_t>(value);
  }
  if (compress) {
    size_t swaps = piece - *compress;
    for (piece = 7; piece != 0 && swaps > 0; --piece, --swaps) {
      std::swap(address[piece], address[*compress + swaps - 1]);
    }
  } else if (piece != 8) {
    return false;
  }
  return true;
}

std::string SerializeIpv6(const uint16_t (&address)[8]) {
  // The first longest run of two or more zero pieces is compressed.
  size_t compress = 8, best = 1;
  for (size_t i = 0; i < 8;) {
    size_t run = 0;
    while (i + run < 8 && address[i + run] == 0) ++run;
    if (run > best) {
      best = run;
      compress = i;
    }
    i += run ? run : 1;
  }
  std::string out = "[";
  for (size_t i = 0; i < 8; ++i) {
    if (i == compress) {
      out += i == 0 ? "::" : ":";
      i += best - 1;
      continue;
    }
    char piece[8];
    std::snprintf(piece, sizeof(piece), "%x", address[i]);
    out += piece;
    if (i != 7) out += ':';
  }
  return out + "]";
}

// Labels that are not ASCII go to the platform one at a time: ASCII labels
// need only lower-casing, and the platform's checks of a whole domain (its
// length, hyphens in ASCII labels) are stricter than browsers are. Mapping
// and Punycode take time quadratic in a label's length; a domain name has at
// most 253 bytes in ASCII, so a longer text to map is not read.
constexpr size_t kMaxMappedDomain = 4096;

WebUrlStatus DomainToAscii(std::string_view domain, std::string* ascii) {
  for (size_t i = 0; i < domain.size();) {
    bool valid;
    size_t length = Utf8Step(domain, i, &valid);
    // A byte that is not UTF-8 reads as U+FFFD, which no domain may hold; an
    // ASCII byte a domain may not hold stays what it is through the mapping.
    if (!valid || (length == 1 && (ClassOf(domain[i]) & kForbiddenInDomain))) {
      return WebUrlStatus::kRejected;
    }
    i += length;
  }
  for (size_t start = 0;;) {
    size_t dot = domain.find('.', start);
    std::string_view label = domain.substr(start, dot == std::string_view::npos ? dot : dot - start);
    bool is_ascii = true;
    for (char c : label) is_ascii = is_ascii && static_cast<uint8_t>(c) < 0x80;
    if (is_ascii) {
      for (char c : label) *ascii += AsciiLower(c);
    } else {
      std::optional<std::string> mapped;
      if (domain.size() <= kMaxMappedDomain) mapped = internal::PlatformDomainToAscii(label);
      if (!mapped) return WebUrlStatus::kHostUnreadable;
      for (char c : *mapped) {
        if (static_cast<uint8_t>(c) >= 0x80 || (ClassOf(c) & kForbiddenInDomain)) return WebUrlStatus::kRejected;
      }
      *ascii += *mapped;
    }
    if (dot == std::string_view::npos) break;
    *ascii += '.';
    start = dot + 1;
  }
  return ascii->empty() ? WebUrlStatus::kRejected : WebUrlStatus::kParsed;
}

// The host in *host: a view of `raw` when that is its serialisation
// already (the common case), else of *storage.
WebUrlStatus ParseHost(std::string_view raw, std::string* storage, std::string_view* host) {
  if (raw[0] == '[') {
    uint16_t address[8];
    if (raw.size() < 2 || raw.back() != ']' || !ParseIpv6(raw.substr(1, raw.size() - 2), address)) {
      return WebUrlStatus::kRejected;
    }
    *storage = SerializeIpv6(address);
    *host = *storage;
    return WebUrlStatus::kParsed;
  }
  bool plain = true;
  for (char c : raw) {
    plain = plain && ((c >= 'a' && c <= 'z') || IsAsciiDigit(c) || c == '.' || c == '-');
  }
  std::string_view domain = raw;
  std::string decoded;
  if (!plain) {
    decoded.reserve(raw.size());
    bool ascii = true;
    for (size_t i = 0; i < raw.size(); ++i) {
      char c = raw[i];
      if (c == '%' && i + 2 < raw.size() && HexValue(raw[i + 1]) >= 0 && HexValue(raw[i + 2]) >= 0) {
        c = static_cast<char>(HexValue(raw[i + 1]) * 16 + HexValue(raw[i + 2]));
        i += 2;
      }
      ascii = ascii && static_cast<uint8_t>(c) < 0x80;
      decoded += c;
    }
    if (ascii) {
      // The mapping of ASCII is lower-casing ("xn--" labels are kept as they
      // are: one that browsers refuse reads the same either way).
      for (char& c : decoded) {
        if (ClassOf(c) & kForbiddenInDomain) return WebUrlStatus::kRejected;
        c = AsciiLower(c);
      }
    } else {
      std::string mapped;
      WebUrlStatus status = DomainToAscii(decoded, &mapped);
      if (status != WebUrlStatus::kParsed) return status;
      decoded = std::move(mapped);
    }
    domain = decoded;
  }
  if (EndsInANumber(domain)) {
    if (!ParseIpv4(domain, storage)) return WebUrlStatus::kRejected;
    *host = *storage;
    return WebUrlStatus::kParsed;
  }
  if (plain) {
    *host = raw;
  } else {
    *storage = std::move(decoded);
    *host = *storage;
  }
  return WebUrlStatus::kParsed;
}

}  // namespace

std::string_view WebUrl::text() const {
  return in_input_ ? input_.substr(offset_, size_) : std::string_view(owned_);
}

std::string WebUrl::Href() const {
  if (status_ != WebUrlStatus::kParsed) return {};
  std::string href(text());
  for (size_t i = 0; i < scheme_end_; ++i) href[i] = AsciiLower(href[i]);
  for (size_t i = host_begin_; i < host_end_; ++i) href[i] = AsciiLower(href[i]);
  return href;
}

WebUrl ParseWebUrl(std::string_view input) {
  WebUrl url;
  url.input_ = input;
  size_t begin = 0, end = input.size();
  while (begin < end && static_cast<uint8_t>(input[begin]) <= 0x20) ++begin;
  while (end > begin && static_cast<uint8_t>(input[end - 1]) <= 0x20) --end;
  std::string_view source = input.substr(begin, end - begin);
  std::string filtered;
  bool in_input = true;
  if (std::memchr(source.data(), '\t', source.size()) || std::memchr(source.data(), '\n', source.size()) ||
      std::memchr(source.data(), '\r', source.size())) {
    filtered.reserve(source.size());
    for (char c : source) {
      if (c != '\t' && c != '\n' && c != '\r') filtered += c;
    }
    source = filtered;
    in_input = false;
  }
  const size_t n = source.size();

  if (n == 0 || !IsAsciiAlpha(source[0])) return url;
  size_t colon = 1;
  while (colon < n && (IsAsciiAlpha(source[colon]) || IsAsciiDigit(source[colon]) || source[colon] == '+' ||
                       source[colon] == '-' || source[colon] == '.')) {
    ++colon;
  }
  if (colon == n || source[colon] != ':') return url;
  std::string_view scheme;
  uint32_t default_port = 0;
  using namespace std::string_view_literals;
  for (std::string_view web : {"http"sv, "https"sv, "ws"sv, "wss"sv}) {
    if (EqualsIgnoringAsciiCase(source.substr(0, colon), web)) {
      scheme = web;
      default_port = web == "http" || web == "ws" ? 80 : 443;
    }
  }
  if (scheme.empty()) return url;
  url.status_ = WebUrlStatus::kRejected;
  Output out(source);
  out.AppendFolded(scheme);
  out.Append("://");
  url.scheme_end_ = colon;
  url.authority_begin_ = out.size();

  // Any number of slashes, either way, lead to the authority.
  size_t i = colon + 1;
  while (i < n && (source[i] == '/' || source[i] == '\\')) ++i;
  size_t authority_end = i;
  while (authority_end < n && !(ClassOf(source[authority_end]) & kEndsSegment)) ++authority_end;

  // User information ends at the last "@"; empty, it is left out.
  size_t host_begin = i;
  for (size_t k = authority_end; k > i; --k) {
    if (source[k - 1] != '@') continue;
    size_t at = k - 1;
    host_begin = at + 1;
    if (host_begin == authority_end) return url;
    size_t user_end = i;
    while (user_end < at && source[user_end] != ':') ++user_end;
    bool has_password = user_end + 1 < at;
    if (user_end > i || has_password) {
      Encode(out, source, i, user_end, kEncodeInUserinfo);
      if (has_password) {
        out.Append(":");
        Encode(out, source, user_end + 1, at, kEncodeInUserinfo);
      }
      out.Append("@");
    }
    break;
  }

  size_t host_end = host_begin;
  for (bool in_brackets = false; host_end < authority_end; ++host_end) {
    char c = source[host_end];
    if (c == ':' && !in_brackets) break;
    if (c == '[') in_brackets = true;
    if (c == ']') in_brackets = false;
  }
  if (host_end == host_begin) return url;
  std::string storage;
  std::string_view host;
  WebUrlStatus host_status = ParseHost(source.substr(host_begin, host_end - host_begin), &storage, &host);
  if (host_status != WebUrlStatus::kParsed) {
    url.status_ = host_status;
    return url;
  }
  url.host_begin_ = out.size();
  out.AppendFolded(host);
  url.host_end_ = out.size();
  if (host_end < authority_end) {
    uint32_t port = 0;
    for (size_t k = host_end + 1; k < authority_end; ++k) {
      if (!IsAsciiDigit(source[k])) return url;
      port = port * 10 + (source[k] - '0');
      if (port > 65535) return url;
    }
    if (host_end + 1 < authority_end && port != default_port) {
      out.Append(":");
      out.Append(std::to_string(port));
    }
  }

  if (out.mirrors() && authority_end < n && source[authority_end] == '/' &&
      !MayNeedWork(source.substr(authority_end))) {
    out.Keep(authority_end, n);
  } else {
    WritePathQueryAndFragment(out, source, authority_end);
  }

  url.status_ = WebUrlStatus::kParsed;
  if (!out.mirrors()) {
    url.owned_ = out.Take();
  } else if (in_input) {
    url.in_input_ = true;
    url.offset_ = begin;
    url.size_ = out.size();
  } else {
    filtered.resize(out.size());
    url.owned_ = std::move(filtered);
  }
  return url;
}

}  // namespace dispatcher
