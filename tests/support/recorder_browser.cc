// A stand-in browser: each run leaves $CORVANE_RECORDER_DIR/<name it was started as>-<pid>.rec (browser_record.h).
// Started as "--dbus-service NAME" it is a D-Bus-activatable application: it takes NAME on the session bus and records
// the first Open call as a run named NAME, with the URIs as arguments and the platform data's tokens as variables. With
// CORVANE_RECORDER_MUTE set it never answers, keeps serving and records the URIs of every Open call.
#include <dirent.h>
#include <gio/gio.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

std::string g_record;

void Add(const std::string& key, const std::string& value) { g_record += key + '\0' + value + '\0'; }

std::string LinkTarget(const std::string& path) {
  std::error_code error;
  return std::filesystem::read_symlink(path, error).string();
}

int Save(const std::string& name) {
  std::string path = std::string(getenv("CORVANE_RECORDER_DIR")) + "/" + name + "-" + std::to_string(getpid());
  std::ofstream out(path + ".partial", std::ios::binary);
  if (!(out << g_record).flush()) return 3;
  return rename((path + ".partial").c_str(), (path + ".rec").c_str()) == 0 ? 0 : 3;
}

void OnMethodCall(GDBusConnection*, const char*, const char*, const char*, const char* method, GVariant* parameters,
                  GDBusMethodInvocation* invocation, gpointer name) {
  if (g_strcmp0(method, "Open") == 0) {
    Add("name", static_cast<const char*>(name));
    Add("pid", std::to_string(getpid()));
    GVariant* uris = g_variant_get_child_value(parameters, 0);
    GVariant* platform_data = g_variant_get_child_value(parameters, 1);
    const char* text = nullptr;
    GVariantIter each;
    g_variant_iter_init(&each, uris);
    while (g_variant_iter_next(&each, "&s", &text)) Add("arg", text);
    if (g_variant_lookup(platform_data, "desktop-startup-id", "&s", &text)) Add("env:DESKTOP_STARTUP_ID", text);
    if (g_variant_lookup(platform_data, "activation-token", "&s", &text)) Add("env:XDG_ACTIVATION_TOKEN", text);
    g_variant_unref(uris);
    g_variant_unref(platform_data);
  }
  if (getenv("CORVANE_RECORDER_MUTE")) Save(static_cast<const char*>(name));  // and the call is never returned
  else g_dbus_method_invocation_return_value(invocation, nullptr);
}

int ServeOnce(const char* name) {
  constexpr char kInterface[] =
      "<node><interface name='org.freedesktop.Application'>"
      "<method name='Open'><arg type='as' direction='in'/><arg type='a{sv}' direction='in'/></method>"
      "</interface></node>";
  GDBusConnection* bus = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr);
  GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(kInterface, nullptr);
  if (!bus || !node) return 5;
  std::string path = std::string("/") + name;
  for (char& c : path) c = c == '.' ? '/' : c == '-' ? '_' : c;
  GDBusInterfaceVTable vtable = {OnMethodCall, nullptr, nullptr, {}};
  g_dbus_connection_register_object(bus, path.c_str(), node->interfaces[0], &vtable, const_cast<char*>(name), nullptr,
                                    nullptr);
  g_bus_own_name_on_connection(bus, name, G_BUS_NAME_OWNER_FLAGS_NONE, nullptr, nullptr, nullptr, nullptr);
  while (g_record.empty() || getenv("CORVANE_RECORDER_MUTE")) g_main_context_iteration(nullptr, TRUE);
  g_dbus_connection_flush_sync(bus, nullptr, nullptr);
  return Save(name);
}

int main(int argc, char** argv) {
  if (!getenv("CORVANE_RECORDER_DIR")) return 2;
  if (argc == 3 && std::string(argv[1]) == "--dbus-service") return ServeOnce(argv[2]);
  std::string name = argv[0];
  name = name.substr(name.rfind('/') + 1);
  Add("name", name);
  Add("pid", std::to_string(getpid()));
  Add("stdin", LinkTarget("/proc/self/fd/0"));
  for (int i = 1; i < argc; ++i) Add("arg", argv[i]);
  DIR* fds = opendir("/proc/self/fd");
  while (struct dirent* entry = fds ? readdir(fds) : nullptr) {
    int fd = atoi(entry->d_name);
    if (fd > 2 && fd != dirfd(fds)) Add("fd", LinkTarget("/proc/self/fd/" + std::to_string(fd)));
  }
  if (fds) closedir(fds);
  for (const char* variable : {"GIO_LAUNCHED_DESKTOP_FILE", "GIO_LAUNCHED_DESKTOP_FILE_PID", "GIO_USE_VFS",
                               "XDG_ACTIVATION_TOKEN", "DESKTOP_STARTUP_ID"}) {
    if (const char* value = getenv(variable)) Add(std::string("env:") + variable, value);
  }
  return Save(name);
}
