// Text recognition with Vision: one request at the accurate level and nothing
// else set, performed synchronously on the captured image itself.
#include "platform/macos/backend.h"  // first: see there

#import <Foundation/Foundation.h>
#import <Vision/Vision.h>

#include <stdexcept>

#include "platform/macos/cf_value.h"

namespace quorvel::macos_backend {
namespace {

std::string describe(NSError* error) {
    if (!error) return "text recognition failed";
    return utf8((__bridge CFStringRef)error.description);
}

}  // namespace

std::vector<TextObservation> recognizeText(CGImageRef image) {
    std::vector<TextObservation> observations;
    std::string failure;
    bool failed = false;
    // The error is thrown only after the pool has drained, so that nothing
    // autoreleased during recognition outlives the call.
    @autoreleasepool {
        VNRecognizeTextRequest* request = [[VNRecognizeTextRequest alloc] init];
        request.recognitionLevel = VNRequestTextRecognitionLevelAccurate;
        VNImageRequestHandler* handler = [[VNImageRequestHandler alloc] initWithCGImage:image
                                                                                options:@{}];
        NSError* error = nil;
        if (![handler performRequests:@[ request ] error:&error]) {
            failed = true;
            failure = describe(error);
        } else {
            for (id result in request.results) {
                if (![result isKindOfClass:[VNRecognizedTextObservation class]]) continue;
                VNRecognizedTextObservation* observation = result;
                const CGRect box = observation.boundingBox;
                TextObservation& out = observations.emplace_back();
                out.boundingBox = Rect{box.origin.x, box.origin.y, box.size.width, box.size.height};
                for (VNRecognizedText* candidate in [observation topCandidates:1]) {
                    out.topCandidates.push_back(RecognizedText{
                        utf8((__bridge CFStringRef)candidate.string), candidate.confidence});
                }
            }
        }
    }
    if (failed) throw std::runtime_error(failure);
    return observations;
}

}  // namespace quorvel::macos_backend
