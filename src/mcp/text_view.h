// The compact text an agent reads instead of an observation's raw JSON: the
// window, the focused element, and one line per node it can act on or read.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

namespace quorvel::mcp {

using Json = nlohmann::json;

// A node's id as the agent sees it: the observation's number, a colon, the
// bridge's id ("3:ax-12"), so that an id from an older observation is
// recognised as such.
std::string viewId(int observation, const std::string& nodeId);

struct ViewId {
    int observation = 0;
    std::string nodeId;  // "ax-12"
};
// The parts of a well-formed view id; nullopt for anything else.
std::optional<ViewId> parseViewId(const std::string& id);

// Whether the node gets a line: it is on screen and is an editor or has a
// name or a value. Unnamed, valueless containers are left out.
bool shown(const Json& node);

// The centre of the part of a node (or recognised text block) that lies in
// the window's frame, a bounds object, in screen points: a point that a
// click can reach even when the node reaches beyond the window (a long
// list). Nullopt when it has no bounds or none of it is in the frame.
struct Centre {
    double x = 0;
    double y = 0;
};
std::optional<Centre> centreOf(const Json& node, const Json& frame);

// The view of an observation result ("scope", "nodes", "context", and for
// "observe" "ocr_blocks"):
//
//   Window "Quorvel Fixture" of quorvel-fixture at (0,0) 1282x825, observation 3
//   Focused: AXTextField value="Ada"
//   3:ax-5 AXTextField "Name" value="Ada" editable @(356,106)
//   3:ax-9 AXButton "Increment" @(66,368)
//   Text "Chart total: 12" @(700,420)
//   41 of 1200 nodes shown; the others are off screen or have no name, value or editor.
//
// Names and values are JSON strings, cut to 100 characters. "Text" lines
// are recognised text that the accessibility tree does not hold: neither
// found in the window's text nor lying on a node without children that has
// a name or value (which recognition would only misread).
std::string textView(const Json& result, int observation);

}  // namespace quorvel::mcp
