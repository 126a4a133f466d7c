#include "observation/capture.h"

#include "accessibility/element.h"
#include "bridge/base64.h"
#include "bridge/failure.h"
#include "platform/digest.h"
#include "unicode/unicode.h"

namespace quorvel {
namespace {

constexpr char kCaptureFailed[] = "Screen capture failed.";
constexpr std::uint32_t kImageOptions =
    kCGWindowImageBoundsIgnoreFraming | kCGWindowImageBestResolution;

// The captured image itself, encoded from the image whose pixels were
// hashed. An image that cannot be encoded is an image that could not be taken.
JsonObject imageRecord(Platform& platform, const Image& image) {
    std::optional<EncodedImage> png = platform.encodePng(image);
    if (!png) fail(kCaptureFailed);
    return JsonObject{
        {"media_type", "image/png"},
        {"data", base64(png->bytes)},
        {"width", png->width},
        {"height", png->height},
    };
}

}  // namespace

Rect screenRect(const Rect& box, const Rect& frame) {
    return Rect{minX(frame) + minX(box) * width(frame),
                minY(frame) + (1 - maxY(box)) * height(frame),
                width(box) * width(frame),
                height(box) * height(frame)};
}

CaptureResult capture(Platform& platform, const Window& window, bool ocr, bool withImage) {
    if (!platform.preflightScreenCaptureAccess()) fail(platform.screenCapturePermissionMessage());
    Image image = platform.createWindowImage(window.frame, kCGWindowListOptionIncludingWindow,
                                             window.windowID, kImageOptions);
    if (!image) fail(kCaptureFailed);
    std::optional<std::vector<std::uint8_t>> pixels = platform.copyImageData(image);
    if (!pixels) fail(kCaptureFailed);

    CaptureResult result{hex(sha256(*pixels)), {}, std::nullopt};
    pixels.reset();
    if (withImage) result.image = imageRecord(platform, image);
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
