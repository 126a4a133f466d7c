// What the server's unit tests stand in for the bridge with: a bridge that
// answers from a script and records every request, and an observation
// result shaped like the bridge's.
#pragma once

#include <deque>
#include <vector>

#include "mcp/bridge_runner.h"

namespace quorvel::mcp::testing {

class ScriptedBridge final : public Bridge {
public:
    std::vector<Json> requests;
    std::deque<BridgeAnswer> answers;

    BridgeAnswer run(const Json& request) override {
        requests.push_back(request);
        if (answers.empty()) return {std::nullopt, "nothing scripted"};
        BridgeAnswer next = std::move(answers.front());
        answers.pop_front();
        return next;
    }
};

inline BridgeAnswer succeeded(Json result) { return {Json{{"ok", true}, {"result", std::move(result)}}, ""}; }
inline BridgeAnswer refused(const std::string& sentence) {
    return {Json{{"ok", false}, {"error", sentence}}, ""};
}

inline constexpr char kWindowChanged[] =
    "The foreground window changed. Observe again before sending input.";

inline Json bounds(double x, double y, double width, double height) {
    return {{"x", x}, {"y", y}, {"width", width}, {"height", height}};
}

inline Json node(const std::string& id, const std::string& role, const std::string& name,
                 const std::string& value, Json frame, bool editable = false, bool visible = true) {
    return {{"id", id},           {"parent_id", id == "ax-0" ? Json() : Json("ax-0")},
            {"role", role},       {"name", name},
            {"value", value},     {"bounds", std::move(frame)},
            {"enabled", true},    {"visible", visible},
            {"editable", editable},
            {"actions", editable ? Json{"focus", "type", "replace"}
                                 : name == "Authentication field" ? Json::array() : Json{"click"}}};
}

// A form: the window, an unnamed group, the Name editor (focused, holding
// `name`), a password field, a Save button, a list that reaches far below
// the window with a row scrolled out of sight, and a label without bounds.
// Text recognition misread the Save button as "Sava" and found "Total: 12",
// which the tree does not hold.
inline Json formObservation(const std::string& name = "Ada") {
    Json result = {
        {"scope", {{"bounds", bounds(100, 50, 800, 600)}, {"pid", 4242}, {"window", "Form"}, {"window_id", 77}}},
        {"context",
         {{"application", "Editor"},
          {"window_title", "Form"},
          {"focused_role", "AXTextField"},
          {"focused_value", name},
          {"visible_text", "Form  Name " + name + " Authentication field  Save  Rows  Row 99  Status "}}},
        {"nodes", Json::array({
                      node("ax-0", "AXWindow", "Form", "", bounds(100, 50, 800, 600)),
                      node("ax-1", "AXGroup", "", "", bounds(110, 60, 300, 200)),
                      node("ax-2", "AXTextField", "Name", name, bounds(200, 60, 300, 25), true),
                      node("ax-3", "AXTextField", "Authentication field", "", bounds(200, 100, 300, 24)),
                      node("ax-4", "AXButton", "Save", "", bounds(600, 500, 81, 30)),
                      node("ax-5", "AXList", "Rows", "", bounds(600, 100, 200, 4000)),
                      node("ax-6", "AXStaticText", "Row 99", "", bounds(600, 2000, 200, 20), false, false),
                      node("ax-7", "AXStaticText", "Status", "", Json(), false, false),
                  })},
        {"screenshot_hash", std::string(64, 'a')},
        {"ocr_blocks", Json::array({{{"text", "Sava"}, {"confidence", 0.9}, {"bounds", bounds(610, 505, 40, 20)}},
                                    {{"text", " Total: 12 "}, {"confidence", 0.8}, {"bounds", bounds(700, 400, 100, 20)}}})},
        {"image", {{"media_type", "image/png"}, {"data", "iVBORw0KGgo="}, {"width", 800}, {"height", 600}}},
    };
    result["nodes"][6]["parent_id"] = "ax-5";  // the row is the list's
    return result;
}

}  // namespace quorvel::mcp::testing
