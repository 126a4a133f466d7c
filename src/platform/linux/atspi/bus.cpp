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

std::optional<std::string> askSessionBus(const std::string& sessionAddress, int timeoutMs) {
    DBusError error;
    dbus_error_init(&error);
    DBusConnection* session = dbus_connection_open_private(sessionAddress.c_str(), &error);
    if (!session) {
        dbus_error_free(&error);
        return std::nullopt;
    }
    dbus_connection_set_exit_on_disconnect(session, FALSE);
    std::optional<std::string> address;
    if (dbus_bus_register(session, &error)) {
        DBusMessage* call = dbus_message_new_method_call("org.a11y.Bus", "/org/a11y/bus",
                                                         "org.a11y.Bus", "GetAddress");
        if (call) {
            // Without this the bus would start the launcher if it is not running.
            dbus_message_set_auto_start(call, FALSE);
            DBusMessage* reply =
                dbus_connection_send_with_reply_and_block(session, call, timeoutMs, &error);
            const char* text = nullptr;
            if (reply && dbus_message_get_args(reply, nullptr, DBUS_TYPE_STRING, &text,
                                               DBUS_TYPE_INVALID) &&
                text && *text)
                address = text;
            if (reply) dbus_message_unref(reply);
            dbus_message_unref(call);
        }
    }
    dbus_error_free(&error);
    dbus_connection_close(session);
    dbus_connection_unref(session);
    return address;
}

}  // namespace

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
    std::optional<std::string> session = environment("DBUS_SESSION_BUS_ADDRESS");
    if (!session || startsProcess(*session)) return std::nullopt;
    std::optional<std::string> address = askSessionBus(*session, timeoutMs);
    if (address && startsProcess(*address)) return std::nullopt;
    return address;
}

}  // namespace quorvel::linux_backend
