#include "mcp/tools.h"

#include <cmath>
#include <cstdio>
#include <optional>

#include "mcp/text_view.h"
#include "unicode/unicode.h"

namespace quorvel::mcp {
namespace {

constexpr char kObserveFirst[] = "Observe the window first: input goes only to an observed window.";

const Json& member(const Json& object, const char* key) {
    static const Json none;
    if (!object.is_object()) return none;
    auto it = object.find(key);
    return it != object.end() ? *it : none;
}

Json textContent(const std::string& text) { return {{"type", "text"}, {"text", text}}; }

Json toolText(const std::string& text) { return {{"content", Json::array({textContent(text)})}}; }

// A refusal, the bridge's sentence unchanged or one of the server's own.
Json toolError(const std::string& sentence) {
    return {{"content", Json::array({textContent(sentence)})}, {"isError", true}};
}

std::string number(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%.10g", value);
    return text;
}

// The bridge's request for an operation.
Json request(const char* operation) { return {{"version", 1}, {"operation", operation}}; }

// A refusal of the bridge's answer, or nullopt when it succeeded.
std::optional<std::string> refusalOf(const BridgeAnswer& answer) {
    if (!answer.envelope) return answer.problem;
    const Json& envelope = *answer.envelope;
    if (envelope.at("ok").get<bool>()) return std::nullopt;
    return envelope.at("error").get<std::string>();
}

Json schema(Json properties, Json required = Json::array()) {
    Json s = {{"type", "object"}, {"properties", std::move(properties)}, {"additionalProperties", false}};
    if (!required.empty()) s["required"] = std::move(required);
    return s;
}

std::optional<long long> wholeNumber(const Json& value) {
    if (value.is_number_integer()) return value.get<long long>();
    if (value.is_number_float()) {
        double d = value.get<double>();
        if (d == std::trunc(d) && std::abs(d) < 1e15) return static_cast<long long>(d);
    }
    return std::nullopt;
}

}  // namespace

const Json& Tools::definitions() {
    static const Json tools = Json::array({
        {{"name", "observe"},
         {"title", "Observe the front window"},
         {"description",
          "Describes the frontmost window: its title, the focused element, and one line per "
          "node that can be acted on or read, with an id such as 3:ax-12, its role, name, value "
          "and centre on screen (@(x,y), screen points); and the window's image. Observe before "
          "any input and again after it: node ids and the window's identity come from the last "
          "observation, and input is refused once that window has changed."},
         {"inputSchema",
          schema({{"image",
                   {{"type", "boolean"},
                    {"default", true},
                    {"description", "Also return the window's image (PNG)."}}}})},
         {"annotations", {{"readOnlyHint", true}, {"openWorldHint", false}}}},
        {{"name", "click"},
         {"title", "Click"},
         {"description",
          "Clicks the left button once, or twice with double: at the centre of a node from the "
          "last observation (id), or at a point of the observed window (x and y, screen points)."},
         {"inputSchema",
          schema({{"id", {{"type", "string"}, {"description", "A node id from the last observation."}}},
                  {"x", {{"type", "number"}, {"description", "Horizontal screen coordinate, instead of id."}}},
                  {"y", {{"type", "number"}, {"description", "Vertical screen coordinate, instead of id."}}},
                  {"double", {{"type", "boolean"}, {"default", false}, {"description", "A double click."}}}})},
         {"annotations", {{"readOnlyHint", false}, {"openWorldHint", false}}}},
        {{"name", "type_text"},
         {"title", "Type text"},
         {"description",
          "Types text into an editor: the editable node with this id (clicked once at its centre "
          "first), or without id the focused editor. Nothing is typed unless the editor still "
          "holds the value the last observation saw. replace: replace the editor's whole value "
          "instead of typing at the cursor."},
         {"inputSchema",
          schema({{"id", {{"type", "string"}, {"description", "An editable node from the last observation."}}},
                  {"text", {{"type", "string"}, {"description", "The text to type."}}},
                  {"replace", {{"type", "boolean"}, {"description", "Replace the editor's value."}}}},
                 {"text", "replace"})},
         {"annotations", {{"readOnlyHint", false}, {"openWorldHint", false}}}},
        {{"name", "press_key"},
         {"title", "Press a key"},
         {"description", "Presses one key in the observed window; navigate_back is the back shortcut."},
         {"inputSchema",
          schema({{"key", {{"type", "string"}, {"enum", {"escape", "enter", "tab", "navigate_back"}}}}},
                 {"key"})},
         {"annotations", {{"readOnlyHint", false}, {"openWorldHint", false}}}},
        {{"name", "scroll"},
         {"title", "Scroll"},
         {"description",
          "Scrolls at the pointer, which must already be inside the observed window (click there "
          "first); the pointer is not moved. Positive amounts scroll toward the top."},
         {"inputSchema",
          schema({{"amount",
                   {{"type", "integer"}, {"description", "Pixels, at most 2000 either way."}}}},
                 {"amount"})},
         {"annotations", {{"readOnlyHint", false}, {"openWorldHint", false}}}},
    });
    return tools;
}

Json Tools::call(const std::string& name, const Json& arguments) {
    if (name == "observe") return observe(arguments);
    if (name == "click") return click(arguments);
    if (name == "type_text") return typeText(arguments);
    if (name == "press_key") return pressKey(arguments);
    if (name == "scroll") return scroll(arguments);
    throw UnknownTool("Unknown tool: " + name);
}

Json Tools::observe(const Json& arguments) {
    const Json& image = member(arguments, "image");
    if (!image.is_null() && !image.is_boolean()) return toolError("observe takes \"image\" as true or false.");
    const bool withImage = !image.is_boolean() || image.get<bool>();
    Json bridgeRequest = request("observe");
    if (withImage) bridgeRequest["image"] = "png";

    BridgeAnswer answer = bridge_.run(bridgeRequest);
    if (std::optional<std::string> refusal = refusalOf(answer)) return toolError(*refusal);
    Json& result = (*answer.envelope)["result"];
    if (!result["scope"].is_object() || !result["nodes"].is_array())
        return toolError("The bridge's observation has no scope or nodes. Observe again.");

    ++observation_;
    scope_ = result["scope"];
    nodes_.clear();
    for (const Json& node : result["nodes"])
        if (const Json& id = member(node, "id"); id.is_string()) nodes_[id.get<std::string>()] = node;
    const Json& focusedValue = member(member(result, "context"), "focused_value");
    focusedValue_ = focusedValue.is_string() ? focusedValue.get<std::string>() : "";

    Json content = Json::array({textContent(textView(result, observation_))});
    const Json& png = member(result, "image");
    if (withImage && member(png, "data").is_string())
        content.push_back({{"type", "image"}, {"data", png["data"]}, {"mimeType", png.value("media_type", "image/png")}});
    return {{"content", std::move(content)}};
}

const Json* Tools::node(const std::string& id, std::string& refusal) const {
    std::optional<ViewId> parsed = parseViewId(id);
    if (!parsed || parsed->observation < 1 || parsed->observation > observation_) {
        refusal = "Unknown node id " + Json(id).dump() +
                  ". Node ids look like 3:ax-12 and come from the last observation.";
        return nullptr;
    }
    if (parsed->observation < observation_) {
        refusal = "Node " + id + " is from an earlier observation. Observe again.";
        return nullptr;
    }
    auto it = nodes_.find(parsed->nodeId);
    if (it == nodes_.end()) {
        refusal = "Node " + id + " is not in the last observation.";
        return nullptr;
    }
    return &it->second;
}

Json Tools::act(const Json& action, const std::string& done) {
    Json bridgeRequest = request("act");
    bridgeRequest["scope"] = scope_;
    bridgeRequest["action"] = action;
    if (std::optional<std::string> refusal = refusalOf(bridge_.run(bridgeRequest))) return toolError(*refusal);
    return toolText(done);
}

Json Tools::click(const Json& arguments) {
    const Json& id = member(arguments, "id");
    const Json& twice = member(arguments, "double");
    const Json &x = member(arguments, "x"), &y = member(arguments, "y");
    if (!twice.is_null() && !twice.is_boolean()) return toolError("click takes \"double\" as true or false.");
    if (!id.is_string() && !(id.is_null() && x.is_number() && y.is_number()))
        return toolError("click needs a node id, or x and y.");
    if (scope_.is_null()) return toolError(kObserveFirst);

    const int count = twice.is_boolean() && twice.get<bool>() ? 2 : 1;
    std::string what = count == 2 ? "Double-clicked " : "Clicked ";
    double atX, atY;
    if (id.is_string()) {
        std::string refusal;
        const Json* target = node(id.get<std::string>(), refusal);
        if (!target) return toolError(refusal);
        std::optional<Centre> centre = centreOf(*target, scope_["bounds"]);
        if (!centre) return toolError("Node " + id.get<std::string>() + " has no part inside the window to click.");
        atX = centre->x;
        atY = centre->y;
        what += id.get<std::string>() + " ";
    } else {
        atX = x.get<double>();
        atY = y.get<double>();
    }
    return act({{"kind", "click"}, {"x", atX}, {"y", atY}, {"count", count}},
               what + "at (" + number(atX) + "," + number(atY) + "). Observe to see the effect.");
}

Json Tools::typeText(const Json& arguments) {
    const Json& id = member(arguments, "id");
    const Json& text = member(arguments, "text");
    const Json& replace = member(arguments, "replace");
    if (!text.is_string() || !replace.is_boolean() || !(id.is_null() || id.is_string()))
        return toolError("type_text needs \"text\" (a string) and \"replace\" (true or false), and "
                         "takes \"id\" as a string.");
    if (scope_.is_null()) return toolError(kObserveFirst);

    const std::string& value = text.get_ref<const std::string&>();
    std::string done = (replace.get<bool>() ? "Replaced the value of " : "Typed " +
                        std::to_string(scalars(value).size()) + " characters into ");
    Json action = {{"value", value}, {"replace", replace}};
    if (id.is_string()) {
        std::string refusal;
        const Json* target = node(id.get<std::string>(), refusal);
        if (!target) return toolError(refusal);
        if (!member(*target, "editable").is_boolean() || !(*target)["editable"].get<bool>())
            return toolError("Node " + id.get<std::string>() + " is not an editable text field.");
        std::optional<Centre> centre = centreOf(*target, scope_["bounds"]);
        if (!centre) return toolError("Node " + id.get<std::string>() + " has no part inside the window to click.");
        action["kind"] = "type_into";
        action["x"] = centre->x;
        action["y"] = centre->y;
        const Json& observed = member(*target, "value");
        action["expected_value"] = observed.is_string() ? observed.get<std::string>() : "";
        done += id.get<std::string>() + ".";
    } else {
        action["kind"] = "type";
        action["expected_value"] = focusedValue_;
        done += "the focused editor.";
    }
    return act(action, done);
}

Json Tools::pressKey(const Json& arguments) {
    const Json& key = member(arguments, "key");
    if (!key.is_string()) return toolError("press_key needs \"key\": escape, enter, tab or navigate_back.");
    if (scope_.is_null()) return toolError(kObserveFirst);
    // The bridge owns the key table and refuses any other name itself.
    return act({{"kind", "key"}, {"value", key}}, "Pressed " + key.get<std::string>() + ".");
}

Json Tools::scroll(const Json& arguments) {
    std::optional<long long> amount = wholeNumber(member(arguments, "amount"));
    if (!amount) return toolError("scroll needs \"amount\", a whole number of pixels.");
    if (scope_.is_null()) return toolError(kObserveFirst);
    return act({{"kind", "scroll"}, {"amount", *amount}},
               "Scrolled by " + std::to_string(*amount) + " pixels.");
}

}  // namespace quorvel::mcp
