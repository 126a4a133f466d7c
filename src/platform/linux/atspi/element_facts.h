// The accessibility attributes the core asks for ("AXRole", "AXValue",
// "AXPosition", ...), answered from what AT-SPI says about one element.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/atspi/methods.h"
#include "platform/platform.h"

namespace quorvel::linux_backend {

// An object that a text holds in place of one U+FFFC character: a block
// of a web page's editable region, a link in a paragraph; with its own text,
// its own embedded objects put in.
struct EmbeddedObject {
    int role = 0;  // an AtspiRole
    std::string text;
};

// `text` with each U+FFFC replaced by the text of the next of `objects`
// (dropped once they run out), and each block on a line of its own.
std::string withEmbeddedText(const std::string& text, const std::vector<EmbeddedObject>& objects);

// Firefox follows every character outside the Basic Multilingual Plane with
// U+FEFF in the text it reports (the field itself holds no such character);
// what the field holds is the text without it.
std::string withoutAstralPadding(std::string text);

// What AT-SPI says about one element. An answer is empty when the
// application could not give it (no such interface, a failed or timed-out
// call). Live facts ask the application on every call; the tree scan's
// facts come from its prefetch.
class ElementFacts {
public:
    virtual ~ElementFacts() = default;
    virtual std::optional<int> role() = 0;  // an AtspiRole
    virtual std::optional<StateBits> states() = 0;
    virtual std::optional<std::string> name() = 0;
    virtual std::optional<std::string> description() = 0;
    virtual std::optional<Extents> extents() = 0;
    // The interfaces it offers. Asked only of the roles whose meaning
    // depends on them (roleNeedsInterfaces).
    virtual std::optional<std::vector<std::string>> interfaces() = 0;
    // The Text interface's whole text. Never called for password text.
    virtual std::optional<std::string> text() = 0;
    virtual std::optional<double> currentValue() = 0;
    // The objects the text's U+FFFC characters stand for, in order. Asked
    // only of a web page's editable region (valueHoldsEmbeddedText).
    virtual std::optional<std::vector<EmbeddedObject>> embeddedObjects() { return std::nullopt; }
    // "AXChildren": the children the application lists, less those its
    // child rule leaves out (child_filter.h).
    virtual std::optional<ElementList> children() = 0;
};

// One attribute of an ordinary element. Attributes of an application
// ("AXFocusedWindow", "AXFocusedUIElement") are not answered here.
AttributeRead readAttribute(ElementFacts&, std::string_view attribute);

}  // namespace quorvel::linux_backend
