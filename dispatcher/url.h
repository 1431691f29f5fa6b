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

}  // namespace dispatcher

#endif  // DISPATCHER_URL_H_
