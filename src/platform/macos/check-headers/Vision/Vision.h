// Stand-in for <Vision/Vision.h>, used only by scripts/check-macos when the
// SDK folder has no Vision framework (the public header set it is usually
// run against does not carry it). It declares just what the backend uses,
// with the signatures, nullability and availability of Apple's documentation,
// so the syntax check still catches a wrong selector, type or missing guard.
// Real builds on a Mac use the SDK's own headers; this file is never compiled
// into the bridge.
#pragma once

#import <CoreGraphics/CoreGraphics.h>
#import <Foundation/Foundation.h>

NS_ASSUME_NONNULL_BEGIN

typedef float VNConfidence;
typedef NSString* VNImageOption NS_STRING_ENUM;

API_AVAILABLE(macos(10.13))
@interface VNObservation : NSObject
@property(readonly, nonatomic, assign) VNConfidence confidence;
@end

API_AVAILABLE(macos(10.13))
@interface VNDetectedObjectObservation : VNObservation
@property(readonly, nonatomic, assign) CGRect boundingBox;
@end

API_AVAILABLE(macos(10.13))
@interface VNRectangleObservation : VNDetectedObjectObservation
@end

API_AVAILABLE(macos(10.15))
@interface VNRecognizedText : NSObject
@property(readonly, nonatomic, copy) NSString* string;
@property(readonly, nonatomic, assign) VNConfidence confidence;
@end

API_AVAILABLE(macos(10.15))
@interface VNRecognizedTextObservation : VNRectangleObservation
- (NSArray<VNRecognizedText*>*)topCandidates:(NSUInteger)maxCandidateCount;
@end

API_AVAILABLE(macos(10.13))
@interface VNRequest : NSObject
- (instancetype)init;
@property(readonly, nonatomic, copy, nullable) NSArray<__kindof VNObservation*>* results;
@end

API_AVAILABLE(macos(10.13))
@interface VNImageBasedRequest : VNRequest
@end

typedef NS_ENUM(NSInteger, VNRequestTextRecognitionLevel) {
    VNRequestTextRecognitionLevelAccurate = 0,
    VNRequestTextRecognitionLevelFast,
};

API_AVAILABLE(macos(10.15))
@interface VNRecognizeTextRequest : VNImageBasedRequest
@property(readwrite, nonatomic, assign) VNRequestTextRecognitionLevel recognitionLevel;
@property(readonly, copy, nullable) NSArray<VNRecognizedTextObservation*>* results;
@end

API_AVAILABLE(macos(10.13))
@interface VNImageRequestHandler : NSObject
- (instancetype)init NS_UNAVAILABLE;
- (instancetype)initWithCGImage:(CGImageRef)image options:(NSDictionary<VNImageOption, id>*)options;
- (BOOL)performRequests:(NSArray<VNRequest*>*)requests error:(NSError**)error;
@end

NS_ASSUME_NONNULL_END
