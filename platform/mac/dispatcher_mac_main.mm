// The macOS shell: NSApplication delivers launch, URLs and termination to the
// one AppDelegate of the portable core.
#import <AppKit/AppKit.h>

#include <string>
#include <vector>

#include "dispatcher/dispatcher_delegate.h"
#include "dispatcher/dispatcher_main.h"
#include "platform/mac/mac_workspace.h"

namespace {

class NSApplicationShell : public dispatcher::ApplicationShell {
 public:
  void Terminate() override { [NSApp terminate:[NSApp delegate]]; }
};

dispatcher::mac_shell::MacWorkspace* g_workspace;
NSApplicationShell* g_application_shell;
dispatcher::AppDelegate* g_delegate;

}  // namespace

@interface CorvaneAppDelegate : NSObject <NSApplicationDelegate>
@end

@implementation CorvaneAppDelegate

- (void)applicationWillFinishLaunching:(NSNotification*)notification {
  g_delegate->applicationWillFinishLaunching();
}

- (void)application:(NSApplication*)application openURLs:(NSArray<NSURL*>*)urls {
  // The delivered objects themselves travel on to the workspace.
  std::vector<dispatcher::Url> delivered;
  for (NSURL* url in urls) delivered.push_back(dispatcher::mac_shell::UrlFromNSURL(url));
  g_delegate->applicationOpenURLs(delivered);
}

- (void)applicationWillTerminate:(NSNotification*)notification {
  g_delegate->applicationWillTerminate();
}

@end

int main(int argc, const char* argv[]) {
  dispatcher::InitializeDispatcherLogging();
  // Live until the process ends: the framework holds its delegate weakly.
  g_workspace = new dispatcher::mac_shell::MacWorkspace;
  g_application_shell = new NSApplicationShell;
  g_delegate = new dispatcher::AppDelegate(*g_workspace, *g_application_shell);
  static CorvaneAppDelegate* delegate = [[CorvaneAppDelegate alloc] init];
  [[NSApplication sharedApplication] setDelegate:delegate];
  return NSApplicationMain(argc, argv);
}
