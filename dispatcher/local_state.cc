#include "dispatcher/local_state.h"

#include <simdjson.h>

#include <algorithm>
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

constexpr std::string_view kUtf8ByteOrderMark = "\xEF\xBB\xBF";

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

// Whether the whole token is one JSON number.
bool IsJsonNumber(std::string_view token) {
  size_t i = 0;
  auto digits = [&] {
    size_t start = i;
    while (i < token.size() && token[i] >= '0' && token[i] <= '9') ++i;
    return i > start;
  };
  if (i < token.size() && token[i] == '-') ++i;
  if (i < token.size() && token[i] == '0') {
    ++i;
  } else if (i >= token.size() || token[i] < '1' || token[i] > '9' || !digits()) {
    return false;
  }
  if (i < token.size() && token[i] == '.' && (++i, !digits())) return false;
  if (i < token.size() && (token[i] == 'e' || token[i] == 'E')) {
    ++i;
    if (i < token.size() && (token[i] == '+' || token[i] == '-')) ++i;
    if (!digits()) return false;
  }
  return i == token.size();
}

// Valid numbers that the parser cannot hold (integers beyond 64 bits,
// magnitudes beyond a double's range) fail the parse, where the platform's
// reader accepts them. The dispatcher reads no number, only whether a value
// is one, so every number outside strings becomes "0" padded with blanks to
// its length. That changes no token boundary; malformed numbers stay as they
// are and fail the parse again.
void NeutraliseNumbers(char* data, size_t size) {
  bool in_string = false;
  for (size_t i = 0; i < size;) {
    char c = data[i];
    if (in_string) {
      if (c == '\\') {
        i += 2;
        continue;
      }
      in_string = c != '"';
      ++i;
    } else if (c == '"') {
      in_string = true;
      ++i;
    } else if (c == '-' || (c >= '0' && c <= '9')) {
      size_t end = i;
      while (end < size && std::string_view("0123456789+-.eE").find(data[end]) != std::string_view::npos) {
        ++end;
      }
      if (IsJsonNumber(std::string_view(data + i, end - i))) {
        data[i] = '0';
        std::fill(data + i + 1, data + end, ' ');
      }
      i = end;
    } else {
      ++i;
    }
  }
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
  if (!base::ReadFileToString(path, &data, kMaxLocalStateBytes)) {
    LOG(ERROR) << "Failed to read Local State data.";
    result.status = LocalStateStatus::kReadFailed;
    return result;
  }
  LOG(INFO) << "Read local state data.";

  // The parser reads a little beyond the end: pad the buffer itself rather
  // than have the parser copy a large file.
  data.reserve(data.size() + simdjson::SIMDJSON_PADDING);
  // A UTF-8 byte order mark is skipped, as the platform's reader does.
  size_t start = data.starts_with(kUtf8ByteOrderMark) ? kUtf8ByteOrderMark.size() : 0;
  simdjson::dom::parser parser;
  element root;
  simdjson::error_code code = parser.parse(data.data() + start, data.size() - start, false).get(root);
  if (code == simdjson::NUMBER_ERROR || code == simdjson::NUMBER_OUT_OF_RANGE) {
    NeutraliseNumbers(data.data() + start, data.size() - start);
    code = parser.parse(data.data() + start, data.size() - start, false).get(root);
  }
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
