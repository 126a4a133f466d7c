// libFuzzer target over the whole request path: input bytes in, one response
// envelope and an exit status out, with the fake desktop behind it.
//
// Each input is answered twice, once with an editor whose value can be set
// and once with one whose value can't, so that both ways of replacing text
// are reachable. The desktop never changes during a run, so the only way a
// refused request may have posted input is the click that "type_into" makes
// before its typing guards refuse; anything else posted by a refusal is a
// fault. Whatever the input, the harness also requires:
// - exactly one JSON envelope, {"ok":true,"result":{...}} with status 0 or
//   {"ok":false,"error":"..."} with status 1, nothing before or after it;
// - a success envelope in canonical form (writing it again after a parse
//   gives the same bytes);
// - a failure message from the bridge's fixed set of sentences;
// - no read of the password field's value, title or description, no write
//   into it, and its secrets nowhere in the response;
// - posted input that is well-formed: clicks inside the window, key presses
//   as down/up pairs, typed chunks of at most 16 UTF-16 units that never
//   split a surrogate pair, scroll deltas within the clamp;
// - a balanced tree-scan bracket.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "scene.h"

namespace {

using quorvel::Json;
using quorvel::fake::FakeEvent;
using quorvel::fake::FormScene;
using quorvel::fake::StandardScene;

[[noreturn]] void fault(const char* what, std::string_view input, const std::string& body) {
    std::fprintf(stderr, "respond_fuzzer: %s\n  input: %.*s\n  output: %s\n", what,
                 static_cast<int>(input.size() > 2000 ? 2000 : input.size()), input.data(),
                 body.c_str());
    std::abort();
}

bool insideWindow(quorvel::Point p) {
    const quorvel::Rect& f = StandardScene::kFrame;
    return p.x >= f.x && p.x < f.x + f.width && p.y >= f.y && p.y < f.y + f.height;
}

// Checks the posted events one by one; returns a description of the first
// malformed one, or nullptr.
const char* malformedInput(const std::vector<FakeEvent>& posted) {
    for (size_t i = 0; i < posted.size(); ++i) {
        const FakeEvent& e = posted[i];
        switch (e.kind) {
            case FakeEvent::Kind::Mouse:
                if (!insideWindow(e.location)) return "a click outside the window";
                if (!e.clickState || *e.clickState < 1 || *e.clickState > 2)
                    return "a click without a valid click state";
                break;
            case FakeEvent::Kind::Keyboard: {
                // Key presses come as down/up pairs with the same code, flags
                // and text.
                if (!e.keyDown) return "a key-up without its key-down";
                if (i + 1 >= posted.size()) return "a key-down without its key-up";
                const FakeEvent& up = posted[++i];
                if (up.kind != FakeEvent::Kind::Keyboard || up.keyDown || up.keyCode != e.keyCode ||
                    up.flags != e.flags || up.unicode != e.unicode)
                    return "a key-down whose key-up differs";
                if (e.hasUnicode) {
                    if (e.unicode.empty() || e.unicode.size() > 16) return "a chunk of bad size";
                    char16_t first = e.unicode.front(), last = e.unicode.back();
                    if (first >= 0xDC00 && first <= 0xDFFF) return "a chunk split a pair";
                    if (last >= 0xD800 && last <= 0xDBFF) return "a chunk split a pair";
                }
                break;
            }
            case FakeEvent::Kind::Scroll:
                if (e.wheelCount != 1 || e.wheel[0] < -2000 || e.wheel[0] > 2000)
                    return "a scroll outside the clamp";
                break;
        }
    }
    return nullptr;
}

// The one refusal that may leave input behind on a desktop that does not
// change: the single click of "type_into" before its typing guards refuse.
bool onlyTheClickOfTypeInto(const std::vector<std::string>& posted) {
    return posted.size() == 2 && posted[0].starts_with("mouse down click=1 ") &&
           posted[1].starts_with("mouse up click=1 ");
}

void check(std::string_view input, bool settable) {
    FormScene scene(settable);
    quorvel::Response response = quorvel::respond(scene.desktop, input);
    const std::string& body = response.body;

    Json envelope;
    try {
        envelope = quorvel::parseJson(body);
    } catch (...) {
        fault("the response is not one JSON text", input, body);
    }
    if (!envelope.is_object() || envelope.size() != 2) fault("not a two-key envelope", input, body);
    auto ok = envelope.find("ok");
    if (ok == envelope.end() || !ok->is_boolean()) fault("no boolean \"ok\"", input, body);

    if (ok->get<bool>()) {
        auto result = envelope.find("result");
        if (result == envelope.end() || !result->is_object()) fault("no result", input, body);
        if (response.status != 0) fault("success with a failure status", input, body);
        if (quorvel::writeJson(envelope) != body) fault("success not canonical", input, body);
    } else {
        auto error = envelope.find("error");
        if (error == envelope.end() || !error->is_string()) fault("no error", input, body);
        if (response.status != 1) fault("failure with a success status", input, body);
        const auto& known = quorvel::msg::all();
        if (std::find(known.begin(), known.end(), error->get<std::string>()) == known.end())
            fault("a failure message outside the fixed set", input, body);
        if (!scene.desktop.setValues.empty()) fault("a refusal changed the editor", input, body);
        if (!scene.desktop.posted.empty() && !onlyTheClickOfTypeInto(scene.desktop.postedLog()))
            fault("a refusal posted input", input, body);
    }

    for (const char* attribute : {"AXValue", "AXTitle", "AXDescription"})
        if (scene.desktop.wasRead(scene.password, attribute))
            fault("the password field was read", input, body);
    for (const auto& [element, text] : scene.desktop.setValues)
        if (element == scene.password) fault("the password field was written", input, body);
    for (const char* secret : {quorvel::fake::kSecretValue, quorvel::fake::kSecretTitle,
                               quorvel::fake::kSecretDescription})
        if (body.find(secret) != std::string::npos) fault("a secret in the response", input, body);
    if (const char* what = malformedInput(scene.desktop.posted)) fault(what, input, body);
    if (scene.desktop.scanBrackets != 0) fault("unbalanced tree-scan bracket", input, body);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size) {
    std::string_view input(reinterpret_cast<const char*>(data), size);
    check(input, true);
    check(input, false);
    return 0;
}
