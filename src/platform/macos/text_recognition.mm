// Text recognition with Vision: one request at the accurate level and nothing
// else set, performed synchronously on the captured image itself.
#include "platform/macos/backend.h"  // first: see there

#include "platform/macos/text_recognition.h"

#include <optional>
#include <stdexcept>
#include <string>

#include "platform/macos/cf_value.h"

namespace quorvel::macos_backend {
namespace {

std::string describe(NSError* error) {
    if (!error) return "text recognition failed";
    return utf8((__bridge CFStringRef)error.description);
}

}  // namespace

std::vector<TextObservation> recognizeTextWith(CGImageRef image, PerformRequests perform) {
    std::vector<TextObservation> observations;
    std::optional<std::string> failure;
    // The error is thrown only after the pool has drained, so that nothing
    // autoreleased during recognition outlives the call.
    @autoreleasepool {
        VNRecognizeTextRequest* request = [[VNRecognizeTextRequest alloc] init];
        request.recognitionLevel = VNRequestTextRecognitionLevelAccurate;
        VNImageRequestHandler* handler = [[VNImageRequestHandler alloc] initWithCGImage:image
                                                                                options:@{}];
        NSError* __autoreleasing error = nil;
        BOOL performed = perform(handler, @[ request ], &error);
        // Vision reports a failed request in two ways: the call answers NO,
        // or it answers YES while the request itself failed, which then has
        // no results at all. A request that found no text has an empty
        // array; nil means it never produced any, which is a failure, not
        // an image without text.
        NSArray* results = performed ? request.results : nil;
        if (!performed) {
            failure = describe(error);
        } else if (!results) {
            failure = "text recognition produced no results";
        } else {
            for (id result in results) {
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
    if (failure) throw std::runtime_error(*failure);
    return observations;
}

std::vector<TextObservation> recognizeText(CGImageRef image) {
    return recognizeTextWith(image, ^BOOL(VNImageRequestHandler* handler,
                                          NSArray<VNRequest*>* requests, NSError** error) {
        return [handler performRequests:requests error:error];
    });
}

}  // namespace quorvel::macos_backend
