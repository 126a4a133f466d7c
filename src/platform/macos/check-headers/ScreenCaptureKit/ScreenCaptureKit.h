// Stand-in for <ScreenCaptureKit/ScreenCaptureKit.h>, used only by
// scripts/check-macos when the SDK folder has no ScreenCaptureKit framework
// (the public header set it is usually run against does not carry it). It
// declares just what the backend uses, with the signatures, nullability and
// availability of Apple's documentation, so the syntax check still catches a
// wrong selector, type or missing availability guard. Real builds on a Mac use
// the SDK's own headers; this file is never compiled into the bridge.
#pragma once

#import <CoreGraphics/CoreGraphics.h>
#import <Foundation/Foundation.h>

NS_ASSUME_NONNULL_BEGIN

API_AVAILABLE(macos(12.3))
@interface SCWindow : NSObject
@property(readonly) CGWindowID windowID;
@property(readonly) CGRect frame;
- (instancetype)init NS_UNAVAILABLE;
@end

API_AVAILABLE(macos(12.3))
@interface SCShareableContent : NSObject
@property(readonly) NSArray<SCWindow*>* windows;
- (instancetype)init NS_UNAVAILABLE;
+ (void)getShareableContentExcludingDesktopWindows:(BOOL)excludeDesktopWindows
                               onScreenWindowsOnly:(BOOL)onScreenWindowsOnly
                                 completionHandler:
                                     (void (^)(SCShareableContent* _Nullable shareableContent,
                                               NSError* _Nullable error))completionHandler;
@end

typedef NS_ENUM(NSInteger, SCCaptureResolutionType) {
    SCCaptureResolutionAutomatic,
    SCCaptureResolutionBest,
    SCCaptureResolutionNominal
} API_AVAILABLE(macos(14.0));

API_AVAILABLE(macos(12.3))
@interface SCContentFilter : NSObject
@property(nonatomic, readonly) float pointPixelScale API_AVAILABLE(macos(14.0));
@property(nonatomic, readonly) CGRect contentRect API_AVAILABLE(macos(14.0));
- (instancetype)initWithDesktopIndependentWindow:(SCWindow*)window;
@end

API_AVAILABLE(macos(12.3))
@interface SCStreamConfiguration : NSObject
@property(nonatomic, assign) size_t width;
@property(nonatomic, assign) size_t height;
@property(nonatomic, assign) OSType pixelFormat;
@property(nonatomic, assign) BOOL showsCursor;
@property(nonatomic, assign) BOOL ignoreShadowsSingleWindow API_AVAILABLE(macos(14.0));
@property(nonatomic, assign) SCCaptureResolutionType captureResolution API_AVAILABLE(macos(14.0));
@end

API_AVAILABLE(macos(14.0))
@interface SCScreenshotManager : NSObject
- (instancetype)init NS_UNAVAILABLE;
+ (void)captureImageWithFilter:(SCContentFilter*)contentFilter
                 configuration:(SCStreamConfiguration*)config
             completionHandler:(nullable void (^)(CGImageRef _Nullable sampleBuffer,
                                                  NSError* _Nullable error))completionHandler;
@end

NS_ASSUME_NONNULL_END
