#include <idn2.h>

#include <cstdlib>
#include <string>

#include "dispatcher/unicode.h"

namespace dispatcher::internal {

// UTS #46 non-transitional processing, as browsers map hosts ("faß" stays
// "faß", whose ASCII form is "xn--fa-hia").
std::optional<std::string> PlatformDomainToAscii(std::string_view utf8) {
  std::string text(utf8);
  char* ascii = nullptr;
  if (idn2_to_ascii_8z(text.c_str(), &ascii, IDN2_NFC_INPUT | IDN2_NONTRANSITIONAL) != IDN2_OK) {
    return std::nullopt;
  }
  std::string result(ascii);
  idn2_free(ascii);
  return result;
}

}  // namespace dispatcher::internal
