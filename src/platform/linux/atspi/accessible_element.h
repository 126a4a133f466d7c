// The seam's element handle for an AT-SPI object.
#pragma once

#include <memory>
#include <utility>

#include "platform/linux/atspi/message.h"
#include "platform/platform.h"

namespace quorvel::linux_backend {

// An element handle: the object's identity on the bus, its application's bus
// name and its path. Every read asks the application with its own method
// calls (methods.h) rather than through libatspi objects, which would
// cost a round trip apiece to make and another for each property.
class AccessibleElement final : public ElementObject {
public:
    AccessibleElement(ObjectRef ref, bool application)
        : ref_(std::move(ref)), application_(application) {}

    const ObjectRef& ref() const { return ref_; }
    // The root object of an application: it answers "AXFocusedWindow" and
    // "AXFocusedUIElement".
    bool application() const { return application_; }

private:
    ObjectRef ref_;
    bool application_;
};

// An element handle for an object known only by its identity.
inline Element elementFor(ObjectRef ref) {
    return std::make_shared<AccessibleElement>(std::move(ref), false);
}

}  // namespace quorvel::linux_backend
