#include "observation/scan.h"

#include <optional>
#include <string>
#include <vector>

#include "accessibility/element.h"
#include "unicode/unicode.h"

namespace quorvel {
namespace {

constexpr char kSecureLabel[] = "Authentication field";

struct Entry {
    Element element;
    std::optional<size_t> parent;  // visiting index of the element that listed it
};

std::string nodeId(size_t index) { return "ax-" + std::to_string(index); }

// Ends the backend's scan bracket on every path, the throwing one included.
class ScanBracket {
public:
    ScanBracket(Platform& platform, const Element& root) : platform_(platform) {
        platform_.beginTreeScan(root);
    }
    ~ScanBracket() { platform_.endTreeScan(); }
    ScanBracket(const ScanBracket&) = delete;
    ScanBracket& operator=(const ScanBracket&) = delete;

private:
    Platform& platform_;
};

}  // namespace

ScanResult scan(Platform& platform, const Window& window) {
    // Shared, read-only action lists.
    static const Json kEditableActions = Json::array({"focus", "type", "replace"});
    static const Json kClickActions = Json::array({"click"});
    static const Json kNoActions = Json::array();

    ScanBracket bracket(platform, window.root);
    std::vector<Entry> visits;
    visits.reserve(64);
    visits.push_back({window.root, std::nullopt});
    ScanResult result;
    std::string text;

    for (size_t i = 0; i < visits.size() && i < kMaxNodes; ++i) {
        const Element& el = visits[i].element;
        std::string role = string(platform, el, "AXRole");
        bool isSecure = string(platform, el, "AXSubrole") == "AXSecureTextField";
        std::string value = editorValue(platform, el);
        // A password field's title and description are not read at all.
        std::string label = kSecureLabel;
        if (!isSecure) {
            std::string title = string(platform, el, "AXTitle");
            std::string description = string(platform, el, "AXDescription");
            label = !title.empty() ? std::move(title) : std::move(description);
        }
        std::optional<Rect> frame = rect(platform, el);
        bool isEditable = editable(platform, el);
        Value enabledValue = attr(platform, el, "AXEnabled");
        const bool* enabled = std::get_if<bool>(&enabledValue);

        // Built in place: an initializer list would copy every value again.
        JsonObject record;
        record.emplace("id", nodeId(i));
        record.emplace("parent_id",
                       visits[i].parent ? Json(nodeId(*visits[i].parent)) : Json(nullptr));
        record.emplace("role", std::move(role));
        record.emplace("name", firstGraphemes(label, kMaxNameLength));
        record.emplace("value", value);
        record.emplace("bounds", frame ? Json(bounds(*frame)) : Json(nullptr));
        record.emplace("enabled", enabled ? *enabled : true);
        record.emplace("visible", frame && intersects(*frame, window.frame));
        record.emplace("editable", isEditable);
        record.emplace("actions",
                       isSecure ? kNoActions : isEditable ? kEditableActions : kClickActions);
        result.nodes.emplace_back(std::move(record));
        if (i > 0) text += ' ';
        text += label;
        text += ' ';
        text += value;

        // The cap is applied before the children are read, so elements that
        // would not fit cost no reads at all.
        if (visits.size() < kMaxNodes) {
            Value children = attr(platform, el, "AXChildren");
            if (auto* list = std::get_if<ElementList>(&children)) {
                size_t room = kMaxNodes - visits.size();
                size_t take = list->size() < room ? list->size() : room;
                for (size_t k = 0; k < take; ++k) visits.push_back({(*list)[k], i});
            }
        }
    }
    result.text = firstGraphemes(text, kMaxTextLength);
    return result;
}

}  // namespace quorvel
