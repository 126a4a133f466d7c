#include "platform/linux/atspi/bus.h"

#include <dbus/dbus.h>

#include <cstdlib>

namespace quorvel::linux_backend {
namespace {

std::optional<std::string> environment(const char* name) {
    const char* value = std::getenv(name);
    if (!value || !*value) return std::nullopt;
    return std::string(value);
}

// The session bus named by the environment, or null.
Bus openSessionBus() {
    std::optional<std::string> address = environment("DBUS_SESSION_BUS_ADDRESS");
    return address ? openBus(*address) : nullptr;
}

// One call to the launcher's org.a11y.Bus, which is never started for it;
// the reply, or null.
DBusMessage* askLauncher(DBusConnection* session, DBusMessage* call, int timeoutMs) {
    if (!call) return nullptr;
    // Without this the bus would start the launcher if it is not running.
    dbus_message_set_auto_start(call, FALSE);
    DBusError error;
    dbus_error_init(&error);
    DBusMessage* reply = dbus_connection_send_with_reply_and_block(session, call, timeoutMs, &error);
    dbus_error_free(&error);
    dbus_message_unref(call);
    return reply;
}

std::optional<std::string> askSessionBus(int timeoutMs) {
    Bus session = openSessionBus();
    if (!session) return std::nullopt;
    std::optional<std::string> address;
    DBusMessage* reply = askLauncher(
        session.get(),
        dbus_message_new_method_call("org.a11y.Bus", "/org/a11y/bus", "org.a11y.Bus", "GetAddress"),
        timeoutMs);
    const char* text = nullptr;
    if (reply && dbus_message_get_args(reply, nullptr, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID) &&
        text && *text)
        address = text;
    if (reply) dbus_message_unref(reply);
    return address;
}

// Properties.Get or Set of org.a11y.Status IsEnabled, with `value` for Set.
DBusMessage* statusCall(const char* method, const dbus_bool_t* value) {
    DBusMessage* call = dbus_message_new_method_call("org.a11y.Bus", "/org/a11y/bus",
                                                     DBUS_INTERFACE_PROPERTIES, method);
    if (!call) return nullptr;
    const char* interface = "org.a11y.Status";
    const char* property = "IsEnabled";
    DBusMessageIter iter, variant;
    dbus_message_iter_init_append(call, &iter);
    dbus_message_iter_append_basic(&iter, DBUS_TYPE_STRING, &interface);
    dbus_message_iter_append_basic(&iter, DBUS_TYPE_STRING, &property);
    if (value) {
        dbus_message_iter_open_container(&iter, DBUS_TYPE_VARIANT, DBUS_TYPE_BOOLEAN_AS_STRING,
                                         &variant);
        dbus_message_iter_append_basic(&variant, DBUS_TYPE_BOOLEAN, value);
        dbus_message_iter_close_container(&iter, &variant);
    }
    return call;
}

}  // namespace

void BusClose::operator()(DBusConnection* bus) const {
    dbus_connection_close(bus);
    dbus_connection_unref(bus);
}

Bus openBus(const std::string& address) {
    if (startsProcess(address)) return nullptr;
    DBusError error;
    dbus_error_init(&error);
    Bus bus(dbus_connection_open_private(address.c_str(), &error));
    if (bus) {
        dbus_connection_set_exit_on_disconnect(bus.get(), FALSE);
        if (!dbus_bus_register(bus.get(), &error)) bus.reset();
    }
    dbus_error_free(&error);
    return bus;
}

bool startsProcess(const std::string& address) {
    // "autolaunch:" runs dbus-launch; "launchd:" and "systemd:" ask a service
    // manager, which may start the bus on demand.
    for (const char* transport : {"autolaunch:", "launchd:", "systemd:"})
        if (address.find(transport) != std::string::npos) return true;
    return false;
}

std::optional<std::string> accessibilityBusAddress(
    const std::function<std::optional<std::string>()>& rootWindowAddress, int timeoutMs) {
    if (auto address = environment("AT_SPI_BUS_ADDRESS")) return address;
    if (rootWindowAddress)
        if (auto address = rootWindowAddress(); address && !address->empty()) return address;
    std::optional<std::string> address = askSessionBus(timeoutMs);
    if (address && startsProcess(*address)) return std::nullopt;
    return address;
}

bool turnOnAccessibility(int timeoutMs) {
    Bus session = openSessionBus();
    if (!session) return false;
    bool turnedOn = false;
    DBusMessage* reply = askLauncher(session.get(), statusCall("Get", nullptr), timeoutMs);
    DBusMessageIter iter, variant;
    if (reply && dbus_message_get_type(reply) == DBUS_MESSAGE_TYPE_METHOD_RETURN &&
        dbus_message_iter_init(reply, &iter) &&
        dbus_message_iter_get_arg_type(&iter) == DBUS_TYPE_VARIANT) {
        dbus_message_iter_recurse(&iter, &variant);
        dbus_bool_t enabled = TRUE;
        if (dbus_message_iter_get_arg_type(&variant) == DBUS_TYPE_BOOLEAN)
            dbus_message_iter_get_basic(&variant, &enabled);
        if (!enabled) {
            const dbus_bool_t on = TRUE;
            DBusMessage* set = askLauncher(session.get(), statusCall("Set", &on), timeoutMs);
            turnedOn = set && dbus_message_get_type(set) == DBUS_MESSAGE_TYPE_METHOD_RETURN;
            if (set) dbus_message_unref(set);
        }
    }
    if (reply) dbus_message_unref(reply);
    return turnedOn;
}

}  // namespace quorvel::linux_backend
