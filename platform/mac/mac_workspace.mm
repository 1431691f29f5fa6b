#import <AppKit/AppKit.h>

#include "platform/mac/mac_workspace.h"

namespace dispatcher::mac_shell {

namespace {

// The platform object a core URL carries, or one made from its text (a
// location read from Local State has no object).
NSURL* NSURLFromUrl(const Url& url) {
  if (url.platform_object) return (__bridge NSURL*)url.platform_object.get();
  NSString* string = [[NSString alloc] initWithBytes:url.spec.data()
                                              length:url.spec.size()
                                            encoding:NSUTF8StringEncoding];
  return string ? [NSURL URLWithString:string] : nil;
}

// The same file system object, whatever path (links, case) leads to it.
bool SameFile(NSURL* a, NSURL* b) {
  if (!a || !b) return false;
  id a_identifier = nil;
  id b_identifier = nil;
  if (![a getResourceValue:&a_identifier forKey:NSURLFileResourceIdentifierKey error:nil] ||
      ![b getResourceValue:&b_identifier forKey:NSURLFileResourceIdentifierKey error:nil]) {
    return false;
  }
  return a_identifier && b_identifier && [a_identifier isEqual:b_identifier];
}

}  // namespace

Url UrlFromNSURL(NSURL* url) {
  const char* text = [[url absoluteString] UTF8String];
  std::shared_ptr<const void> object((__bridge_retained const void*)url,
                                     [](const void* retained) { CFRelease(retained); });
  return Url(text ? std::string(text) : std::string(), std::move(object));
}

bool MacWorkspace::CanOpenUrls() {
  if (@available(macOS 10.15, *)) return true;
  return false;
}

std::optional<Url> MacWorkspace::WorkBrowserLocation() {
  @autoreleasepool {
    NSURL* location = [[NSWorkspace sharedWorkspace]
        URLForApplicationWithBundleIdentifier:@(kWorkBrowserBundleIdentifier)];
    if (!location) return std::nullopt;
    return UrlFromNSURL(location);
  }
}

bool MacWorkspace::StartsThisDispatcher(const Url& location) {
  @autoreleasepool {
    NSURL* url = [NSURLFromUrl(location) absoluteURL];
    // Only a file location can be opened as an application at all.
    if (!url || ![url isFileURL]) return false;
    NSURL* resolved = [url URLByResolvingSymlinksInPath];
    NSBundle* main_bundle = [NSBundle mainBundle];
    // Our executable, or our bundle (unbundled, the main bundle is merely
    // the executable's folder).
    if (SameFile(resolved, [[main_bundle executableURL] URLByResolvingSymlinksInPath]) ||
        ([main_bundle bundleIdentifier] &&
         SameFile(resolved, [[main_bundle bundleURL] URLByResolvingSymlinksInPath]))) {
      return true;
    }
    // Another copy of us: a bundle with our identifier.
    NSBundle* bundle = [NSBundle bundleWithURL:resolved];
    NSString* identifier = [bundle bundleIdentifier];
    return identifier &&
           [identifier caseInsensitiveCompare:@(kDispatcherBundleIdentifier)] == NSOrderedSame;
  }
}

void MacWorkspace::OpenUrl(const Url& url, const std::optional<Url>& application,
                           Completion completion) {
  if (@available(macOS 10.15, *)) {
    NSURL* target = NSURLFromUrl(url);
    // An absent application is handed on as it is: the workspace reports it.
    NSURL* app = application ? NSURLFromUrl(*application) : nil;
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
