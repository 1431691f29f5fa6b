#include "dispatcher/policy.h"

namespace dispatcher {

PolicyRules::PolicyRules(std::initializer_list<PolicyRule> rules) {
  for (const PolicyRule& rule : rules) {
    AddRule();
    if (!rule.has_patterns) continue;
    SetPatterns(true);
    for (const PolicyPattern& pattern : rule.patterns) {
      std::string* text = AddPattern(pattern.is_string);
      if (pattern.is_string) text->append(pattern.text);
    }
  }
}

PolicyRules::Rule PolicyRules::operator[](size_t i) const {
  size_t end = i + 1 < rules_.size() ? rules_[i + 1] & ~kFlag : patterns_.size();
  return {(rules_[i] & kFlag) == 0, Patterns(*this, rules_[i] & ~kFlag, end)};
}

PolicyRules::Pattern PolicyRules::PatternAt(size_t i) const {
  if (patterns_[i] & kFlag) return {false, {}};
  size_t end = i + 1 < patterns_.size() ? patterns_[i + 1] & ~kFlag : text_.size();
  return {true, std::string_view(text_).substr(patterns_[i], end - patterns_[i])};
}

void PolicyRules::Reserve(size_t rules, size_t patterns, size_t text_bytes) {
  rules_.reserve(rules);
  patterns_.reserve(patterns);
  text_.reserve(text_bytes);
}

void PolicyRules::AddRule() { rules_.push_back(static_cast<uint32_t>(patterns_.size()) | kFlag); }

void PolicyRules::SetPatterns(bool is_array) {
  uint32_t first = rules_.back() & ~kFlag;
  if (first < patterns_.size()) {
    text_.resize(patterns_[first] & ~kFlag);
    patterns_.resize(first);
  }
  rules_.back() = is_array ? first : first | kFlag;
}

std::string* PolicyRules::AddPattern(bool is_string) {
  patterns_.push_back(static_cast<uint32_t>(text_.size()) | (is_string ? 0 : kFlag));
  return &text_;
}

}  // namespace dispatcher
