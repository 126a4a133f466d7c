// Which of the children an application lists make an element's
// "AXChildren".
//
// A window's tree on macOS holds what is on screen: the items of a closed
// menu and the page behind another tab are not among anyone's children.
// AT-SPI lists them all, and in toolkits with large menus they fill the
// scan's budget long before it reaches the window's content (LibreOffice:
// over 1000 of the first 1200 elements are closed menus' items). So a child
// the toolkit reports as not SHOWING is left out, with all it holds.
//
// GTK 4 (4.8) sets SHOWING on no descendant of a window at all; it hides what
// is not drawn by clearing VISIBLE, or by giving it no size (a stack's
// hidden pages). There a child is kept when it is VISIBLE and has a
// non-empty extent, or no extent to ask.
//
// A child whose states or extents cannot be read is kept: its own reads
// then fall back as any failed read does.
#pragma once

#include <optional>

#include <atspi/atspi-constants.h>

#include "platform/linux/atspi/methods.h"
#include "platform/linux/atspi/roles.h"

namespace quorvel::linux_backend {

enum class ChildRule {
    All,             // every child listed (the focused-element search)
    Showing,         // children with SHOWING
    VisibleWithArea  // GTK 4: children with VISIBLE and a non-empty extent
};

inline bool needsExtents(ChildRule rule) { return rule == ChildRule::VisibleWithArea; }

inline bool keepsChild(ChildRule rule, const std::optional<StateBits>& states,
                       const std::optional<Extents>& extents) {
    switch (rule) {
        case ChildRule::All:
            return true;
        case ChildRule::Showing:
            return !states || hasState(*states, ATSPI_STATE_SHOWING);
        case ChildRule::VisibleWithArea:
            if (states && !hasState(*states, ATSPI_STATE_VISIBLE)) return false;
            return !extents || (extents->width > 0 && extents->height > 0);
    }
    return true;
}

}  // namespace quorvel::linux_backend
