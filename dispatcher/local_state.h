// The work browser's Local State file, as far as the dispatcher reads it.
#ifndef DISPATCHER_LOCAL_STATE_H_
#define DISPATCHER_LOCAL_STATE_H_

#include <optional>
#include <string>

#include "base/files/file_path.h"
#include "dispatcher/policy.h"

namespace dispatcher {

// How far the read got; everything short of kParsed leaves both fields empty.
enum class LocalStateStatus {
  kNotReadable,  // missing, or the user may not read it
  kReadFailed,   // a directory, or the read itself failed
  kParseFailed,  // not one JSON document whose top level is an object or array
  kParsed,
};

struct LocalStatePolicy {
  LocalStateStatus status = LocalStateStatus::kNotReadable;
  // nullopt when Local State has no usable `kel_prefs`/`policy`/`browser_urls`.
  std::optional<PolicyRules> policy_urls;
  // The `browser`/`browserPathForNonWorkLinks` string; nullopt when missing or
  // not a well-formed URL.
  std::optional<std::string> non_work_browser_url;
};

// The application-data directory plus "/Halvard/Corvane/Local State"; the
// empty path when the directory cannot be found.
base::FilePath LocalStatePath();

// Reads, parses and logs every step ("Local State Path ..." onwards) exactly
// as the dispatcher does at launch.
LocalStatePolicy ReadLocalStatePolicy(const base::FilePath& path);

}  // namespace dispatcher

#endif  // DISPATCHER_LOCAL_STATE_H_
