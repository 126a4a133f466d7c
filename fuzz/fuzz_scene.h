// The desktop behind the fuzz target, shared with the test that keeps its
// seed corpus valid: the standard window with a small tree that holds a
// focused text field, a password field, a button and a slider.
#pragma once

#include <cstdint>
#include <string>

#include "fake/fake_desktop.h"

namespace quorvel::fuzz {

using fake::ElementId;
using fake::FakeDesktop;
using fake::StandardScene;

// What the password field holds; none of it may ever leave the bridge.
inline constexpr char kSecret[] = "fuzz-secret-pw";
inline constexpr char kSecretTitle[] = "fuzz-secret-title";
inline constexpr char kSecretDescription[] = "fuzz-secret-description";

struct FuzzScene {
    explicit FuzzScene(bool settable) : standard(desktop) {
        ElementId label = desktop.add({{"AXRole", std::string("AXStaticText")},
                                       {"AXValue", std::string("Name:")},
                                       {"AXPosition", Point{110, 60}},
                                       {"AXSize", Size{80, 20}}});
        editor = desktop.add({{"AXRole", std::string("AXTextField")},
                              {"AXValue", std::string("hello")},
                              {"AXEnabled", true},
                              {"AXPosition", Point{200, 60}},
                              {"AXSize", Size{300, 24}}});
        desktop.elements.at(editor).valueSettable = settable;
        password = desktop.add({{"AXRole", std::string("AXTextField")},
                                {"AXSubrole", std::string("AXSecureTextField")},
                                {"AXValue", std::string(kSecret)},
                                {"AXTitle", std::string(kSecretTitle)},
                                {"AXDescription", std::string(kSecretDescription)},
                                {"AXPosition", Point{200, 100}},
                                {"AXSize", Size{300, 24}}});
        ElementId group = desktop.add({{"AXRole", std::string("AXGroup")}});
        ElementId button = desktop.add({{"AXRole", std::string("AXButton")},
                                        {"AXTitle", std::string("Save")},
                                        {"AXPosition", Point{600, 500}},
                                        {"AXSize", Size{80, 30}}});
        ElementId slider = desktop.add(
            {{"AXRole", std::string("AXSlider")}, {"AXValue", Value{std::int64_t{42}}}});
        desktop.setChildren(standard.window, {label, editor, group});
        desktop.setChildren(group, {password, button, slider});
        standard.focus(editor);
        desktop.pointer = Point{300, 300};
        desktop.recognized = {{{0.1, 0.8, 0.3, 0.1}, {{"Name:", 0.9f}}}};
    }

    FakeDesktop desktop;
    StandardScene standard;
    ElementId editor = 0;
    ElementId password = 0;
};

}  // namespace quorvel::fuzz
