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

}  // namespace

AttributeRead readAttribute(ElementFacts& facts, std::string_view attribute) {
    if (attribute == "AXRole") {
        std::optional<int> role = facts.role();
        if (!role) return failure(kAXErrorCannotComplete);
        // Only plain text needs its states (single line or not).
        StateBits states = 0;
        if (*role == ATSPI_ROLE_TEXT) states = facts.states().value_or(0);
        return success(axRole(*role, states));
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
        std::optional<int> role = facts.role();
        if (!role) return failure(kAXErrorCannotComplete);
        // A password field's text is never asked for, whoever asks.
        if (isPasswordRole(*role)) return failure(kAXErrorAttributeUnsupported);
        if (isTextRole(*role)) {
            std::optional<std::string> whole = facts.text();
            return whole ? success(std::move(*whole)) : failure(kAXErrorNoValue);
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
