// Where the accessibility side and the X side meet: what a top-level's
// "AXPosition", "AXSize" and "AXTitle" mean.
//
// The core matches a window's accessibility frame against the window list,
// whose bounds are the window manager's frame around each client window
// (client C plus _NET_FRAME_EXTENTS: F). The frame must therefore mean the
// whole window, decorations included, whatever the toolkit reports. Toolkits
// disagree on the top-level's AT-SPI extents E:
//
//   GTK 3 under a reparenting window manager, LibreOffice   E = F
//   GTK 3 and Chromium drawing their own decorations         E = C = F
//   Qt 5, Firefox                                            E = C (no frame)
//   GTK 4 (4.8)                                              no position:
//       E = (0, 0, size of the window within its client-side margins),
//       and every descendant placed relative to the window, not the screen
//
// Each is translated without ever putting X's rectangle in place of the
// accessibility frame, except for GTK 4, which gives no position at all;
// there the frame comes from X only once both sources agree on every piece
// of evidence that remains (see accessibilityFrame).
//
// A toolkit that scales its windows reports all of the above in its own
// logical pixels, while X (the window list, the window image, XTest) counts
// screen pixels: GTK 3 with GDK_SCALE (whole numbers only) reports E = F / s,
// Qt 5 with QT_SCALE_FACTOR or QT_SCREEN_SCALE_FACTORS (fractions too)
// E = C / s, positions included, both about the screen's origin. The scale
// s belongs to the application: everything its AT-SPI side reports is
// multiplied by it, so that the core sees one space.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/linux/atspi/methods.h"
#include "platform/linux/x11/display.h"
#include "platform/platform.h"

namespace quorvel::linux_backend {

// What the accessibility side says about one top-level.
struct TopLevelFacts {
    std::optional<Extents> extents;  // Component.GetExtents, screen coordinates
    std::string name;                // its accessible name, as the toolkit gives it
    bool active = false;             // the ACTIVE state
    std::int64_t pid = -1;           // the process of its application's bus connection
    // The toolkit places nothing on the screen (GTK 4): positions are
    // relative to the top-level, whose own position reads as (0, 0).
    bool relativeCoordinates = false;
};

// What a top-level's frame is in screen pixels, and the factor that takes
// every rectangle and point of its application from what AT-SPI reports to
// screen pixels.
struct ScreenFrame {
    Rect frame;
    double scale = 1;
};

// How closely a scaled top-level must meet its X window for the scale to be
// taken: as closely as the window list's match asks of an unscaled one
// (strictly less, on each edge and size).
inline constexpr double kScaleAgreement = 2.0;
// The scales a toolkit is believed to use; outside them, nothing is scaled.
inline constexpr double kMinScale = 0.5;
inline constexpr double kMaxScale = 4;

// Largest client-side margin around a GTK 4 window within its client window
// (shadows included) that still counts as the same window: the window must
// be at most twice this much narrower and shorter than its client window.
inline constexpr double kMaxClientSideMargin = 64;

// The top-level's frame in screen coordinates, meaning what the window list
// means: the whole window, decorations included.
//
// Where the toolkit gives a position, E is reported as it is, unless one of
// the process's windows has a client rectangle C that lies strictly nearer
// to E than any window's frame F does: the toolkit then reports the client
// area, and E grows by that window's _NET_FRAME_EXTENTS. So the frame is
// still AT-SPI's rectangle, and the core's match compares AT-SPI's numbers
// with X's (E against C) with its own tolerance.
//
// Where it gives none (GTK 4), the top-level must be ACTIVE; exactly one
// viewable window of the process (by _NET_WM_PID, against the pid of the
// application's bus connection) must bear the accessible name as its
// _NET_WM_NAME; that window must be _NET_ACTIVE_WINDOW; and the top-level's
// size must fit in its client window within the client-side margins
// (kMaxClientSideMargin). Then the frame is that window's F. Otherwise
// nothing: the window has no accessible bounds.
//
// Where E meets neither rectangle of any window unscaled, a scale is looked
// for: the ratio of sizes between E and one window's F or C, taken only when
// E multiplied by it meets that rectangle within kScaleAgreement. The frame
// is then E scaled (and grown, for C), and that scale comes with it. A scale
// that makes nothing agree is never taken: E stays as it is, at scale 1, and
// the match refuses it.
std::optional<ScreenFrame> accessibilityFrame(const TopLevelFacts&, const ClientWindows&);

// A top-level's title without the unsaved-changes marker that Linux editors
// write into it and macOS shows beside it: one leading "*" (GTK, Xfce and Qt
// editors: "*Untitled 1 - Mousepad"), or one trailing " *" (KDE
// applications' accessible names: "notes.txt *"). Anything else is part of
// the title.
std::string windowTitle(std::string accessibleName);

}  // namespace quorvel::linux_backend
