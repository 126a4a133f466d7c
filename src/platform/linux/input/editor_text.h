// The focused text editor as typing reads it, to learn whether the
// application has handled the keys sent so far. The accessibility side
// answers; the platform hands the answer in, so that typing needs no
// AT-SPI client of its own.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace quorvel::linux_backend {

class EditorText {
public:
    virtual ~EditorText() = default;
    // The caret's offset in characters; nothing when it cannot be read.
    virtual std::optional<int> caret() = 0;
    // The characters from `start` to `end`; nothing when they cannot be read.
    virtual std::optional<std::string> text(int start, int end) = 0;
    // Whether the application inserts every character where its key falls
    // among the others, one beyond the BMP included (browsers do).
    virtual bool keepsKeyOrder() { return false; }
};
// The focused text editor of process `pid`; null when there is none.
using FocusedText = std::function<std::unique_ptr<EditorText>(std::int64_t pid)>;

}  // namespace quorvel::linux_backend
