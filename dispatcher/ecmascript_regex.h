// The ECMAScript grammar as the C++ standard library's <regex> implements it
// (the library the macOS build ships), checked by a parser of our own and
// rewritten into a PCRE2 expression that answers every subject the same way.
//
// The C++ library cannot be used itself: it throws on an invalid expression,
// and the program is built without exceptions.
#ifndef DISPATCHER_ECMASCRIPT_REGEX_H_
#define DISPATCHER_ECMASCRIPT_REGEX_H_

#include <pcre2.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace dispatcher {

struct EcmaScriptRegex {
  bool valid = false;
  // When invalid: why, and where in the expression.
  std::string error;
  size_t offset = 0;
  // When valid and asked for: the same expression in PCRE2's syntax, for a
  // whole-subject match with the library's default options (no UTF, no
  // multi-line) and CR or LF as newline (PCRE2_NEWLINE_ANYCRLF).
  std::string pcre2;
  // When valid and the expression only chains literal bytes and runs of any
  // bytes but CR and LF (".*" in every spelling): the literal runs around
  // those stars, so that the wildcard matcher can answer instead of PCRE2.
  bool is_wildcard = false;
  std::vector<std::string> wildcard_runs;  // one more than there are stars
  // When valid and not a wildcard: the bytes every match starts with.
  std::string literal_prefix;
  // When valid: a bound on the number of code units PCRE2's compiled form takes.
  uint64_t compiled_size_bound = 0;
};

// Parses `expression` (already lower-cased by the caller); writes its PCRE2
// form when `write_pcre2` is set.
EcmaScriptRegex TranslateEcmaScript(std::string_view expression, bool write_pcre2);

// The PCRE2 callout handler that the expressions above need (they use
// callouts for a word boundary inside a lookahead): 0 to go on, 1 to fail at
// this point. `data` is unused.
int EcmaScriptCallout(pcre2_callout_block* block, void* data);

}  // namespace dispatcher

#endif  // DISPATCHER_ECMASCRIPT_REGEX_H_
