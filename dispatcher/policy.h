// The work URL rules as read from Local State, kept in document order with
// enough detail for the administrator's tool to say why a rule or pattern was
// skipped.
#ifndef DISPATCHER_POLICY_H_
#define DISPATCHER_POLICY_H_

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

namespace dispatcher {

// A pattern written out by hand (tests, benchmarks).
struct PolicyPattern {
  // False for a JSON value that is not a string; such a pattern is skipped.
  bool is_string = false;
  // The pattern as written in Local State (valid when is_string).
  std::string text;
};

// A rule written out by hand.
struct PolicyRule {
  // False when the rule is not an object or has no `patterns` array; such a
  // rule is skipped, and so are any patterns given with it.
  bool has_patterns = false;
  std::vector<PolicyPattern> patterns;
};

// `kel_prefs` / `policy` / `browser_urls`, in order. An empty list means no
// policy, as an absent one does.
//
// A Local State may hold millions of patterns, so they are kept compactly:
// all texts in one string, and four bytes per pattern and per rule besides
// (at most 2 GiB of text and 2^31 patterns, far beyond what is read).
// Rules and patterns are read as values that view this storage.
class PolicyRules {
 public:
  // Its text is empty when it is not a string.
  struct Pattern {
    bool is_string;
    std::string_view text;
  };

  // Values of a range by index, for range-for.
  template <typename Range>
  class Iterator {
   public:
    Iterator(const Range& range, size_t index) : range_(&range), index_(index) {}
    auto operator*() const { return (*range_)[index_]; }
    Iterator& operator++() {
      ++index_;
      return *this;
    }
    bool operator==(const Iterator& other) const { return index_ == other.index_; }

   private:
    const Range* range_;
    size_t index_;
  };

  // Consecutive patterns: a rule's, or all of them in order.
  class Patterns {
   public:
    Patterns(const PolicyRules& rules, size_t begin, size_t end) : rules_(&rules), begin_(begin), end_(end) {}
    size_t size() const { return end_ - begin_; }
    bool empty() const { return begin_ == end_; }
    Pattern operator[](size_t i) const { return rules_->PatternAt(begin_ + i); }
    Iterator<Patterns> begin() const { return {*this, 0}; }
    Iterator<Patterns> end() const { return {*this, size()}; }

   private:
    const PolicyRules* rules_;
    size_t begin_, end_;
  };

  struct Rule {
    // False when the rule is not an object or has no `patterns` array; such
    // a rule has no patterns.
    bool has_patterns;
    Patterns patterns;
  };

  PolicyRules() = default;
  PolicyRules(std::initializer_list<PolicyRule> rules);

  size_t size() const { return rules_.size(); }
  bool empty() const { return rules_.empty(); }
  Rule operator[](size_t i) const;
  Iterator<PolicyRules> begin() const { return {*this, 0}; }
  Iterator<PolicyRules> end() const { return {*this, size()}; }
  // Every rule's patterns, one after another.
  Patterns patterns() const { return {*this, 0, patterns_.size()}; }
  // The memory the rules take, beside this object.
  size_t memory_bytes() const { return text_.capacity() + 4 * (patterns_.capacity() + rules_.capacity()); }

  // Building, in document order. Room for this much, so that nothing is
  // copied or left over as the rules are added.
  void Reserve(size_t rules, size_t patterns, size_t text_bytes);
  // A rule without patterns, until SetPatterns(true).
  void AddRule();
  // The last rule's `patterns` value begins: an array starts its patterns
  // afresh; anything else leaves it none.
  void SetPatterns(bool is_array);
  // Adds a pattern to the last rule, whose patterns array has begun, and
  // returns the string its text is to be appended to, until the next call;
  // nothing is appended for a value that is not a string.
  std::string* AddPattern(bool is_string);

 private:
  // Marks a pattern that is not a string, and a rule without patterns.
  static constexpr uint32_t kFlag = 1u << 31;

  Pattern PatternAt(size_t i) const;

  std::string text_;
  // Per pattern, where its text starts in text_ (it ends where the next one
  // starts).
  std::vector<uint32_t> patterns_;
  // Per rule, its first pattern (its patterns end where the next rule's
  // start).
  std::vector<uint32_t> rules_;
};

}  // namespace dispatcher

#endif  // DISPATCHER_POLICY_H_
