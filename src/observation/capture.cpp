#include "observation/capture.h"

#include "accessibility/element.h"
#include "bridge/failure.h"
#include "platform/digest.h"

namespace quorvel {
namespace {

constexpr char kCaptureFailed[] = "Screen capture failed.";
constexpr std::uint32_t kImageOptions =
    kCGWindowImageBoundsIgnoreFraming | kCGWindowImageBestResolution;

}  // namespace

std::string screenshotHash(std::span<const std::uint8_t> bytes) {
    static constexpr char kHex[] = "0123456789abcdef";
    std::string hex;
    hex.reserve(64);
    for (std::uint8_t b : sha256(bytes)) {
        hex += kHex[b >> 4];
        hex += kHex[b & 15];
    }
    return hex;
}

Rect screenRect(const Rect& box, const Rect& frame) {
    return Rect{minX(frame) + minX(box) * width(frame),
                minY(frame) + (1 - maxY(box)) * height(frame),
                width(box) * width(frame),
                height(box) * height(frame)};
}

CaptureResult capture(Platform& platform, const Window& window, bool ocr) {
    if (!platform.preflightScreenCaptureAccess()) fail(platform.screenCapturePermissionMessage());
    Image image = platform.createWindowImage(window.frame, kCGWindowListOptionIncludingWindow,
                                             window.windowID, kImageOptions);
    if (!image) fail(kCaptureFailed);
    std::optional<std::vector<std::uint8_t>> pixels = platform.copyImageData(image);
    if (!pixels) fail(kCaptureFailed);

    CaptureResult result{screenshotHash(*pixels), {}};
    pixels.reset();
    if (!ocr) return result;

    // The recogniser's own error is not a Failure and passes on unchanged.
    for (const TextObservation& observation : platform.recognizeText(image)) {
        if (observation.topCandidates.empty()) continue;
        const RecognizedText& best = observation.topCandidates.front();
        result.blocks.emplace_back(JsonObject{
            {"text", best.string},
            {"confidence", best.confidence},
            {"bounds", bounds(screenRect(observation.boundingBox, window.frame))},
            {"screenshot_hash", result.hash},
        });
    }
    return result;
}

}  // namespace quorvel
