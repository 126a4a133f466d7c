// What the Linux backend's tests stand in for an application's answers
// about one element with: facts as the test scripts them, and a log of what
// was asked for.
#pragma once

#include <algorithm>
#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

#include "platform/linux/atspi/element_facts.h"

namespace quorvel::linux_backend {

inline StateBits states(std::initializer_list<int> list) {
    StateBits bits = 0;
    for (int state : list) bits |= StateBits{1} << state;
    return bits;
}

struct ScriptedFacts final : ElementFacts {
    std::optional<int> roleValue;
    std::optional<StateBits> statesValue;
    std::optional<Extents> extentsValue;
    std::optional<std::vector<std::string>> interfacesValue;
    std::optional<std::string> textValue;
    std::optional<std::vector<EmbeddedObject>> embedded;
    // "role", "interfaces", "text" and "embedded", in the order asked.
    std::vector<std::string> asked;

    int times(const char* what) const { return static_cast<int>(std::count(asked.begin(), asked.end(), what)); }

    std::optional<int> role() override { return asked.push_back("role"), roleValue; }
    std::optional<StateBits> states() override { return statesValue; }
    std::optional<std::string> name() override { return std::nullopt; }
    std::optional<std::string> description() override { return std::nullopt; }
    std::optional<Extents> extents() override { return extentsValue; }
    std::optional<std::vector<std::string>> interfaces() override {
        return asked.push_back("interfaces"), interfacesValue;
    }
    std::optional<std::string> text() override { return asked.push_back("text"), textValue; }
    std::optional<double> currentValue() override { return std::nullopt; }
    std::optional<ElementList> children() override { return std::nullopt; }
    std::optional<std::vector<EmbeddedObject>> embeddedObjects() override {
        return asked.push_back("embedded"), embedded;
    }
};

// A read as text: its value, "error N", or "other".
inline std::string outcome(const AttributeRead& read) {
    if (read.code != kAXErrorSuccess) return "error " + std::to_string(read.code);
    if (auto* text = std::get_if<std::string>(&read.value)) return *text;
    if (auto* flag = std::get_if<bool>(&read.value)) return *flag ? "true" : "false";
    return "other";
}

}  // namespace quorvel::linux_backend
