// Checks the pattern dialect against the C++ library itself: the rows of the
// dialect table and thousands of generated patterns go to the oracle (built
// with libc++), and every answer it gives must be ours.
//
// Usage: dialect_check ORACLE [CASES [SEED]]
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <cctype>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <random>
#include <string>
#include <vector>

#include "base/logging.h"
#include "dispatcher/url_pattern.h"
#include "tests/unit/dialect_table.h"

namespace {

bool g_gave_up = false;

bool CaptureLine(int severity, const char*, int, size_t, const std::string&) {
  if (severity >= logging::LOG_ERROR) g_gave_up = true;
  return true;
}

std::string Escape(const std::string& text) {
  std::string out;
  for (unsigned char c : text) {
    if (c == '\\') {
      out += "\\\\";
    } else if (c < 0x20 || c >= 0x7f) {
      char hex[8];
      snprintf(hex, sizeof(hex), "\\x%02x", c);
      out += hex;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out;
}

// Patterns built from the grammar's pieces, often valid, sometimes not, with
// back-references, lookaheads and repetitions nested in one another.
class Generator {
 public:
  explicit Generator(uint32_t seed) : random_(seed) {}

  std::string Pattern() {
    groups_ = 0;
    scopes_.assign(1, 0);
    std::string pattern = Disjunction(0);
    // Now and then the wildcards of the URL pattern language as well.
    if (Chance(10)) pattern = Pick({"*", "*.", "a.", "^*", "*/"}) + pattern;
    if (Chance(10)) pattern += Pick({"*", "/*", ".b", "$"});
    return pattern;
  }

  std::string Subject(const std::string& pattern) {
    std::string letters = "ab/_-\n \t~";
    for (char c : pattern) {
      if (std::isalnum(static_cast<unsigned char>(c))) letters += c;
    }
    std::string subject;
    for (int n = Below(8); n > 0; --n) subject += letters[static_cast<size_t>(Below(static_cast<int>(letters.size())))];
    return subject;
  }

 private:
  int Below(int n) { return static_cast<int>(random_() % static_cast<uint32_t>(n)); }
  bool Chance(int percent) { return Below(100) < percent; }
  std::string Pick(std::initializer_list<const char*> items) {
    return *(items.begin() + Below(static_cast<int>(items.size())));
  }

  std::string Disjunction(int depth) {
    std::string text = Alternative(depth);
    while (Chance(20)) {
      text += '|';
      text += Alternative(depth);
    }
    return text;
  }
  std::string Alternative(int depth) {
    std::string text;
    for (int n = Below(5); n > 0; --n) text += Term(depth);
    return text;
  }
  std::string Term(int depth) {
    int roll = Below(100);
    if (roll < 5) return Pick({"^", "$", "{", "}", "]", ")", "\\"});
    if (roll < 12) return Pick({"\\b", "\\B"});
    if (roll < 20 && depth < 4) {
      scopes_.push_back(groups_);
      std::string text = Pick({"(?=", "(?!"});
      text += Disjunction(depth + 1);
      text += ')';
      scopes_.pop_back();
      return text;
    }
    std::string text = Atom(depth);
    if (Chance(45)) {
      text += Pick({"+", "?", "{0,}", "+?", "??", "{0,}?", "{0}", "{1}", "{2}", "{1,}", "{0,2}",
                    "{2,3}", "{1,2}?", "{,1}", "{2,1}", "++"});
    }
    return text;
  }
  std::string Atom(int depth) {
    int roll = Below(100);
    if (depth > 4 || roll < 35) {
      return Pick({"a", "b", "A", "_", "-", "/", "\\d", "\\w", "\\s", "\\W", "[ab]", "[^a]",
                   "[a-c]", "[]", "[^]", "[\\w-]", "[\\W\\S]", "[[:alpha:]_]", "[z-a]", "\\n", "[[:print:]]",
                   "[^[:punct:]]", "[[:xdigit:][:space:]]", "[[:cntrl:][:blank:]]", "[^[:graph:]]", "[[:UPPER:]]",
                   "[[:lower:][:digit:]]", "[^[:alnum:]]",
                   "\\x61", "\\u0162", "\\0", "\\-", "\\cA", "[^\\n\\r]", "\\p", "(?<=a)", "\\1"});
    }
    std::string text;
    if (roll < 65) {
      // A group of either kind.
      if (roll < 55) ++groups_;
      text = roll < 55 ? "(" : "(?:";
      text += Disjunction(depth + 1);
      text += ')';
      return text;
    }
    int available = groups_ - scopes_.back();
    if (roll < 85 && available > 0) {
      text = '\\';
      text += std::to_string(1 + Below(available));
      return text;
    }
    return Pick({"a", "b"});
  }

  std::mt19937 random_;
  int groups_ = 0;
  std::vector<int> scopes_;
};

struct Case {
  std::string pattern;
  std::string subject;
  const char* table_answer;  // for a row of the table, else null
};

const char* Answer(corvane_test::DialectAnswer answer) {
  return answer == corvane_test::kMatch ? "match" : answer == corvane_test::kNoMatch ? "nomatch" : "invalid";
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    fprintf(stderr, "usage: %s ORACLE [CASES [SEED]]\n", argv[0]);
    return 2;
  }
  int count = argc > 2 ? atoi(argv[2]) : 20000;
  uint32_t seed = argc > 3 ? static_cast<uint32_t>(strtoul(argv[3], nullptr, 10)) : 1;

  std::vector<Case> cases;
  for (const corvane_test::DialectRow& row : corvane_test::kDialectTable) {
    cases.push_back({row.pattern, row.subject, Answer(row.answer)});
  }
  Generator generator(seed);
  while (static_cast<int>(cases.size()) < count) {
    std::string pattern = generator.Pattern();
    for (int i = 0; i < 4; ++i) cases.push_back({pattern, generator.Subject(pattern), nullptr});
  }

  char input[] = "/tmp/dialect_check_XXXXXX";
  int fd = mkstemp(input);
  if (fd < 0) return 2;
  std::string text;
  for (const Case& c : cases) text += Escape(c.pattern) + "\t" + Escape(c.subject) + "\n";
  bool written = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  close(fd);
  std::string command = std::string(argv[1]) + " < " + input;
  FILE* oracle = written ? popen(command.c_str(), "r") : nullptr;
  if (!oracle) return 2;

  logging::SetLogMessageHandler(&CaptureLine);
  int compared = 0, differences = 0, matches = 0, invalid = 0;
  char answer[64];
  for (const Case& c : cases) {
    if (!fgets(answer, sizeof(answer), oracle)) {
      fprintf(stderr, "the oracle stopped early\n");
      differences = 1;
      break;
    }
    std::string theirs(answer, strcspn(answer, "\n"));
    g_gave_up = false;
    dispatcher::MatchResult result = dispatcher::TryMatchUrlPattern(c.subject, c.pattern, nullptr);
    std::string ours = result == dispatcher::MatchResult::kInvalidPattern ? "invalid"
                       : result == dispatcher::MatchResult::kMatch    ? "match"
                                                                      : "nomatch";
    if (c.table_answer && theirs != c.table_answer) {
      fprintf(stderr, "table row disagrees with the library: %s vs %s: table %s, library %s\n",
              Escape(c.pattern).c_str(), Escape(c.subject).c_str(), c.table_answer, theirs.c_str());
      ++differences;
    }
    // Where either side gives up, there is no answer to compare.
    if (theirs == "gave-up" || g_gave_up) continue;
    ++compared;
    matches += theirs == "match";
    invalid += theirs == "invalid";
    if (ours != theirs && ++differences <= 20) {
      fprintf(stderr, "%s vs %s: library %s, dispatcher %s\n", Escape(c.pattern).c_str(),
              Escape(c.subject).c_str(), theirs.c_str(), ours.c_str());
    }
  }
  pclose(oracle);
  unlink(input);
  printf("%d cases compared with the C++ library (%d matches, %d invalid patterns): %d differences\n",
         compared, matches, invalid, differences);
  return differences == 0 ? 0 : 1;
}
