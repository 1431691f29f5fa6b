// What the C++ library's std::regex answers, for the dialect check. Built
// with clang and libc++ (the library of the macOS build), exceptions on,
// outside the product. Reads lines "pattern TAB subject" (bytes other than
// printable ASCII as \xHH, a backslash as \\), translates the pattern as the
// dispatcher does, lowers both, and prints "match", "nomatch", "invalid" or
// "gave-up" (the library's own complexity limit) per line.
#include <iostream>
#include <regex>
#include <string>

namespace {

std::string Unescape(const std::string& text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && i + 1 < text.size() && text[i + 1] == 'x' && i + 3 < text.size()) {
      out += static_cast<char>(std::stoi(text.substr(i + 2, 2), nullptr, 16));
      i += 3;
    } else if (text[i] == '\\' && i + 1 < text.size() && text[i + 1] == '\\') {
      out += '\\';
      ++i;
    } else {
      out += text[i];
    }
  }
  return out;
}

std::string LoweredTranslation(const std::string& pattern) {
  std::string out;
  for (size_t i = 0; i < pattern.size(); ++i) {
    if (pattern[i] == '.') {
      out += i > 0 && pattern[i - 1] == '*' ? "[./]?" : "\\.";
    } else if (pattern[i] == '*') {
      out += "(.*)";
    } else {
      out += pattern[i];
    }
  }
  for (char& c : out) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c + 32 : c);
  return out;
}

}  // namespace

int main() {
  std::string line;
  while (std::getline(std::cin, line)) {
    size_t tab = line.find('\t');
    std::string expression = LoweredTranslation(Unescape(line.substr(0, tab)));
    std::string subject = Unescape(tab == std::string::npos ? "" : line.substr(tab + 1));
    for (char& c : subject) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c + 32 : c);
    try {
      std::regex regex(expression, std::regex::ECMAScript);
      std::cout << (std::regex_match(subject, regex) ? "match" : "nomatch") << '\n';
    } catch (const std::regex_error& error) {
      std::cout << (error.code() == std::regex_constants::error_complexity ? "gave-up" : "invalid")
                << '\n';
    }
  }
}
