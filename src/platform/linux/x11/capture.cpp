#include "platform/linux/x11/capture.h"

#include <X11/Xlib.h>
#include <X11/Xutil.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <string>

#include "platform/linux/x11/display.h"
#include "platform/linux/x11/errors.h"

namespace quorvel::linux_backend {
namespace {

// Whether a compositing manager runs: it owns the _NET_WM_CM_Sn selection
// and keeps every window's contents off screen, whole even where another
// window covers it or the screen's edge cuts it.
bool composited(Display* display) {
    std::string name = "_NET_WM_CM_S" + std::to_string(DefaultScreen(display));
    Atom selection = XInternAtom(display, name.c_str(), False);
    return XGetSelectionOwner(display, selection) != None;
}

// One 8-bit channel of a pixel, from its mask.
std::uint8_t channel(unsigned long pixel, unsigned long mask) {
    if (!mask) return 0;
    int shift = std::countr_zero(mask);
    unsigned long value = (pixel & mask) >> shift;
    unsigned long maximum = mask >> shift;
    return static_cast<std::uint8_t>(maximum == 255 ? value : value * 255 / maximum);
}

}  // namespace

void copyToBgra(const XImage& image, Pixels& out, int x, int y) {
    const bool direct = image.bits_per_pixel == 32 && image.byte_order == LSBFirst &&
                        image.red_mask == 0xff0000 && image.green_mask == 0xff00 &&
                        image.blue_mask == 0xff;
    for (int row = 0; row < image.height; ++row) {
        std::uint8_t* target =
            out.bgra.data() + (static_cast<size_t>(y + row) * out.width + x) * 4;
        if (direct) {
            // Already blue, green, red, pad in memory: copy, then make the
            // pad byte (undefined in X) opaque.
            std::memcpy(target, image.data + static_cast<size_t>(row) * image.bytes_per_line,
                        static_cast<size_t>(image.width) * 4);
            for (int col = 0; col < image.width; ++col) target[col * 4 + 3] = 255;
            continue;
        }
        for (int col = 0; col < image.width; ++col) {
            unsigned long pixel = XGetPixel(const_cast<XImage*>(&image), col, row);
            target[col * 4 + 0] = channel(pixel, image.blue_mask);
            target[col * 4 + 1] = channel(pixel, image.green_mask);
            target[col * 4 + 2] = channel(pixel, image.red_mask);
            target[col * 4 + 3] = 255;
        }
    }
}

std::optional<Pixels> captureWindow(Display* display, unsigned long window,
                                    const Rect& screenBounds) {
    if (!display || !window) return std::nullopt;
    const long width = std::lround(std::fabs(screenBounds.width));
    const long height = std::lround(std::fabs(screenBounds.height));
    const long left = std::lround(std::min(screenBounds.x, screenBounds.x + screenBounds.width));
    const long top = std::lround(std::min(screenBounds.y, screenBounds.y + screenBounds.height));
    if (width <= 0 || height <= 0 || width > 32768 || height > 32768) return std::nullopt;

    // The child of the root that holds the window: the window manager's frame.
    std::vector<unsigned long> chain = ancestry(display, window);
    if (chain.empty()) return std::nullopt;
    ::Window frame = chain.back();
    XWindowAttributes attributes;
    {
        XErrorTrap trap(display);
        if (!XGetWindowAttributes(display, frame, &attributes) || trap.failed())
            return std::nullopt;
    }
    if (attributes.map_state != IsViewable) return std::nullopt;

    Pixels pixels;
    pixels.width = static_cast<int>(width);
    pixels.height = static_cast<int>(height);
    pixels.bgra.assign(static_cast<size_t>(width) * height * 4, 0);
    for (size_t i = 3; i < pixels.bgra.size(); i += 4) pixels.bgra[i] = 255;

    // The frame's inside, in root coordinates (it is a child of the root),
    // and the part of the requested area that it covers.
    const long originX = attributes.x + attributes.border_width;
    const long originY = attributes.y + attributes.border_width;
    long x0 = std::max(left, originX);
    long y0 = std::max(top, originY);
    long x1 = std::min(left + width, originX + attributes.width);
    long y1 = std::min(top + height, originY + attributes.height);
    if (!composited(display)) {
        // The window's pixels are the screen's: only its part on the screen
        // can be read.
        x0 = std::max(x0, 0L);
        y0 = std::max(y0, 0L);
        x1 = std::min(x1, static_cast<long>(DisplayWidth(display, DefaultScreen(display))));
        y1 = std::min(y1, static_cast<long>(DisplayHeight(display, DefaultScreen(display))));
    }
    if (x1 <= x0 || y1 <= y0) return pixels;

    XErrorTrap trap(display);
    XImage* image = XGetImage(display, frame, static_cast<int>(x0 - originX),
                              static_cast<int>(y0 - originY), static_cast<unsigned>(x1 - x0),
                              static_cast<unsigned>(y1 - y0), AllPlanes, ZPixmap);
    bool failed = trap.failed();
    if (!image || failed) {
        if (image) XDestroyImage(image);
        return std::nullopt;
    }
    copyToBgra(*image, pixels, static_cast<int>(x0 - left), static_cast<int>(y0 - top));
    XDestroyImage(image);
    return pixels;
}

}  // namespace quorvel::linux_backend
