// The two things every AT-SPI exchange is made of: the reference that names
// one accessible object on the bus, and an owned D-Bus message.
#pragma once

#include <dbus/dbus.h>

#include <memory>
#include <string>

namespace quorvel::linux_backend {

// One accessible object: the bus name of its application and its path.
struct ObjectRef {
    std::string bus;
    std::string path;
    friend bool operator==(const ObjectRef&, const ObjectRef&) = default;
};

// Where every application, and the registry, keeps its root object.
inline constexpr char kApplicationRoot[] = "/org/a11y/atspi/accessible/root";
// The registry's root object: its children are the registered applications,
// each named by its bus name and the path of its own root object.
inline const ObjectRef kRegistryRoot{"org.a11y.atspi.Registry", kApplicationRoot};

struct MessageRelease {
    void operator()(DBusMessage* message) const { dbus_message_unref(message); }
};
using Message = std::unique_ptr<DBusMessage, MessageRelease>;

}  // namespace quorvel::linux_backend
