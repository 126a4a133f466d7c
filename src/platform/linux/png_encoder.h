// PNG encoding of a captured window image, with libpng, in memory.
#pragma once

#include <png.h>
#include <zlib.h>

#include <optional>

#include "platform/linux/x11/capture.h"
#include "platform/platform.h"

namespace quorvel::linux_backend {

// How hard zlib works and which row filters libpng tries. The agent wants
// the image now: a window's flat areas and text compress well enough at the
// fastest level, and unfiltered rows of a window come out as small as
// filtered ones there, for less work (bench/png_bench.cpp compares them).
struct PngSettings {
    int compressionLevel = 1;
    int filters = PNG_FILTER_NONE;
    int strategy = Z_DEFAULT_STRATEGY;
};

// The pixels as an 8-bit RGB PNG (their alpha is always opaque, so it is
// left out); nullopt when libpng fails or the image is empty.
std::optional<EncodedImage> encodePng(const Pixels&, const PngSettings& = {});

}  // namespace quorvel::linux_backend
