// Text recognition with the step that performs the request handed in, so
// that the tests can stand in for a Vision that fails. Objective-C++: only
// .mm files include it; the rest of the backend calls recognizeText
// (backend.h).
#pragma once

#include <CoreGraphics/CoreGraphics.h>
#import <Foundation/Foundation.h>
#import <Vision/Vision.h>

#include <vector>

#include "platform/platform.h"

namespace quorvel::macos_backend {

// Performs `requests` with `handler`, as performRequests:error: does.
using PerformRequests = BOOL (^)(VNImageRequestHandler* handler, NSArray<VNRequest*>* requests,
                                 NSError** error);

// recognizeText, with `perform` in place of performRequests:error:.
std::vector<TextObservation> recognizeTextWith(CGImageRef image, PerformRequests perform);

}  // namespace quorvel::macos_backend
