#include "platform/linux/atspi/element_facts.h"

#include <atspi/atspi-constants.h>

#include <climits>

#include "platform/linux/atspi/roles.h"

namespace quorvel::linux_backend {
namespace {

AttributeRead success(Value value) { return {kAXErrorSuccess, std::move(value)}; }
AttributeRead failure(AXError code) { return {code, {}}; }

AttributeRead text(std::optional<std::string> value) {
    return value ? success(std::move(*value)) : failure(kAXErrorCannotComplete);
}

AttributeRead stateFlag(ElementFacts& facts, bool (*test)(StateBits)) {
    std::optional<StateBits> states = facts.states();
    if (!states) return failure(kAXErrorCannotComplete);
    return success(test(*states));
}

// GTK answers INT_MIN for the position of a widget that is not drawn: it has
// no place on screen.
bool placed(const Extents& e) { return e.x != INT_MIN && e.y != INT_MIN; }

// The states and the Text interface where the role's meaning depends on
// them (roles.h); nothing is asked of the other roles.
struct RoleFacts {
    int role;
    StateBits states = 0;
    bool hasText = true;
};
std::optional<RoleFacts> roleFacts(ElementFacts& facts) {
    std::optional<int> role = facts.role();
    if (!role) return std::nullopt;
    RoleFacts result{*role};
    if (roleNeedsStates(*role)) result.states = facts.states().value_or(0);
    if (roleNeedsInterfaces(*role)) {
        auto interfaces = facts.interfaces();
        result.hasText = interfaces && hasInterface(*interfaces, kTextInterface);
    }
    return result;
}

// The text of a static paragraph without U+FFFC, the object replacement
// character that stands for each child embedded in it.
std::string withoutEmbeddedObjects(std::string text) {
    static const std::string kObject = "\xEF\xBF\xBC";
    for (size_t at = text.find(kObject); at != std::string::npos; at = text.find(kObject, at))
        text.erase(at, kObject.size());
    return text;
}

}  // namespace

std::string withoutAstralPadding(std::string text) {
    static const std::string kPadding = "\xEF\xBB\xBF";
    size_t at = 0;
    // A four-byte UTF-8 sequence (lead byte 0xF0 to 0xF4) encodes exactly
    // the characters beyond the BMP.
    while ((at = text.find(kPadding, at)) != std::string::npos) {
        bool afterAstral = at >= 4 && (static_cast<unsigned char>(text[at - 4]) & 0xF8) == 0xF0;
        if (afterAstral) text.erase(at, kPadding.size());
        else at += kPadding.size();
    }
    return text;
}

std::string withEmbeddedText(const std::string& text, const std::vector<EmbeddedObject>& objects) {
    static const std::string kObject = "\xEF\xBF\xBC";
    std::string out;
    size_t next = 0;
    bool breakDue = false;  // a block ended: what follows starts a new line
    auto newLine = [&] {
        if (!out.empty() && out.back() != '\n') out += '\n';
    };
    for (size_t at = 0; at < text.size();) {
        if (text.compare(at, kObject.size(), kObject) == 0) {
            at += kObject.size();
            if (next >= objects.size()) continue;
            const EmbeddedObject& object = objects[next++];
            bool block = isBlockRole(object.role);
            // An empty block still makes a line of its own.
            if (block && breakDue && !out.empty()) out += '\n';
            else if (block || breakDue) newLine();
            out += object.text;
            breakDue = block;
            continue;
        }
        if (breakDue && text[at] != '\n') newLine();
        breakDue = false;
        out += text[at++];
    }
    return out;
}

AttributeRead readAttribute(ElementFacts& facts, std::string_view attribute) {
    if (attribute == "AXRole") {
        std::optional<RoleFacts> role = roleFacts(facts);
        if (!role) return failure(kAXErrorCannotComplete);
        return success(axRole(role->role, role->states, role->hasText));
    }
    if (attribute == "AXSubrole") {
        std::optional<int> role = facts.role();
        if (!role) return failure(kAXErrorCannotComplete);
        std::optional<std::string> subrole = axSubrole(*role);
        return subrole ? success(std::move(*subrole)) : failure(kAXErrorNoValue);
    }
    if (attribute == "AXTitle") return text(facts.name());
    if (attribute == "AXDescription") return text(facts.description());
    if (attribute == "AXValue") {
        std::optional<RoleFacts> role = roleFacts(facts);
        if (!role) return failure(kAXErrorCannotComplete);
        // A password field's text is never asked for, whoever asks.
        if (isPasswordRole(role->role)) return failure(kAXErrorAttributeUnsupported);
        if (valueIsText(role->role, role->states, role->hasText)) {
            std::optional<std::string> whole = facts.text();
            if (!whole) return failure(kAXErrorNoValue);
            std::string value = withoutAstralPadding(std::move(*whole));
            if (valueIsStaticText(role->role, role->states))
                value = withoutEmbeddedObjects(std::move(value));
            else if (valueHoldsEmbeddedText(role->role, role->states))
                value = withEmbeddedText(value, facts.embeddedObjects().value_or(
                                                    std::vector<EmbeddedObject>{}));
            return success(std::move(value));
        }
        std::optional<double> number = facts.currentValue();
        return number ? success(*number) : failure(kAXErrorNoValue);
    }
    if (attribute == "AXPosition" || attribute == "AXSize") {
        std::optional<Extents> extents = facts.extents();
        if (!extents || !placed(*extents)) return failure(kAXErrorNoValue);
        if (attribute == "AXPosition")
            return success(Point{static_cast<double>(extents->x), static_cast<double>(extents->y)});
        return success(
            Size{static_cast<double>(extents->width), static_cast<double>(extents->height)});
    }
    if (attribute == "AXEnabled")
        return stateFlag(facts, [](StateBits s) {
            return hasState(s, ATSPI_STATE_ENABLED) || hasState(s, ATSPI_STATE_SENSITIVE);
        });
    if (attribute == "AXEditable")
        return stateFlag(facts, [](StateBits s) { return hasState(s, ATSPI_STATE_EDITABLE); });
    if (attribute == "AXFocused")
        return stateFlag(facts, [](StateBits s) { return hasState(s, ATSPI_STATE_FOCUSED); });
    if (attribute == "AXChildren") {
        std::optional<ElementList> children = facts.children();
        return children ? success(std::move(*children)) : failure(kAXErrorCannotComplete);
    }
    return failure(kAXErrorAttributeUnsupported);
}

}  // namespace quorvel::linux_backend
