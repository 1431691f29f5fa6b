#import <AppKit/AppKit.h>
#include <dispatch/dispatch.h>
#include <sys/syslimits.h>

#include "platform/mac/mac_workspace.h"

#if !__has_feature(objc_arc)
#error "Built with ARC: the bridged casts below rely on it."
#endif

namespace dispatcher::mac_shell {

namespace {

// The platform object a core URL carries, or one made from its text (a
// location read from Local State has no object). The object stays owned by
// the core URL; ARC retains it for as long as the caller holds it.
NSURL* NSURLFromUrl(const Url& url) {
  if (url.platform_object) return (__bridge NSURL*)url.platform_object.get();
  NSString* string = [[NSString alloc] initWithBytes:url.spec.data()
                                              length:url.spec.size()
                                            encoding:NSUTF8StringEncoding];
  return string ? [NSURL URLWithString:string] : nil;
}

// A failure that the workspace was never asked about, reported the way the
// workspace reports its own: later, on a thread of its own.
void ReportFailureLater(Workspace::Completion completion) {
  dispatch_async(dispatch_get_global_queue(DISPATCH_QUEUE_PRIORITY_DEFAULT, 0), ^{
    completion(Workspace::Outcome::kFailed);
  });
}

// Only an application on this machine can be started: a file URL with no
// host but localhost. Anything else (another scheme, a bare path) fails to
// start, as on Linux, and the URL is retried in the work browser.
bool IsLocalFileUrl(NSURL* url) {
  NSString* host = [url host];
  return [url isFileURL] &&
         ([host length] == 0 || [host caseInsensitiveCompare:@"localhost"] == NSOrderedSame);
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
  @autoreleasepool {
    const char* text = [[url absoluteString] UTF8String];
    // The core holds one reference of its own, released when its last copy
    // of the URL goes, on whatever thread that is.
    std::shared_ptr<const void> object((__bridge_retained const void*)url,
                                       [](const void* retained) { CFRelease(retained); });
    return Url(text ? std::string(text) : std::string(), std::move(object));
  }
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
    @autoreleasepool {
      NSURL* target = NSURLFromUrl(url);
      NSURL* app = application ? NSURLFromUrl(*application) : nil;
      // The workspace takes no absent application (its parameter is
      // non-null): a work browser that is not installed is a failed open,
      // and so is a location that is no application on this machine.
      if (!target || !app || !IsLocalFileUrl(app)) {
        ReportFailureLater(std::move(completion));
        return;
      }
      NSWorkspaceOpenConfiguration* configuration = [[NSWorkspaceOpenConfiguration alloc] init];
      [configuration setAllowsRunningApplicationSubstitution:NO];
      NSURL* one_url[] = {target};
      Completion done = std::move(completion);
      // The handler runs on the workspace's own thread, not the main thread.
      [[NSWorkspace sharedWorkspace] openURLs:[NSArray arrayWithObjects:one_url count:1]
                         withApplicationAtURL:app
                                configuration:configuration
                            completionHandler:^(NSRunningApplication*, NSError* error) {
                              done(error == nil ? Workspace::Outcome::kStarted : Workspace::Outcome::kFailed);
                            }];
    }
  } else {
    ReportFailureLater(std::move(completion));
  }
}

}  // namespace dispatcher::mac_shell
