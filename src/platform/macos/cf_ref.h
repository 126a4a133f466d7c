// Ownership of Core Foundation references inside the macOS backend.
//
// Core Foundation hands out references under two rules: a function with
// Create or Copy in its name returns a reference the caller must release; a
// Get function returns one the caller merely borrows. `CFRef` owns exactly one
// reference and releases it when it goes, so every element, value, event,
// image and dictionary the backend obtains is released on every path,
// including early returns and the failure paths of the accessibility API that
// still hand back a value.
//
// Used only by the backend's own files; the core never sees it.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <utility>

namespace quorvel::macos_backend {

template <typename Ref>
class CFRef {
public:
    CFRef() = default;

    // Takes over a reference from a Create or Copy function.
    static CFRef adopt(Ref ref) { return CFRef(ref); }
    // Keeps a borrowed reference from a Get function alive.
    static CFRef retain(Ref ref) {
        if (ref) CFRetain(ref);
        return CFRef(ref);
    }

    CFRef(const CFRef& other) : ref_(other.ref_) {
        if (ref_) CFRetain(ref_);
    }
    CFRef(CFRef&& other) noexcept : ref_(std::exchange(other.ref_, nullptr)) {}
    CFRef& operator=(CFRef other) noexcept {
        std::swap(ref_, other.ref_);
        return *this;
    }
    ~CFRef() {
        if (ref_) CFRelease(ref_);
    }

    Ref get() const { return ref_; }
    explicit operator bool() const { return ref_ != nullptr; }

    // For the out-parameter of a Copy function: drops what is held and
    // returns the slot that the function fills with an owned reference.
    Ref* out() {
        *this = CFRef();
        return &ref_;
    }

private:
    explicit CFRef(Ref ref) : ref_(ref) {}
    Ref ref_ = nullptr;
};

}  // namespace quorvel::macos_backend
