// What the macOS backend's files share: the handle classes that carry
// platform references across the seam, and the capture and recognition
// entry points that live in their own files. Plain C++ over Core Foundation
// and Core Graphics types; no Objective-C type appears here.
#pragma once

#include "platform/platform.h"

#include <ApplicationServices/ApplicationServices.h>

#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

#include "platform/macos/cf_ref.h"

namespace quorvel::macos_backend {

class MacElement final : public ElementObject {
public:
    explicit MacElement(CFRef<AXUIElementRef> element) : element_(std::move(element)) {}
    AXUIElementRef get() const { return element_.get(); }

private:
    CFRef<AXUIElementRef> element_;
};

class MacImage final : public ImageObject {
public:
    explicit MacImage(CFRef<CGImageRef> image) : image_(std::move(image)) {}
    CGImageRef get() const { return image_.get(); }

private:
    CFRef<CGImageRef> image_;
};

class MacEvent final : public EventObject {
public:
    explicit MacEvent(CFRef<CGEventRef> event) : event_(std::move(event)) {}
    CGEventRef get() const { return event_.get(); }

private:
    CFRef<CGEventRef> event_;
};

// The platform reference behind a handle; null for a null handle or one that
// another backend made.
AXUIElementRef axElement(const Element& element);
CGImageRef cgImage(const Image& image);
CGEventRef cgEvent(EventObject& event);

// A handle for an owned element; null when there is none.
Element wrapElement(CFRef<AXUIElementRef> element);

// The window image (window_image.mm): CGWindowListCreateImage where the SDK
// declares it, otherwise ScreenCaptureKit. Null when no image can be made.
CFRef<CGImageRef> createWindowImage(CGRect screenBounds, CGWindowListOption listOption,
                                    CGWindowID windowID, CGWindowImageOption imageOption);
// The image's raw pixel bytes from its data provider.
std::optional<std::vector<std::uint8_t>> copyImageData(CGImageRef image);

// Text recognition (text_recognition.mm). Throws std::runtime_error, the
// recogniser's error, when the request fails: when performing it fails (made
// from Vision's NSError), or when it ends with no results at all.
std::vector<TextObservation> recognizeText(CGImageRef image);

// The image as a PNG file's bytes (png_encoder.mm); nullopt when ImageIO
// cannot encode it.
std::optional<EncodedImage> encodePng(CGImageRef image);

}  // namespace quorvel::macos_backend
