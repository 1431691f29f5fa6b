// Composition of one log line from arbitrary source file names, line
// numbers, severities and message bytes: the prefix always reads
// "[MMDD/HHMMSS.uuuuuu:SEVERITY:base name(line)] ", the message follows byte
// for byte but for control bytes (C0 and DEL), which read "%XX", the line
// ends in its one newline, and the caller's errno survives.
//
// Input: 4 bytes of severity, 4 of line number, then the file name, a NUL
// byte and the message.
#include <errno.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "base/logging.h"

namespace {

struct Captured {
  bool called = false;
  std::string line;
  size_t message_start = 0;
} g_captured;

bool Capture(int, const char*, int, size_t message_start, const std::string& line) {
  g_captured = {true, line, message_start};
  return true;
}

[[noreturn]] void Fail(const char* what) {
  std::fprintf(stderr, "%s\nline: %s\n", what, g_captured.line.c_str());
  std::abort();
}

bool Digits(std::string_view text, size_t at, size_t count) {
  for (size_t i = at; i < at + count; ++i) {
    if (i >= text.size() || text[i] < '0' || text[i] > '9') return false;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 8) return 0;
  int32_t severity;
  int32_t line_number;
  std::memcpy(&severity, data, 4);
  std::memcpy(&line_number, data + 4, 4);
  std::string_view rest(reinterpret_cast<const char*>(data + 8), size - 8);
  size_t nul = rest.find('\0');
  std::string file(rest.substr(0, nul));
  std::string_view message = nul == std::string_view::npos ? std::string_view() : rest.substr(nul + 1);
  // A fatal line ends the process by design.
  if (severity == logging::LOG_FATAL) return 0;

  logging::SetMinimumLogLevel(-1000);
  logging::SetLogMessageHandler(&Capture);
  g_captured = {};
  errno = 4711;
  { logging::LogMessage(file.c_str(), line_number, severity).stream() << message; }
  if (errno != 4711) Fail("errno changed");
  logging::SetLogMessageHandler(nullptr);
  if (!g_captured.called) Fail("the line never reached the handler");

  std::string_view line = g_captured.line;
  // "[MMDD/HHMMSS.uuuuuu:"
  if (line.size() < 21 || line[0] != '[' || !Digits(line, 1, 4) || line[5] != '/' || !Digits(line, 6, 6) ||
      line[12] != '.' || !Digits(line, 13, 6) || line[19] != ':') {
    Fail("bad timestamp");
  }
  size_t slash = file.find_last_of("/\\");
  std::string base = slash == std::string::npos ? file : file.substr(slash + 1);
  std::string expected = logging::SeverityName(severity) + ":" + base + "(" + std::to_string(line_number) + ")] ";
  if (line.substr(20, expected.size()) != expected) Fail("bad severity, file or line number");
  if (g_captured.message_start != 20 + expected.size()) Fail("message start is not where the prefix ends");
  std::string escaped;
  for (unsigned char c : message) {
    char hex[4];
    std::snprintf(hex, sizeof(hex), "%%%02X", c);
    escaped += c < 0x20 || c == 0x7f ? std::string(hex) : std::string(1, static_cast<char>(c));
  }
  if (line.substr(g_captured.message_start) != escaped + "\n") Fail("message not kept byte for byte, escaped");
  return 0;
}
