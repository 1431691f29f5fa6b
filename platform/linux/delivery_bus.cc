#include "platform/linux/delivery_bus.h"

#include <algorithm>
#include <atomic>
#include <memory>
#include <utility>

#include "platform/linux/loop_guard.h"

namespace dispatcher::linux_shell {

const char* const kDeliveryVariables[3] = {"XDG_ACTIVATION_TOKEN", "DESKTOP_STARTUP_ID", kLaunchMarkerVariable};

namespace {

constexpr char kObjectPath[] = "/com/halvard/corvane/dispatcher";
constexpr char kInterface[] = "com.halvard.corvane.dispatcher.Deliveries";
constexpr char kNotTakenError[] = "com.halvard.corvane.dispatcher.Error.NotTaken";
// Open: the arguments, the working directory, the environment and the
// sender's give-up time (monotonic clock, microseconds). Its reply comes once
// every argument is seen through, after a Handed signal for each.
constexpr char kInterfaceXml[] =
    "<node><interface name='com.halvard.corvane.dispatcher.Deliveries'>"
    "<method name='Open'><arg type='aay' direction='in'/><arg type='ay' direction='in'/>"
    "<arg type='a{say}' direction='in'/><arg type='x' direction='in'/></method>"
    "<signal name='Handed'><arg type='u'/></signal>"
    "</interface></node>";
constexpr guint32 kDoNotQueue = 4;  // RequestName flag and replies
constexpr guint32 kPrimaryOwner = 1;
constexpr guint32 kExists = 3;

std::string BytesOf(GVariant* bytes) {
  gsize size = 0;
  const auto* data = static_cast<const char*>(g_variant_get_fixed_array(bytes, &size, 1));
  std::string text(data ? data : "", size);
  return text.substr(0, text.find('\0'));  // what an argument vector can carry
}

GVariant* BytesVariant(const std::string& text) {
  return g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, text.data(), text.size(), 1);
}

GDBusInterfaceInfo* InterfaceInfo() {
  static GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(kInterfaceXml, nullptr);
  return node->interfaces[0];
}

// A delivery being handled for a later dispatcher: the reply goes once the
// last argument is seen through, the one still held by the handler counted.
struct TakenDelivery {
  GDBusConnection* bus;
  std::string caller;
  GDBusMethodInvocation* invocation;
  std::atomic<size_t> remaining;

  void Release() {
    if (--remaining > 0) return;
    g_dbus_method_invocation_return_value(invocation, nullptr);
    g_object_unref(bus);
    delete this;
  }
};

// What a later dispatcher learns while it waits.
struct Wait {
  GMainLoop* loop;
  std::vector<bool>* acknowledged;
  GCancellable* cancellable;
  gint64 last_word;
  bool replied = false;
  bool succeeded = false;
};

void OnHanded(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*, GVariant* parameters,
              gpointer data) {
  auto* wait = static_cast<Wait*>(data);
  guint32 index = 0;
  if (!g_variant_is_of_type(parameters, G_VARIANT_TYPE("(u)"))) return;
  g_variant_get(parameters, "(u)", &index);
  if (index < wait->acknowledged->size()) (*wait->acknowledged)[index] = true;
  wait->last_word = g_get_monotonic_time();
}

void OnReply(GObject* source, GAsyncResult* result, gpointer data) {
  auto* wait = static_cast<Wait*>(data);
  GError* error = nullptr;
  GVariant* reply = g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, &error);
  wait->succeeded = reply != nullptr;
  if (reply) g_variant_unref(reply);
  if (error) g_error_free(error);
  wait->replied = true;
  g_main_loop_quit(wait->loop);
}

gboolean CheckPatience(gpointer data) {
  auto* wait = static_cast<Wait*>(data);
  if (g_get_monotonic_time() - wait->last_word > kForwardingPatienceMicroseconds) {
    g_cancellable_cancel(wait->cancellable);  // OnReply follows
  }
  return G_SOURCE_CONTINUE;
}

}  // namespace

DeliveryBus::Role DeliveryBus::Join() {
  bus_ = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr);
  if (!bus_) return Role::kAlone;
  // The end of the session must not end launches under way.
  g_dbus_connection_set_exit_on_close(bus_, FALSE);
  static const GDBusInterfaceVTable vtable = {OnMethodCall, nullptr, nullptr, {}};
  // Ready before the name is ours: a call may follow at once.
  registration_ = g_dbus_connection_register_object(bus_, kObjectPath, InterfaceInfo(), &vtable, this, nullptr,
                                                    nullptr);
  GVariant* reply = g_dbus_connection_call_sync(
      bus_, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "RequestName",
      g_variant_new("(su)", kDeliveryBusName, kDoNotQueue), G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE,
      static_cast<gint>(kForwardingPatienceMicroseconds / 1000), nullptr, nullptr);
  guint32 answer = 0;
  if (reply) {
    g_variant_get(reply, "(u)", &answer);
    g_variant_unref(reply);
  }
  owns_name_ = answer == kPrimaryOwner;
  if (owns_name_) return Role::kFirst;
  if (registration_) g_dbus_connection_unregister_object(bus_, registration_);
  registration_ = 0;
  return answer == kExists ? Role::kLater : Role::kAlone;
}

void DeliveryBus::StopTaking() {
  handler_ = nullptr;
  if (!owns_name_) return;
  owns_name_ = false;
  GVariant* reply = g_dbus_connection_call_sync(
      bus_, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "ReleaseName",
      g_variant_new("(s)", kDeliveryBusName), G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE,
      static_cast<gint>(kForwardingPatienceMicroseconds / 1000), nullptr, nullptr);
  if (reply) g_variant_unref(reply);
}

void DeliveryBus::Flush() {
  if (bus_) g_dbus_connection_flush_sync(bus_, nullptr, nullptr);
}

void DeliveryBus::OnMethodCall(GDBusConnection* connection, const gchar* sender, const gchar*, const gchar*,
                               const gchar*, GVariant* parameters, GDBusMethodInvocation* invocation,
                               gpointer data) {
  auto* self = static_cast<DeliveryBus*>(data);
  GVariant* arguments = nullptr;
  GVariant* working_directory = nullptr;
  GVariantIter* environment = nullptr;
  gint64 deadline = 0;
  g_variant_get(parameters, "(@aay@aya{say}x)", &arguments, &working_directory, &environment, &deadline);
  Delivery delivery;
  GVariantIter each;
  g_variant_iter_init(&each, arguments);
  while (GVariant* argument = g_variant_iter_next_value(&each)) {
    delivery.arguments.push_back(BytesOf(argument));
    g_variant_unref(argument);
  }
  delivery.working_directory = BytesOf(working_directory);
  const gchar* name = nullptr;
  GVariant* value = nullptr;
  while (g_variant_iter_next(environment, "{&s@ay}", &name, &value)) {
    delivery.environment[name] = BytesOf(value);
    g_variant_unref(value);
  }
  g_variant_iter_free(environment);
  g_variant_unref(working_directory);
  g_variant_unref(arguments);

  // A delivery whose sender has given up, or is about to, is its own: it
  // waited here while this process was stopped or busy.
  auto* taken = new TakenDelivery{G_DBUS_CONNECTION(g_object_ref(connection)), sender ? sender : "", invocation,
                                  delivery.arguments.size() + 1};
  auto handed = [taken, count = delivery.arguments.size()](size_t index) {
    if (index >= count) return;
    g_dbus_connection_emit_signal(taken->bus, taken->caller.c_str(), kObjectPath, kInterface, "Handed",
                                  g_variant_new("(u)", static_cast<guint32>(index)), nullptr);
    taken->Release();
  };
  if (!self->handler_ || g_get_monotonic_time() > deadline || !self->handler_(delivery, handed)) {
    g_dbus_method_invocation_return_dbus_error(invocation, kNotTakenError, "Not taking deliveries");
    g_object_unref(taken->bus);
    delete taken;
    return;
  }
  taken->Release();
}

bool DeliveryBus::Forward(const Delivery& delivery, std::vector<bool>& acknowledged) {
  GVariantBuilder arguments;
  g_variant_builder_init(&arguments, G_VARIANT_TYPE("aay"));
  for (const std::string& argument : delivery.arguments) {
    g_variant_builder_add_value(&arguments, BytesVariant(argument));
  }
  GVariantBuilder environment;
  g_variant_builder_init(&environment, G_VARIANT_TYPE("a{say}"));
  for (const auto& [name, value] : delivery.environment) {
    g_variant_builder_add(&environment, "{s@ay}", name.c_str(), BytesVariant(value));
  }
  const gint64 now = g_get_monotonic_time();
  GVariant* parameters =
      g_variant_new("(aay@aya{say}x)", &arguments, BytesVariant(delivery.working_directory), &environment,
                    now + kForwardingPatienceMicroseconds - kTakingMarginMicroseconds);

  Wait wait = {g_main_loop_new(nullptr, FALSE), &acknowledged, g_cancellable_new(), now};
  // The acknowledgements are addressed to this process alone: no match rule.
  guint subscription = g_dbus_connection_signal_subscribe(bus_, nullptr, kInterface, "Handed", kObjectPath, nullptr,
                                                          G_DBUS_SIGNAL_FLAGS_NO_MATCH_RULE, OnHanded, &wait, nullptr);
  g_dbus_connection_call(bus_, kDeliveryBusName, kObjectPath, kInterface, "Open", parameters, G_VARIANT_TYPE("()"),
                         G_DBUS_CALL_FLAGS_NO_AUTO_START, G_MAXINT, wait.cancellable, OnReply, &wait);
  guint patience = g_timeout_add(100, CheckPatience, &wait);
  while (!wait.replied) g_main_loop_run(wait.loop);
  g_source_remove(patience);
  g_dbus_connection_signal_unsubscribe(bus_, subscription);
  g_object_unref(wait.cancellable);
  g_main_loop_unref(wait.loop);
  if (wait.succeeded) {
    acknowledged.assign(acknowledged.size(), true);
    return true;
  }
  // An empty delivery has nothing to acknowledge: only the answer counts.
  return !acknowledged.empty() && std::find(acknowledged.begin(), acknowledged.end(), false) == acknowledged.end();
}

}  // namespace dispatcher::linux_shell
