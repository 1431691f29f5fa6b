// A small RFC 3986 splitter that keeps the URL's own bytes (and so its own
// percent-encoding); the core must build without the platform's URL class.
#ifndef DISPATCHER_URL_H_
#define DISPATCHER_URL_H_

#include <optional>
#include <string>
#include <string_view>

namespace dispatcher {

struct UrlParts {
  std::optional<std::string_view> scheme;     // without ":"
  std::optional<std::string_view> authority;  // without "//"
  std::string_view path;
  std::optional<std::string_view> query;     // without "?"
  std::optional<std::string_view> fragment;  // without "#"
};

// Splits any byte string (RFC 3986, appendix B); never fails. The views
// point into the argument.
UrlParts SplitUrl(std::string_view url);

// Whether the text starts with a URL scheme and its colon
// (ALPHA *( ALPHA / DIGIT / "+" / "-" / "." ) ":").
bool HasUrlScheme(std::string_view url);

// Whether the text is a well-formed URI reference (the platform URL
// constructor's test): only characters a URL may hold, "%" followed by two
// hex digits, a valid scheme when there is one. The empty string is not.
bool IsWellFormedUrl(std::string_view url);

// The URL without scheme and port: "//", user information with its "@",
// host, path, "?" query, "#" fragment, as far as present. The port is the
// run of digits behind the host's last ":" (behind "]" for an IP literal)
// and goes with its ":"; text there that is not a number stays. nullopt when
// nothing is left (a URL that is only a scheme and a colon).
std::optional<std::string> UrlWithoutSchemeAndPort(std::string_view url);

// The file-system path a location URL spells, as the platform's URL class
// gives the path of its absolute form, whatever the scheme and host: the path
// component with its percent escapes decoded, without query and fragment, and
// without a trailing "/" unless the path is "/" alone. A reference without a
// scheme is its own absolute form, so "/usr/bin/b" gives "/usr/bin/b" and
// "a/b" gives "a/b" (relative to the working directory). A URL without a path
// gives "". nullopt when there is no path to give: an opaque URL (a scheme
// followed by anything but "/", as in "mailto:x"), a "%" without two hex
// digits, or escapes that decode to invalid UTF-8 or a NUL byte.
std::optional<std::string> UrlPath(std::string_view url);

}  // namespace dispatcher

#endif  // DISPATCHER_URL_H_
