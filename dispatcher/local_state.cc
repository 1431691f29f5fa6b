#include "dispatcher/local_state.h"

#include <simdjson.h>

#include <string>
#include <string_view>
#include <utility>

#include "base/files/file_util.h"
#include "base/files/path_service.h"
#include "base/logging.h"
#include "dispatcher/url.h"

namespace dispatcher {

namespace {

using simdjson::dom::element;
using simdjson::dom::element_type;

// The value of `key` in `object` when it is of the wanted type. A key that
// appears more than once takes its last value, as a dictionary filled in
// document order would. A value of another type counts as absent: the rest of
// the dispatcher relies on the types, and a guessing reader is worse than a
// missing policy, which falls back to the work browser. JSON null is one of
// those other types, so a null level is absent too.
bool FindMember(const element& object, std::string_view key, element_type wanted,
                element* found) {
  simdjson::dom::object members;
  if (object.get(members) != simdjson::SUCCESS) return false;
  bool seen = false;
  element last;
  for (simdjson::dom::key_value_pair member : members) {
    if (member.key == key) {
      last = member.value;
      seen = true;
    }
  }
  if (!seen || last.type() != wanted) return false;
  *found = last;
  return true;
}

PolicyRule ReadRule(const element& value) {
  PolicyRule rule;
  element patterns;
  if (!FindMember(value, "patterns", element_type::ARRAY, &patterns)) return rule;
  rule.has_patterns = true;
  simdjson::dom::array list;
  if (patterns.get(list) != simdjson::SUCCESS) return rule;
  rule.patterns.reserve(list.size());
  for (element item : list) {
    PolicyPattern pattern;
    std::string_view text;
    if (item.get(text) == simdjson::SUCCESS) {
      pattern.is_string = true;
      pattern.text.assign(text.data(), text.size());
    }
    rule.patterns.push_back(std::move(pattern));
  }
  return rule;
}

PolicyRules ReadRules(const element& browser_urls) {
  PolicyRules rules;
  simdjson::dom::array list;
  if (browser_urls.get(list) != simdjson::SUCCESS) return rules;
  rules.reserve(list.size());
  for (element item : list) rules.push_back(ReadRule(item));
  return rules;
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

  std::string data;
  if (!base::ReadFileToString(path, &data)) {
    LOG(ERROR) << "Failed to read Local State data.";
    result.status = LocalStateStatus::kReadFailed;
    return result;
  }
  LOG(INFO) << "Read local state data.";

  // The parser copies the data once into its own padded buffer.
  simdjson::dom::parser parser;
  element root;
  simdjson::error_code code = parser.parse(data.data(), data.size(), true).get(root);
  if (code != simdjson::SUCCESS) {
    LOG(ERROR) << "Failed to parse Local State data. Error : " << simdjson::error_message(code);
    result.status = LocalStateStatus::kParseFailed;
    return result;
  }
  // A document must be an object or an array; a lone number, string, boolean
  // or null is a fragment and is refused like malformed JSON.
  if (root.type() != element_type::OBJECT && root.type() != element_type::ARRAY) {
    LOG(ERROR) << "Failed to parse Local State data. Error : "
               << "The document's top level is a single value, not an object or an array; "
                  "fragments are not accepted.";
    result.status = LocalStateStatus::kParseFailed;
    return result;
  }
  LOG(INFO) << "Successfully parsed Local State.";
  result.status = LocalStateStatus::kParsed;

  element kel_prefs;
  element policy;
  element browser_urls;
  if (!FindMember(root, "kel_prefs", element_type::OBJECT, &kel_prefs)) {
    LOG(ERROR) << "Local State has no kel_prefs.";
  } else if (!FindMember(kel_prefs, "policy", element_type::OBJECT, &policy)) {
    LOG(ERROR) << "Local State has no policy data.";
  } else if (!FindMember(policy, "browser_urls", element_type::ARRAY, &browser_urls)) {
    LOG(ERROR) << "No Browser URLs found inside Local State";
  } else {
    result.policy_urls = ReadRules(browser_urls);
    LOG(INFO) << "Successfully parsed Policy Doc URLs.";
  }

  element browser;
  element browser_path;
  std::string_view browser_url;
  if (!FindMember(root, "browser", element_type::OBJECT, &browser)) {
    LOG(ERROR) << "Local State has no non-work browser details stored.";
  } else if (!FindMember(browser, "browserPathForNonWorkLinks", element_type::STRING,
                         &browser_path) ||
             browser_path.get(browser_url) != simdjson::SUCCESS) {
    LOG(ERROR) << "No path for non-work browser found in local state.";
  } else {
    // Logged before the URL is made and whatever that yields.
    LOG(INFO) << "Successfully stored path for non-work browser";
    if (IsWellFormedUrl(browser_url)) result.non_work_browser_url = std::string(browser_url);
  }

  return result;
}

}  // namespace dispatcher
