#include "platform/linux/text_recognition.h"

#include <tesseract/baseapi.h>
#include <tesseract/resultiterator.h>
#include <omp.h>

#include <cstdlib>
#include <stdexcept>
#include <string>

namespace quorvel::linux_backend {
namespace {

// The engine open when the process exits. Tesseract keeps the model's shared
// parts in a cache of its own, destroyed at exit before a recogniser held by
// a function-local static would end its engine; ending the engine from a
// handler registered after that cache was made keeps the order right. A plain
// pointer, so that nothing here is itself destroyed at exit.
tesseract::TessBaseAPI* liveEngine = nullptr;

void endLiveEngine() {
    if (liveEngine) liveEngine->End();
    liveEngine = nullptr;
}

// Screen pixels: X reports no physical size worth trusting, and 96 is what
// the toolkits lay text out for.
constexpr int kScreenResolution = 96;

// Blue, green, red to luminance (ITU-R BT.601 weights in 1/1000). Tesseract
// works on grey levels anyway, and giving it one byte a pixel avoids its own
// colour handling, which expects red first.
std::vector<std::uint8_t> greyLevels(const Pixels& pixels) {
    std::vector<std::uint8_t> grey(static_cast<size_t>(pixels.width) * pixels.height);
    const std::uint8_t* p = pixels.bgra.data();
    for (size_t i = 0; i < grey.size(); ++i, p += 4)
        grey[i] = static_cast<std::uint8_t>((114 * p[0] + 587 * p[1] + 299 * p[2]) / 1000);
    return grey;
}

}  // namespace

Rect normalisedBox(int left, int top, int right, int bottom, int imageWidth, int imageHeight) {
    const double w = imageWidth, h = imageHeight;
    return Rect{left / w, 1.0 - bottom / h, (right - left) / w, (bottom - top) / h};
}

TextRecognizer::TextRecognizer() = default;

TextRecognizer::~TextRecognizer() {
    if (!engine_) return;
    if (liveEngine == engine_.get()) liveEngine = nullptr;
    engine_->End();  // does nothing when the exit handler ended it already
}

void TextRecognizer::start() {
    if (engine_) return;
    // The bridge runs on one thread. Tesseract's OpenMP build would start a
    // team of threads for each layer of its network; on a busy machine they
    // spin waiting for each other and recognition takes several times longer
    // than on one thread. No active parallel level means every region runs
    // on the calling thread.
    omp_set_max_active_levels(0);
    auto engine = std::make_unique<tesseract::TessBaseAPI>();
    if (engine->Init(nullptr, "eng", tesseract::OEM_LSTM_ONLY) != 0)
        throw std::runtime_error("text recognition could not start");
    // A window is a sparse page: labels, fields and buttons scattered over
    // it rather than columns of prose.
    engine->SetPageSegMode(tesseract::PSM_SPARSE_TEXT);
    if (!liveEngine) {
        static const bool handlerRegistered = (std::atexit(endLiveEngine), true);
        (void)handlerRegistered;
        liveEngine = engine.get();
    }
    engine_ = std::move(engine);
}

std::vector<TextObservation> TextRecognizer::recognize(const Pixels& pixels) {
    start();
    if (pixels.width <= 0 || pixels.height <= 0) return {};
    std::vector<std::uint8_t> grey = greyLevels(pixels);
    engine_->SetImage(grey.data(), pixels.width, pixels.height, 1, pixels.width);
    engine_->SetSourceResolution(kScreenResolution);
    if (engine_->Recognize(nullptr) != 0) {
        engine_->Clear();
        throw std::runtime_error("text recognition failed");
    }

    std::vector<TextObservation> observations;
    std::unique_ptr<tesseract::ResultIterator> line(engine_->GetIterator());
    if (line) {
        do {
            std::unique_ptr<char[]> text(line->GetUTF8Text(tesseract::RIL_TEXTLINE));
            int left = 0, top = 0, right = 0, bottom = 0;
            if (!text || !line->BoundingBox(tesseract::RIL_TEXTLINE, &left, &top, &right, &bottom))
                continue;
            std::string string(text.get());
            // Tesseract ends every line with a newline; it is not part of the text.
            while (!string.empty() && (string.back() == '\n' || string.back() == '\r'))
                string.pop_back();
            TextObservation observation;
            observation.boundingBox =
                normalisedBox(left, top, right, bottom, pixels.width, pixels.height);
            if (!string.empty())
                observation.topCandidates.push_back(
                    {std::move(string), line->Confidence(tesseract::RIL_TEXTLINE) / 100.0f});
            observations.push_back(std::move(observation));
        } while (line->Next(tesseract::RIL_TEXTLINE));
    }
    engine_->Clear();
    return observations;
}

}  // namespace quorvel::linux_backend
