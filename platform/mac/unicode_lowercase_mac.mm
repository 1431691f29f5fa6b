#import <Foundation/Foundation.h>

#include "dispatcher/unicode.h"

namespace dispatcher::internal {

std::string PlatformLowercaseUtf8(std::string_view utf8) {
  @autoreleasepool {
    NSString* text = [[NSString alloc] initWithBytes:utf8.data()
                                              length:utf8.size()
                                            encoding:NSUTF8StringEncoding];
    if (!text) return std::string(utf8);
    const char* lowered = [[text lowercaseString] UTF8String];
    return lowered ? std::string(lowered) : std::string(utf8);
  }
}

}  // namespace dispatcher::internal
