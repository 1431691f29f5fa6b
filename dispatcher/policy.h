// The work URL rules as read from Local State, kept in document order with
// enough detail for the administrator's tool to say why a rule or pattern was
// skipped.
#ifndef DISPATCHER_POLICY_H_
#define DISPATCHER_POLICY_H_

#include <string>
#include <vector>

namespace dispatcher {

struct PolicyPattern {
  // False for a JSON value that is not a string; such a pattern is skipped.
  bool is_string = false;
  // The pattern as written in Local State (valid when is_string).
  std::string text;
};

struct PolicyRule {
  // False when the rule is not an object or has no `patterns` array; such a
  // rule is skipped.
  bool has_patterns = false;
  std::vector<PolicyPattern> patterns;
};

// `kel_prefs` / `policy` / `browser_urls`, in order. An empty list means no
// policy, as an absent one does.
using PolicyRules = std::vector<PolicyRule>;

}  // namespace dispatcher

#endif  // DISPATCHER_POLICY_H_
