// Keeps the dispatcher from starting itself in a loop: recognises programs,
// desktop entries and wrappers that would run this dispatcher, and the mark a
// dispatcher leaves in the environment of every browser it starts.
#ifndef PLATFORM_LINUX_LOOP_GUARD_H_
#define PLATFORM_LINUX_LOOP_GUARD_H_

#include <optional>
#include <string>

namespace dispatcher::linux_shell {

// Our own desktop entry; an entry of that name starts us whatever it holds.
inline constexpr char kDispatcherDesktopId[] = "com.halvard.corvane.dispatcher.desktop";

// Whether starting the program or desktop entry at `path` runs this
// dispatcher: the same file as our executable (by device and inode, so links
// of any name count), an entry of our name, an entry whose command runs our
// executable, or a script that does. Words are resolved and compared as
// files; a bare word is only looked up on PATH when it bears our
// executable's name, which keeps the test cheap.
bool PathStartsThisDispatcher(const std::string& path);

// The variable that marks a browser's environment, and its value for a
// browser started now: "<pid of this dispatcher> <its start time in clock
// ticks after boot> <boot-clock milliseconds> <depth>", the depth being one
// more than the loop depth of the delivery the launch is for.
inline constexpr char kLaunchMarkerVariable[] = "CORVANE_DISPATCHER_LAUNCHED_BY";
std::string LaunchMarkerNow(int delivery_loop_depth);

// How long after a launch its mark still counts as a loop.
inline constexpr long long kLaunchMarkerFreshMilliseconds = 10000;

// The loop depth of a delivery whose environment held `marker`: 0 for a
// delivery that no dispatcher's launch started moments ago, else the depth
// in the mark (1: through a launch made for a direct delivery; 2 and more:
// through one made for a delivery that was itself in a loop). A mark counts
// while it is at most kLaunchMarkerFreshMilliseconds old and the process
// that made it still runs, known by its id and start time: this process, for
// a delivery forwarded to it, or another dispatcher, however far up (desktop
// launches detach their children) and whatever copy or install of the
// dispatcher it runs. A browser that inherited the mark and opens a link
// later finds it stale or its dispatcher gone, and the link is routed
// normally.
int LaunchLoopDepth(const std::optional<std::string>& marker);

}  // namespace dispatcher::linux_shell

#endif  // PLATFORM_LINUX_LOOP_GUARD_H_
