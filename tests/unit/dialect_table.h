// Patterns, subjects and what the C++ library's std::regex (ECMAScript
// grammar, whole match, lowered translation against lowered subject) answers.
// Plain data, so that tests/dialect can replay it against the library itself.
#ifndef TESTS_UNIT_DIALECT_TABLE_H_
#define TESTS_UNIT_DIALECT_TABLE_H_

#include <string>

namespace corvane_test {

enum DialectAnswer { kMatch, kNoMatch, kInvalid };

struct DialectRow {
  std::string pattern;
  std::string subject;
  DialectAnswer answer;
};

using namespace std::string_literals;

inline const DialectRow kDialectTable[] = {
    // Stars, dots and the whole-subject match.
    {"*.corp.test/*", "corp.test/", kMatch},
    {"*.corp.test/*", "a.b.corp.test/x/y?q=1/", kMatch},
    {"*.corp.test/*", "xcorp.test/", kMatch},
    {"*.corp.test/*", "corp.test.other/", kNoMatch},
    {"corp.test/*", "corp.test/any/path/", kMatch},
    {"corp.test/*", "user@corp.test/", kNoMatch},
    {"corp.test", "corp.test/", kNoMatch},
    {"*/app/*", "corp.test/application/", kNoMatch},
    {"*.corp.TEST/app/*", "Intra.CORP.test/App/", kMatch},
    // Other operators keep their meaning; escapes are lowered with the rest.
    {"corp.test/(app|web)/*", "corp.test/web/x/", kMatch},
    {"^corp.test/$", "corp.test/", kMatch},
    {"corp.test/[^?]*[?]id=\\d+/", "corp.test/a?id=42/", kMatch},
    {"corp\\Wtest/", "corpxtest/", kMatch},
    {"corp\\D/", "corp7/", kMatch},
    {"(a|aa)+/", "aaaa/", kMatch},
    {"corp.test/a{2}/", "corp.test/aa/", kMatch},
    {"corp.test/(a{2})*/", "corp.test/aaaa/", kMatch},
    {"corp.test/a{1,2}?/", "corp.test/aa/", kMatch},
    {"(|a)b/", "b/", kMatch},
    {"corp.test/a\\b/", "corp.test/a/", kMatch},
    {"corp.test/\\b/", "corp.test/a/", kNoMatch},
    {"corp\\cAtest/", "corp\x01test/", kMatch},
    {"corp.test/\\$/", "corp.test/$/", kMatch},
    {"corp.test/a$b/", "corp.test/ab/", kNoMatch},
    {"corp.test/[[:alpha:]]+/", "corp.test/abc/", kMatch},
    {"corp\\0.test/", "corp\0.test/"s, kMatch},
    // Line breaks: "." and "*" never take one, "$" is only the very end.
    {"a*b/", "a\nb/", kNoMatch},
    {"a[^x]b/", "a\nb/", kMatch},
    {"a/$", "a/\n", kNoMatch},
    // Rejected here, accepted by PCRE2.
    {"{", "corp.test/", kInvalid},
    {"a{", "a/", kInvalid},
    {"corp.test/{1", "corp.test/", kInvalid},
    {"corp.test/{,1}", "corp.test/", kInvalid},
    {"corp.test/}", "corp.test/}", kInvalid},
    {"corp.test/]", "corp.test/]", kInvalid},
    {"(?i)corp.test/", "corp.test/", kInvalid},
    {"(?<n>corp).test/", "corp.test/", kInvalid},
    {"(?>corp).test/", "corp.test/", kInvalid},
    {"(?#x)corp.test/", "corp.test/", kInvalid},
    {"\\p{L}orp.test/", "corp.test/", kInvalid},
    {"\\143orp.test/", "corp.test/", kInvalid},  // a back-reference, not octal
    {"\\eorp.test/", "corp.test/", kInvalid},
    {"\\_orp.test/", "corp.test/", kInvalid},
    {"corp.test/a++", "corp.test/a", kInvalid},
    {"corp.test/a?+", "corp.test/a", kInvalid},
    {"corp.test/(?=a)?", "corp.test/", kInvalid},
    {"(x)(?=\\1)x/", "xx/", kInvalid},  // a lookahead sees only its own groups
    {"corp.test/\\x4/", "corp.test/", kInvalid},
    // Rejected by both.
    {"corp.test/)", "corp.test/)", kInvalid},
    {"corp.test/a{99999999999}", "corp.test/", kInvalid},
    {"corp.test/[\\d-z]/", "corp.test/5/", kInvalid},
    {"\\korp.test/", "corp.test/", kInvalid},
    // Accepted here, rejected by PCRE2.
    {"corp.test/[]", "corp.test/", kNoMatch},
    {"corp.test/[]?", "corp.test/", kMatch},
    {"corp.test/[^]/", "corp.test/\n/", kMatch},
    {"corp.test/[z-a]?", "corp.test/", kMatch},
    {"corp.test/[[=a=]-]+/", "corp.test/a-a/", kMatch},
    {"\\u0161/", "a/", kMatch},  // only the low byte counts
    // The same words, another meaning in PCRE2.
    {"(a)?\\1corp.test/", "corp.test/", kNoMatch},  // an unset group matches nothing
    {"(?:(a)|b)\\1/", "b/", kNoMatch},
    {"(a)?(?:\\1|b)/", "b/", kMatch},
    {"(?:(a)|b)+\\1/", "aba/", kNoMatch},  // groups are cleared at each repetition
    {"(?:(a)|b)+\\1/", "aaa/", kMatch},
    {"(?:(a)|(b)\\1)+/", "aba/", kNoMatch},
    {"(a\\1)+/", "aa/", kNoMatch},
    {"(x)(?=(a)\\1)aa/", "xaa/", kMatch},  // numbered within the lookahead
    {"a(?=\\bb)b/", "ab/", kMatch},  // a lookahead's start sees no character before it
    {"(?=a)[ab]?a/", "a/", kMatch},  // PCRE2 10.42 misses it with start optimisations on
};

}  // namespace corvane_test

#endif  // TESTS_UNIT_DIALECT_TABLE_H_
