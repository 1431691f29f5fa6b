#include <glib.h>

#include "dispatcher/unicode.h"

namespace dispatcher::internal {

std::string PlatformLowercaseUtf8(std::string_view utf8) {
  gchar* lowered = g_utf8_strdown(utf8.data(), static_cast<gssize>(utf8.size()));
  std::string result(lowered);
  g_free(lowered);
  return result;
}

}  // namespace dispatcher::internal
