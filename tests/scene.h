// Shared helpers for tests that drive requests against the fake desktop.
#pragma once

#include <string>

#include "bridge/envelope.h"
#include "bridge/failure.h"
#include "bridge/json.h"
#include "fake/fake_desktop.h"

namespace quorvel::testing {

// Runs one request in-process and returns the parsed envelope.
inline Json request(fake::FakeDesktop& desktop, const std::string& text) {
    return parseJson(respond(desktop, text).body);
}

// The scope object that an observation of the current desktop returns.
inline Json observedScope(fake::FakeDesktop& desktop) {
    Json r = request(desktop, R"({"version":1,"operation":"context"})");
    return r.at("result").at("scope");
}

// An "act" request with `scope` and the action given as JSON text.
inline std::string act(const Json& scope, const std::string& action) {
    return R"({"version":1,"operation":"act","scope":)" + writeJson(scope) +
           R"(,"action":)" + action + "}";
}

inline std::string errorOf(const Json& envelope) {
    return envelope.value("error", std::string("<success>"));
}

// The scope object of StandardScene as an observation would return it, built
// without asking the desktop, so the fake's call counts start at zero.
inline JsonObject standardScope() {
    const Rect& f = fake::StandardScene::kFrame;
    return JsonObject{
        {"bounds", JsonObject{{"x", f.x}, {"y", f.y}, {"width", f.width}, {"height", f.height}}},
        {"pid", fake::StandardScene::kPid},
        {"window", "Document"},
        {"window_id", fake::StandardScene::kWindowNumber},
    };
}

// The message of the Failure that `f` throws, or "<no failure>".
template <typename F>
std::string failureOf(F&& f) {
    try {
        f();
    } catch (const Failure& failure) {
        return failure.message();
    }
    return "<no failure>";
}

}  // namespace quorvel::testing
