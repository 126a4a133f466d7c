#include "platform/linux/wayland/keymap.h"

#include <xkbcommon/xkbcommon-keysyms.h>
#include <xkbcommon/xkbcommon.h>

#include <algorithm>

namespace quorvel::linux_backend::wayland {

std::optional<Keysym> keysymFor(char32_t c) {
    // Applications insert a line break for Return, not for Linefeed.
    if (c == U'\n' || c == U'\r') return XKB_KEY_Return;
    if (c == U'\t') return XKB_KEY_Tab;
    if (c < 0x20 || c == 0x7f) return std::nullopt;
    xkb_keysym_t keysym = xkb_utf32_to_keysym(c);
    if (keysym == XKB_KEY_NoSymbol) return std::nullopt;
    return keysym;
}

std::string keymapText(const std::vector<Keysym>& keysyms) {
    std::string text =
        "xkb_keymap {\n"
        "xkb_keycodes \"quorvel\" {\n minimum = 8;\n maximum = 255;\n";
    size_t keys = keysyms.size() + 2;
    for (size_t i = 0; i < keys; ++i) {
        std::string code = std::to_string(kFirstKeycode + i);
        text += " <K" + code + "> = " + code + ";\n";
    }
    text +=
        "};\n"
        "xkb_types \"quorvel\" {\n"
        " type \"ONE_LEVEL\" { modifiers = none; level_name[Level1] = \"Any\"; };\n"
        "};\n"
        "xkb_compatibility \"quorvel\" {\n"
        " interpret Any+AnyOf(all) { action = SetMods(modifiers=modMapMods,clearLocks); };\n"
        "};\n"
        "xkb_symbols \"quorvel\" {\n";
    char name[64];
    auto key = [&](std::uint32_t keycode, Keysym keysym) {
        if (xkb_keysym_get_name(keysym, name, sizeof name) < 0) name[0] = '\0';
        text += " key <K" + std::to_string(keycode) + "> { repeat = false, type = \"ONE_LEVEL\", symbols[Group1] = [ " +
                (name[0] ? name : "NoSymbol") + " ] };\n";
    };
    for (size_t i = 0; i < keysyms.size(); ++i)
        key(kFirstKeycode + static_cast<std::uint32_t>(i), keysyms[i]);
    std::uint32_t control = controlKeycode(keysyms.size()), alt = altKeycode(keysyms.size());
    key(control, XKB_KEY_Control_L);
    key(alt, XKB_KEY_Alt_L);
    text += " modifier_map Control { <K" + std::to_string(control) + "> };\n";
    text += " modifier_map Mod1 { <K" + std::to_string(alt) + "> };\n";
    text += "};\n};\n";
    return text;
}

std::vector<Keysym> keysymsAhead(std::u32string_view text) {
    std::vector<Keysym> keysyms;
    for (char32_t c : text) {
        std::optional<Keysym> keysym = keysymFor(c);
        if (!keysym || std::find(keysyms.begin(), keysyms.end(), *keysym) != keysyms.end()) continue;
        if (keysyms.size() == kKeysPerKeymap) break;
        keysyms.push_back(*keysym);
    }
    return keysyms;
}

}  // namespace quorvel::linux_backend::wayland
