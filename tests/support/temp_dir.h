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
  std::string Child(const std::string& relative) const { return path_ + "/" + relative; }

 private:
  std::string path_;
};

bool MakeDirectories(const std::string& path);  // mkdir -p, mode 0755
bool WriteFile(const std::string& path, const std::string& contents, int mode = 0644);
std::string ReadFile(const std::string& path);
bool FileExists(const std::string& path);  // a final symbolic link is not followed
void RemoveTree(const std::string& path);  // quiet about what is missing

}  // namespace corvane_test

#endif  // TESTS_SUPPORT_TEMP_DIR_H_
