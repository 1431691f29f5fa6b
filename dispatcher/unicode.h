// Lower-casing of URL text as the platform's string class does it, and the
// parts of internationalised domain names that are algorithms rather than
// tables (UTF-8, Punycode); the Unicode tables stay with the platform.
#ifndef DISPATCHER_UNICODE_H_
#define DISPATCHER_UNICODE_H_

#include <optional>
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

// Appends the UTF-8 form of a code point (a scalar value).
void AppendUtf8(char32_t code_point, std::string& out);

// Punycode (RFC 3492) of one label's code points, without "xn--"; false for
// a label too long to encode in linear time.
bool PunycodeEncode(std::u32string_view label, std::string& out);

// The code points of a Punycode label (without "xn--"); false when it is not
// valid Punycode, decodes to a code point that is not a scalar value or to a
// basic one outside the basic part, or is too long.
bool PunycodeDecode(std::string_view label, std::u32string& out);

// The ASCII form of a domain whose labels are mapped already (lower case,
// normalised, dots as "."): each label that is not ASCII becomes "xn--" and
// its Punycode. nullopt for text that is not UTF-8 or a label that cannot be
// encoded.
std::optional<std::string> EncodeMappedDomain(std::string_view mapped_utf8);

// The domain with each "xn--" label that decodes replaced by its UTF-8 text;
// the other labels stay as they are.
std::string DecodeDomainLabels(std::string_view ascii_domain);

namespace internal {
// The platform function (Linux: g_utf8_strdown). Only called with valid UTF-8.
std::string PlatformLowercaseUtf8(std::string_view utf8);

// UTS #46 ToASCII, non-transitional, of a domain or of labels of one that
// are not all ASCII (Linux: libidn2; macOS: compatibility normalisation and
// lower-casing, then EncodeMappedDomain). nullopt when the platform cannot
// map it. Only called with valid UTF-8.
std::optional<std::string> PlatformDomainToAscii(std::string_view utf8);
}  // namespace internal

}  // namespace dispatcher

#endif  // DISPATCHER_UNICODE_H_
