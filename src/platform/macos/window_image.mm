// The image of one window and its raw pixel bytes.
//
// CGWindowListCreateImage answers exactly the question the core asks, but it
// is deprecated since macOS 14 and obsoleted for builds that target macOS 15
// or later. backend.cmake tries to compile a call to it against the SDK in
// use and sets QUORVEL_CG_WINDOW_IMAGE to 1 when that works; otherwise the
// window is captured alone with ScreenCaptureKit's screenshot call
// (macOS 14 or later). Either way the data provider's bytes are hashed.
#include "platform/macos/backend.h"  // first: see there

#import <Foundation/Foundation.h>

#ifndef QUORVEL_CG_WINDOW_IMAGE
#error "QUORVEL_CG_WINDOW_IMAGE is set by backend.cmake (1: CGWindowListCreateImage, 0: ScreenCaptureKit)"
#endif

#if !QUORVEL_CG_WINDOW_IMAGE
#include <CoreVideo/CVPixelBuffer.h>
#import <ScreenCaptureKit/ScreenCaptureKit.h>

#include <cmath>
#include <memory>
#endif

namespace quorvel::macos_backend {
namespace {

#if QUORVEL_CG_WINDOW_IMAGE

CFRef<CGImageRef> windowImage(CGRect screenBounds, CGWindowListOption listOption,
                              CGWindowID windowID, CGWindowImageOption imageOption) {
    // Deprecated, but declared and usable at this build's deployment target
    // (backend.cmake checked), so the warning says nothing new.
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wdeprecated-declarations"
    return CFRef<CGImageRef>::adopt(
        CGWindowListCreateImage(screenBounds, listOption, windowID, imageOption));
#pragma clang diagnostic pop
}

#else

// ScreenCaptureKit answers on a queue of its own. A capture takes a fraction
// of a second; only a stuck service gets near this bound, and the capture then
// fails instead of hanging the bridge.
constexpr double kCaptureTimeoutSeconds = 10;

// Waits for `done`. Should the framework deliver a handler on the main queue,
// that queue only runs when the main run loop turns, so it is turned between
// short waits.
bool waitFor(dispatch_semaphore_t done) {
    const CFAbsoluteTime deadline = CFAbsoluteTimeGetCurrent() + kCaptureTimeoutSeconds;
    while (dispatch_semaphore_wait(done, dispatch_time(DISPATCH_TIME_NOW, 10 * NSEC_PER_MSEC))) {
        if (CFAbsoluteTimeGetCurrent() >= deadline) return false;
        if ([NSThread isMainThread]) CFRunLoopRunInMode(kCFRunLoopDefaultMode, 0, true);
    }
    return true;
}

// What a completion handler hands over. Shared with the handler so that one
// arriving after the wait gave up still writes into live memory, and whatever
// it stored is released when the last owner lets go.
struct API_AVAILABLE(macos(12.3)) Listing {
    SCWindow* window = nil;
};
struct Screenshot {
    CFRef<CGImageRef> image;
};

API_AVAILABLE(macos(14.0))
CFRef<CGImageRef> captureWindow(CGWindowID windowID, CGWindowImageOption imageOption) {
    // ScreenCaptureKit needs the process connected to the window server, and
    // a plain command-line process only is once it has asked Core Graphics
    // about a display.
    (void)CGMainDisplayID();

    auto listing = std::make_shared<Listing>();
    dispatch_semaphore_t listed = dispatch_semaphore_create(0);
    [SCShareableContent
        getShareableContentExcludingDesktopWindows:YES
                               onScreenWindowsOnly:YES
                                 completionHandler:^(SCShareableContent* content, NSError*) {
                                   for (SCWindow* window in content.windows) {
                                       if (window.windowID == windowID) {
                                           listing->window = window;
                                           break;
                                       }
                                   }
                                   dispatch_semaphore_signal(listed);
                                 }];
    if (!waitFor(listed) || !listing->window) return {};

    // The window alone, as the window server's own image of it.
    SCContentFilter* filter =
        [[SCContentFilter alloc] initWithDesktopIndependentWindow:listing->window];
    SCStreamConfiguration* configuration = [[SCStreamConfiguration alloc] init];
    const bool best = (imageOption & kCGWindowImageBestResolution) != 0;
    const double scale = best ? filter.pointPixelScale : 1.0;
    configuration.width = static_cast<size_t>(std::llround(filter.contentRect.size.width * scale));
    configuration.height = static_cast<size_t>(std::llround(filter.contentRect.size.height * scale));
    configuration.captureResolution = best ? SCCaptureResolutionBest : SCCaptureResolutionNominal;
    configuration.ignoreShadowsSingleWindow = (imageOption & kCGWindowImageBoundsIgnoreFraming) != 0;
    // One fixed raw layout, so that equal windows hash equally.
    configuration.pixelFormat = kCVPixelFormatType_32BGRA;
    // The window server's window image never shows the cursor either.
    configuration.showsCursor = NO;

    auto screenshot = std::make_shared<Screenshot>();
    dispatch_semaphore_t taken = dispatch_semaphore_create(0);
    [SCScreenshotManager captureImageWithFilter:filter
                                  configuration:configuration
                              completionHandler:^(CGImageRef image, NSError*) {
                                // The image is only lent for the handler's run.
                                screenshot->image = CFRef<CGImageRef>::retain(image);
                                dispatch_semaphore_signal(taken);
                              }];
    if (!waitFor(taken)) return {};
    return screenshot->image;
}

CFRef<CGImageRef> windowImage(CGRect screenBounds, CGWindowListOption listOption,
                              CGWindowID windowID, CGWindowImageOption imageOption) {
    // The core asks for one window alone within that window's own frame,
    // which is exactly what a single-window filter captures; the bounds add
    // nothing, and any other list option has no ScreenCaptureKit equivalent.
    (void)screenBounds;
    if (listOption != kCGWindowListOptionIncludingWindow) return {};
    if (@available(macOS 14.0, *)) {
        @autoreleasepool {
            return captureWindow(windowID, imageOption);
        }
    }
    // Before macOS 14 ScreenCaptureKit has no screenshot call.
    return {};
}

#endif

}  // namespace

CFRef<CGImageRef> createWindowImage(CGRect screenBounds, CGWindowListOption listOption,
                                    CGWindowID windowID, CGWindowImageOption imageOption) {
    return windowImage(screenBounds, listOption, windowID, imageOption);
}

std::optional<std::vector<std::uint8_t>> copyImageData(CGImageRef image) {
    CGDataProviderRef provider = CGImageGetDataProvider(image);  // lent by the image
    if (!provider) return std::nullopt;
    CFRef<CFDataRef> data = CFRef<CFDataRef>::adopt(CGDataProviderCopyData(provider));
    if (!data) return std::nullopt;
    const UInt8* bytes = CFDataGetBytePtr(data.get());
    return std::vector<std::uint8_t>(bytes, bytes + CFDataGetLength(data.get()));
}

}  // namespace quorvel::macos_backend
