// A stand-in browser: each run leaves $CORVANE_RECORDER_DIR/<name it was started as>-<pid>.rec, renamed into place
// whole, of NUL-terminated key and value pairs: "name", "pid", "ppid", "stdin" (where descriptor 0 leads), "arg" for
// each argument, byte for byte, "fd" for each other open descriptor, "env:NAME" for a few variables that are set.
//
// Started as "--dbus-service NAME" it is a D-Bus-activatable application instead: it takes NAME on the session bus
// and records the first org.freedesktop.Application.Open call as a run named NAME, with the URIs as arguments and the
// platform data's tokens as the variables that carry them in an environment.
#include <dirent.h>
#include <gio/gio.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

std::string LinkTarget(const std::string& path) {
  std::error_code error;
  return std::filesystem::read_symlink(path, error).string();
}

bool Save(const std::string& directory, const std::string& name, const std::string& record) {
  std::string path = directory + "/" + name + "-" + std::to_string(getpid());
  std::ofstream out(path + ".partial", std::ios::binary);
  if (!(out << record).flush()) return false;
  return rename((path + ".partial").c_str(), (path + ".rec").c_str()) == 0;
}

void Add(std::string& record, const std::string& key, const std::string& value) {
  record += key + '\0' + value + '\0';
}

struct Service {
  std::string directory, name;
  GMainLoop* loop;
  bool saved = false;
};

void OnMethodCall(GDBusConnection*, const char*, const char*, const char*, const char* method, GVariant* parameters,
                  GDBusMethodInvocation* invocation, gpointer data) {
  auto* service = static_cast<Service*>(data);
  if (g_strcmp0(method, "Open") == 0) {
    std::string record;
    Add(record, "name", service->name);
    Add(record, "pid", std::to_string(getpid()));
    GVariant* uris = g_variant_get_child_value(parameters, 0);
    GVariant* platform_data = g_variant_get_child_value(parameters, 1);
    for (gsize i = 0; i < g_variant_n_children(uris); ++i) {
      GVariant* uri = g_variant_get_child_value(uris, i);
      Add(record, "arg", g_variant_get_string(uri, nullptr));
      g_variant_unref(uri);
    }
    for (auto [key, variable] : {std::pair("desktop-startup-id", "DESKTOP_STARTUP_ID"),
                                 std::pair("activation-token", "XDG_ACTIVATION_TOKEN")}) {
      const char* value = nullptr;
      if (g_variant_lookup(platform_data, key, "&s", &value)) Add(record, std::string("env:") + variable, value);
    }
    g_variant_unref(uris);
    g_variant_unref(platform_data);
    service->saved = Save(service->directory, service->name, record);
  }
  g_dbus_method_invocation_return_value(invocation, nullptr);
  g_main_loop_quit(service->loop);
}

int ServeOnce(const std::string& directory, const std::string& name) {
  constexpr char kInterface[] =
      "<node><interface name='org.freedesktop.Application'>"
      "<method name='Activate'><arg type='a{sv}' direction='in'/></method>"
      "<method name='Open'><arg type='as' direction='in'/><arg type='a{sv}' direction='in'/></method>"
      "</interface></node>";
  GDBusConnection* bus = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr);
  GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(kInterface, nullptr);
  if (!bus || !node) return 5;
  Service service{directory, name, g_main_loop_new(nullptr, FALSE)};
  std::string path = "/" + name;
  for (char& c : path) c = c == '.' ? '/' : c == '-' ? '_' : c;
  GDBusInterfaceVTable vtable = {OnMethodCall, nullptr, nullptr, {}};
  g_dbus_connection_register_object(bus, path.c_str(), node->interfaces[0], &vtable, &service, nullptr, nullptr);
  g_bus_own_name_on_connection(bus, name.c_str(), G_BUS_NAME_OWNER_FLAGS_NONE, nullptr, nullptr, nullptr, nullptr);
  g_main_loop_run(service.loop);
  g_dbus_connection_flush_sync(bus, nullptr, nullptr);
  return service.saved ? 0 : 3;
}

int main(int argc, char** argv) {
  const char* directory = getenv("CORVANE_RECORDER_DIR");
  if (!directory || argc < 1) return 2;
  if (argc == 3 && std::string(argv[1]) == "--dbus-service") return ServeOnce(directory, argv[2]);
  std::string name = std::string(argv[0]).substr(std::string(argv[0]).rfind('/') + 1), record;
  auto add = [&record](const std::string& key, const std::string& value) { Add(record, key, value); };
  add("name", name);
  add("pid", std::to_string(getpid()));
  add("ppid", std::to_string(getppid()));
  add("stdin", LinkTarget("/proc/self/fd/0"));
  for (int i = 1; i < argc; ++i) add("arg", argv[i]);
  DIR* fds = opendir("/proc/self/fd");
  while (struct dirent* entry = fds ? readdir(fds) : nullptr) {
    int fd = atoi(entry->d_name);
    if (fd > 2 && fd != dirfd(fds)) add("fd", LinkTarget("/proc/self/fd/" + std::to_string(fd)));
  }
  if (fds) closedir(fds);
  for (const char* variable : {"GIO_LAUNCHED_DESKTOP_FILE", "GIO_LAUNCHED_DESKTOP_FILE_PID", "GIO_USE_VFS",
                               "XDG_ACTIVATION_TOKEN", "DESKTOP_STARTUP_ID"}) {
    if (const char* value = getenv(variable)) add(std::string("env:") + variable, value);
  }
  return Save(directory, name, record) ? 0 : 3;
}
