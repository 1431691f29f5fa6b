// Opening URLs through the macOS workspace service.
#ifndef PLATFORM_MAC_MAC_WORKSPACE_H_
#define PLATFORM_MAC_MAC_WORKSPACE_H_

#include "dispatcher/workspace.h"

namespace dispatcher::mac_shell {

inline constexpr char kWorkBrowserBundleIdentifier[] = "com.velora.velorabrowser";

class MacWorkspace : public Workspace {
 public:
  bool CanOpenUrls() override;
  std::optional<std::string> WorkBrowserLocation() override;
  std::optional<std::string> PathOfLocation(const std::string& location) override;
  void OpenUrl(const std::string& url, const std::optional<std::string>& application,
               Completion completion) override;
};

}  // namespace dispatcher::mac_shell

#endif  // PLATFORM_MAC_MAC_WORKSPACE_H_
