// Well-known directories by key.
#ifndef BASE_FILES_PATH_SERVICE_H_
#define BASE_FILES_PATH_SERVICE_H_

#include "base/files/file_path.h"

namespace base {

// The user's application-data directory (the folder that holds per-user data
// of desktop applications). The only key the dispatcher uses.
constexpr int DIR_APP_DATA = 201;

// Looks the key up. A successful result is remembered for the rest of the
// process. Does not create or test the directory.
bool LookupPath(int key, FilePath* result);

namespace internal {
// The platform's query for DIR_APP_DATA: false when it has no answer; an empty
// answer also fails the lookup.
bool PlatformAppDataDirectory(std::string* directory);
}  // namespace internal

}  // namespace base

#endif  // BASE_FILES_PATH_SERVICE_H_
