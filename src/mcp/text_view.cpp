#include "mcp/text_view.h"

#include <algorithm>
#include <cmath>
#include <set>
#include <cstdlib>

#include "unicode/unicode.h"

namespace quorvel::mcp {
namespace {

// Longer names and values are cut in the view; the server keeps them whole.
constexpr size_t kCut = 100;

const std::string& text(const Json& object, const char* key) {
    static const std::string none;
    if (!object.is_object()) return none;
    auto it = object.find(key);
    return it != object.end() && it->is_string() ? it->get_ref<const std::string&>() : none;
}

// The member, or null when it is missing (or the object is not one).
const Json& member(const Json& object, const char* key) {
    static const Json none;
    if (!object.is_object()) return none;
    auto it = object.find(key);
    return it != object.end() ? *it : none;
}

double number(const Json& object, const char* key) {
    const Json& value = member(object, key);
    return value.is_number() ? value.get<double>() : 0;
}

bool flag(const Json& object, const char* key, bool fallback) {
    const Json& value = member(object, key);
    return value.is_boolean() ? value.get<bool>() : fallback;
}

std::string jsonText(const std::string& value) {
    std::string cut = firstGraphemes(value, kCut);
    if (cut.size() < value.size()) cut += "\u2026";
    return Json(cut).dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::string integer(double value) { return std::to_string(std::lround(value)); }

std::string at(const Centre& c) {
    std::string text = "@(";
    text += integer(c.x);
    text += ',';
    text += integer(c.y);
    text += ')';
    return text;
}

bool digits(const std::string& s, size_t from, size_t to) {
    if (from >= to || to - from > 9) return false;
    for (size_t i = from; i < to; ++i)
        if (s[i] < '0' || s[i] > '9') return false;
    return true;
}

std::string trimmed(const std::string& s) {
    size_t begin = s.find_first_not_of(" \t\r\n");
    if (begin == std::string::npos) return "";
    return s.substr(begin, s.find_last_not_of(" \t\r\n") - begin + 1);
}

}  // namespace

std::string viewId(int observation, const std::string& nodeId) {
    return std::to_string(observation) + ":" + nodeId;
}

std::optional<ViewId> parseViewId(const std::string& id) {
    size_t colon = id.find(':');
    if (colon == std::string::npos || !digits(id, 0, colon)) return std::nullopt;
    if (id.compare(colon + 1, 3, "ax-") != 0 || !digits(id, colon + 4, id.size())) return std::nullopt;
    return ViewId{std::atoi(id.c_str()), id.substr(colon + 1)};
}

std::optional<Centre> centreOf(const Json& node, const Json& frame) {
    const Json& bounds = member(node, "bounds");
    for (const Json* box : {&bounds, &frame})
        for (const char* key : {"x", "y", "width", "height"})
            if (!member(*box, key).is_number()) return std::nullopt;
    double left = std::max(number(bounds, "x"), number(frame, "x"));
    double top = std::max(number(bounds, "y"), number(frame, "y"));
    double right = std::min(number(bounds, "x") + number(bounds, "width"), number(frame, "x") + number(frame, "width"));
    double bottom = std::min(number(bounds, "y") + number(bounds, "height"), number(frame, "y") + number(frame, "height"));
    if (left >= right || top >= bottom) return std::nullopt;
    return Centre{(left + right) / 2, (top + bottom) / 2};
}

namespace {

// Whether a point lies on a node that names what is there: one with text and
// no children.
bool onTextLeaf(const Centre& point, const Json& nodes, const std::set<std::string>& parents) {
    for (const Json& node : nodes) {
        if (!node.is_object() || parents.count(text(node, "id"))) continue;
        if (text(node, "name").empty() && text(node, "value").empty()) continue;
        const Json& b = member(node, "bounds");
        double x = number(b, "x"), y = number(b, "y");
        if (point.x >= x && point.x < x + number(b, "width") && point.y >= y && point.y < y + number(b, "height"))
            return true;
    }
    return false;
}

}  // namespace

bool shown(const Json& node) {
    if (!flag(node, "visible", false)) return false;
    return flag(node, "editable", false) || !text(node, "name").empty() || !text(node, "value").empty();
}

std::string textView(const Json& result, int observation) {
    const Json& context = member(result, "context");
    const Json& frame = member(member(result, "scope"), "bounds");
    std::string view;
    // Pieces are appended one by one: cheaper than joining temporaries, for
    // a view of up to 1200 lines.
    auto add = [&view](std::initializer_list<std::string_view> pieces) {
        for (std::string_view piece : pieces) view += piece;
    };

    add({"Window ", jsonText(text(context, "window_title"))});
    if (!text(context, "application").empty()) add({" of ", text(context, "application")});
    if (member(frame, "width").is_number())
        add({" at (", integer(number(frame, "x")), ",", integer(number(frame, "y")), ") ",
             integer(number(frame, "width")), "x", integer(number(frame, "height"))});
    add({", observation ", std::to_string(observation), "\nFocused: "});
    if (text(context, "focused_role").empty()) {
        add({"nothing"});
    } else {
        add({text(context, "focused_role")});
        if (!text(context, "focused_value").empty())
            add({" value=", jsonText(text(context, "focused_value"))});
    }
    add({"\n"});

    size_t total = 0, listed = 0;
    static const Json kNone = Json::array();
    const Json& nodes = member(result, "nodes");
    for (const Json& node : nodes.is_array() ? nodes : kNone) {
        ++total;
        if (!node.is_object() || !shown(node)) continue;
        ++listed;
        add({viewId(observation, text(node, "id")), " ", text(node, "role")});
        if (!text(node, "name").empty()) add({" ", jsonText(text(node, "name"))});
        if (!text(node, "value").empty()) add({" value=", jsonText(text(node, "value"))});
        if (flag(node, "editable", false)) add({" editable"});
        if (!flag(node, "enabled", true)) add({" disabled"});
        if (std::optional<Centre> c = centreOf(node, frame)) add({" ", at(*c)});
        add({"\n"});
    }

    // Recognised text adds what the tree lacks (a canvas, an image of text).
    const std::string& known = text(context, "visible_text");
    const Json& blocks = member(result, "ocr_blocks");
    std::set<std::string> parents;
    for (const Json& node : nodes.is_array() ? nodes : kNone)
        if (const std::string& parent = text(node, "parent_id"); !parent.empty()) parents.insert(parent);
    for (const Json& block : blocks.is_array() ? blocks : kNone) {
        std::string line = trimmed(text(block, "text"));
        std::optional<Centre> c = centreOf(block, frame);
        if (line.empty() || known.find(line) != std::string::npos ||
            (c && onTextLeaf(*c, nodes.is_array() ? nodes : kNone, parents)))
            continue;
        add({"Text ", jsonText(line)});
        if (c) add({" ", at(*c)});
        add({"\n"});
    }

    add({std::to_string(listed), " of ", std::to_string(total),
         " nodes shown; the others are off screen or have no name, value or editor."});
    return view;
}

}  // namespace quorvel::mcp
