// The macOS shell: NSApplication delivers launch, URLs and termination to the
// one AppDelegate of the portable core.
#import <AppKit/AppKit.h>
#include <dispatch/dispatch.h>

#include <functional>
#include <utility>
#include <vector>

#include "base/files/file_util.h"
#include "dispatcher/dispatcher_delegate.h"
#include "dispatcher/dispatcher_main.h"
#include "platform/mac/mac_workspace.h"

#if !__has_feature(objc_arc)
#error "Built with ARC: the application delegate is kept alive by a strong reference."
#endif

@interface CorvaneAppDelegate : NSObject <NSApplicationDelegate>
@end

namespace {

dispatcher::AppDelegate* g_delegate;

// How long the main thread waits before it looks again when a delivery
// slipped in between the termination task's last poll and the hop.
constexpr int64_t kTerminationRecheckNanoseconds = 100 * NSEC_PER_MSEC;

class NSApplicationShell : public dispatcher::ApplicationShell {
 public:
  explicit NSApplicationShell(CorvaneAppDelegate* sender) : sender_(sender) {}

  // Called on the termination task's thread, but NSApp is main-thread only:
  // the decision is taken again there, where deliveries are handled too.
  void Terminate() override {
    dispatch_async(dispatch_get_main_queue(), ^{
      TerminateWhenNoLaunchIsOutstanding();
    });
  }

  // The system's default-priority global queue.
  void RunInBackground(std::function<void()> task) override {
    dispatch_async(dispatch_get_global_queue(DISPATCH_QUEUE_PRIORITY_DEFAULT, 0), ^{
      task();
    });
  }

 private:
  // On the main thread. A delivery handled after the last poll has raised
  // the counter again: its launches must complete before the process may
  // end, or its URLs would be lost. terminate: has the framework call
  // applicationWillTerminate: and end the process.
  void TerminateWhenNoLaunchIsOutstanding() {
    if (g_delegate->launchCounter() != 0) {
      dispatch_after(dispatch_time(DISPATCH_TIME_NOW, kTerminationRecheckNanoseconds),
                     dispatch_get_main_queue(), ^{
                       TerminateWhenNoLaunchIsOutstanding();
                     });
      return;
    }
    [NSApp terminate:sender_];
  }

  CorvaneAppDelegate* sender_;  // strong: the framework holds its delegate weakly
};

}  // namespace

@implementation CorvaneAppDelegate

- (void)applicationWillFinishLaunching:(NSNotification*)notification {
  g_delegate->applicationWillFinishLaunching();
}

- (void)application:(NSApplication*)application openURLs:(NSArray<NSURL*>*)urls {
  // The delivered objects themselves travel on to the workspace.
  std::vector<dispatcher::Url> delivered;
  delivered.reserve([urls count]);
  for (NSURL* url in urls) delivered.push_back(dispatcher::mac_shell::UrlFromNSURL(url));
  g_delegate->applicationOpenURLs(delivered);
}

- (void)applicationWillTerminate:(NSNotification*)notification {
  g_delegate->applicationWillTerminate();
}

@end

int main(int argc, const char* argv[]) {
  base::EnsureStandardDescriptorsOpen();  // before any file is opened: the log must never be fd 2
  @autoreleasepool {
    dispatcher::InitializeDispatcherLogging();
    CorvaneAppDelegate* delegate = [[CorvaneAppDelegate alloc] init];
    // Live until the process ends; the shell keeps the framework's delegate.
    auto* workspace = new dispatcher::mac_shell::MacWorkspace;
    auto* application_shell = new NSApplicationShell(delegate);
    g_delegate = new dispatcher::AppDelegate(*workspace, *application_shell);
    [[NSApplication sharedApplication] setDelegate:delegate];
  }
  return NSApplicationMain(argc, argv);
}
