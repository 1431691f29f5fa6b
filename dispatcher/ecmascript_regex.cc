#include "dispatcher/ecmascript_regex.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

namespace dispatcher {

namespace {

constexpr uint32_t kInfinite = UINT32_MAX;
// Deeper nesting is refused rather than risk the stack here or in PCRE2.
constexpr int kMaxNesting = 200;
// PCRE2's largest repetition count.
constexpr uint32_t kMaxRepeat = 65535;
// Far more than PCRE2 compiles: its compiled form is limited to 64 KiB.
constexpr size_t kMaxExpressionSize = 1 << 20;

// A set of bytes.
struct ByteSet {
  uint64_t bits[4] = {0, 0, 0, 0};

  void Add(unsigned b) { bits[b >> 6] |= uint64_t{1} << (b & 63); }
  bool Has(unsigned b) const { return (bits[b >> 6] >> (b & 63)) & 1; }
  void AddRange(unsigned low, unsigned high) {
    for (unsigned b = low; b <= high; ++b) Add(b);
  }
  void Merge(const ByteSet& other) {
    for (int i = 0; i < 4; ++i) bits[i] |= other.bits[i];
  }
  ByteSet Complement() const {
    ByteSet result;
    for (int i = 0; i < 4; ++i) result.bits[i] = ~bits[i];
    return result;
  }
  int Count() const {
    int count = 0;
    for (uint64_t word : bits) count += __builtin_popcountll(word);
    return count;
  }
  bool SubsetOf(const ByteSet& other) const {
    for (int i = 0; i < 4; ++i) {
      if (bits[i] & ~other.bits[i]) return false;
    }
    return true;
  }
};

ByteSet AnyButLineBreak() {
  ByteSet set = ByteSet().Complement();
  set.bits[0] &= ~((uint64_t{1} << '\n') | (uint64_t{1} << '\r'));
  return set;
}

// The character classes of the "C" locale (ASCII only), as the library's
// ctype tables have them; "w" is alnum plus the underscore.
enum ClassBit : uint16_t {
  kAlnum = 1 << 0, kAlpha = 1 << 1, kBlank = 1 << 2, kCntrl = 1 << 3, kDigit = 1 << 4,
  kGraph = 1 << 5, kLower = 1 << 6, kPrint = 1 << 7, kPunct = 1 << 8, kSpace = 1 << 9,
  kUpper = 1 << 10, kXdigit = 1 << 11, kWord = 1 << 12,
};

bool IsDigit(unsigned c) { return c >= '0' && c <= '9'; }
bool IsUpper(unsigned c) { return c >= 'A' && c <= 'Z'; }
bool IsLower(unsigned c) { return c >= 'a' && c <= 'z'; }
bool IsAlnum(unsigned c) { return IsDigit(c) || IsUpper(c) || IsLower(c); }

bool InClass(unsigned c, uint16_t mask) {
  if (c >= 0x80) return false;
  bool graph = c >= 0x21 && c <= 0x7e;
  return ((mask & (kAlnum | kWord)) && IsAlnum(c)) || ((mask & kWord) && c == '_') ||
         ((mask & kAlpha) && (IsUpper(c) || IsLower(c))) ||
         ((mask & kBlank) && (c == ' ' || c == '\t')) ||
         ((mask & kCntrl) && (c < 0x20 || c == 0x7f)) || ((mask & kDigit) && IsDigit(c)) ||
         ((mask & kGraph) && graph) || ((mask & kLower) && IsLower(c)) ||
         ((mask & kPrint) && (graph || c == ' ')) ||
         ((mask & kPunct) && graph && !IsAlnum(c)) ||
         ((mask & kSpace) && (c == ' ' || (c >= '\t' && c <= '\r'))) ||
         ((mask & kUpper) && IsUpper(c)) ||
         ((mask & kXdigit) && (IsDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F')));
}

ByteSet ClassSet(uint16_t mask) {
  ByteSet set;
  for (unsigned c = 0; c < 0x80; ++c) {
    if (InClass(c, mask)) set.Add(c);
  }
  return set;
}

uint16_t ClassByName(std::string_view name) {
  static constexpr std::pair<std::string_view, uint16_t> kNames[] = {
      {"alnum", kAlnum}, {"alpha", kAlpha}, {"blank", kBlank}, {"cntrl", kCntrl},
      {"d", kDigit},     {"digit", kDigit}, {"graph", kGraph}, {"lower", kLower},
      {"print", kPrint}, {"punct", kPunct}, {"s", kSpace},     {"space", kSpace},
      {"upper", kUpper}, {"w", kWord},      {"xdigit", kXdigit},
  };
  std::string lowered(name);
  for (char& c : lowered) {
    if (IsUpper(static_cast<unsigned char>(c))) c = static_cast<char>(c + 32);
  }
  for (const auto& [entry, mask] : kNames) {
    if (lowered == entry) return mask;
  }
  return 0;
}

// A collating element of the "C" locale: one byte, or a name from the
// portable character set; -1 for anything else.
int CollatingElement(std::string_view name) {
  static constexpr std::pair<std::string_view, char> kNames[] = {
      {"NUL", 0x00}, {"alert", 0x07}, {"backspace", 0x08}, {"tab", 0x09}, {"newline", 0x0a},
      {"vertical-tab", 0x0b}, {"form-feed", 0x0c}, {"carriage-return", 0x0d}, {"space", ' '},
      {"exclamation-mark", '!'}, {"quotation-mark", '"'}, {"number-sign", '#'},
      {"dollar-sign", '$'}, {"percent-sign", '%'}, {"ampersand", '&'}, {"apostrophe", '\''},
      {"left-parenthesis", '('}, {"right-parenthesis", ')'}, {"asterisk", '*'},
      {"plus-sign", '+'}, {"comma", ','}, {"hyphen", '-'}, {"hyphen-minus", '-'},
      {"period", '.'}, {"full-stop", '.'}, {"slash", '/'}, {"solidus", '/'}, {"zero", '0'},
      {"one", '1'}, {"two", '2'}, {"three", '3'}, {"four", '4'}, {"five", '5'}, {"six", '6'},
      {"seven", '7'}, {"eight", '8'}, {"nine", '9'}, {"colon", ':'}, {"semicolon", ';'},
      {"less-than-sign", '<'}, {"equals-sign", '='}, {"greater-than-sign", '>'},
      {"question-mark", '?'}, {"commercial-at", '@'}, {"left-square-bracket", '['},
      {"backslash", '\\'}, {"reverse-solidus", '\\'}, {"right-square-bracket", ']'},
      {"circumflex", '^'}, {"circumflex-accent", '^'}, {"underscore", '_'}, {"low-line", '_'},
      {"grave-accent", '`'}, {"left-brace", '{'}, {"left-curly-bracket", '{'},
      {"vertical-line", '|'}, {"right-brace", '}'}, {"right-curly-bracket", '}'},
      {"tilde", '~'},
  };
  for (const auto& [entry, byte] : kNames) {
    if (name == entry) return static_cast<unsigned char>(byte);
  }
  if (name.size() == 1) return static_cast<unsigned char>(name[0]);
  return -1;
}

int HexValue(unsigned c) {
  if (IsDigit(c)) return static_cast<int>(c - '0');
  if (c >= 'a' && c <= 'f') return static_cast<int>(c - 'a' + 10);
  if (c >= 'A' && c <= 'F') return static_cast<int>(c - 'A' + 10);
  return -1;
}

enum class Kind : uint8_t {
  kByte,
  kSet,
  kGroup,
  kNonCapture,
  kLookahead,
  kBackReference,
  kBegin,
  kEnd,
  kWordBoundary,
  kRepeat,
  kSequence,
  kAlternation,
};

struct Node {
  Kind kind;
  bool flag = false;     // kLookahead: negative; kRepeat: greedy; kWordBoundary: \B
  uint8_t byte = 0;      // kByte
  uint32_t number = 0;   // kGroup, kBackReference: group;
                         // kWordBoundary: innermost lookahead node + 1, or 0
  ByteSet set;           // kSet
  uint32_t min = 0;      // kRepeat
  uint32_t max = 0;      // kRepeat
  uint32_t groups_begin = 0;  // kRepeat: the groups inside are [begin, end)
  uint32_t groups_end = 0;
  bool needs_marker = false;  // kLookahead: holds a word boundary of its own
  int child = -1;        // first child
  int last_child = -1;
  int next = -1;         // next sibling
};

constexpr int kNoProgress = -1;

class Parser {
 public:
  explicit Parser(std::string_view text) : text_(text) { nodes_.reserve(text.size() + 2); }

  // The root node, or -1 with error_ and offset_ set.
  int Parse() {
    size_t pos = 0;
    int root = ParseDisjunction(pos, 0);
    if (failed_) return -1;
    if (pos != text_.size()) {
      char c = text_[pos];
      if (c == ')') return Fail(pos, "unmatched ')'");
      if (c == ']' || c == '}') {
        return Fail(pos, std::string("'") + c + "' outside a character class must be escaped");
      }
      return Fail(pos, "unexpected character");
    }
    return root;
  }

  const std::string& error() const { return error_; }
  size_t offset() const { return offset_; }
  std::vector<Node>& nodes() { return nodes_; }
  uint32_t group_count() const { return group_count_; }
  // The groups that back-references name.
  const std::vector<uint32_t>& references() const { return references_; }

 private:
  struct Bracket {
    ByteSet chars;
    uint16_t mask = 0;
    uint16_t neg_mask = 0;
    ByteSet neg_chars;
    bool has_neg_chars = false;
  };

  int Fail(size_t pos, std::string message) {
    if (!failed_) {
      failed_ = true;
      offset_ = pos;
      error_ = std::move(message);
    }
    return -1;
  }

  int Add(Node node) {
    nodes_.push_back(node);
    return static_cast<int>(nodes_.size() - 1);
  }
  int AddNode(Kind kind) {
    Node node;
    node.kind = kind;
    return Add(node);
  }
  void Append(int parent, int child) {
    if (nodes_[parent].child < 0) {
      nodes_[parent].child = child;
    } else {
      nodes_[nodes_[parent].last_child].next = child;
    }
    nodes_[parent].last_child = child;
  }
  int AddSet(const ByteSet& set) {
    int node = AddNode(Kind::kSet);
    nodes_[node].set = set;
    return node;
  }
  int AddByte(unsigned byte) {
    int node = AddNode(Kind::kByte);
    nodes_[node].byte = static_cast<uint8_t>(byte);
    return node;
  }
  unsigned char At(size_t pos) const { return static_cast<unsigned char>(text_[pos]); }
  bool AtEnd(size_t pos) const { return pos >= text_.size(); }

  // Alternatives separated by "|"; an empty alternative matches the empty
  // string.
  int ParseDisjunction(size_t& pos, int depth) {
    int first = ParseAlternative(pos, depth);
    if (failed_ || AtEnd(pos) || text_[pos] != '|') return first;
    int alternation = AddNode(Kind::kAlternation);
    Append(alternation, first);
    while (!AtEnd(pos) && text_[pos] == '|') {
      ++pos;
      int next = ParseAlternative(pos, depth);
      if (failed_) return -1;
      Append(alternation, next);
    }
    return alternation;
  }

  int ParseAlternative(size_t& pos, int depth) {
    int sequence = AddNode(Kind::kSequence);
    while (!AtEnd(pos)) {
      int term = ParseTerm(pos, depth);
      if (failed_) return -1;
      if (term == kNoProgress) break;
      Append(sequence, term);
    }
    return sequence;
  }

  int ParseTerm(size_t& pos, int depth) {
    unsigned char c = At(pos);
    if (c == '^') {
      ++pos;
      return AddNode(Kind::kBegin);
    }
    if (c == '$') {
      ++pos;
      return AddNode(Kind::kEnd);
    }
    if (c == '\\' && pos + 1 < text_.size() && (text_[pos + 1] == 'b' || text_[pos + 1] == 'B')) {
      int node = AddNode(Kind::kWordBoundary);
      nodes_[node].flag = text_[pos + 1] == 'B';
      int lookahead = CurrentScope().lookahead;
      nodes_[node].number = static_cast<uint32_t>(lookahead + 1);
      if (lookahead >= 0) nodes_[lookahead].needs_marker = true;
      pos += 2;
      return node;
    }
    if (c == '(' && pos + 2 < text_.size() && text_[pos + 1] == '?' &&
        (text_[pos + 2] == '=' || text_[pos + 2] == '!')) {
      if (depth >= kMaxNesting) return TooDeep(pos);
      size_t open = pos;
      int node = AddNode(Kind::kLookahead);
      nodes_[node].flag = text_[pos + 2] == '!';
      // Inside a lookahead, back-references count only its own groups.
      scopes_.push_back({group_count_, node});
      pos += 3;
      int body = ParseDisjunction(pos, depth + 1);
      scopes_.pop_back();
      if (failed_) return -1;
      if (AtEnd(pos) || text_[pos] != ')') return Fail(open, "'(' without its ')'");
      ++pos;
      Append(node, body);
      return node;
    }
    uint32_t groups_before = group_count_;
    int atom = ParseAtom(pos, depth);
    if (atom < 0) return atom;
    return ParseQuantifier(pos, atom, groups_before + 1, group_count_ + 1);
  }

  int TooDeep(size_t pos) {
    return Fail(pos, "groups nested more than " + std::to_string(kMaxNesting) + " deep");
  }

  int ParseAtom(size_t& pos, int depth) {
    unsigned char c = At(pos);
    switch (c) {
      case '.':
        ++pos;
        return AddSet(AnyButLineBreak());
      case '\\':
        return ParseAtomEscape(pos);
      case '[':
        return ParseBracket(pos);
      case '(': {
        if (depth >= kMaxNesting) return TooDeep(pos);
        size_t open = pos++;
        if (AtEnd(pos)) return Fail(open, "'(' without its ')'");
        int node;
        if (text_[pos] == '?' && pos + 1 < text_.size() && text_[pos + 1] == ':') {
          node = AddNode(Kind::kNonCapture);
          pos += 2;
        } else if (text_[pos] == '?') {
          return Fail(pos, "'(?' must be followed by ':', '=' or '!'");
        } else {
          node = AddNode(Kind::kGroup);
          nodes_[node].number = ++group_count_;
        }
        int body = ParseDisjunction(pos, depth + 1);
        if (failed_) return -1;
        if (AtEnd(pos) || text_[pos] != ')') return Fail(open, "'(' without its ')'");
        ++pos;
        Append(node, body);
        return node;
      }
      case '*':
      case '+':
      case '?':
      case '{':
        return Fail(pos, std::string("'") + static_cast<char>(c) + "' does not follow anything it could repeat");
      case '^': case '$': case ')': case ']': case '}': case '|':
        return kNoProgress;
      default:
        ++pos;
        return AddByte(c);
    }
  }

  int ParseAtomEscape(size_t& pos) {
    size_t start = pos++;
    if (AtEnd(pos)) return Fail(start, "'\\' at the end of the pattern");
    unsigned char c = At(pos);
    if (c == '0') {
      ++pos;
      return AddByte(0);
    }
    if (c >= '1' && c <= '9') {
      uint32_t value = c - '0';
      for (++pos; !AtEnd(pos) && IsDigit(At(pos)); ++pos) {
        if (value >= UINT32_MAX / 10) return Fail(start, "back-reference number too large");
        value = value * 10 + (At(pos) - '0');
      }
      const Scope& scope = CurrentScope();
      uint32_t available = group_count_ - scope.base;
      if (value > available) {
        std::string message = "back-reference \\" + std::to_string(value) + " to a group not opened before it";
        if (scope.lookahead >= 0) message += " in its lookahead";
        return Fail(start, message + " (" + std::to_string(available) + " there)");
      }
      int node = AddNode(Kind::kBackReference);
      uint32_t group = scope.base + value;
      nodes_[node].number = group;
      references_.push_back(group);
      return node;
    }
    switch (c) {
      case 'd': ++pos; return AddSet(ClassSet(kDigit));
      case 'D': ++pos; return AddSet(ClassSet(kDigit).Complement());
      case 's': ++pos; return AddSet(ClassSet(kSpace));
      case 'S': ++pos; return AddSet(ClassSet(kSpace).Complement());
      case 'w': ++pos; return AddSet(ClassSet(kWord));
      case 'W': ++pos; return AddSet(ClassSet(kWord).Complement());
      default: break;
    }
    int byte = ParseCharacterEscape(pos, start);
    if (byte < 0) return -1;
    return AddByte(static_cast<unsigned>(byte));
  }

  // The escaped character at pos (behind the backslash at `start`), or -1.
  int ParseCharacterEscape(size_t& pos, size_t start) {
    unsigned char c = At(pos);
    switch (c) {
      case 'f': ++pos; return 0x0c;
      case 'n': ++pos; return 0x0a;
      case 'r': ++pos; return 0x0d;
      case 't': ++pos; return 0x09;
      case 'v': ++pos; return 0x0b;
      case '0': ++pos; return 0;
      case 'c': {
        if (pos + 1 >= text_.size() || !(IsUpper(At(pos + 1)) || IsLower(At(pos + 1)))) {
          return Fail(start, "'\\c' must be followed by a letter");
        }
        int value = At(pos + 1) % 32;
        pos += 2;
        return value;
      }
      case 'u':
      case 'x': {
        // Four or two hex digits; a \u value keeps only its low byte.
        int digits = c == 'u' ? 4 : 2;
        unsigned value = 0;
        ++pos;
        for (int i = 0; i < digits; ++i, ++pos) {
          int digit = AtEnd(pos) ? -1 : HexValue(At(pos));
          if (digit < 0) {
            return Fail(start, std::string("'\\") + static_cast<char>(c) + "' must be followed by " +
                                   std::to_string(digits) + " hex digits");
          }
          value = value * 16 + static_cast<unsigned>(digit);
        }
        return static_cast<int>(value & 0xff);
      }
      default:
        if (c == '_' || IsAlnum(c)) {
          return Fail(start, std::string("unknown escape '\\") + static_cast<char>(c) + "'");
        }
        ++pos;
        return c;
    }
  }

  int ParseBracket(size_t& pos) {
    size_t open = pos++;
    const char* missing = "'[' without its ']'";
    if (AtEnd(pos)) return Fail(open, missing);
    bool negate = false;
    if (text_[pos] == '^') {
      negate = true;
      ++pos;
    }
    if (AtEnd(pos)) return Fail(open, missing);
    Bracket bracket;
    while (true) {
      size_t before = pos;
      ParseExpressionTerm(pos, bracket);
      if (failed_) return -1;
      if (pos == before) break;
    }
    if (AtEnd(pos)) return Fail(open, missing);
    if (text_[pos] == '-') {
      bracket.chars.Add('-');
      ++pos;
    }
    if (AtEnd(pos) || text_[pos] != ']') return Fail(open, missing);
    ++pos;

    ByteSet found = bracket.chars;
    found.Merge(ClassSet(bracket.mask));
    // As in the C++ library, negated items (\D, \S, \W) pool into one
    // set, and the bracket takes the complement of that pool.
    if (bracket.neg_mask != 0 || bracket.has_neg_chars) {
      ByteSet pool = ClassSet(bracket.neg_mask);
      pool.Merge(bracket.neg_chars);
      found.Merge(pool.Complement());
    }
    return AddSet(negate ? found.Complement() : found);
  }

  void ParseExpressionTerm(size_t& pos, Bracket& bracket) {
    if (AtEnd(pos) || text_[pos] == ']') return;
    int start_char = -1;
    if (pos + 1 < text_.size() && text_[pos] == '[') {
      char kind = text_[pos + 1];
      if (kind == '=') {
        pos += 2;
        ParseEquivalenceClass(pos, bracket);
        return;
      }
      if (kind == ':') {
        pos += 2;
        ParseClassName(pos, bracket);
        return;
      }
      if (kind == '.') {
        pos += 2;
        start_char = ParseCollatingSymbol(pos);
        if (failed_) return;
      }
    }
    if (start_char < 0) {
      if (text_[pos] == '\\') {
        start_char = ParseClassEscape(pos, bracket);
        if (failed_) return;
      } else {
        start_char = At(pos++);
      }
    }
    if (!AtEnd(pos) && text_[pos] != ']' && pos + 1 < text_.size() && text_[pos] == '-' &&
        text_[pos + 1] != ']') {
      size_t range_at = pos;
      ++pos;
      int end_char;
      if (pos + 1 < text_.size() && text_[pos] == '[' && text_[pos + 1] == '.') {
        pos += 2;
        end_char = ParseCollatingSymbol(pos);
      } else if (text_[pos] == '\\') {
        end_char = ParseClassEscape(pos, bracket);
      } else {
        end_char = At(pos++);
      }
      if (failed_) return;
      if (start_char < 0 || end_char < 0) {
        Fail(range_at, "a range in a character class needs a character at both ends");
        return;
      }
      // A reversed range is accepted and matches nothing.
      if (start_char <= end_char) {
        bracket.chars.AddRange(static_cast<unsigned>(start_char), static_cast<unsigned>(end_char));
      }
      return;
    }
    if (start_char >= 0) bracket.chars.Add(static_cast<unsigned>(start_char));
  }

  // Behind "\" in a bracket: a character, or -1 for a class escape that has
  // been added to the bracket (or an error).
  int ParseClassEscape(size_t& pos, Bracket& bracket) {
    size_t start = pos++;
    if (AtEnd(pos)) {
      Fail(start, "'\\' at the end of the pattern");
      return -1;
    }
    switch (text_[pos]) {
      case '\0': ++pos; return 0;
      case 'b': ++pos; return 0x08;
      case 'd': ++pos; bracket.mask |= kDigit; return -1;
      case 'D': ++pos; bracket.neg_mask |= kDigit; return -1;
      case 's': ++pos; bracket.mask |= kSpace; return -1;
      case 'S': ++pos; bracket.neg_mask |= kSpace; return -1;
      case 'w': ++pos; bracket.mask |= kAlnum; bracket.chars.Add('_'); return -1;
      case 'W':
        ++pos;
        bracket.neg_mask |= kAlnum;
        bracket.neg_chars.Add('_');
        bracket.has_neg_chars = true;
        return -1;
      default:
        return ParseCharacterEscape(pos, start);
    }
  }

  // Finds the closing pair ("=]", ":]" or ".]") anywhere further on.
  size_t FindClose(size_t pos, char first) const {
    for (size_t i = pos; i + 1 < text_.size(); ++i) {
      if (text_[i] == first && text_[i + 1] == ']') return i;
    }
    return std::string_view::npos;
  }

  void ParseEquivalenceClass(size_t& pos, Bracket& bracket) {
    size_t close = FindClose(pos, '=');
    if (close == std::string_view::npos) {
      Fail(pos - 2, "missing '=]' for '[='");
      return;
    }
    int c = CollatingElement(text_.substr(pos, close - pos));
    if (c < 0) {
      Fail(pos, "unknown collating element");
      return;
    }
    bracket.chars.Add(static_cast<unsigned>(c));
    pos = close + 2;
  }

  void ParseClassName(size_t& pos, Bracket& bracket) {
    size_t close = FindClose(pos, ':');
    if (close == std::string_view::npos) {
      Fail(pos - 2, "missing ':]' for '[:'");
      return;
    }
    uint16_t mask = ClassByName(text_.substr(pos, close - pos));
    if (mask == 0) {
      Fail(pos, "unknown character class name");
      return;
    }
    bracket.mask |= mask;
    pos = close + 2;
  }

  int ParseCollatingSymbol(size_t& pos) {
    size_t close = FindClose(pos, '.');
    if (close == std::string_view::npos) {
      Fail(pos - 2, "missing '.]' for '[.'");
      return -1;
    }
    int c = CollatingElement(text_.substr(pos, close - pos));
    if (c < 0) {
      Fail(pos, "unknown collating element");
      return -1;
    }
    pos = close + 2;
    return c;
  }

  // Digits of a repetition count into *count; false when there are none.
  bool ParseCount(size_t& pos, uint32_t* count) {
    if (AtEnd(pos) || !IsDigit(At(pos))) return false;
    uint32_t value = At(pos++) - '0';
    for (; !AtEnd(pos) && IsDigit(At(pos)); ++pos) {
      if (value >= INT32_MAX / 10) {
        Fail(pos, "repetition count too large");
        return false;
      }
      value = value * 10 + (At(pos) - '0');
    }
    *count = value;
    return true;
  }

  int ParseQuantifier(size_t& pos, int atom, uint32_t groups_begin, uint32_t groups_end) {
    if (AtEnd(pos)) return atom;
    size_t start = pos;
    uint32_t min = 0, max = 0;
    switch (text_[pos]) {
      case '*': min = 0; max = kInfinite; ++pos; break;
      case '+': min = 1; max = kInfinite; ++pos; break;
      case '?': min = 0; max = 1; ++pos; break;
      case '{': {
        ++pos;
        const char* form = "a repetition count is {n}, {n,} or {n,m}";
        if (!ParseCount(pos, &min)) return failed_ ? -1 : Fail(pos, form);
        if (AtEnd(pos)) return Fail(pos, form);
        if (text_[pos] == '}') {
          max = min;
          ++pos;
        } else if (text_[pos] == ',') {
          ++pos;
          if (AtEnd(pos)) return Fail(pos, form);
          if (text_[pos] == '}') {
            max = kInfinite;
            ++pos;
          } else {
            if (!ParseCount(pos, &max)) return failed_ ? -1 : Fail(pos, form);
            if (AtEnd(pos) || text_[pos] != '}') return Fail(pos, form);
            ++pos;
            if (max < min) return Fail(start, "repetition {n,m} with m smaller than n");
          }
        } else {
          return Fail(pos, form);
        }
        if (min > kMaxRepeat || (max != kInfinite && max > kMaxRepeat)) {
          return Fail(start, "repetition counts above " + std::to_string(kMaxRepeat) +
                                 " are not supported");
        }
        break;
      }
      default:
        return atom;
    }
    bool greedy = true;
    if (!AtEnd(pos) && text_[pos] == '?') {
      greedy = false;
      ++pos;
    }
    int node = AddNode(Kind::kRepeat);
    nodes_[node].min = min;
    nodes_[node].max = max;
    nodes_[node].flag = greedy;
    nodes_[node].groups_begin = groups_begin;
    nodes_[node].groups_end = groups_end;
    Append(node, atom);
    return node;
  }

  struct Scope {
    uint32_t base;   // groups opened before the scope
    int lookahead;   // its lookahead node, or -1 at the top
  };

  const Scope& CurrentScope() const { return scopes_.empty() ? kTopScope : scopes_.back(); }

  static constexpr Scope kTopScope = {0, -1};
  std::string_view text_;
  std::vector<Node> nodes_;
  std::vector<Scope> scopes_;  // of the lookaheads open here
  std::vector<uint32_t> references_;
  uint32_t group_count_ = 0;
  bool failed_ = false;
  std::string error_;
  size_t offset_ = 0;
};

// Writes the parsed expression in PCRE2's syntax.
class Emitter {
 public:
  Emitter(const std::vector<Node>& nodes, const std::vector<uint32_t>& references,
          uint32_t group_count)
      : nodes_(nodes), references_(references), any_(AnyButLineBreak()),
        emitted_group_(group_count + 1, 0), marker_group_(nodes.size(), 0) {}

  std::string Emit(int root) {
    out_.reserve(64);
    Write(root);
    return std::move(out_);
  }
  bool too_large() const { return too_large_; }

 private:
  // One byte as a literal, outside a class.
  void Byte(unsigned b) {
    if (IsAlnum(b) || (b < 0x80 && std::strchr("/-_:@=&%,;!~'\"<>#`", static_cast<int>(b)) && b)) {
      out_ += static_cast<char>(b);
      return;
    }
    // Any other printable ASCII byte is literal behind a backslash.
    if (b > 0x20 && b < 0x7f) {
      out_ += '\\';
      out_ += static_cast<char>(b);
      return;
    }
    ClassByte(b);
  }

  // One byte inside or outside a class.
  void ClassByte(unsigned b) {
    if (IsAlnum(b)) {
      out_ += static_cast<char>(b);
      return;
    }
    static const char kHex[] = "0123456789abcdef";
    out_ += "\\x{";
    out_ += kHex[b >> 4];
    out_ += kHex[b & 15];
    out_ += '}';
  }

  void Set(const ByteSet& set) {
    // Any byte but CR and LF: PCRE2's \N under the CR-or-LF newline
    // convention, far smaller compiled than the class.
    if (set.SubsetOf(any_) && any_.SubsetOf(set)) {
      out_ += "\\N";
      return;
    }
    int count = set.Count();
    if (count == 256) {
      out_ += "[\\x{00}-\\x{ff}]";
      return;
    }
    if (count == 1) {
      for (unsigned b = 0; b < 256; ++b) {
        if (set.Has(b)) Byte(b);
      }
      return;
    }
    // The shorter of the set and its complement; [^\x{00}-\x{ff}] matches
    // nothing.
    bool negate = count > 128 || count == 0;
    ByteSet listed = negate ? set.Complement() : set;
    out_ += negate ? "[^" : "[";
    for (unsigned b = 0; b < 256;) {
      if (!listed.Has(b)) {
        ++b;
        continue;
      }
      unsigned end = b;
      while (end + 1 < 256 && listed.Has(end + 1)) ++end;
      ClassByte(b);
      if (end > b) {
        if (end > b + 1) out_ += '-';
        ClassByte(end);
      }
      b = end + 1;
    }
    out_ += ']';
  }

  static void Quantifier(std::string& out, uint32_t min, uint32_t max, bool greedy) {
    if (min == 0 && max == kInfinite) {
      out += '*';
    } else if (min == 1 && max == kInfinite) {
      out += '+';
    } else if (min == 0 && max == 1) {
      out += '?';
    } else {
      out += '{';
      out += std::to_string(min);
      if (max != min) {
        out += ',';
        if (max != kInfinite) out += std::to_string(max);
      }
      out += '}';
    }
    if (!greedy) out += '?';
  }

  bool HoldsReferencedGroup(const Node& repeat) const {
    for (uint32_t group : references_) {
      if (group >= repeat.groups_begin && group < repeat.groups_end) return true;
    }
    return false;
  }

  void WordBoundary(const Node& node) {
    // Explicit classes: the C locale's word characters, whatever tables
    // PCRE2 was built with.
    static const char kBoundary[] =
        "(?:(?<=[0-9A-Z_a-z])(?![0-9A-Z_a-z])|(?<![0-9A-Z_a-z])(?=[0-9A-Z_a-z]))";
    static const char kNoBoundary[] =
        "(?:(?<=[0-9A-Z_a-z])(?=[0-9A-Z_a-z])|(?<![0-9A-Z_a-z])(?![0-9A-Z_a-z]))";
    const char* normal = node.flag ? kNoBoundary : kBoundary;
    if (node.number == 0) {
      out_ += normal;
      return;
    }
    // In a lookahead the C++ library judges a boundary at the lookahead's
    // own start by the next character alone (and finds none at the end of
    // the subject). Callouts compare the position with the lookahead's
    // start, which an empty group records.
    uint32_t marker = marker_group_[node.number - 1];
    std::string at = "(?C{a" + std::to_string(marker) + "})";
    std::string elsewhere = "(?C{n" + std::to_string(marker) + "})";
    out_ += "(?:" + at + (node.flag ? "(?![0-9A-Z_a-z])" : "(?=[0-9A-Z_a-z])") + "|" + elsewhere +
            normal + ")";
  }

  void Write(int index) {
    // Repetitions nested in repetitions copy their items; stop before the
    // copies run away.
    if (out_.size() > kMaxExpressionSize) {
      too_large_ = true;
      return;
    }
    const Node& node = nodes_[index];
    switch (node.kind) {
      case Kind::kByte:
        Byte(node.byte);
        return;
      case Kind::kSet:
        Set(node.set);
        return;
      case Kind::kSequence:
        for (int child = node.child; child >= 0; child = nodes_[child].next) Write(child);
        return;
      case Kind::kAlternation:
        for (int child = node.child; child >= 0; child = nodes_[child].next) {
          if (child != node.child) out_ += '|';
          Write(child);
        }
        return;
      case Kind::kGroup:
        emitted_group_[node.number] = ++emitted_count_;
        out_ += '(';
        Write(node.child);
        out_ += ')';
        return;
      case Kind::kNonCapture:
        out_ += "(?:";
        Write(node.child);
        out_ += ')';
        return;
      case Kind::kLookahead:
        out_ += node.flag ? "(?!" : "(?=";
        if (node.needs_marker) {
          marker_group_[index] = ++emitted_count_;
          out_ += "()(?:";
          Write(node.child);
          out_ += "))";
          return;
        }
        Write(node.child);
        out_ += ')';
        return;
      case Kind::kBackReference:
        out_ += "\\g{" + std::to_string(emitted_group_[node.number]) + "}";
        return;
      case Kind::kBegin:
        out_ += "\\A";
        return;
      case Kind::kEnd:
        out_ += "\\z";
        return;
      case Kind::kWordBoundary:
        WordBoundary(node);
        return;
      case Kind::kRepeat:
        Repeat(node);
        return;
    }
  }

  void Repeat(const Node& node) {
    // Every item that can be repeated is a single PCRE2 item as written.
    if (node.max < 2 || !HoldsReferencedGroup(node)) {
      Write(node.child);
      Quantifier(out_, node.min, node.max, node.flag);
      return;
    }
    // The C++ library clears the groups inside a repeated item at each
    // repetition, PCRE2 keeps them. Every repetition but the last calls a
    // copy of the item as a subroutine, after which PCRE2 restores the
    // groups; the last runs in place and keeps them, as both libraries do.
    // PCRE2 restores only the groups below the highest one set when the call
    // began, so an empty group numbered above the copy is set before each
    // call.
    std::string name = std::to_string(++subroutine_count_);
    out_ += "(?(DEFINE)(?<r";
    out_ += name;
    out_ += '>';
    ++emitted_count_;
    Write(node.child);
    out_ += "))";
    uint32_t rest_max = node.max == kInfinite ? kInfinite : node.max - 1;
    if (node.min == 0) out_ += "(?:";
    out_ += "(?:()(?&r";
    out_ += name;
    out_ += "))";
    ++emitted_count_;
    Quantifier(out_, node.min == 0 ? 0 : node.min - 1, rest_max, node.flag);
    out_ += "(?:";
    Write(node.child);
    out_ += ')';
    if (node.min == 0) {
      out_ += ')';
      Quantifier(out_, 0, 1, node.flag);
    }
  }

  const std::vector<Node>& nodes_;
  const std::vector<uint32_t>& references_;
  const ByteSet any_;
  std::vector<uint32_t> emitted_group_;  // by group number
  std::vector<uint32_t> marker_group_;   // by lookahead node
  uint32_t emitted_count_ = 0;
  uint32_t subroutine_count_ = 0;
  bool too_large_ = false;
  std::string out_;
};

// Wildcard form: literal bytes and stars (any run without CR or LF), and
// optional items that a neighbouring star absorbs.
struct Token {
  enum Type : uint8_t { kLiteral, kStar, kAbsorbable } type;
  uint8_t byte = 0;
};

class WildcardFinder {
 public:
  explicit WildcardFinder(const std::vector<Node>& nodes)
      : nodes_(nodes), any_(AnyButLineBreak()) {}

  bool Find(int root, std::vector<std::string>* runs) {
    const Node& top = nodes_[root];
    if (top.kind != Kind::kSequence) return false;
    // "^" first and "$" last add nothing to a whole-subject match.
    int first = top.child;
    while (first >= 0 && nodes_[first].kind == Kind::kBegin) first = nodes_[first].next;
    int last_kept = -1;
    for (int child = first; child >= 0; child = nodes_[child].next) {
      if (nodes_[child].kind != Kind::kEnd) last_kept = child;
    }
    tokens_.reserve(nodes_.size());
    for (int child = first; last_kept >= 0; child = nodes_[child].next) {
      if (!Flatten(child)) return false;
      if (child == last_kept) break;
    }
    // Absorbable items must have a star next to them (through other
    // absorbable ones); then they and repeated stars go.
    for (size_t i = 0; i < tokens_.size(); ++i) {
      if (tokens_[i].type != Token::kAbsorbable) continue;
      size_t left = i, right = i;
      while (left > 0 && tokens_[left - 1].type == Token::kAbsorbable) --left;
      while (right + 1 < tokens_.size() && tokens_[right + 1].type == Token::kAbsorbable) ++right;
      bool star_left = left > 0 && tokens_[left - 1].type == Token::kStar;
      bool star_right = right + 1 < tokens_.size() && tokens_[right + 1].type == Token::kStar;
      if (!star_left && !star_right) return false;
    }
    size_t kept = 0;
    for (size_t i = 0; i < tokens_.size(); ++i) {
      Token::Type type = tokens_[i].type;
      if (type == Token::kAbsorbable) continue;
      if (type == Token::kStar && kept > 0 && tokens_[kept - 1].type == Token::kStar) continue;
      tokens_[kept++] = tokens_[i];
    }
    size_t stars = 0;
    for (size_t i = 0; i < kept; ++i) stars += tokens_[i].type == Token::kStar;
    runs->resize(stars + 1);
    size_t run = 0;
    for (size_t i = 0; i < kept; ++i) {
      if (tokens_[i].type == Token::kStar) {
        ++run;
      } else {
        (*runs)[run] += static_cast<char>(tokens_[i].byte);
      }
    }
    return true;
  }

 private:
  // Appends the node's tokens; false unless it only chains literals and
  // stars.
  bool Flatten(int index) {
    const Node& node = nodes_[index];
    switch (node.kind) {
      case Kind::kByte:
        tokens_.push_back({Token::kLiteral, node.byte});
        return true;
      case Kind::kSet: {
        int count = 0;
        unsigned byte = 0;
        for (unsigned b = 0; b < 256 && count < 2; ++b) {
          if (node.set.Has(b)) {
            ++count;
            byte = b;
          }
        }
        if (count != 1) return false;
        tokens_.push_back({Token::kLiteral, static_cast<uint8_t>(byte)});
        return true;
      }
      case Kind::kSequence:
        for (int child = node.child; child >= 0; child = nodes_[child].next) {
          if (!Flatten(child)) return false;
        }
        return true;
      case Kind::kGroup:
      case Kind::kNonCapture:
        return Flatten(node.child);
      case Kind::kRepeat: {
        if (node.max == 0) return true;
        const Node& atom = nodes_[node.child];
        if (atom.kind == Kind::kSet || atom.kind == Kind::kByte) {
          ByteSet set;
          if (atom.kind == Kind::kByte) {
            set.Add(atom.byte);
          } else {
            set = atom.set;
          }
          if (node.min != 0 || !set.SubsetOf(any_)) return false;
          bool star = node.max == kInfinite && any_.SubsetOf(set);
          tokens_.push_back({star ? Token::kStar : Token::kAbsorbable, 0});
          return true;
        }
        // A repeated item that is itself nothing but stars is one star.
        size_t before = tokens_.size();
        if (!Flatten(node.child)) return false;
        for (size_t i = before; i < tokens_.size(); ++i) {
          if (tokens_[i].type != Token::kStar) return false;
        }
        if (tokens_.size() > before) tokens_.resize(before + 1);
        return true;
      }
      case Kind::kAlternation:
      case Kind::kLookahead:
      case Kind::kBackReference:
      case Kind::kBegin:
      case Kind::kEnd:
      case Kind::kWordBoundary:
        return false;
    }
    return false;
  }

  const std::vector<Node>& nodes_;
  ByteSet any_;
  std::vector<Token> tokens_;
};

// What is known of an expression before PCRE2 compiles it: the bytes every
// match starts with, and a bound on the size of its compiled form.
class Analysis {
 public:
  explicit Analysis(const std::vector<Node>& nodes) : nodes_(nodes) {}

  std::string LiteralPrefix(int root) {
    std::string prefix;
    Prefix(root, &prefix);
    return prefix;
  }

  // In compiled code units, generously: each item counted at more than PCRE2
  // takes, repeated groups once per copy that PCRE2 makes of them.
  uint64_t SizeBound(int index) const {
    // Far beyond any compiled form, and far from overflowing.
    constexpr uint64_t kHuge = uint64_t{1} << 40;
    const Node& node = nodes_[index];
    uint64_t children = 0;
    size_t count = 0;
    for (int child = node.child; child >= 0; child = nodes_[child].next) {
      children = std::min(kHuge, children + SizeBound(child));
      ++count;
    }
    switch (node.kind) {
      case Kind::kByte: return 4;
      case Kind::kSet: return 40;
      case Kind::kBackReference: return 8;
      case Kind::kBegin:
      case Kind::kEnd: return 2;
      case Kind::kWordBoundary: return 600;
      case Kind::kSequence: return children;
      case Kind::kAlternation: return children + 8 * count;
      case Kind::kGroup:
      case Kind::kNonCapture: return children + 16;
      case Kind::kLookahead: return children + 40;
      case Kind::kRepeat: {
        const Node& atom = nodes_[node.child];
        if (atom.kind == Kind::kByte || atom.kind == Kind::kSet ||
            atom.kind == Kind::kBackReference) {
          return children + 16;
        }
        // PCRE2 copies a group for each counted repetition, and once more
        // for an open end; a rewritten repetition holds two copies and its
        // calls.
        uint64_t copies = node.max == kInfinite ? uint64_t{node.min} + 2 : uint64_t{node.max} + 1;
        return std::min(kHuge, 2 * (children + 64) * copies + 64);
      }
    }
    return children;
  }

 private:
  // Appends the bytes every match of the node starts with; false where the
  // known part ends.
  bool Prefix(int index, std::string* prefix) {
    const Node& node = nodes_[index];
    switch (node.kind) {
      case Kind::kByte:
        prefix->push_back(static_cast<char>(node.byte));
        return true;
      case Kind::kSet: {
        if (node.set.Count() != 1) return false;
        for (unsigned b = 0; b < 256; ++b) {
          if (node.set.Has(b)) prefix->push_back(static_cast<char>(b));
        }
        return true;
      }
      case Kind::kBegin:
        return true;
      case Kind::kSequence:
        for (int child = node.child; child >= 0; child = nodes_[child].next) {
          if (!Prefix(child, prefix)) return false;
        }
        return true;
      case Kind::kGroup:
      case Kind::kNonCapture:
        return Prefix(node.child, prefix);
      case Kind::kRepeat:
        // The first repetition, when there must be one, starts the same way;
        // what follows is not known.
        if (node.min >= 1) Prefix(node.child, prefix);
        return false;
      case Kind::kAlternation:
      case Kind::kLookahead:
      case Kind::kBackReference:
      case Kind::kEnd:
      case Kind::kWordBoundary:
        return false;
    }
    return false;
  }

  const std::vector<Node>& nodes_;
};

}  // namespace

EcmaScriptRegex TranslateEcmaScript(std::string_view expression, bool write_pcre2) {
  EcmaScriptRegex result;
  Parser parser(expression);
  int root = parser.Parse();
  if (root < 0) {
    result.error = parser.error();
    result.offset = parser.offset();
    return result;
  }
  if (parser.references().empty()) {
    WildcardFinder finder(parser.nodes());
    result.is_wildcard = finder.Find(root, &result.wildcard_runs);
    if (!result.is_wildcard) result.wildcard_runs.clear();
  }
  Analysis analysis(parser.nodes());
  // Also for a wildcard: a counted repetition of a group can be one and yet
  // too large to compile.
  result.compiled_size_bound = analysis.SizeBound(root);
  if (!result.is_wildcard) result.literal_prefix = analysis.LiteralPrefix(root);
  if (write_pcre2) {
    Emitter emitter(parser.nodes(), parser.references(), parser.group_count());
    result.pcre2 = emitter.Emit(root);
    if (emitter.too_large()) {
      result.pcre2.clear();
      result.is_wildcard = false;
      result.wildcard_runs.clear();
      result.error = "too many repetitions nested in each other";
      return result;
    }
  }
  result.valid = true;
  return result;
}

int EcmaScriptCallout(pcre2_callout_block* block, void*) {
  // "a<group>": here is where that group's empty capture was made; "n":
  // here is not.
  const char* text = reinterpret_cast<const char*>(block->callout_string);
  if (!text || (text[0] != 'a' && text[0] != 'n')) return 0;
  uint32_t group = static_cast<uint32_t>(std::strtoul(text + 1, nullptr, 10));
  bool here = group < block->capture_top &&
              block->offset_vector[2 * group] == block->current_position;
  return (text[0] == 'a') == here ? 0 : 1;
}

}  // namespace dispatcher
