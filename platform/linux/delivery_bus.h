// Deliveries between dispatchers over the session bus. The first dispatcher
// owns the bus name and takes the deliveries of later ones; it acknowledges
// each argument once it has been handed to a browser, so that a later one
// whose delivery it does not see through hands only the rest itself.
#ifndef PLATFORM_LINUX_DELIVERY_BUS_H_
#define PLATFORM_LINUX_DELIVERY_BUS_H_

#include <gio/gio.h>

#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace dispatcher::linux_shell {

inline constexpr char kDeliveryBusName[] = "com.halvard.corvane.dispatcher";

// How long a later dispatcher waits for a word from the running one (its
// first acknowledgement, then each next one) before it hands the rest of its
// delivery itself. The running one takes no delivery whose sender has less
// than a second of that left, so that its first word arrives in time.
inline constexpr gint64 kForwardingPatienceMicroseconds = 5 * G_USEC_PER_SEC;
inline constexpr gint64 kTakingMarginMicroseconds = 1 * G_USEC_PER_SEC;

// One delivery as a process received it: its arguments byte for byte, the
// folder that relative paths among them start from, and those variables of
// its environment that the one who handles it needs (kDeliveryVariables;
// a variable that is not set is absent).
struct Delivery {
  std::vector<std::string> arguments;
  std::string working_directory;
  std::map<std::string, std::string> environment;
};
extern const char* const kDeliveryVariables[3];

class DeliveryBus {
 public:
  // Handles a delivery from a later dispatcher in the first one, on the main
  // thread: calls `handed(i)`, on any thread, once argument i has been
  // handed to a browser or refused. Returns false to refuse the delivery.
  using Handler = std::function<bool(const Delivery& delivery, std::function<void(size_t)> handed)>;

  enum class Role {
    kAlone,  // no session bus: every process handles its own delivery
    kFirst,  // owns the name and takes deliveries
    kLater,  // another dispatcher owns it
  };

  explicit DeliveryBus(Handler handler) : handler_(std::move(handler)) {}
  DeliveryBus(const DeliveryBus&) = delete;
  DeliveryBus& operator=(const DeliveryBus&) = delete;

  // Connects to the session bus and takes the name unless another
  // dispatcher has it.
  Role Join();

  // In the first dispatcher: from now on a delivery of a later one is not
  // taken; the name goes, so that the next dispatcher takes it.
  void StopTaking();

  // Writes out what is queued for the bus (acknowledgements, replies): the
  // process may end next.
  void Flush();

  // In a later one: hands `delivery` to the first and runs the default main
  // context until that one has seen every argument through, fails, or keeps
  // silent for longer than the patience. `acknowledged[i]` becomes true as
  // argument i is seen through there. Returns whether every one was.
  bool Forward(const Delivery& delivery, std::vector<bool>& acknowledged);

 private:
  static void OnMethodCall(GDBusConnection* connection, const gchar* sender, const gchar* object_path,
                           const gchar* interface_name, const gchar* method_name, GVariant* parameters,
                           GDBusMethodInvocation* invocation, gpointer data);

  Handler handler_;
  GDBusConnection* bus_ = nullptr;
  guint registration_ = 0;
  bool owns_name_ = false;
};

}  // namespace dispatcher::linux_shell

#endif  // PLATFORM_LINUX_DELIVERY_BUS_H_
