#include "base/files/path_service.h"

#include <limits.h>
#include <stdlib.h>

#include <map>
#include <mutex>
#include <string>

namespace base {

namespace {

std::mutex& CacheLock() {
  static std::mutex* lock = new std::mutex;
  return *lock;
}

std::map<int, FilePath>& Cache() {
  static auto* cache = new std::map<int, FilePath>;
  return *cache;
}

bool HasParentReference(const std::string& path) {
  size_t start = 0;
  while (start <= path.size()) {
    size_t end = path.find('/', start);
    if (end == std::string::npos) end = path.size();
    if (path.compare(start, end - start, "..") == 0) return true;
    start = end + 1;
  }
  return false;
}

}  // namespace

bool LookupPath(int key, FilePath* result) {
  if (key != DIR_APP_DATA) return false;
  {
    std::lock_guard<std::mutex> lock(CacheLock());
    auto it = Cache().find(key);
    if (it != Cache().end()) {
      *result = it->second;
      return true;
    }
  }

  std::string directory;
  if (!internal::PlatformAppDataDirectory(&directory) || directory.empty()) return false;
  if (HasParentReference(directory)) {
    char resolved[PATH_MAX];
    if (!realpath(directory.c_str(), resolved)) return false;
    directory = resolved;
  }

  FilePath path(directory);
  std::lock_guard<std::mutex> lock(CacheLock());
  Cache().emplace(key, path);
  *result = path;
  return true;
}

}  // namespace base
