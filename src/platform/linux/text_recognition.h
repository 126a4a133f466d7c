// Text recognition with the Tesseract API, on the captured pixels in memory.
#pragma once

#include <memory>
#include <vector>

#include "platform/linux/x_capture.h"
#include "platform/platform.h"

namespace tesseract {
class TessBaseAPI;
}

namespace quorvel::linux_backend {

class TextRecognizer {
public:
    TextRecognizer();
    ~TextRecognizer();
    TextRecognizer(const TextRecognizer&) = delete;
    TextRecognizer& operator=(const TextRecognizer&) = delete;

    // One observation per recognised line of text, in Tesseract's reading
    // order: its box normalised to the image with the origin at the
    // lower-left, and one candidate whose confidence is scaled to 0..1.
    // Throws std::runtime_error when the engine cannot start or fails.
    std::vector<TextObservation> recognize(const Pixels&);

private:
    void start();
    std::unique_ptr<tesseract::TessBaseAPI> engine_;
};

// A line's box in pixels (left, top, right, bottom; top-left origin) as a
// box normalised to an image of the given size, origin at the lower-left.
Rect normalisedBox(int left, int top, int right, int bottom, int imageWidth, int imageHeight);

}  // namespace quorvel::linux_backend
