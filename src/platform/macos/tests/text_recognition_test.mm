// Text recognition on an image drawn here: the recognised string, its
// confidence and Vision's normalised, lower-left-origin box come through as
// Vision gave them; a request that fails, however Vision reports it, is the
// recogniser's error.
#include "platform/macos/backend.h"

#include "platform/macos/text_recognition.h"

#include <CoreText/CoreText.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

namespace quorvel::macos_backend {
namespace {

constexpr size_t kWidth = 800;
constexpr size_t kHeight = 400;

// Black text on white, drawn into the top quarter of the image.
CFRef<CGImageRef> imageWithText(CFStringRef text) {
    CFRef<CGColorSpaceRef> space =
        CFRef<CGColorSpaceRef>::adopt(CGColorSpaceCreateWithName(kCGColorSpaceSRGB));
    CFRef<CGContextRef> context = CFRef<CGContextRef>::adopt(CGBitmapContextCreate(
        nullptr, kWidth, kHeight, 8, 0, space.get(), kCGImageAlphaPremultipliedLast));
    CGContextSetRGBFillColor(context.get(), 1, 1, 1, 1);
    CGContextFillRect(context.get(), CGRectMake(0, 0, kWidth, kHeight));

    CFRef<CTFontRef> font =
        CFRef<CTFontRef>::adopt(CTFontCreateWithName(CFSTR("Helvetica"), 64, nullptr));
    const void* keys[] = {kCTFontAttributeName};
    const void* values[] = {font.get()};
    CFRef<CFDictionaryRef> attributes = CFRef<CFDictionaryRef>::adopt(CFDictionaryCreate(
        nullptr, keys, values, 1, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks));
    CFRef<CFAttributedStringRef> string = CFRef<CFAttributedStringRef>::adopt(
        CFAttributedStringCreate(nullptr, text, attributes.get()));
    CFRef<CTLineRef> line = CFRef<CTLineRef>::adopt(CTLineCreateWithAttributedString(string.get()));
    CGContextSetRGBFillColor(context.get(), 0, 0, 0, 1);
    // Bitmap contexts have their origin at the lower left: y = 320 is near the top.
    CGContextSetTextPosition(context.get(), 40, 320);
    CTLineDraw(line.get(), context.get());
    return CFRef<CGImageRef>::adopt(CGBitmapContextCreateImage(context.get()));
}

// Some virtual machines offer Vision no model to run on; the recogniser's
// error is then all there is to see, and these tests have nothing to check.
#define RECOGNIZE_OR_SKIP(observations, image)                                   \
    std::vector<TextObservation> observations;                                   \
    try {                                                                        \
        observations = recognizeText(image);                                     \
    } catch (const std::runtime_error& error) {                                  \
        GTEST_SKIP() << "text recognition is unavailable here: " << error.what(); \
    }

TEST(TextRecognition, ReportsTheStringConfidenceAndNormalisedBox) {
    CFRef<CGImageRef> image = imageWithText(CFSTR("QUORVEL 42"));
    ASSERT_TRUE(image);
    RECOGNIZE_OR_SKIP(observations, image.get());
    ASSERT_EQ(observations.size(), 1u);
    const TextObservation& seen = observations[0];
    ASSERT_EQ(seen.topCandidates.size(), 1u);  // only the best candidate is asked for
    EXPECT_NE(seen.topCandidates[0].string.find("42"), std::string::npos)
        << seen.topCandidates[0].string;
    EXPECT_GT(seen.topCandidates[0].confidence, 0.0f);
    EXPECT_LE(seen.topCandidates[0].confidence, 1.0f);

    // Normalised to the image, origin at the lower left: text near the top
    // of the image has a box high up, and near the left edge.
    const Rect& box = seen.boundingBox;
    EXPECT_GT(box.y, 0.6);
    EXPECT_LE(box.y + box.height, 1.0);
    EXPECT_GT(box.x, 0.0);
    EXPECT_LT(box.x, 0.2);
    EXPECT_GT(box.width, 0.2);
}

TEST(TextRecognition, AnImageWithoutTextGivesNoObservations) {
    CFRef<CGImageRef> image = imageWithText(CFSTR(""));
    ASSERT_TRUE(image);
    RECOGNIZE_OR_SKIP(observations, image.get());
    EXPECT_TRUE(observations.empty());
}

// Vision can fail a request in two ways, and neither is an image without
// text: the call answers NO with an error, or it answers YES while the
// request failed and holds no results (nil). Both stand in for the call
// here, so no recognition model is needed.
TEST(TextRecognition, AFailedRequestIsTheRecognisersErrorHoweverVisionReportsIt) {
    CFRef<CGImageRef> image = imageWithText(CFSTR("QUORVEL 42"));
    ASSERT_TRUE(image);
    PerformRequests refuses = ^BOOL(VNImageRequestHandler* handler, NSArray<VNRequest*>* requests,
                                    NSError** error) {
        (void)handler;
        (void)requests;
        if (error) *error = [NSError errorWithDomain:@"QuorvelTestDomain" code:7 userInfo:nil];
        return NO;
    };
    // Never performed, the request keeps the results of one that failed.
    PerformRequests succeedsWithoutResults =
        ^BOOL(VNImageRequestHandler* handler, NSArray<VNRequest*>* requests, NSError** error) {
            (void)handler;
            (void)requests;
            (void)error;
            return YES;
        };
    struct {
        const char* name;
        PerformRequests perform;
        const char* said;  // what the error names
    } cases[] = {
        {"the call fails", refuses, "QuorvelTestDomain"},
        {"the call succeeds, the request has no results", succeedsWithoutResults, "no results"},
    };
    for (const auto& c : cases) {
        try {
            std::vector<TextObservation> observations = recognizeTextWith(image.get(), c.perform);
            ADD_FAILURE() << c.name << ": " << observations.size() << " observations, no error";
        } catch (const std::runtime_error& error) {
            EXPECT_NE(std::string(error.what()).find(c.said), std::string::npos)
                << c.name << ": " << error.what();
        }
    }
}

}  // namespace
}  // namespace quorvel::macos_backend
