// Lower-casing of URL text as the platform's string class does it.
#ifndef DISPATCHER_UNICODE_H_
#define DISPATCHER_UNICODE_H_

#include <string>
#include <string_view>

namespace dispatcher {

// Unicode lower-casing of UTF-8 text; ASCII-only text takes a fast path with
// the same result. Bytes that are not valid UTF-8 are kept, ASCII letters
// among them lowered.
std::string LowercaseUrlText(std::string_view text);

// Lowers the ASCII letters and leaves every other byte as it is.
void LowerAsciiInPlace(std::string& text);

// The length of the valid UTF-8 sequence that starts at text[i]; 0 when the
// bytes there are not one (overlong forms and surrogates included).
size_t Utf8SequenceLength(std::string_view text, size_t i);

namespace internal {
// The platform function (Linux: g_utf8_strdown). Only called with valid UTF-8.
std::string PlatformLowercaseUtf8(std::string_view utf8);
}  // namespace internal

}  // namespace dispatcher

#endif  // DISPATCHER_UNICODE_H_
