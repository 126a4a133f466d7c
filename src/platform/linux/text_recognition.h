// Text recognition with Tesseract, on the captured pixels in memory.
//
// The library is loaded when text is first to be recognised, not when the
// bridge starts: it brings a long list of libraries and thousands of
// parameter objects built at load time, which would add tens of
// milliseconds to every request, though only "observe" recognises text.
#pragma once

#include <vector>

#include "platform/linux/x11/capture.h"
#include "platform/platform.h"

namespace quorvel::linux_backend {

struct TesseractLibrary;

class TextRecognizer {
public:
    TextRecognizer() = default;
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
    const TesseractLibrary* library_ = nullptr;
    void* engine_ = nullptr;  // a TessBaseAPI
};

}  // namespace quorvel::linux_backend
