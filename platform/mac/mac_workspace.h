// Opening URLs through the macOS workspace service.
#ifndef PLATFORM_MAC_MAC_WORKSPACE_H_
#define PLATFORM_MAC_MAC_WORKSPACE_H_

#import <Foundation/Foundation.h>

#include "dispatcher/workspace.h"

namespace dispatcher::mac_shell {

inline constexpr char kWorkBrowserBundleIdentifier[] = "com.velora.velorabrowser";
// Our own bundle's identifier: a bundle that bears it is a copy of us.
inline constexpr char kDispatcherBundleIdentifier[] = "com.halvard.corvane.dispatcher";

// A core URL that carries `url` itself, so the workspace gets the very object
// back.
Url UrlFromNSURL(NSURL* url);

class MacWorkspace : public Workspace {
 public:
  bool CanOpenUrls() override;
  std::optional<Url> WorkBrowserLocation() override;
  bool StartsThisDispatcher(const Url& location) override;
  void OpenUrl(const Url& url, const std::optional<Url>& application,
               Completion completion) override;
};

}  // namespace dispatcher::mac_shell

#endif  // PLATFORM_MAC_MAC_WORKSPACE_H_
