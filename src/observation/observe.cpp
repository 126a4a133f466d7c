#include "observation/observe.h"

#include "accessibility/element.h"
#include "accessibility/window.h"
#include "observation/capture.h"
#include "observation/scan.h"

namespace quorvel {

JsonObject observe(Platform& platform, const std::string& operation, bool image) {
    Window window = foreground(platform);
    ScanResult scanned = scan(platform, window);

    Element focused;
    {
        Element appElement = platform.createApplicationElement(platform.processIdentifier(window.app));
        focused = element(platform, appElement, "AXFocusedUIElement");
    }
    std::string focusedRole, focusedValue;
    if (focused) {
        focusedRole = string(platform, focused, "AXRole");
        focusedValue = editorValue(platform, focused);
    }

    JsonObject result{
        {"scope", window.scope(platform)},
        {"nodes", std::move(scanned.nodes)},
        {"context",
         JsonObject{
             {"application", platform.localizedName(window.app).value_or("")},
             {"window_title", window.title},
             {"focused_role", std::move(focusedRole)},
             {"focused_value", std::move(focusedValue)},
             {"visible_text", std::move(scanned.text)},
         }},
    };

    if (operation == "observe" || operation == "capture") {
        CaptureResult captured = capture(platform, window, operation == "observe", image);
        result["screenshot_hash"] = std::move(captured.hash);
        result["ocr_blocks"] = std::move(captured.blocks);
        if (captured.image) result["image"] = std::move(*captured.image);
    }

    // The observation stands only if the same window is still in front.
    validate(platform, window.scope(platform));
    return result;
}

}  // namespace quorvel
