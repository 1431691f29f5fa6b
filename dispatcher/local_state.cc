#include "dispatcher/local_state.h"

#include <fcntl.h>
#include <simdjson.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/files/file_util.h"
#include "base/files/path_service.h"
#include "base/logging.h"
#include "dispatcher/url.h"

// Local State is read in windows of kLocalStateWindowBytes by a validating
// JSON scanner that holds no more than the open containers and what it keeps:
// a document held whole, or indexed as a whole, takes several times its size
// (a dense one such as `[0,0,0,...]` one index entry per byte).
//
// A first pass validates the whole document and notes, at the keys the
// dispatcher reads, what the last occurrence of each is: the non-work
// browser's path, and where the rules are with how many rules and patterns
// and how many bytes of pattern text they hold. A second pass reads just the
// rules into a policy of exactly that size.

namespace dispatcher {

namespace {

constexpr std::string_view kUtf8ByteOrderMark = "\xEF\xBB\xBF";
// As deep as common JSON parsers go.
constexpr int kMaxDepth = 1024;

enum class Failure { kNone, kRead, kParse };

// What a value is to the dispatcher, from its key path.
enum class Role : uint8_t {
  kOther,
  kRoot,
  kKelPrefs,     // kel_prefs
  kPolicy,       // kel_prefs / policy
  kBrowserUrls,  // kel_prefs / policy / browser_urls
  kRule,         // an element of browser_urls
  kPatterns,     // a rule's patterns
  kPattern,      // an element of patterns
  kBrowser,      // browser
  kBrowserPath,  // browser / browserPathForNonWorkLinks
};

Role MemberRole(Role object, std::string_view key) {
  switch (object) {
    case Role::kRoot:
      return key == "kel_prefs" ? Role::kKelPrefs : key == "browser" ? Role::kBrowser : Role::kOther;
    case Role::kKelPrefs:
      return key == "policy" ? Role::kPolicy : Role::kOther;
    case Role::kPolicy:
      return key == "browser_urls" ? Role::kBrowserUrls : Role::kOther;
    case Role::kRule:
      return key == "patterns" ? Role::kPatterns : Role::kOther;
    case Role::kBrowser:
      return key == "browserPathForNonWorkLinks" ? Role::kBrowserPath : Role::kOther;
    default:
      return Role::kOther;
  }
}

bool HasWantedMembers(Role object) {
  return object == Role::kRoot || object == Role::kKelPrefs || object == Role::kPolicy || object == Role::kRule ||
         object == Role::kBrowser;
}

Role ElementRole(Role array) {
  return array == Role::kBrowserUrls ? Role::kRule : array == Role::kPatterns ? Role::kPattern : Role::kOther;
}

// Longer keys are kept cut to this length plus one, which no key read above
// has.
constexpr size_t kKeyLimit = 32;

// What the first pass found. A key that appears again starts its part
// afresh, so the last occurrence wins, as in a dictionary filled in document
// order. A value of another type than the one wanted counts as absent: the
// rest of the dispatcher relies on the types, and a guessing reader is worse
// than a missing policy, which falls back to the work browser. JSON null is
// one of those other types, so a null level is absent too.
struct Findings {
  bool root_is_container = false;
  bool kel_prefs = false;     // an object
  bool policy = false;        // an object, in kel_prefs
  bool browser_urls = false;  // an array, in policy
  uint64_t browser_urls_begin = 0;
  uint64_t browser_urls_end = 0;
  // What browser_urls holds, each rule's last patterns array counted: the
  // bytes are those of the strings as written, no fewer than their text.
  uint64_t rules = 0, patterns = 0, pattern_bytes = 0;
  // The last rule's share, taken back when its patterns key comes again.
  uint64_t rule_patterns = 0, rule_pattern_bytes = 0;
  bool browser = false;  // an object
  std::optional<std::string> browser_path;

  void ForgetRules() {
    browser_urls = false;
    rules = patterns = pattern_bytes = rule_patterns = rule_pattern_bytes = 0;
  }
};

// The bytes of Local State from any offset.
class Source {
 public:
  // A regular file, read as the parse goes; the descriptor becomes ours.
  explicit Source(int fd) : fd_(fd) {}
  // Anything else (a FIFO, a device), which cannot be read twice, read whole.
  explicit Source(std::string data) : data_(std::move(data)) {}
  ~Source() {
    if (fd_ >= 0) close(fd_);
  }
  Source(const Source&) = delete;
  Source& operator=(const Source&) = delete;

  // The bytes from `offset` on, at most kLocalStateWindowBytes of them and
  // cut at a character boundary unless the file ends there; empty at the
  // end. Fails on a read error, a file grown beyond kMaxLocalStateBytes and
  // invalid UTF-8, which `*reason` then describes.
  Failure Window(uint64_t offset, std::string_view* window, std::string* reason) {
    std::string_view bytes;
    if (fd_ < 0) {
      bytes = std::string_view(data_).substr(std::min<uint64_t>(offset, data_.size()), kLocalStateWindowBytes);
    } else {
      buffer_.resize(kLocalStateWindowBytes);
      size_t filled = 0;
      while (filled < buffer_.size()) {
        ssize_t got = pread(fd_, buffer_.data() + filled, buffer_.size() - filled, static_cast<off_t>(offset + filled));
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return Failure::kRead;
        if (got == 0) break;
        filled += static_cast<size_t>(got);
      }
      if (offset + filled > kMaxLocalStateBytes) return Failure::kRead;
      bytes = std::string_view(buffer_.data(), filled);
    }
    // A character cut by the window's end is left to the next window.
    if (bytes.size() == kLocalStateWindowBytes) {
      for (size_t back = 1; back <= 3; ++back) {
        unsigned char c = static_cast<unsigned char>(bytes[bytes.size() - back]);
        if ((c & 0xC0) == 0x80) continue;
        size_t length = c >= 0xF0 ? 4 : c >= 0xE0 ? 3 : c >= 0xC0 ? 2 : 1;
        if (length > back) bytes.remove_suffix(back);
        break;
      }
    }
    if (!simdjson::validate_utf8(bytes.data(), bytes.size())) {
      *reason = "Invalid UTF-8 in bytes " + std::to_string(offset) + " to " + std::to_string(offset + bytes.size()) +
                ".";
      return Failure::kParse;
    }
    *window = bytes;
    return Failure::kNone;
  }

  // Whether the rest of the file, from `offset` on, can be read: a file that
  // cannot be read in full fails as unread, however soon it fails to parse.
  bool ReadableToEnd(uint64_t offset) {
    if (fd_ < 0) return true;
    buffer_.resize(kLocalStateWindowBytes);
    for (;;) {
      ssize_t got = pread(fd_, buffer_.data(), buffer_.size(), static_cast<off_t>(offset));
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) return got == 0;
      offset += static_cast<size_t>(got);
      if (offset > kMaxLocalStateBytes) return false;
    }
  }

 private:
  int fd_ = -1;
  std::string data_;
  std::vector<char> buffer_;
};

constexpr std::array<bool, 256> kEndsPlainText = [] {
  std::array<bool, 256> table{};
  for (int c = 0; c < 0x20; ++c) table[c] = true;
  table['"'] = table['\\'] = true;
  return table;
}();

void AppendLimited(std::string* out, std::string_view text, size_t limit) {
  if (out->size() < limit) out->append(text.substr(0, limit - out->size()));
}

void AppendUtf8(std::string* out, uint32_t code_point, size_t limit) {
  char bytes[4];
  size_t length;
  if (code_point < 0x80) {
    bytes[0] = static_cast<char>(code_point);
    length = 1;
  } else if (code_point < 0x800) {
    bytes[0] = static_cast<char>(0xC0 | code_point >> 6);
    bytes[1] = static_cast<char>(0x80 | (code_point & 0x3F));
    length = 2;
  } else if (code_point < 0x10000) {
    bytes[0] = static_cast<char>(0xE0 | code_point >> 12);
    bytes[1] = static_cast<char>(0x80 | (code_point >> 6 & 0x3F));
    bytes[2] = static_cast<char>(0x80 | (code_point & 0x3F));
    length = 3;
  } else {
    bytes[0] = static_cast<char>(0xF0 | code_point >> 18);
    bytes[1] = static_cast<char>(0x80 | (code_point >> 12 & 0x3F));
    bytes[2] = static_cast<char>(0x80 | (code_point >> 6 & 0x3F));
    bytes[3] = static_cast<char>(0x80 | (code_point & 0x3F));
    length = 4;
  }
  AppendLimited(out, std::string_view(bytes, length), limit);
}

int HexValue(int c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// A validating JSON scanner over a Source, one value from a given offset:
// the whole document in the first pass, the rules in the second.
class Parser {
 public:
  Parser(Source* source, uint64_t offset) : source_(source), window_offset_(offset) {}

  bool ParseDocument(Findings* found) {
    found_ = found;
    if (Peek() >= 0 && window_.substr(pos_).starts_with(kUtf8ByteOrderMark)) pos_ += kUtf8ByteOrderMark.size();
    return Parse(Role::kRoot, true);
  }

  // Reads browser_urls into `rules`, sized from what the first pass found.
  bool ParseRules(const Findings& found, PolicyRules* rules) {
    sizes_ = &found;
    rules_ = rules;
    return Parse(Role::kBrowserUrls, false);
  }

  Failure failure() const { return failure_; }
  const std::string& reason() const { return reason_; }
  // Where the scan is, and how far the file has been read.
  uint64_t offset() const { return window_offset_ + pos_; }
  uint64_t read_end() const { return window_offset_ + window_.size(); }

 private:
  struct Level {
    bool object;
    Role role;
  };

  bool Fail(std::string_view what) {
    if (failure_ == Failure::kNone) {
      failure_ = Failure::kParse;
      reason_ = "Invalid JSON at byte " + std::to_string(offset()) + ": " + std::string(what) + ".";
    }
    return false;
  }

  bool Refill() {
    if (failure_ != Failure::kNone || at_end_) return false;
    window_offset_ += window_.size();
    pos_ = 0;
    window_ = {};
    failure_ = source_->Window(window_offset_, &window_, &reason_);
    at_end_ = window_.empty();
    return failure_ == Failure::kNone && !at_end_;
  }

  // The next byte, or -1 at the end of the file or after a failure.
  int Peek() {
    if (pos_ == window_.size() && !Refill()) return -1;
    return static_cast<unsigned char>(window_[pos_]);
  }

  int Next() {
    int c = Peek();
    if (c >= 0) ++pos_;
    return c;
  }

  // The hot loops below run over a local view: a store to pos_ on every byte
  // would have to be assumed to change window_ too.
  int SkipSpace() {
    for (;;) {
      std::string_view window = window_;
      size_t pos = pos_;
      while (pos < window.size() && (window[pos] == ' ' || window[pos] == '\n' || window[pos] == '\r' ||
                                     window[pos] == '\t')) {
        ++pos;
      }
      pos_ = pos;
      if (pos < window.size()) return static_cast<unsigned char>(window[pos]);
      if (!Refill()) return -1;
    }
  }

  // The string that starts here, its text appended to `out` (when given) up
  // to `limit` bytes.
  bool String(std::string* out, size_t limit) {
    ++pos_;  // the opening quote
    for (;;) {
      if (pos_ == window_.size() && !Refill()) return Fail("the file ends inside a string");
      std::string_view window = window_;
      size_t end = pos_;
      while (end < window.size() && !kEndsPlainText[static_cast<unsigned char>(window[end])]) ++end;
      if (out) AppendLimited(out, window.substr(pos_, end - pos_), limit);
      pos_ = end;
      if (pos_ == window_.size()) continue;
      char c = window_[pos_];
      if (c == '"') {
        ++pos_;
        return true;
      }
      if (c != '\\') return Fail("a control character in a string must be escaped");
      ++pos_;
      if (!Escape(out, limit)) return false;
    }
  }

  bool Escape(std::string* out, size_t limit) {
    int c = Next();
    char plain;
    switch (c) {
      case '"': case '\\': case '/': plain = static_cast<char>(c); break;
      case 'b': plain = '\b'; break;
      case 'f': plain = '\f'; break;
      case 'n': plain = '\n'; break;
      case 'r': plain = '\r'; break;
      case 't': plain = '\t'; break;
      case 'u': {
        uint32_t code_point;
        if (!Hex4(&code_point)) return Fail("\\u takes four hexadecimal digits");
        // UTF-16 surrogates come in pairs, high then low.
        if (code_point >= 0xDC00 && code_point <= 0xDFFF) return Fail("a low surrogate without a high one");
        if (code_point >= 0xD800 && code_point <= 0xDBFF) {
          uint32_t low;
          if (Next() != '\\' || Next() != 'u' || !Hex4(&low) || low < 0xDC00 || low > 0xDFFF) {
            return Fail("a high surrogate without a low one");
          }
          code_point = 0x10000 + ((code_point - 0xD800) << 10) + (low - 0xDC00);
        }
        if (out) AppendUtf8(out, code_point, limit);
        return true;
      }
      default:
        return Fail("an unknown escape in a string");
    }
    if (out) AppendLimited(out, std::string_view(&plain, 1), limit);
    return true;
  }

  bool Hex4(uint32_t* value) {
    *value = 0;
    for (int i = 0; i < 4; ++i) {
      int digit = HexValue(Next());
      if (digit < 0) return false;
      *value = *value << 4 | static_cast<uint32_t>(digit);
    }
    return true;
  }

  bool Digits() {
    bool any = false;
    while (Peek() >= '0') {
      std::string_view window = window_;
      size_t pos = pos_;
      while (pos < window.size() && window[pos] >= '0' && window[pos] <= '9') ++pos;
      any = any || pos > pos_;
      bool more = pos == window.size();
      pos_ = pos;
      if (!more) break;
    }
    return any;
  }

  // Any number the grammar allows, whatever its size: only its being a
  // number counts.
  bool Number() {
    if (Peek() == '-') ++pos_;
    if (Peek() == '0') {
      ++pos_;
    } else if (!Digits()) {
      return Fail("a number needs a digit");
    }
    if (Peek() == '.' && (++pos_, !Digits())) return Fail("a number needs a digit after its point");
    int c = Peek();
    if (c == 'e' || c == 'E') {
      ++pos_;
      c = Peek();
      if (c == '+' || c == '-') ++pos_;
      if (!Digits()) return Fail("a number needs a digit in its exponent");
    }
    return true;
  }

  bool Literal(std::string_view word) {
    for (char c : word) {
      if (Next() != c) return Fail("expected true, false or null");
    }
    return true;
  }

  // A value of `role` starts with `c`: what the dispatcher keeps of it.
  void Begin(Role role, int c) {
    switch (role) {
      case Role::kOther:
        break;
      case Role::kRoot:
        found_->root_is_container = c == '{' || c == '[';
        break;
      case Role::kKelPrefs:
        found_->kel_prefs = c == '{';
        found_->policy = false;
        found_->ForgetRules();
        break;
      case Role::kPolicy:
        found_->policy = c == '{';
        found_->ForgetRules();
        break;
      case Role::kBrowserUrls:
        if (rules_) {
          rules_->Reserve(sizes_->rules, sizes_->patterns, sizes_->pattern_bytes);
        } else {
          found_->ForgetRules();
          found_->browser_urls = c == '[';
          found_->browser_urls_begin = offset();
        }
        break;
      case Role::kRule:
        if (rules_) {
          rules_->AddRule();
        } else {
          ++found_->rules;
          found_->rule_patterns = found_->rule_pattern_bytes = 0;
        }
        break;
      case Role::kPatterns:
        if (rules_) {
          rules_->SetPatterns(c == '[');
        } else {
          found_->patterns -= found_->rule_patterns;
          found_->pattern_bytes -= found_->rule_pattern_bytes;
          found_->rule_patterns = found_->rule_pattern_bytes = 0;
        }
        break;
      case Role::kPattern:
        if (rules_) {
          pattern_text_ = rules_->AddPattern(c == '"');
        } else {
          ++found_->patterns;
          ++found_->rule_patterns;
        }
        break;
      case Role::kBrowser:
        found_->browser = c == '{';
        found_->browser_path.reset();
        break;
      case Role::kBrowserPath:
        found_->browser_path.reset();
        if (c == '"') found_->browser_path.emplace();
        break;
    }
  }

  // Where the text of a string value of `role` goes.
  std::string* Keep(Role role) {
    if (role == Role::kPattern && rules_) return pattern_text_;
    if (role == Role::kBrowserPath) return &*found_->browser_path;
    return nullptr;
  }

  bool Scalar(Role role, int c) {
    switch (c) {
      case '"': return String(Keep(role), std::string::npos);
      case 't': return Literal("true");
      case 'f': return Literal("false");
      case 'n': return Literal("null");
      default: return (c == '-' || (c >= '0' && c <= '9')) ? Number() : Fail("expected a value");
    }
  }

  // One value of `role`; in a whole document nothing but blanks may follow.
  bool Parse(Role role, bool document) {
    enum class Step { kValue, kKey, kAfterValue } step = Step::kValue;
    int depth = 0;
    std::string key;
    for (;;) {
      if (step == Step::kKey) {
        const Level& object = stack_[depth - 1];
        if (SkipSpace() != '"') return Fail("expected a key in quotes");
        bool wanted = HasWantedMembers(object.role);
        key.clear();
        if (!String(wanted ? &key : nullptr, kKeyLimit + 1)) return false;
        if (SkipSpace() != ':') return Fail("expected ':' after a key");
        ++pos_;
        role = wanted ? MemberRole(object.role, key) : Role::kOther;
        step = Step::kValue;
        continue;
      }
      if (step == Step::kValue) {
        int c = SkipSpace();
        Begin(role, c);
        if (c != '{' && c != '[') {
          uint64_t start = offset();
          if (!Scalar(role, c)) return false;
          if (role == Role::kPattern && c == '"' && !rules_) {
            uint64_t inside_quotes = offset() - start - 2;
            found_->pattern_bytes += inside_quotes;
            found_->rule_pattern_bytes += inside_quotes;
          }
          step = Step::kAfterValue;
          continue;
        }
        if (depth == kMaxDepth) return Fail("nesting deeper than 1024 levels");
        ++pos_;
        stack_[depth++] = {c == '{', role};
        int first = SkipSpace();
        if (first == (c == '{' ? '}' : ']')) {
          ++pos_;
          Close(stack_[--depth]);
          step = Step::kAfterValue;
        } else if (c == '{') {
          step = Step::kKey;
        } else {
          role = ElementRole(role);
        }
        continue;
      }
      if (depth == 0) {
        if (!document) return true;
        if (SkipSpace() >= 0) return Fail("more after the end of the document");
        return failure_ == Failure::kNone;
      }
      const Level& container = stack_[depth - 1];
      int c = SkipSpace();
      if (c == ',') {
        ++pos_;
        if (container.object) {
          step = Step::kKey;
        } else {
          role = ElementRole(container.role);
          step = Step::kValue;
        }
      } else if (c == (container.object ? '}' : ']')) {
        ++pos_;
        Close(container);
        --depth;
      } else {
        return Fail(container.object ? "expected ',' or '}'" : "expected ',' or ']'");
      }
    }
  }

  void Close(const Level& level) {
    if (level.role == Role::kBrowserUrls && !level.object && !rules_) found_->browser_urls_end = offset();
  }

  Source* source_;
  uint64_t window_offset_;
  std::string_view window_;
  size_t pos_ = 0;
  bool at_end_ = false;
  Failure failure_ = Failure::kNone;
  std::string reason_;
  Findings* found_ = nullptr;
  const Findings* sizes_ = nullptr;
  PolicyRules* rules_ = nullptr;
  std::string* pattern_text_ = nullptr;
  Level stack_[kMaxDepth];
};

struct Document {
  Failure failure = Failure::kNone;
  std::string reason;
  Findings found;
  PolicyRules rules;
};

Document ReadDocument(const base::FilePath& path) {
  Document document;
  document.failure = Failure::kRead;
  // Never waits for a writer; whatever is there is read as it is.
  int fd = open(path.value().c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) return document;
  struct stat st;
  if (fstat(fd, &st) != 0 || S_ISDIR(st.st_mode) || static_cast<uint64_t>(st.st_size) > kMaxLocalStateBytes) {
    close(fd);
    return document;
  }
  std::unique_ptr<Source> source;
  if (S_ISREG(st.st_mode)) {
    source = std::make_unique<Source>(fd);
  } else {
    close(fd);
    std::string data;
    if (!base::ReadFileToString(path, &data, kMaxLocalStateBytes)) return document;
    source = std::make_unique<Source>(std::move(data));
  }

  Parser parser(source.get(), 0);
  if (!parser.ParseDocument(&document.found)) {
    document.failure = parser.failure() == Failure::kParse && source->ReadableToEnd(parser.read_end())
                           ? Failure::kParse
                           : Failure::kRead;
    document.reason = parser.reason();
    return document;
  }
  document.failure = Failure::kParse;
  // A document must be an object or an array; a lone number, string,
  // boolean or null is a fragment and is refused like malformed JSON.
  if (!document.found.root_is_container) {
    document.reason =
        "The document's top level is a single value, not an object or an array; fragments are not accepted.";
    return document;
  }
  const Findings& found = document.found;
  if (found.kel_prefs && found.policy && found.browser_urls) {
    Parser rules(source.get(), found.browser_urls_begin);
    if (!rules.ParseRules(found, &document.rules)) {
      document.failure = rules.failure();
      document.reason = rules.reason();
      return document;
    }
    if (rules.offset() != found.browser_urls_end || document.rules.size() != found.rules ||
        document.rules.patterns().size() != found.patterns) {
      document.reason = "Local State changed while it was read.";
      return document;
    }
  }
  document.failure = Failure::kNone;
  return document;
}

}  // namespace

base::FilePath LocalStatePath() {
  base::FilePath directory;
  if (!base::LookupPath(base::DIR_APP_DATA, &directory)) return base::FilePath();
  // Joined as a plain string: the directory never ends in a separator.
  return base::FilePath(directory.value() + "/Halvard/Corvane/Local State");
}

LocalStatePolicy ReadLocalStatePolicy(const base::FilePath& path) {
  LocalStatePolicy result;

  LOG(INFO) << "Local State Path " << path.value();

  if (!base::PathIsReadable(path)) {
    LOG(ERROR) << "Local State is not readable.";
    return result;
  }
  LOG(INFO) << "Local State is readable.";

  Document document = ReadDocument(path);
  if (document.failure == Failure::kRead) {
    LOG(ERROR) << "Failed to read Local State data.";
    result.status = LocalStateStatus::kReadFailed;
    return result;
  }
  LOG(INFO) << "Read local state data.";

  if (document.failure == Failure::kParse) {
    LOG(ERROR) << "Failed to parse Local State data. Error : " << document.reason;
    result.status = LocalStateStatus::kParseFailed;
    return result;
  }
  LOG(INFO) << "Successfully parsed Local State.";
  result.status = LocalStateStatus::kParsed;

  Findings& found = document.found;
  if (!found.kel_prefs) {
    LOG(ERROR) << "Local State has no kel_prefs.";
  } else if (!found.policy) {
    LOG(ERROR) << "Local State has no policy data.";
  } else if (!found.browser_urls) {
    LOG(ERROR) << "No Browser URLs found inside Local State";
  } else {
    result.policy_urls = std::move(document.rules);
    LOG(INFO) << "Successfully parsed Policy Doc URLs.";
  }

  if (!found.browser) {
    LOG(ERROR) << "Local State has no non-work browser details stored.";
  } else if (!found.browser_path) {
    LOG(ERROR) << "No path for non-work browser found in local state.";
  } else {
    // Logged before the URL is made and whatever that yields.
    LOG(INFO) << "Successfully stored path for non-work browser";
    if (IsWellFormedUrl(*found.browser_path)) result.non_work_browser_url = std::move(found.browser_path);
  }

  return result;
}

}  // namespace dispatcher
