#import <AppKit/AppKit.h>

#include "platform/mac/mac_workspace.h"

namespace dispatcher::mac_shell {

namespace {

NSURL* UrlFromString(const std::string& text) {
  NSString* string = [[NSString alloc] initWithBytes:text.data()
                                              length:text.size()
                                            encoding:NSUTF8StringEncoding];
  return string ? [NSURL URLWithString:string] : nil;
}

}  // namespace

bool MacWorkspace::CanOpenUrls() {
  if (@available(macOS 10.15, *)) return true;
  return false;
}

std::optional<std::string> MacWorkspace::WorkBrowserLocation() {
  @autoreleasepool {
    NSURL* location = [[NSWorkspace sharedWorkspace]
        URLForApplicationWithBundleIdentifier:@(kWorkBrowserBundleIdentifier)];
    if (!location) return std::nullopt;
    return std::string([[location absoluteString] UTF8String]);
  }
}

std::optional<std::string> MacWorkspace::PathOfLocation(const std::string& location) {
  @autoreleasepool {
    NSString* path = [[UrlFromString(location) absoluteURL] path];
    if (!path) return std::nullopt;
    return std::string([path fileSystemRepresentation]);
  }
}

void MacWorkspace::OpenUrl(const std::string& url, const std::optional<std::string>& application,
                           Completion completion) {
  if (@available(macOS 10.15, *)) {
    NSURL* target = UrlFromString(url);
    // An absent application is handed on as it is: the workspace reports it.
    NSURL* app = application ? UrlFromString(*application) : nil;
    NSWorkspaceOpenConfiguration* configuration = [NSWorkspaceOpenConfiguration configuration];
    [configuration setAllowsRunningApplicationSubstitution:NO];
    NSArray<NSURL*>* urls = target ? @[ target ] : @[];
    Completion done = std::move(completion);
    [[NSWorkspace sharedWorkspace] openURLs:urls
                       withApplicationAtURL:app
                              configuration:configuration
                          completionHandler:^(NSRunningApplication*, NSError* error) {
                            done(error == nil);
                          }];
  } else {
    completion(false);
  }
}

}  // namespace dispatcher::mac_shell
