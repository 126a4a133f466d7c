// Text recognition on an image drawn here: the recognised string, its
// confidence and Vision's normalised, lower-left-origin box come through as
// Vision gave them.
#include "platform/macos/backend.h"

#include <CoreText/CoreText.h>
#include <gtest/gtest.h>

#include <stdexcept>

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

}  // namespace
}  // namespace quorvel::macos_backend
