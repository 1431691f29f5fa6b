#import <Foundation/Foundation.h>

#include <string>

#include "dispatcher/unicode.h"

namespace dispatcher::internal {

// Foundation has no UTS #46 mapping; compatibility normalisation and
// lower-casing do what it does to the forms people type (full-width letters
// and dots, capitals, composed accents), ideographic full stops separate
// labels as dots do, and the core spells the labels in Punycode.
std::optional<std::string> PlatformDomainToAscii(std::string_view utf8) {
  @autoreleasepool {
    NSString* text = [[NSString alloc] initWithBytes:utf8.data()
                                              length:utf8.size()
                                            encoding:NSUTF8StringEncoding];
    if (!text) return std::nullopt;
    NSString* mapped = [[[text precomposedStringWithCompatibilityMapping] lowercaseString]
        precomposedStringWithCanonicalMapping];
    mapped = [mapped stringByReplacingOccurrencesOfString:@"\u3002" withString:@"."];
    const char* bytes = [mapped UTF8String];
    if (!bytes) return std::nullopt;
    return EncodeMappedDomain(bytes);
  }
}

}  // namespace dispatcher::internal
