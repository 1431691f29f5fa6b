#include "base/files/file_path.h"

namespace base {

FilePath AppendPath(const FilePath& base, std::string_view component) {
  size_t nul = component.find('\0');
  if (nul != std::string_view::npos) component = component.substr(0, nul);

  if (base.value() == "." && !component.empty()) return FilePath(std::string(component));

  std::string result = base.value();
  while (result.size() > 1 && result.back() == '/') result.pop_back();
  if (component.empty()) return FilePath(result);
  if (!result.empty() && result.back() != '/') result += '/';
  result.append(component);
  return FilePath(result);
}

}  // namespace base
