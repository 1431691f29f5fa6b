// The macOS shell: NSApplication delivers launch, URLs and termination to the
// one AppDelegate of the portable core.
#import <AppKit/AppKit.h>
#include <dispatch/dispatch.h>

#include <chrono>
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

class NSApplicationShell : public dispatcher::ApplicationShell {
 public:
  explicit NSApplicationShell(CorvaneAppDelegate* sender) : sender_(sender) {}

  // On the main thread (NSApp is main-thread only). terminate: has the
  // framework call applicationWillTerminate: and end the process.
  void Terminate() override { [NSApp terminate:sender_]; }

  void RunOnMainThread(std::function<void()> task, std::chrono::milliseconds delay) override {
    std::function<void()> run = std::move(task);
    dispatch_after(dispatch_time(DISPATCH_TIME_NOW, static_cast<int64_t>(delay.count()) * NSEC_PER_MSEC),
                   dispatch_get_main_queue(), ^{
                     run();
                   });
  }

  // The system's default-priority global queue.
  void RunInBackground(std::function<void()> task) override {
    dispatch_async(dispatch_get_global_queue(DISPATCH_QUEUE_PRIORITY_DEFAULT, 0), ^{
      task();
    });
  }

 private:
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
