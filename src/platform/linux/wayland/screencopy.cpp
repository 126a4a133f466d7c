#include "platform/linux/wayland/screencopy.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "platform/linux/wayland/connection.h"
#include "platform/linux/wayland/protocols.h"

namespace quorvel::linux_backend::wayland {
namespace {

// What the compositor says about one frame.
struct Frame {
    std::optional<std::uint32_t> format;
    FrameLayout layout;
    bool described = false;  // every buffer type has been offered
    bool ready = false;
    bool failed = false;
};

void frameBuffer(void* data, zwlr_screencopy_frame_v1* frame, std::uint32_t format,
                 std::uint32_t width, std::uint32_t height, std::uint32_t stride) {
    auto* f = static_cast<Frame*>(data);
    f->format = format;
    f->layout.width = width;
    f->layout.height = height;
    f->layout.stride = stride;
    // Before version 3 this one offer is all there is.
    if (zwlr_screencopy_frame_v1_get_version(frame) < 3) f->described = true;
}
void frameFlags(void* data, zwlr_screencopy_frame_v1*, std::uint32_t flags) {
    static_cast<Frame*>(data)->layout.yInverted = (flags & ZWLR_SCREENCOPY_FRAME_V1_FLAGS_Y_INVERT) != 0;
}
void frameReady(void* data, zwlr_screencopy_frame_v1*, std::uint32_t, std::uint32_t, std::uint32_t) {
    static_cast<Frame*>(data)->ready = true;
}
void frameFailed(void* data, zwlr_screencopy_frame_v1*) { static_cast<Frame*>(data)->failed = true; }
void frameDamage(void*, zwlr_screencopy_frame_v1*, std::uint32_t, std::uint32_t, std::uint32_t,
                 std::uint32_t) {}
void frameDmabuf(void*, zwlr_screencopy_frame_v1*, std::uint32_t, std::uint32_t, std::uint32_t) {}
void frameBufferDone(void* data, zwlr_screencopy_frame_v1*) { static_cast<Frame*>(data)->described = true; }
const zwlr_screencopy_frame_v1_listener kFrameListener = {
    frameBuffer, frameFlags, frameReady, frameFailed, frameDamage, frameDmabuf, frameBufferDone};

// The part of one output's area at `left`, `top` (logical, relative to the
// output), `width` by `height`, copied into `out` at (x, y) in buffer pixels.
bool captureOutput(Connection& connection, const Output& output, int left, int top, int width,
                   int height, Pixels& out, int x, int y) {
    Frame frame;
    zwlr_screencopy_frame_v1* request = zwlr_screencopy_manager_v1_capture_output_region(
        connection.globals().screencopy, 0, output.output, left, top, width, height);
    zwlr_screencopy_frame_v1_add_listener(request, &kFrameListener, &frame);
    bool copied = false;
    if (connection.dispatchUntil([&] { return frame.described || frame.failed; }) && !frame.failed &&
        frame.format) {
        std::uint32_t format = *frame.format;
        frame.layout.redFirst = format == WL_SHM_FORMAT_XBGR8888 || format == WL_SHM_FORMAT_ABGR8888;
        bool known = frame.layout.redFirst || format == WL_SHM_FORMAT_XRGB8888 ||
                     format == WL_SHM_FORMAT_ARGB8888;
        size_t size = static_cast<size_t>(frame.layout.stride) * frame.layout.height;
        int fd = known && size > 0 ? memfd_create("quorvel-capture", MFD_CLOEXEC) : -1;
        void* data = MAP_FAILED;
        if (fd >= 0 && ftruncate(fd, static_cast<off_t>(size)) == 0)
            data = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        if (data != MAP_FAILED) {
            wl_shm_pool* pool = wl_shm_create_pool(connection.globals().shm, fd, static_cast<std::int32_t>(size));
            wl_buffer* buffer = wl_shm_pool_create_buffer(
                pool, 0, static_cast<std::int32_t>(frame.layout.width),
                static_cast<std::int32_t>(frame.layout.height),
                static_cast<std::int32_t>(frame.layout.stride), format);
            wl_shm_pool_destroy(pool);
            zwlr_screencopy_frame_v1_copy(request, buffer);
            if (connection.dispatchUntil([&] { return frame.ready || frame.failed; }) && frame.ready) {
                copyFrame(static_cast<const std::uint8_t*>(data), frame.layout, out, x, y);
                copied = true;
            }
            wl_buffer_destroy(buffer);
            munmap(data, size);
        }
        if (fd >= 0) close(fd);
    }
    zwlr_screencopy_frame_v1_destroy(request);
    return copied;
}

}  // namespace

void copyFrame(const std::uint8_t* data, const FrameLayout& layout, Pixels& out, int x, int y) {
    for (std::uint32_t row = 0; row < layout.height; ++row) {
        int target = y + static_cast<int>(row);
        if (target < 0 || target >= out.height) continue;
        std::uint32_t source = layout.yInverted ? layout.height - 1 - row : row;
        const std::uint8_t* from = data + static_cast<size_t>(source) * layout.stride;
        for (std::uint32_t column = 0; column < layout.width; ++column) {
            int at = x + static_cast<int>(column);
            if (at < 0 || at >= out.width) continue;
            // Little-endian 32-bit pixels: blue, green, red, pad in memory
            // (red first for the BGR formats).
            const std::uint8_t* pixel = from + column * 4;
            std::uint8_t* to = &out.bgra[(static_cast<size_t>(target) * out.width + at) * 4];
            to[0] = layout.redFirst ? pixel[2] : pixel[0];
            to[1] = pixel[1];
            to[2] = layout.redFirst ? pixel[0] : pixel[2];
            to[3] = 255;
        }
    }
}

std::optional<Pixels> captureRegion(Connection& connection, const Rect& bounds) {
    const Globals& g = connection.globals();
    if (!g.screencopy || !g.shm) return std::nullopt;
    const long width = std::lround(std::fabs(bounds.width));
    const long height = std::lround(std::fabs(bounds.height));
    const long left = std::lround(std::min(bounds.x, bounds.x + bounds.width));
    const long top = std::lround(std::min(bounds.y, bounds.y + bounds.height));
    if (width <= 0 || height <= 0 || width > 32768 || height > 32768) return std::nullopt;

    // The outputs the rectangle lies on, and the part on each.
    struct Part {
        const Output* output;
        long x0, y0, x1, y1;
    };
    std::vector<Part> parts;
    for (const auto& output : connection.outputs()) {
        const Rect& o = output->logical;
        long x0 = std::max(left, std::lround(o.x)), y0 = std::max(top, std::lround(o.y));
        long x1 = std::min(left + width, std::lround(o.x + o.width));
        long y1 = std::min(top + height, std::lround(o.y + o.height));
        if (x1 > x0 && y1 > y0) parts.push_back({output.get(), x0, y0, x1, y1});
    }
    if (parts.empty()) return std::nullopt;
    std::int32_t scale = parts.front().output->scale;
    for (const Part& part : parts)
        // Rotated outputs and mixed scales would need resampling.
        if (part.output->scale != scale || part.output->transform != WL_OUTPUT_TRANSFORM_NORMAL)
            return std::nullopt;

    Pixels pixels;
    pixels.width = static_cast<int>(width * scale);
    pixels.height = static_cast<int>(height * scale);
    pixels.bgra.assign(static_cast<size_t>(pixels.width) * pixels.height * 4, 0);
    for (size_t i = 3; i < pixels.bgra.size(); i += 4) pixels.bgra[i] = 255;
    for (const Part& part : parts) {
        const Rect& o = part.output->logical;
        if (!captureOutput(connection, *part.output, static_cast<int>(part.x0 - std::lround(o.x)),
                           static_cast<int>(part.y0 - std::lround(o.y)),
                           static_cast<int>(part.x1 - part.x0), static_cast<int>(part.y1 - part.y0),
                           pixels, static_cast<int>((part.x0 - left) * scale),
                           static_cast<int>((part.y0 - top) * scale)))
            return std::nullopt;
    }
    return pixels;
}

}  // namespace quorvel::linux_backend::wayland
