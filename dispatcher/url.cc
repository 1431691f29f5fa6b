#include "dispatcher/url.h"

#include <cstddef>
#include <cstring>

#include "dispatcher/unicode.h"

namespace dispatcher {

namespace {

bool IsAsciiAlpha(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool IsAsciiDigit(char c) { return c >= '0' && c <= '9'; }
bool IsHexDigit(char c) {
  return IsAsciiDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

// unreserved, gen-delims and sub-delims of RFC 3986; "%" is checked apart.
bool IsUrlCharacter(char c) {
  if (IsAsciiAlpha(c) || IsAsciiDigit(c)) return true;
  switch (c) {
    case '-': case '.': case '_': case '~':
    case ':': case '/': case '?': case '#': case '[': case ']': case '@':
    case '!': case '$': case '&': case '\'': case '(': case ')':
    case '*': case '+': case ',': case ';': case '=':
      return true;
    default:
      return false;
  }
}

bool IsValidScheme(std::string_view scheme) {
  if (scheme.empty() || !IsAsciiAlpha(scheme[0])) return false;
  for (char c : scheme) {
    if (!IsAsciiAlpha(c) && !IsAsciiDigit(c) && c != '+' && c != '-' && c != '.') return false;
  }
  return true;
}

// The authority without its port: the port is the run of digits behind the
// last ":" of the host part (behind "]" for an IP literal). A "port" that is
// not all digits is left in place, as the host would not parse anyway.
std::string_view AuthorityWithoutPort(std::string_view authority) {
  size_t at = authority.rfind('@');
  size_t host_start = at == std::string_view::npos ? 0 : at + 1;
  std::string_view host_port = authority.substr(host_start);
  size_t colon;
  if (!host_port.empty() && host_port[0] == '[') {
    size_t close = host_port.find(']');
    if (close == std::string_view::npos || close + 1 >= host_port.size() ||
        host_port[close + 1] != ':') {
      return authority;
    }
    colon = close + 1;
  } else {
    colon = host_port.rfind(':');
    if (colon == std::string_view::npos) return authority;
  }
  for (size_t k = colon + 1; k < host_port.size(); ++k) {
    if (!IsAsciiDigit(host_port[k])) return authority;
  }
  return authority.substr(0, host_start + colon);
}

// The first of `bytes` at or after `pos`. A plain loop: the standard
// find_first_of calls memchr once per byte, which is slow on 2 MB URLs.
size_t FindFirstOf(std::string_view text, size_t pos, std::string_view bytes) {
  for (size_t i = pos; i < text.size(); ++i) {
    for (char b : bytes) {
      if (text[i] == b) return i;
    }
  }
  return std::string_view::npos;
}

// The first `byte` in [pos, end), or `end`.
size_t FindByte(std::string_view text, size_t pos, size_t end, char byte) {
  if (pos >= end) return end;
  const void* found = std::memchr(text.data() + pos, byte, end - pos);
  return found ? static_cast<size_t>(static_cast<const char*>(found) - text.data()) : end;
}

}  // namespace

UrlParts SplitUrl(std::string_view url) {
  UrlParts parts;
  size_t pos = 0;
  // scheme: one or more bytes other than ":/?#", then ":".
  size_t first_special = FindFirstOf(url, 0, ":/?#");
  if (first_special != std::string_view::npos && first_special > 0 && url[first_special] == ':') {
    parts.scheme = url.substr(0, first_special);
    pos = first_special + 1;
  }
  if (url.size() - pos >= 2 && url[pos] == '/' && url[pos + 1] == '/') {
    size_t start = pos + 2;
    size_t end = FindFirstOf(url, start, "/?#");
    if (end == std::string_view::npos) end = url.size();
    parts.authority = url.substr(start, end - start);
    pos = end;
  }
  // The fragment starts at the first "#"; the query at the first "?" before it.
  size_t hash = FindByte(url, pos, url.size(), '#');
  size_t question = FindByte(url, pos, hash, '?');
  parts.path = url.substr(pos, question - pos);
  if (question < hash) parts.query = url.substr(question + 1, hash - question - 1);
  if (hash < url.size()) parts.fragment = url.substr(hash + 1);
  return parts;
}

bool IsWellFormedUrl(std::string_view url) {
  if (url.empty()) return false;
  bool in_fragment = false;
  for (size_t i = 0; i < url.size(); ++i) {
    char c = url[i];
    if (c == '%') {
      if (i + 2 >= url.size() || !IsHexDigit(url[i + 1]) || !IsHexDigit(url[i + 2])) return false;
      i += 2;
      continue;
    }
    if (!IsUrlCharacter(c)) return false;
    if (c == '#') {
      // A fragment may hold "?" and "/" but no second "#".
      if (in_fragment) return false;
      in_fragment = true;
    }
  }
  UrlParts parts = SplitUrl(url);
  if (parts.scheme) return IsValidScheme(*parts.scheme);
  // Without a scheme, a colon in the first path segment would be read as one.
  size_t segment_end = FindFirstOf(url, 0, "/?#");
  return url.substr(0, segment_end).find(':') == std::string_view::npos;
}

std::optional<std::string> UrlWithoutSchemeAndPort(std::string_view url) {
  UrlParts parts = SplitUrl(url);
  std::string result;
  size_t size = parts.path.size();
  if (parts.authority) size += 2 + parts.authority->size();
  if (parts.query) size += 1 + parts.query->size();
  if (parts.fragment) size += 1 + parts.fragment->size();
  result.reserve(size);
  if (parts.authority) {
    result += "//";
    result += AuthorityWithoutPort(*parts.authority);
  }
  result += parts.path;
  if (parts.query) {
    result += '?';
    result += *parts.query;
  }
  if (parts.fragment) {
    result += '#';
    result += *parts.fragment;
  }
  if (result.empty()) return std::nullopt;
  return result;
}

std::optional<std::string> UrlPath(std::string_view url) {
  UrlParts parts = SplitUrl(url);
  if (parts.scheme && !parts.authority && (parts.path.empty() || parts.path[0] != '/')) {
    return std::nullopt;
  }
  auto hex_value = [](char c) {
    return IsAsciiDigit(c) ? c - '0' : (c | 0x20) - 'a' + 10;
  };
  std::string path;
  path.reserve(parts.path.size());
  for (size_t i = 0; i < parts.path.size(); ++i) {
    char c = parts.path[i];
    if (c == '%') {
      if (i + 2 >= parts.path.size() || !IsHexDigit(parts.path[i + 1]) ||
          !IsHexDigit(parts.path[i + 2])) {
        return std::nullopt;
      }
      c = static_cast<char>(hex_value(parts.path[i + 1]) * 16 + hex_value(parts.path[i + 2]));
      i += 2;
    }
    if (c == '\0') return std::nullopt;
    path += c;
  }
  for (size_t i = 0; i < path.size();) {
    if (static_cast<unsigned char>(path[i]) < 0x80) {
      ++i;
      continue;
    }
    size_t length = Utf8SequenceLength(path, i);
    if (length == 0) return std::nullopt;
    i += length;
  }
  if (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

bool HasUrlScheme(std::string_view url) {
  std::optional<std::string_view> scheme = SplitUrl(url).scheme;
  return scheme && IsValidScheme(*scheme);
}

}  // namespace dispatcher
