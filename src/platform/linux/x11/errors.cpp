#include "platform/linux/x11/errors.h"

#include <X11/Xlib.h>

namespace quorvel::linux_backend {
namespace {

unsigned long errorCount = 0;

int recordError(Display*, XErrorEvent*) {
    ++errorCount;
    return 0;
}

}  // namespace

void installErrorHandler() {
    static bool installed = false;
    if (installed) return;
    installed = true;
    XSetErrorHandler(recordError);
}

XErrorTrap::XErrorTrap(Display* display)
    : display_(display),
      previous_(reinterpret_cast<int (*)(Display*, void*)>(XSetErrorHandler(recordError))),
      errorsBefore_(errorCount) {}

XErrorTrap::~XErrorTrap() {
    XSetErrorHandler(reinterpret_cast<XErrorHandler>(previous_));
}

bool XErrorTrap::failed() {
    XSync(display_, False);
    return errorCount != errorsBefore_;
}

}  // namespace quorvel::linux_backend
