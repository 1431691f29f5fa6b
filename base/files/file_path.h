// A path in the file system's own byte representation, "/"-separated.
#ifndef BASE_FILES_FILE_PATH_H_
#define BASE_FILES_FILE_PATH_H_

#include <string>
#include <string_view>

namespace base {

class FilePath {
 public:
  FilePath() = default;
  explicit FilePath(std::string path) : path_(std::move(path)) {}

  const std::string& value() const { return path_; }
  bool empty() const { return path_.empty(); }

  bool operator==(const FilePath& other) const = default;

 private:
  std::string path_;
};

// Appends a relative component: cut at its first NUL; "." + component gives
// the component; otherwise trailing separators of the base go (a root "/"
// stays) and one "/" joins the two. ".." and "." are kept as written.
FilePath AppendPath(const FilePath& base, std::string_view component);

}  // namespace base

#endif  // BASE_FILES_FILE_PATH_H_
