#include "platform/linux/text_recognition.h"

#include <dlfcn.h>
#include <tesseract/capi.h>

#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>

namespace quorvel::linux_backend {

// The entry points of Tesseract's C interface, looked up once.
struct TesseractLibrary {
    decltype(&TessBaseAPICreate) create;
    decltype(&TessBaseAPIDelete) destroy;
    decltype(&TessBaseAPIInit2) init;
    decltype(&TessBaseAPIEnd) end;
    decltype(&TessBaseAPISetPageSegMode) setPageSegMode;
    decltype(&TessBaseAPISetImage) setImage;
    decltype(&TessBaseAPISetSourceResolution) setSourceResolution;
    decltype(&TessBaseAPIRecognize) recognize;
    decltype(&TessBaseAPIClear) clear;
    decltype(&TessBaseAPIGetIterator) iterator;
    decltype(&TessResultIteratorGetPageIterator) pageIterator;
    decltype(&TessResultIteratorGetUTF8Text) text;
    decltype(&TessResultIteratorConfidence) confidence;
    decltype(&TessPageIteratorBoundingBox) boundingBox;
    decltype(&TessResultIteratorNext) next;
    decltype(&TessResultIteratorDelete) deleteIterator;
    decltype(&TessDeleteText) deleteText;
    // From the OpenMP runtime that Tesseract is built with, when it is.
    void (*setMaxActiveLevels)(int);
};

namespace {

// Screen pixels: X reports no physical size worth trusting, and 96 is what
// the toolkits lay text out for.
constexpr int kScreenResolution = 96;

template <typename Function>
bool find(void* library, const char* name, Function& function) {
    function = reinterpret_cast<Function>(dlsym(library, name));
    return function != nullptr;
}

const TesseractLibrary* loadLibrary() {
    static const TesseractLibrary* loaded = [] () -> const TesseractLibrary* {
        void* library = dlopen(QUORVEL_TESSERACT_SONAME, RTLD_NOW | RTLD_LOCAL);
        if (!library) return nullptr;
        static TesseractLibrary api;
        bool complete =
            find(library, "TessBaseAPICreate", api.create) &&
            find(library, "TessBaseAPIDelete", api.destroy) &&
            find(library, "TessBaseAPIInit2", api.init) &&
            find(library, "TessBaseAPIEnd", api.end) &&
            find(library, "TessBaseAPISetPageSegMode", api.setPageSegMode) &&
            find(library, "TessBaseAPISetImage", api.setImage) &&
            find(library, "TessBaseAPISetSourceResolution", api.setSourceResolution) &&
            find(library, "TessBaseAPIRecognize", api.recognize) &&
            find(library, "TessBaseAPIClear", api.clear) &&
            find(library, "TessBaseAPIGetIterator", api.iterator) &&
            find(library, "TessResultIteratorGetPageIterator", api.pageIterator) &&
            find(library, "TessResultIteratorGetUTF8Text", api.text) &&
            find(library, "TessResultIteratorConfidence", api.confidence) &&
            find(library, "TessPageIteratorBoundingBox", api.boundingBox) &&
            find(library, "TessResultIteratorNext", api.next) &&
            find(library, "TessResultIteratorDelete", api.deleteIterator) &&
            find(library, "TessDeleteText", api.deleteText);
        if (!complete) return nullptr;
        find(library, "omp_set_max_active_levels", api.setMaxActiveLevels);
        return &api;
    }();
    return loaded;
}

// The engine open when the process exits. Tesseract keeps the model's shared
// parts in a cache of its own, destroyed at exit before a recogniser held by
// a function-local static would end its engine; ending the engine from a
// handler registered after that cache was made keeps the order right. Plain
// pointers, so that nothing here is itself destroyed at exit.
const TesseractLibrary* liveLibrary = nullptr;
TessBaseAPI* liveEngine = nullptr;

void endLiveEngine() {
    if (liveEngine) liveLibrary->end(liveEngine);
    liveEngine = nullptr;
}

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

// A line's box in pixels (left, top, right, bottom; top-left origin) as a
// box normalised to an image of the given size, origin at the lower-left.
Rect normalisedBox(int left, int top, int right, int bottom, int imageWidth, int imageHeight) {
    const double w = imageWidth, h = imageHeight;
    return Rect{left / w, 1.0 - bottom / h, (right - left) / w, (bottom - top) / h};
}

}  // namespace

TextRecognizer::~TextRecognizer() {
    if (!engine_) return;
    auto* engine = static_cast<TessBaseAPI*>(engine_);
    if (liveEngine == engine) liveEngine = nullptr;
    library_->end(engine);  // does nothing when the exit handler ended it already
    library_->destroy(engine);
}

void TextRecognizer::start() {
    if (engine_) return;
    library_ = loadLibrary();
    if (!library_) throw std::runtime_error("text recognition is not installed");
    // The bridge runs on one thread. Tesseract's OpenMP build would start a
    // team of threads for each layer of its network; on a busy machine they
    // spin waiting for each other and recognition takes several times longer
    // than on one thread. No active parallel level means every region runs
    // on the calling thread.
    if (library_->setMaxActiveLevels) library_->setMaxActiveLevels(0);
    TessBaseAPI* engine = library_->create();
    if (!engine || library_->init(engine, nullptr, "eng", tesseract::OEM_LSTM_ONLY) != 0) {
        if (engine) library_->destroy(engine);
        throw std::runtime_error("text recognition could not start");
    }
    // A window is a sparse page: labels, fields and buttons scattered over
    // it rather than columns of prose.
    library_->setPageSegMode(engine, tesseract::PSM_SPARSE_TEXT);
    if (!liveEngine) {
        static const bool handlerRegistered = (std::atexit(endLiveEngine), true);
        (void)handlerRegistered;
        liveLibrary = library_;
        liveEngine = engine;
    }
    engine_ = engine;
}

std::vector<TextObservation> TextRecognizer::recognize(const Pixels& pixels) {
    start();
    if (pixels.width <= 0 || pixels.height <= 0) return {};
    const TesseractLibrary& api = *library_;
    auto* engine = static_cast<TessBaseAPI*>(engine_);
    std::vector<std::uint8_t> grey = greyLevels(pixels);
    api.setImage(engine, grey.data(), pixels.width, pixels.height, 1, pixels.width);
    api.setSourceResolution(engine, kScreenResolution);
    if (api.recognize(engine, nullptr) != 0) {
        api.clear(engine);
        throw std::runtime_error("text recognition failed");
    }

    std::vector<TextObservation> observations;
    if (TessResultIterator* line = api.iterator(engine)) {
        const TessPageIterator* page = api.pageIterator(line);
        do {
            char* text = api.text(line, tesseract::RIL_TEXTLINE);
            int left = 0, top = 0, right = 0, bottom = 0;
            if (!text || !api.boundingBox(page, tesseract::RIL_TEXTLINE, &left, &top, &right, &bottom)) {
                if (text) api.deleteText(text);
                continue;
            }
            std::string string(text);
            api.deleteText(text);
            // Tesseract ends every line with a newline; it is not part of the text.
            while (!string.empty() && (string.back() == '\n' || string.back() == '\r'))
                string.pop_back();
            TextObservation observation;
            observation.boundingBox =
                normalisedBox(left, top, right, bottom, pixels.width, pixels.height);
            if (!string.empty())
                observation.topCandidates.push_back(
                    {std::move(string), api.confidence(line, tesseract::RIL_TEXTLINE) / 100.0f});
            observations.push_back(std::move(observation));
        } while (api.next(line, tesseract::RIL_TEXTLINE));
        api.deleteIterator(line);
    }
    api.clear(engine);
    return observations;
}

}  // namespace quorvel::linux_backend
