// The work browser's Local State file, as far as the dispatcher reads it.
#ifndef DISPATCHER_LOCAL_STATE_H_
#define DISPATCHER_LOCAL_STATE_H_

#include <cstddef>
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

// A larger Local State is not read ("Failed to read Local State data."); real
// ones are well under a megabyte.
inline constexpr size_t kMaxLocalStateBytes = 128u << 20;

// The reader holds this much of the file at a time, not the whole file:
// beside the policy it keeps, a read takes about as much memory for any file.
inline constexpr size_t kLocalStateWindowBytes = 64u << 10;

// Reads, parses and logs every step ("Local State Path ..." onwards) exactly
// as the dispatcher does at launch. The file must be one JSON document in
// UTF-8 whose top level is an object or an array, as the platform's reader
// takes it: a UTF-8 byte order mark is skipped, numbers of any size are
// taken (only whether a value is a number counts), and a key that appears
// more than once takes its last value. The whole document is validated, so
// invalid UTF-8 anywhere (which the platform's reader refuses too), nesting
// deeper than 1024 levels or any syntax error fails the parse, with the
// reason and where it is.
LocalStatePolicy ReadLocalStatePolicy(const base::FilePath& path);

}  // namespace dispatcher

#endif  // DISPATCHER_LOCAL_STATE_H_
