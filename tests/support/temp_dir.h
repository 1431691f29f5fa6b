#ifndef TESTS_SUPPORT_TEMP_DIR_H_
#define TESTS_SUPPORT_TEMP_DIR_H_

#include <string>

namespace corvane_test {

// A fresh folder under $TMPDIR (or /tmp), removed with everything in it.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  // path() + "/" + relative
  std::string Child(const std::string& relative) const;

 private:
  std::string path_;
};

// mkdir -p with mode 0755.
bool MakeDirectories(const std::string& path);
bool WriteFile(const std::string& path, const std::string& contents, int mode = 0644);
std::string ReadFile(const std::string& path);
bool FileExists(const std::string& path);
// Removes a tree; quiet about what is missing.
void RemoveTree(const std::string& path);

}  // namespace corvane_test

#endif  // TESTS_SUPPORT_TEMP_DIR_H_
