#include "platform/linux/atspi/roles.h"

#include <atspi/atspi-constants.h>

#include <array>
#include <unordered_map>

namespace quorvel::linux_backend {
namespace {

const std::unordered_map<int, const char*>& roleNames() {
    static const std::unordered_map<int, const char*> names{
        {ATSPI_ROLE_APPLICATION, "AXApplication"},
        {ATSPI_ROLE_FRAME, "AXWindow"},
        {ATSPI_ROLE_WINDOW, "AXWindow"},
        {ATSPI_ROLE_DIALOG, "AXWindow"},
        {ATSPI_ROLE_ALERT, "AXWindow"},
        {ATSPI_ROLE_PUSH_BUTTON, "AXButton"},
        {ATSPI_ROLE_PUSH_BUTTON_MENU, "AXMenuButton"},
        {ATSPI_ROLE_TOGGLE_BUTTON, "AXCheckBox"},
        {ATSPI_ROLE_CHECK_BOX, "AXCheckBox"},
        {ATSPI_ROLE_RADIO_BUTTON, "AXRadioButton"},
        {ATSPI_ROLE_PAGE_TAB, "AXRadioButton"},
        {ATSPI_ROLE_PAGE_TAB_LIST, "AXTabGroup"},
        {ATSPI_ROLE_LABEL, "AXStaticText"},
        {ATSPI_ROLE_STATIC, "AXStaticText"},
        {ATSPI_ROLE_CAPTION, "AXStaticText"},
        {ATSPI_ROLE_ACCELERATOR_LABEL, "AXStaticText"},
        {ATSPI_ROLE_HEADING, "AXHeading"},
        {ATSPI_ROLE_ENTRY, "AXTextField"},
        {ATSPI_ROLE_PASSWORD_TEXT, "AXTextField"},
        {ATSPI_ROLE_TERMINAL, "AXTextArea"},
        {ATSPI_ROLE_SPIN_BUTTON, "AXIncrementor"},
        {ATSPI_ROLE_COMBO_BOX, "AXComboBox"},
        {ATSPI_ROLE_SLIDER, "AXSlider"},
        {ATSPI_ROLE_DIAL, "AXSlider"},
        {ATSPI_ROLE_SCROLL_BAR, "AXScrollBar"},
        {ATSPI_ROLE_SCROLL_PANE, "AXScrollArea"},
        {ATSPI_ROLE_PROGRESS_BAR, "AXProgressIndicator"},
        {ATSPI_ROLE_LEVEL_BAR, "AXLevelIndicator"},
        {ATSPI_ROLE_LIST, "AXList"},
        {ATSPI_ROLE_LIST_BOX, "AXList"},
        {ATSPI_ROLE_TABLE, "AXTable"},
        {ATSPI_ROLE_TREE, "AXOutline"},
        {ATSPI_ROLE_TREE_TABLE, "AXOutline"},
        {ATSPI_ROLE_TABLE_ROW, "AXRow"},
        {ATSPI_ROLE_TREE_ITEM, "AXRow"},
        {ATSPI_ROLE_TABLE_CELL, "AXCell"},
        {ATSPI_ROLE_MENU_BAR, "AXMenuBar"},
        {ATSPI_ROLE_MENU, "AXMenu"},
        {ATSPI_ROLE_POPUP_MENU, "AXMenu"},
        {ATSPI_ROLE_MENU_ITEM, "AXMenuItem"},
        {ATSPI_ROLE_CHECK_MENU_ITEM, "AXMenuItem"},
        {ATSPI_ROLE_RADIO_MENU_ITEM, "AXMenuItem"},
        {ATSPI_ROLE_TEAROFF_MENU_ITEM, "AXMenuItem"},
        {ATSPI_ROLE_TOOL_BAR, "AXToolbar"},
        {ATSPI_ROLE_TOOL_TIP, "AXHelpTag"},
        {ATSPI_ROLE_SPLIT_PANE, "AXSplitGroup"},
        {ATSPI_ROLE_PANEL, "AXGroup"},
        {ATSPI_ROLE_FILLER, "AXGroup"},
        {ATSPI_ROLE_GROUPING, "AXGroup"},
        {ATSPI_ROLE_SECTION, "AXGroup"},
        {ATSPI_ROLE_FORM, "AXGroup"},
        {ATSPI_ROLE_IMAGE, "AXImage"},
        {ATSPI_ROLE_ICON, "AXImage"},
        {ATSPI_ROLE_LINK, "AXLink"},
        {ATSPI_ROLE_DATE_EDITOR, "AXDateField"},
        {ATSPI_ROLE_DOCUMENT_WEB, "AXWebArea"},
    };
    return names;
}

// AT-SPI's own name of every role, in the order of AtspiRole (the names
// libatspi gives them), for the roles with no equivalent.
constexpr std::array kAtspiRoleNames{
    "invalid", "accelerator label", "alert", "animation", "arrow", "calendar", "canvas",
    "check box", "check menu item", "color chooser", "column header", "combo box", "date editor",
    "desktop icon", "desktop frame", "dial", "dialog", "directory pane", "drawing area",
    "file chooser", "filler", "focus traversable", "font chooser", "frame", "glass pane",
    "html container", "icon", "image", "internal frame", "label", "layered pane", "list",
    "list item", "menu", "menu bar", "menu item", "option pane", "page tab", "page tab list",
    "panel", "password text", "popup menu", "progress bar", "push button", "radio button",
    "radio menu item", "root pane", "row header", "scroll bar", "scroll pane", "separator",
    "slider", "spin button", "split pane", "status bar", "table", "table cell",
    "table column header", "table row header", "tearoff menu item", "terminal", "text",
    "toggle button", "tool bar", "tool tip", "tree", "tree table", "unknown", "viewport", "window",
    "extended", "header", "footer", "paragraph", "ruler", "application", "autocomplete", "editbar",
    "embedded", "entry", "chart", "caption", "document frame", "heading", "page", "section",
    "redundant object", "form", "link", "input method window", "table row", "tree item",
    "document spreadsheet", "document presentation", "document text", "document web",
    "document email", "comment", "list box", "grouping", "image map", "notification", "info bar",
    "level bar", "title bar", "block quote", "audio", "video", "definition", "article", "landmark",
    "log", "marquee", "math", "rating", "timer", "static", "math fraction", "math root",
    "subscript", "superscript", "description list", "description term", "description value",
    "footnote", "content deletion", "content insertion", "mark", "suggestion", "push button menu"
};

// An editor of its own: editable and able to take the focus. The paragraphs
// and runs inside a web page's editable region are editable too, but only
// the region takes the focus; they are its text, not editors.
bool isEditor(StateBits states) {
    return hasState(states, ATSPI_STATE_EDITABLE) && hasState(states, ATSPI_STATE_FOCUSABLE);
}

}  // namespace

std::string axRole(int atspiRole, StateBits states, bool hasText) {
    switch (atspiRole) {
        case ATSPI_ROLE_TEXT:
            return hasState(states, ATSPI_STATE_SINGLE_LINE) ? "AXTextField" : "AXTextArea";
        case ATSPI_ROLE_ENTRY:
            return hasState(states, ATSPI_STATE_MULTI_LINE) ? "AXTextArea" : "AXTextField";
        case ATSPI_ROLE_PARAGRAPH:
            if (hasText) return isEditor(states) ? "AXTextArea" : "AXStaticText";
            break;
        case ATSPI_ROLE_SECTION:
            // A web page's editable region (contenteditable).
            if (hasText && isEditor(states)) return "AXTextArea";
            break;
        case ATSPI_ROLE_DOCUMENT_TEXT:
            if (hasText && hasState(states, ATSPI_STATE_EDITABLE)) return "AXTextArea";
            break;
        default:
            break;
    }
    auto it = roleNames().find(atspiRole);
    if (it != roleNames().end()) return it->second;
    if (atspiRole >= 0 && static_cast<size_t>(atspiRole) < kAtspiRoleNames.size())
        return kAtspiRoleNames[static_cast<size_t>(atspiRole)];
    return "unknown";
}

bool roleNeedsStates(int atspiRole) {
    return atspiRole == ATSPI_ROLE_TEXT || atspiRole == ATSPI_ROLE_ENTRY ||
           roleNeedsInterfaces(atspiRole);
}

bool roleNeedsInterfaces(int atspiRole) {
    return atspiRole == ATSPI_ROLE_PARAGRAPH || atspiRole == ATSPI_ROLE_DOCUMENT_TEXT ||
           atspiRole == ATSPI_ROLE_SECTION;
}

std::optional<std::string> axSubrole(int atspiRole) {
    if (atspiRole == ATSPI_ROLE_PASSWORD_TEXT) return "AXSecureTextField";
    return std::nullopt;
}

bool isPasswordRole(int atspiRole) { return atspiRole == ATSPI_ROLE_PASSWORD_TEXT; }

bool valueIsText(int atspiRole, StateBits states, bool hasText) {
    switch (atspiRole) {
        case ATSPI_ROLE_TEXT:
        case ATSPI_ROLE_ENTRY:
        case ATSPI_ROLE_TERMINAL:
            return true;
        case ATSPI_ROLE_PARAGRAPH:
            return hasText;
        case ATSPI_ROLE_SECTION:
            return hasText && isEditor(states);
        case ATSPI_ROLE_DOCUMENT_TEXT:
            return hasText && hasState(states, ATSPI_STATE_EDITABLE);
        default:
            return false;  // password text among them
    }
}

bool valueIsStaticText(int atspiRole, StateBits states) {
    return atspiRole == ATSPI_ROLE_PARAGRAPH && !isEditor(states);
}

bool valueHoldsEmbeddedText(int atspiRole, StateBits states) {
    return atspiRole == ATSPI_ROLE_SECTION && isEditor(states);
}

bool isBlockRole(int atspiRole) {
    switch (atspiRole) {
        case ATSPI_ROLE_PARAGRAPH:
        case ATSPI_ROLE_SECTION:
        case ATSPI_ROLE_HEADING:
        case ATSPI_ROLE_LIST:
        case ATSPI_ROLE_LIST_ITEM:
        case ATSPI_ROLE_BLOCK_QUOTE:
        case ATSPI_ROLE_TABLE:
        case ATSPI_ROLE_TABLE_ROW:
        case ATSPI_ROLE_PANEL:
        case ATSPI_ROLE_FORM:
        case ATSPI_ROLE_ARTICLE:
            return true;
        default:
            return false;
    }
}

}  // namespace quorvel::linux_backend
