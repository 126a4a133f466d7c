// Hostile and malformed requests. Each must end in exactly one envelope with
// the matching exit status (a clear refusal, or a success where the request
// is acceptable after all), never a crash, a hang, a sanitizer report or a
// word on standard error. Requests that need no desktop go to the built
// bridge as a process; those that need one run in-process on the fake.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "bridge/envelope.h"
#include "process.h"
#include "scene.h"

namespace quorvel {
namespace {

using fake::ElementId;
using fake::FakeDesktop;
using fake::FakeEvent;
using fake::StandardScene;

const std::string kGeneric = kGenericMessage;
const std::string kInvalid = kInvalidRequestMessage;
const std::string kProtocol = "Unsupported native protocol.";
const std::string kOperation = "Invalid native operation.";
const std::string kChanged = "The foreground window changed. Observe again before sending input.";
const std::string kClickOutside = "Click lies outside the observed window or has an invalid count.";
const std::string kFocusEditor =
    "Focus an enabled, writable non-password text editor before typing.";
const std::string kUnsupportedKey = "Unsupported key.";
// Marks a success among the acceptable outcomes.
const std::string kSuccess = "<success>";

// Checks that `body` is one envelope that agrees with `status`, and returns
// its message, or kSuccess.
std::string outcomeOf(const std::string& body, int status) {
    Json envelope;
    try {
        envelope = parseJson(body);
    } catch (const std::exception& e) {
        ADD_FAILURE() << "not one JSON text: " << e.what() << "\n" << body;
        return "<broken>";
    }
    if (!envelope.is_object() || envelope.size() != 2 || !envelope.contains("ok") ||
        !envelope["ok"].is_boolean()) {
        ADD_FAILURE() << "not an envelope: " << body;
        return "<broken>";
    }
    if (envelope["ok"].get<bool>()) {
        EXPECT_EQ(status, 0);
        EXPECT_TRUE(envelope.contains("result") && envelope["result"].is_object()) << body;
        EXPECT_EQ(writeJson(envelope), body) << "a success is written in canonical form";
        return kSuccess;
    }
    EXPECT_EQ(status, 1);
    if (!envelope.contains("error") || !envelope["error"].is_string()) {
        ADD_FAILURE() << "no error message: " << body;
        return "<broken>";
    }
    EXPECT_FALSE(envelope["error"].get<std::string>().empty());
    return envelope["error"].get<std::string>();
}

std::string utf16le(const std::string& ascii, bool bom) {
    std::string out = bom ? "\xFF\xFE" : "";
    for (char c : ascii) {
        out += c;
        out += '\0';
    }
    return out;
}

std::string utf16be(const std::string& ascii) {
    std::string out = "\xFE\xFF";
    for (char c : ascii) {
        out += '\0';
        out += c;
    }
    return out;
}

std::string utf32le(const std::string& ascii) {
    std::string out;
    for (char c : ascii) {
        out += c;
        out += std::string(3, '\0');
    }
    return out;
}

std::string capabilitiesWith(const std::string& extraField) {
    return R"({"version":1,"operation":"capabilities",)" + extraField + "}";
}

std::string operationNamed(const std::string& jsonString) {
    return R"({"version":1,"operation":)" + jsonString + "}";
}

std::string versionOf(const std::string& number) {
    return R"({"version":)" + number + R"(,"operation":"capabilities"})";
}

// Nested objects {"a":{"a":...1...}} of exactly `size` bytes.
std::string nestedObjects(size_t size) {
    const std::string open = R"({"a":)";
    size_t depth = (size - 1) / (open.size() + 1);
    std::string text;
    text.reserve(size);
    for (size_t i = 0; i < depth; ++i) text += open;
    text += '1';
    text += std::string(depth, '}');
    return text + std::string(size - text.size(), ' ');
}

struct ProcessCase {
    const char* name;
    std::string input;
    std::set<std::string> acceptable;
};

const std::vector<ProcessCase>& processCases() {
    static const std::vector<ProcessCase> all{
        // Ill-formed UTF-8 inside strings, where the bridge reads and where it does not.
        {"utf8_stray_continuation",
         operationNamed("\"capa\x80"
                        "bilities\""),
         {kGeneric}},
        {"utf8_invalid_byte_ff", operationNamed("\"capabilities\xFF\""), {kGeneric}},
        {"utf8_overlong_slash", capabilitiesWith("\"note\":\"\xC0\xAF\""), {kGeneric}},
        {"utf8_encoded_surrogate", capabilitiesWith("\"note\":\"\xED\xA0\x80\""), {kGeneric}},
        {"utf8_above_u10ffff", capabilitiesWith("\"note\":\"\xF4\x90\x80\x80\""), {kGeneric}},
        {"utf8_five_byte_form", capabilitiesWith("\"note\":\"\xF8\x88\x80\x80\x80\""), {kGeneric}},
        {"utf8_truncated_before_quote", capabilitiesWith("\"note\":\"\xE2\x82\""), {kGeneric}},
        {"utf8_invalid_in_a_key", capabilitiesWith("\"n\xC3\x28\":1"), {kGeneric}},
        {"utf8_valid_four_byte", capabilitiesWith("\"note\":\"\xF0\x9F\x98\x80\""), {kSuccess}},
        // Escapes of lone or misordered surrogates; a lenient parser may keep
        // them, and then the names they spoil simply do not match.
        {"lone_high_surrogate_in_operation",
         operationNamed(R"("capabilities\ud800")"),
         {kGeneric, kOperation}},
        {"lone_low_surrogate_in_operation",
         operationNamed(R"("\udc00capabilities")"),
         {kGeneric, kOperation}},
        {"high_surrogate_then_letter",
         capabilitiesWith(R"("note":"\ud800A")"),
         {kGeneric, kSuccess}},
        {"two_high_surrogates", capabilitiesWith(R"("note":"\ud800\ud800")"), {kGeneric, kSuccess}},
        {"reversed_pair", capabilitiesWith(R"("note":"\ude00\ud83d")"), {kGeneric, kSuccess}},
        {"surrogate_at_end_of_escapes",
         capabilitiesWith(R"("note":"\ud83d")"),
         {kGeneric, kSuccess}},
        {"escaped_pair", capabilitiesWith(R"("note":"\ud83d\ude00")"), {kSuccess}},
        // Numbers beyond every type.
        {"version_1e400", versionOf("1e400"), {kGeneric, kProtocol}},
        {"version_minus_1e400", versionOf("-1e400"), {kGeneric, kProtocol}},
        {"version_2_pow_64_plus_1", versionOf("18446744073709551617"), {kGeneric, kProtocol}},
        {"version_fifty_digits", versionOf("1" + std::string(50, '0')), {kGeneric, kProtocol}},
        {"version_tiny_underflow", versionOf("1e-400"), {kGeneric, kProtocol}},
        {"version_one_with_long_fraction",
         versionOf("1.00000000000000000000001"),
         {kSuccess, kProtocol}},
        {"version_huge_exponent_digits",
         versionOf("1e99999999999999999999"),
         {kGeneric, kProtocol}},
        {"ignored_field_1e400", capabilitiesWith(R"("note":1e400)"), {kGeneric, kSuccess}},
        // Duplicate keys: whichever occurrence wins, the outcome is one of
        // the two that the single occurrences give.
        {"duplicate_version",
         R"({"version":2,"version":1,"operation":"capabilities"})",
         {kSuccess, kProtocol}},
        {"duplicate_operation",
         R"({"version":1,"operation":"act","operation":"capabilities"})",
         {kSuccess, kOperation}},
        {"duplicate_operation_reversed",
         R"({"version":1,"operation":"capabilities","operation":"no such"})",
         {kSuccess, kOperation}},
        // NUL bytes, raw and escaped.
        {"raw_nul_inside_string",
         operationNamed(std::string("\"capabilities\0\"", 15)),
         {kGeneric}},
        {"raw_nul_after_object",
         std::string(R"({"version":1,"operation":"capabilities"})") + std::string(1, '\0'),
         {kGeneric}},
        {"raw_nul_before_object",
         std::string(1, '\0') + R"({"version":1,"operation":"capabilities"})",
         {kGeneric}},
        {"escaped_nul_in_operation", operationNamed(R"("capabilities\u0000")"), {kOperation}},
        {"escaped_nul_in_key", R"({"version\u0000":1,"operation":"capabilities"})", {kProtocol}},
        {"escaped_nul_ignored", capabilitiesWith(R"("note":"\u0000")"), {kSuccess}},
        // Other encodings than UTF-8: either understood or refused as unreadable.
        {"utf16le_with_bom",
         utf16le(R"({"version":1,"operation":"capabilities"})", true),
         {kGeneric, kSuccess}},
        {"utf16le_without_bom",
         utf16le(R"({"version":1,"operation":"capabilities"})", false),
         {kGeneric, kSuccess}},
        {"utf16be_with_bom",
         utf16be(R"({"version":1,"operation":"capabilities"})"),
         {kGeneric, kSuccess}},
        {"utf32le", utf32le(R"({"version":1,"operation":"capabilities"})"), {kGeneric, kSuccess}},
        {"utf8_with_bom",
         "\xEF\xBB\xBF"
         R"({"version":1,"operation":"capabilities"})",
         {kGeneric, kSuccess}},
        // 256000 bytes of nesting, and one byte more.
        {"arrays_256000_bytes", std::string(128000, '[') + std::string(128000, ']'), {kInvalid}},
        {"objects_256000_bytes", nestedObjects(256000), {kProtocol}},
        {"unclosed_256000_bytes", std::string(256000, '['), {kGeneric}},
        {"unclosed_objects_256000_bytes",
         std::string(nestedObjects(256000)).substr(0, 200000),
         {kGeneric}},
        {"arrays_256001_bytes", std::string(128000, '[') + std::string(128001, ']'), {kInvalid}},
        // Tokens that look like numbers in other languages.
        {"version_NaN", versionOf("NaN"), {kGeneric}},
        {"version_minus_NaN", versionOf("-NaN"), {kGeneric}},
        {"version_nan", versionOf("nan"), {kGeneric}},
        {"version_Infinity", versionOf("Infinity"), {kGeneric}},
        {"version_minus_Infinity", versionOf("-Infinity"), {kGeneric}},
        {"version_inf", versionOf("inf"), {kGeneric}},
        {"version_hex", versionOf("0x1"), {kGeneric}},
        {"version_plus_sign", versionOf("+1"), {kGeneric}},
        {"version_leading_zero", versionOf("01"), {kGeneric}},
        {"version_bare_fraction", versionOf(".1e1"), {kGeneric}},
        {"version_trailing_point", versionOf("1."), {kGeneric}},
        {"version_dangling_exponent", versionOf("1e"), {kGeneric}},
        {"version_NaN_as_string", versionOf("\"NaN\""), {kProtocol}},
        // Other malformed texts.
        {"comment", R"({"version":1, /* c */ "operation":"capabilities"})", {kGeneric}},
        {"trailing_comma", R"({"version":1,"operation":"capabilities",})", {kGeneric}},
        {"single_quotes", R"({'version':1,'operation':'capabilities'})", {kGeneric}},
        {"two_objects", R"({"version":1,"operation":"capabilities"}{})", {kGeneric}},
        {"whitespace_only", " \n\t\r ", {kGeneric}},
    };
    return all;
}

class BadInputProcess : public ::testing::TestWithParam<ProcessCase> {};

// A sanitizer report in the bridge ends it with this status instead of the
// usual 1, and leaves the report in a file, since the bridge silences its
// standard error.
constexpr int kSanitizerStatus = 86;

TEST_P(BadInputProcess, AnswersWithOneClearEnvelope) {
    const ProcessCase& c = GetParam();
    std::filesystem::path logs =
        std::filesystem::temp_directory_path() / ("quorvel-bad-input-" + std::to_string(getpid()));
    std::filesystem::create_directories(logs);
    const std::string prefix = (logs / c.name).string();
    testing::ProcessResult r = testing::runBridge(
        c.input,
        {"ASAN_OPTIONS=exitcode=86:log_path=" + prefix,
         "UBSAN_OPTIONS=exitcode=86:halt_on_error=1:print_stacktrace=1:log_path=" + prefix});
    if (r.status == kSanitizerStatus || r.status == -1) {
        std::string reports;
        for (const auto& entry : std::filesystem::directory_iterator(logs)) {
            std::ifstream file(entry.path());
            reports += std::string(std::istreambuf_iterator<char>(file), {});
        }
        ADD_FAILURE() << (r.status == -1 ? "the bridge hung or crashed" : "sanitizer report")
                      << "\n"
                      << reports;
    }
    std::filesystem::remove_all(logs);
    EXPECT_EQ(r.err, "");
    std::string outcome = outcomeOf(r.out, r.status);
    EXPECT_TRUE(c.acceptable.count(outcome)) << "answered: " << r.out;
}

INSTANTIATE_TEST_SUITE_P(Table, BadInputProcess, ::testing::ValuesIn(processCases()),
                         [](const ::testing::TestParamInfo<ProcessCase>& info) {
                             return info.param.name;
                         });

// --- In-process, on the fake desktop ---------------------------------------

// The standard window with one focused, empty text field.
struct EditorScene {
    FakeDesktop desktop;
    StandardScene standard{desktop};
    ElementId editor = 0;

    EditorScene() {
        editor = desktop.add({{"AXRole", std::string("AXTextField")},
                              {"AXValue", std::string("")},
                              {"AXPosition", Point{200, 60}},
                              {"AXSize", Size{300, 24}}});
        desktop.setChildren(standard.window, {editor});
        standard.focus(editor);
        desktop.pointer = Point{300, 300};
    }

    std::string outcome(const std::string& request) {
        Response r = respond(desktop, request);
        return outcomeOf(r.body, r.status);
    }
};

std::string scopeText() { return writeJson(testing::standardScope()); }

std::string actWith(const std::string& action) {
    return R"({"version":1,"operation":"act","scope":)" + scopeText() + R"(,"action":)" + action +
           "}";
}

struct DesktopCase {
    const char* name;
    std::string request;
    std::set<std::string> acceptable;
    // What a success posts, one `describe` line per event; a refusal posts
    // nothing.
    std::vector<std::string> posted;
};

const std::vector<DesktopCase>& desktopCases() {
    const std::string scope = scopeText();
    const std::string scopeWithout = scope.substr(1, scope.size() - 2);  // the members alone
    static const std::vector<DesktopCase> all{
        // Numbers beyond every type in action fields fall back to their
        // defaults (0 for the amount, one click for the count) or clamp.
        {"amount_int64_max",
         actWith(R"({"kind":"scroll","amount":9223372036854775807})"),
         {kSuccess},
         {"scroll pixel wheels=1 delta=2000,0,0"}},
        {"amount_int64_min",
         actWith(R"({"kind":"scroll","amount":-9223372036854775808})"),
         {kSuccess},
         {"scroll pixel wheels=1 delta=-2000,0,0"}},
        {"amount_above_int64",
         actWith(R"({"kind":"scroll","amount":9223372036854775808})"),
         {kSuccess},
         {"scroll pixel wheels=1 delta=0,0,0"}},
        {"amount_1e300",
         actWith(R"({"kind":"scroll","amount":1e300})"),
         {kSuccess},
         {"scroll pixel wheels=1 delta=0,0,0"}},
        {"amount_1e400", actWith(R"({"kind":"scroll","amount":1e400})"), {kGeneric}, {}},
        {"amount_Infinity_string",
         actWith(R"({"kind":"scroll","amount":"Infinity"})"),
         {kSuccess},
         {"scroll pixel wheels=1 delta=0,0,0"}},
        {"count_1e300",
         actWith(R"({"kind":"click","x":300,"y":200,"count":1e300})"),
         {kSuccess},
         {"mouse down click=1 at 300,200", "mouse up click=1 at 300,200"}},
        {"count_int64_min",
         actWith(R"({"kind":"click","x":300,"y":200,"count":-9223372036854775808})"),
         {kClickOutside},
         {}},
        {"x_largest_double",
         actWith(R"({"kind":"click","x":1.7976931348623157e308,"y":200})"),
         {kClickOutside},
         {}},
        {"x_NaN_string", actWith(R"({"kind":"click","x":"NaN","y":200})"), {kClickOutside}, {}},
        {"x_NaN_token", actWith(R"({"kind":"click","x":NaN,"y":200})"), {kGeneric}, {}},
        {"x_1e400", actWith(R"({"kind":"click","x":1e400,"y":200})"), {kGeneric}, {}},
        {"scope_bounds_1e400",
         R"({"version":1,"operation":"act","scope":{"bounds":{"height":600,"width":800,"x":1e400,"y":50},"pid":4242,"window":"Document","window_id":77},"action":{"kind":"key","value":"tab"}})",
         {kGeneric, kChanged},
         {}},
        {"scope_pid_huge",
         R"({"version":1,"operation":"act","scope":{"bounds":{"height":600,"width":800,"x":100,"y":50},"pid":42420000000000000000000,"window":"Document","window_id":77},"action":{"kind":"key","value":"tab"}})",
         {kChanged},
         {}},
        // Duplicate keys inside the scope: the one that wins decides.
        {"scope_duplicate_pid",
         R"({"version":1,"operation":"act","scope":{"pid":1,)" + scopeWithout +
             R"(},"action":{"kind":"key","value":"tab"}})",
         {kSuccess, kChanged},
         {"key 48 down flags=0x0", "key 48 up flags=0x0"}},
        // NUL inside names the bridge compares.
        {"key_name_with_nul",
         actWith(R"({"kind":"key","value":"enter\u0000"})"),
         {kUnsupportedKey},
         {}},
        {"kind_with_nul",
         actWith(R"({"kind":"key\u0000","value":"enter"})"),
         {"Unsupported action."},
         {}},
        {"scope_title_with_nul",
         R"({"version":1,"operation":"act","scope":{"bounds":{"height":600,"width":800,"x":100,"y":50},"pid":4242,"window":"Document\u0000","window_id":77},"action":{"kind":"key","value":"tab"}})",
         {kChanged},
         {}},
        {"typed_nul",
         actWith(R"({"kind":"type","value":"a\u0000b","replace":false,"expected_value":""})"),
         {kSuccess},
         {"key 0 down text=\"a\\u0000b\"", "key 0 up text=\"a\\u0000b\""}},
        // Deep nesting where the bridge writes JSON again: the scope.
        {"scope_nested_deeply",
         R"({"version":1,"operation":"act","scope":{"deep":)" + std::string(127000, '[') +
             std::string(127000, ']') + R"(},"action":{"kind":"key","value":"tab"}})",
         {kChanged},
         {}},
    };
    return all;
}

class BadInputOnDesktop : public ::testing::TestWithParam<DesktopCase> {};

TEST_P(BadInputOnDesktop, AnswersWithOneClearEnvelopeAndPostsOnlyWhatIsValid) {
    const DesktopCase& c = GetParam();
    EditorScene scene;
    std::string outcome = scene.outcome(c.request);
    EXPECT_TRUE(c.acceptable.count(outcome)) << "answered: " << outcome;
    EXPECT_EQ(scene.desktop.postedLog(),
              outcome == kSuccess ? c.posted : std::vector<std::string>{});
    EXPECT_EQ(scene.desktop.unreleased(), "");
}

INSTANTIATE_TEST_SUITE_P(Table, BadInputOnDesktop, ::testing::ValuesIn(desktopCases()),
                         [](const ::testing::TestParamInfo<DesktopCase>& info) {
                             return info.param.name;
                         });

// A text of `blocks` repetitions of 15 letters and one character above
// U+FFFF, then `tail` letters: every pair falls where a 16-unit chunk would
// have to split it.
std::string pairsOnChunkEdges(size_t blocks, size_t tail) {
    std::string text;
    for (size_t i = 0; i < blocks; ++i) text += std::string(15, 'a') + "\xF0\x9F\x98\x80";
    return text + std::string(tail, 'a');
}

std::u16string utf16(const std::string& text) {
    std::u16string out;
    for (size_t i = 0; i < text.size();) {
        if (static_cast<unsigned char>(text[i]) == 0xF0) {  // the emoji only
            out += u"\U0001F600";
            i += 4;
        } else {
            out += static_cast<char16_t>(text[i++]);
        }
    }
    return out;
}

std::string typeRequest(const std::string& text) {
    return actWith(R"({"kind":"type","value":")" + text +
                   R"(","replace":false,"expected_value":""})");
}

TEST(BadInputLongText, SixtyThousandUnitsWithPairsOnChunkEdgesGoOutWhole) {
    // 3529 blocks of 17 units and 7 letters: exactly 60000 UTF-16 units.
    const std::string text = pairsOnChunkEdges(3529, 7);
    const std::u16string units = utf16(text);
    ASSERT_EQ(units.size(), 60000u);

    EditorScene scene;
    EXPECT_EQ(scene.outcome(typeRequest(text)), kSuccess);
    std::vector<std::u16string> chunks;
    for (size_t i = 0; i < scene.desktop.posted.size(); i += 2) {
        ASSERT_LT(i + 1, scene.desktop.posted.size());
        EXPECT_EQ(scene.desktop.posted[i + 1].unicode, scene.desktop.posted[i].unicode);
        chunks.push_back(scene.desktop.posted[i].unicode);
    }
    std::u16string typed;
    size_t pushedOver = 0;
    for (size_t i = 0; i < chunks.size(); ++i) {
        const std::u16string& chunk = chunks[i];
        typed += chunk;
        ASSERT_FALSE(chunk.empty());
        ASSERT_LE(chunk.size(), 16u);
        EXPECT_FALSE(chunk.back() >= 0xD800 && chunk.back() <= 0xDBFF) << "chunk " << i;
        if (i + 1 == chunks.size()) break;
        // Every chunk but the last is as full as it can be: 16 units, or 15
        // when a pair had to open the next chunk.
        bool pairNext = chunks[i + 1].front() >= 0xD800 && chunks[i + 1].front() <= 0xDBFF;
        EXPECT_TRUE(chunk.size() == 16 || (chunk.size() == 15 && pairNext)) << "chunk " << i;
        pushedOver += chunk.size() == 15;
    }
    EXPECT_EQ(typed, units);
    EXPECT_GT(pushedOver, 0u) << "no pair fell on a chunk edge";
    EXPECT_EQ(scene.desktop.unreleased(), "");
}

TEST(BadInputLongText, OneUnitMoreIsRefusedBeforeTheFocusIsRead) {
    // 59999 letters and a pair: the pair's second unit is the 60001st.
    struct Case {
        const char* name;
        std::string text;
    };
    for (const Case& c :
         {Case{"pair across the limit", std::string(59999, 'a') + "\xF0\x9F\x98\x80"},
          Case{"pairs on chunk edges", pairsOnChunkEdges(3529, 8)}}) {
        SCOPED_TRACE(c.name);
        EditorScene scene;
        EXPECT_EQ(scene.outcome(typeRequest(c.text)), kFocusEditor);
        EXPECT_TRUE(scene.desktop.posted.empty());
        EXPECT_FALSE(scene.desktop.wasRead(scene.standard.app, "AXFocusedUIElement"));
    }
}

}  // namespace
}  // namespace quorvel
