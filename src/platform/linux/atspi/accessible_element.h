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
    enum class Kind {
        Object,
        // The root object of an application: it answers "AXFocusedWindow"
        // and "AXFocusedUIElement".
        Application,
        // A window, as "AXFocusedWindow" found it: its frame and title mean
        // what the window list means (window_identity.h).
        TopLevel,
    };
    AccessibleElement(ObjectRef ref, Kind kind) : ref_(std::move(ref)), kind_(kind) {}

    const ObjectRef& ref() const { return ref_; }
    bool application() const { return kind_ == Kind::Application; }
    bool topLevel() const { return kind_ == Kind::TopLevel; }

private:
    ObjectRef ref_;
    Kind kind_;
};

// An element handle for an object known only by its identity.
inline Element elementFor(ObjectRef ref,
                          AccessibleElement::Kind kind = AccessibleElement::Kind::Object) {
    return std::make_shared<AccessibleElement>(std::move(ref), kind);
}

}  // namespace quorvel::linux_backend
