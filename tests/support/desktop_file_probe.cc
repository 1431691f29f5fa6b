// Prints the desktop file that GIO's lookup of the id in argv[1] gives, then
// the one the dispatcher's own lookup gives, a line each ("-" for none).
#include <gio/gdesktopappinfo.h>
#include <stdio.h>

#include "platform/linux/linux_workspace.h"

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  std::optional<std::string> ours = dispatcher::linux_shell::FindDesktopFile(argv[1]);
  GDesktopAppInfo* info = g_desktop_app_info_new(argv[1]);
  const char* gio = info ? g_desktop_app_info_get_filename(info) : nullptr;
  printf("%s\n%s\n", gio ? gio : "-", ours ? ours->c_str() : "-");
  if (info) g_object_unref(info);
  return 0;
}
