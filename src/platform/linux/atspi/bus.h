// Finding and opening the accessibility bus without starting anything.
//
// libdbus, left to itself, may launch a session bus ("autolaunch") or
// D-Bus-activate the accessibility bus launcher when no session is running.
// The bridge must never start a process, so the address is found here, from
// what the session already provides.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

struct DBusConnection;

namespace quorvel::linux_backend {

struct BusClose {
    void operator()(DBusConnection*) const;
};
using Bus = std::unique_ptr<DBusConnection, BusClose>;

// A private connection to the message bus at `address`, registered with it;
// null when it cannot be had, or when reaching it would start a process.
Bus openBus(const std::string& address);

// In this order: $AT_SPI_BUS_ADDRESS; the address published on the X root
// window (`rootWindowAddress`); the org.a11y.Bus service of a running session
// bus, asked without auto-start. Empty when none of them names a bus.
std::optional<std::string> accessibilityBusAddress(
    const std::function<std::optional<std::string>()>& rootWindowAddress, int timeoutMs);

// Whether libdbus would start a process to reach this address.
bool startsProcess(const std::string& address);

// Turns the session's accessibility flag on (org.a11y.Status IsEnabled on
// the session bus's org.a11y.Bus) when it is off, as an assistive technology
// does: applications started afterwards expose their trees, and running ones
// that listen for the change (Firefox) do so at once. Some check the flag
// only when they start (Chromium). Nothing when there is no session bus or
// no launcher on it; nothing is ever started. Tells whether it turned the
// flag on.
bool turnOnAccessibility(int timeoutMs);

}  // namespace quorvel::linux_backend
