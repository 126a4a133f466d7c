// X protocol errors without the process exiting. Xlib's default handler ends
// the process on any error, and a window can vanish between two requests at
// any time, so errors are recorded instead and checked where they matter.
#pragma once

struct _XDisplay;

namespace quorvel::linux_backend {

// Makes X errors non-fatal for the whole process. Safe to call repeatedly.
void installErrorHandler();

// Records the X errors of the requests made during its lifetime.
class XErrorTrap {
public:
    explicit XErrorTrap(_XDisplay* display);
    ~XErrorTrap();
    XErrorTrap(const XErrorTrap&) = delete;
    XErrorTrap& operator=(const XErrorTrap&) = delete;

    // Waits for the server to process every request made so far and tells
    // whether any of them failed.
    bool failed();

private:
    _XDisplay* display_;
    int (*previous_)(_XDisplay*, void*);
    unsigned long errorsBefore_;
};

}  // namespace quorvel::linux_backend
