// PNG encoding of a window image with ImageIO, into memory. ImageIO sets no
// zlib level for PNG; leaving the rows unfiltered is what makes it fast (a
// window's flat areas and text compress as well without the filters).
#include "platform/macos/backend.h"  // first: see there

#import <Foundation/Foundation.h>
#include <ImageIO/ImageIO.h>

namespace quorvel::macos_backend {

std::optional<EncodedImage> encodePng(CGImageRef image) {
    if (!image) return std::nullopt;
    const size_t width = CGImageGetWidth(image);
    const size_t height = CGImageGetHeight(image);
    if (width == 0 || height == 0) return std::nullopt;

    CFRef<CFMutableDataRef> data = CFRef<CFMutableDataRef>::adopt(CFDataCreateMutable(nullptr, 0));
    if (!data) return std::nullopt;
    // "public.png": kUTTypePNG's value, without the deprecated constant.
    CFRef<CGImageDestinationRef> destination = CFRef<CGImageDestinationRef>::adopt(
        CGImageDestinationCreateWithData(data.get(), CFSTR("public.png"), 1, nullptr));
    if (!destination) return std::nullopt;
    @autoreleasepool {
        NSDictionary* properties = @{
            (__bridge NSString*)kCGImagePropertyPNGDictionary : @{
                (__bridge NSString*)kCGImagePropertyPNGCompressionFilter : @(IMAGEIO_PNG_NO_FILTERS),
            },
        };
        CGImageDestinationAddImage(destination.get(), image, (__bridge CFDictionaryRef)properties);
    }
    if (!CGImageDestinationFinalize(destination.get())) return std::nullopt;

    const UInt8* bytes = CFDataGetBytePtr(data.get());
    const CFIndex length = CFDataGetLength(data.get());
    EncodedImage encoded;
    encoded.bytes.assign(bytes, bytes + length);
    encoded.width = static_cast<std::uint32_t>(width);
    encoded.height = static_cast<std::uint32_t>(height);
    return encoded;
}

}  // namespace quorvel::macos_backend
