#include "platform/linux/png_encoder.h"

#include <cstdint>
#include <new>
#include <vector>

namespace quorvel::linux_backend {
namespace {

// libpng reports errors by longjmp, so nothing between setjmp and the end
// of `write` may own resources through a destructor: the output buffer
// lives in the caller's frame and is reached through the I/O pointer.
void append(png_structp png, png_bytep data, png_size_t length) {
    auto* out = static_cast<std::vector<std::uint8_t>*>(png_get_io_ptr(png));
    try {
        out->insert(out->end(), data, data + length);
    } catch (const std::bad_alloc&) {
        png_error(png, "out of memory");
    }
}

void flush(png_structp) {}

bool write(const Pixels& pixels, const PngSettings& settings, std::vector<std::uint8_t>& out) {
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    if (!png) return false;
    png_infop info = png_create_info_struct(png);
    if (!info || setjmp(png_jmpbuf(png))) {
        png_destroy_write_struct(&png, &info);
        return false;
    }
    png_set_write_fn(png, &out, append, flush);
    png_set_compression_level(png, settings.compressionLevel);
    png_set_compression_strategy(png, settings.strategy);
    png_set_filter(png, PNG_FILTER_TYPE_BASE, settings.filters);
    png_set_IHDR(png, info, static_cast<png_uint_32>(pixels.width),
                 static_cast<png_uint_32>(pixels.height), 8, PNG_COLOR_TYPE_RGB,
                 PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_write_info(png, info);
    // Rows stay in the capture's layout: libpng swaps blue and red and drops
    // the alpha byte that follows each pixel as it writes.
    png_set_bgr(png);
    png_set_filler(png, 0, PNG_FILLER_AFTER);
    const size_t stride = static_cast<size_t>(pixels.width) * 4;
    for (int y = 0; y < pixels.height; ++y)
        png_write_row(png, const_cast<png_bytep>(pixels.bgra.data() + y * stride));
    png_write_end(png, nullptr);
    png_destroy_write_struct(&png, &info);
    return true;
}

}  // namespace

std::optional<EncodedImage> encodePng(const Pixels& pixels, const PngSettings& settings) {
    if (pixels.width <= 0 || pixels.height <= 0 ||
        pixels.bgra.size() != static_cast<size_t>(pixels.width) * pixels.height * 4)
        return std::nullopt;
    EncodedImage image;
    image.width = static_cast<std::uint32_t>(pixels.width);
    image.height = static_cast<std::uint32_t>(pixels.height);
    // A window of text and flat areas shrinks to well under a tenth.
    image.bytes.reserve(pixels.bgra.size() / 8);
    if (!write(pixels, settings, image.bytes)) return std::nullopt;
    return image;
}

}  // namespace quorvel::linux_backend
