// Malformed and hostile requests. Each must end in exactly one envelope with
// the matching exit status (a clear refusal, or a success where the request
// is acceptable after all), never a crash, a hang, a sanitizer report or a
// word on standard error. Requests that need no desktop go to the built
// bridge as a process; those that need one run in-process on the fake.
#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include "process.h"
#include "scene.h"

namespace quorvel {
namespace {

using testing::kSuccess;

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
    bool ok = envelope["ok"].get<bool>();
    EXPECT_EQ(status, ok ? 0 : 1) << body;
    if (ok) {
        EXPECT_TRUE(envelope.contains("result") && envelope["result"].is_object()) << body;
        EXPECT_EQ(writeJson(envelope), body) << "a success is written in canonical form";
        return kSuccess;
    }
    if (!envelope.contains("error") || !envelope["error"].is_string()) {
        ADD_FAILURE() << "no error message: " << body;
        return "<broken>";
    }
    return envelope["error"].get<std::string>();
}

const std::string kCapabilities = R"({"version":1,"operation":"capabilities"})";

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
    for (size_t i = 0; i < depth; ++i) text += open;
    text += '1' + std::string(depth, '}');
    return text + std::string(size - text.size(), ' ');
}

struct Case {
    const char* name;
    std::string input;
    std::set<std::string> acceptable;
    // In-process cases only: what a success posts, one `describe` line per
    // event; a refusal posts nothing.
    testing::Events posted = {};
};

void PrintTo(const Case& c, std::ostream* os) { *os << c.name; }

const std::vector<Case>& processCases() {
    const std::string kGeneric = msg::kGeneric, kInvalid = msg::kInvalidRequest,
                      kProtocol = msg::kProtocol, kOperation = msg::kOperation;
    static const std::vector<Case> all{
        // The envelope itself.
        {"empty_input", "", {kGeneric}},
        {"top_level_array", "[]", {kInvalid}},
        {"top_level_object", "{}", {kProtocol}},
        {"bare_number", "1", {kGeneric}},
        {"bare_string", "\"capabilities\"", {kGeneric}},
        {"malformed", "{\"version\":1,", {kGeneric}},
        // Sizes: 256000 bytes are read, one more is refused; nesting that fits.
        {"exactly_the_limit", kCapabilities + std::string(256000 - kCapabilities.size(), ' '), {kSuccess}},
        {"one_byte_over_the_limit", kCapabilities + std::string(256001 - kCapabilities.size(), ' '),
         {kInvalid}},
        {"balanced_deep_nesting_in_a_field",
         capabilitiesWith(R"("deep":)" + std::string(120000, '[') + std::string(120000, ']')), {kSuccess}},
        {"arrays_256000_bytes", std::string(128000, '[') + std::string(128000, ']'), {kInvalid}},
        {"objects_256000_bytes", nestedObjects(256000), {kProtocol}},
        {"unclosed_256000_bytes", std::string(256000, '['), {kGeneric}},
        // Ill-formed UTF-8 inside strings, where the bridge reads and where it does not.
        {"utf8_stray_continuation", operationNamed("\"capa\x80" "bilities\""), {kGeneric}},
        {"utf8_encoded_surrogate", capabilitiesWith("\"note\":\"\xED\xA0\x80\""), {kGeneric}},
        {"utf8_truncated_before_quote", capabilitiesWith("\"note\":\"\xE2\x82\""), {kGeneric}},
        {"utf8_invalid_in_a_key", capabilitiesWith("\"n\xC3\x28\":1"), {kGeneric}},
        {"utf8_valid_four_byte", capabilitiesWith("\"note\":\"\xF0\x9F\x98\x80\""), {kSuccess}},
        // Escapes of lone or misordered surrogates; a lenient parser may keep
        // them, and then the names they spoil simply do not match.
        {"lone_surrogate_in_operation", operationNamed(R"("capabilities\ud800")"), {kGeneric, kOperation}},
        {"escaped_pair", capabilitiesWith(R"("note":"\ud83d\ude00")"), {kSuccess}},
        // Numbers beyond every type, and tokens that are numbers elsewhere.
        {"version_1e400", versionOf("1e400"), {kGeneric, kProtocol}},
        {"version_2_pow_64_plus_1", versionOf("18446744073709551617"), {kGeneric, kProtocol}},
        {"version_one_with_long_fraction", versionOf("1.00000000000000000000001"), {kSuccess, kProtocol}},
        {"ignored_field_1e400", capabilitiesWith(R"("note":1e400)"), {kGeneric, kSuccess}},
        {"version_NaN", versionOf("NaN"), {kGeneric}},
        {"version_Infinity", versionOf("Infinity"), {kGeneric}},
        {"version_leading_zero", versionOf("01"), {kGeneric}},
        {"version_NaN_as_string", versionOf("\"NaN\""), {kProtocol}},
        // Duplicate keys: whichever occurrence wins, the outcome is one of
        // the two that the single occurrences give.
        {"duplicate_version", R"({"version":2,"version":1,"operation":"capabilities"})", {kSuccess, kProtocol}},
        {"duplicate_operation", R"({"version":1,"operation":"act","operation":"capabilities"})",
         {kSuccess, kOperation}},
        // NUL bytes, raw and escaped.
        {"raw_nul_inside_string", operationNamed(std::string("\"capabilities\0\"", 15)), {kGeneric}},
        {"raw_nul_after_object", kCapabilities + std::string(1, '\0'), {kGeneric}},
        {"escaped_nul_in_operation", operationNamed(R"("capabilities\u0000")"), {kOperation}},
        {"escaped_nul_ignored", capabilitiesWith(R"("note":"\u0000")"), {kSuccess}},
        // A byte-order mark: either understood or refused as unreadable.
        {"utf8_with_bom", "\xEF\xBB\xBF" + kCapabilities, {kGeneric, kSuccess}},
        // Other malformed texts.
        {"comment", R"({"version":1, /* c */ "operation":"capabilities"})", {kGeneric}},
        {"two_objects", kCapabilities + "{}", {kGeneric}},
        {"whitespace_only", " \n\t\r ", {kGeneric}},
    };
    return all;
}

class BadInputProcess : public ::testing::TestWithParam<Case> {};

// A sanitizer report in the bridge ends it with this status instead of the
// usual 1, and leaves the report in a file, since the bridge silences its
// standard error.
constexpr int kSanitizerStatus = 86;

TEST_P(BadInputProcess, AnswersWithOneClearEnvelope) {
    const Case& c = GetParam();
    auto logs = std::filesystem::temp_directory_path() / ("quorvel-bad-input-" + std::to_string(getpid()));
    std::filesystem::create_directories(logs);
    const std::string prefix = (logs / c.name).string();
    testing::ProcessResult r = testing::runBridge(
        c.input, {"ASAN_OPTIONS=exitcode=86:log_path=" + prefix,
                  "UBSAN_OPTIONS=exitcode=86:halt_on_error=1:print_stacktrace=1:log_path=" + prefix});
    if (r.status == kSanitizerStatus || r.status == -1) {
        std::string reports;
        for (const auto& entry : std::filesystem::directory_iterator(logs)) {
            std::ifstream file(entry.path());
            reports += std::string(std::istreambuf_iterator<char>(file), {});
        }
        ADD_FAILURE() << (r.status == -1 ? "the bridge hung or crashed" : "sanitizer report") << "\n"
                      << reports;
    }
    std::filesystem::remove_all(logs);
    EXPECT_EQ(r.err, "");
    std::string outcome = outcomeOf(r.out, r.status);
    EXPECT_TRUE(c.acceptable.count(outcome)) << "answered: " << r.out;
}

INSTANTIATE_TEST_SUITE_P(Table, BadInputProcess, ::testing::ValuesIn(processCases()),
                         [](const ::testing::TestParamInfo<Case>& info) { return info.param.name; });

// Without a desktop the Linux backend grants nothing and says what to start.
TEST(BridgeProcess, WithoutADesktopTheLinuxBackendAnswers) {
    testing::ProcessResult r = testing::runBridge(kCapabilities);
    EXPECT_EQ(r.out, R"({"ok":true,"result":{"accessibility":false,"clipboard_free_input":true,)"
                     R"("platform":"linux","screen_capture":false,"version":1}})");
    EXPECT_EQ(r.status, 0);
    r = testing::runBridge(R"({"version":1,"operation":"observe"})");
    EXPECT_EQ(r.out, R"({"ok":false,"error":"Start the AT-SPI accessibility bus in this desktop )"
                     R"(session, then retry."})");
    EXPECT_EQ(r.status, 1);
}

// --- In-process, on the fake desktop ---------------------------------------

std::string actWith(const std::string& action) {
    return testing::act(testing::standardScope(), action);
}

// An "act" request whose scope is the standard one, written as `scope` says.
std::string actWithScope(const std::string& scope) {
    return R"({"version":1,"operation":"act","scope":)" + scope +
           R"(,"action":{"kind":"key","value":"tab"}})";
}

const std::vector<Case>& desktopCases() {
    const std::string kGeneric = msg::kGeneric, kChanged = msg::kChanged, kOutside = msg::kOutside;
    const std::string scope = writeJson(testing::standardScope());
    const std::string members = scope.substr(1, scope.size() - 2);
    auto scrolled = [](const char* delta) {
        return testing::Events{"scroll pixel wheels=1 delta=" + std::string(delta) + ",0,0"};
    };
    const testing::Events click = testing::clicks("300,200");
    static const std::vector<Case> all{
        // Optional numbers that are not whole numbers in range fall back to
        // their defaults (0 for the amount, one click for the count); amounts
        // in range are clamped to 2000 either way.
        {"amount_absent", actWith(R"({"kind":"scroll"})"), {kSuccess}, scrolled("0")},
        {"amount_2001", actWith(R"({"kind":"scroll","amount":2001})"), {kSuccess}, scrolled("2000")},
        {"amount_minus_2001", actWith(R"({"kind":"scroll","amount":-2001})"), {kSuccess}, scrolled("-2000")},
        {"amount_int64_max", actWith(R"({"kind":"scroll","amount":9223372036854775807})"), {kSuccess},
         scrolled("2000")},
        {"amount_int64_min", actWith(R"({"kind":"scroll","amount":-9223372036854775808})"), {kSuccess},
         scrolled("-2000")},
        {"amount_above_int64", actWith(R"({"kind":"scroll","amount":9223372036854775808})"), {kSuccess},
         scrolled("0")},
        {"amount_integral_float", actWith(R"({"kind":"scroll","amount":-5.0})"), {kSuccess}, scrolled("-5")},
        {"amount_fraction", actWith(R"({"kind":"scroll","amount":2.5})"), {kSuccess}, scrolled("0")},
        {"amount_1e300", actWith(R"({"kind":"scroll","amount":1e300})"), {kSuccess}, scrolled("0")},
        {"amount_string", actWith(R"({"kind":"scroll","amount":"9"})"), {kSuccess}, scrolled("0")},
        {"amount_1e400", actWith(R"({"kind":"scroll","amount":1e400})"), {kGeneric}},
        {"count_string", actWith(R"({"kind":"click","x":300,"y":200,"count":"2"})"), {kSuccess}, click},
        {"count_fraction", actWith(R"({"kind":"click","x":300,"y":200,"count":1.5})"), {kSuccess}, click},
        {"count_1e300", actWith(R"({"kind":"click","x":300,"y":200,"count":1e300})"), {kSuccess}, click},
        {"count_int64_min", actWith(R"({"kind":"click","x":300,"y":200,"count":-9223372036854775808})"),
         {kOutside}},
        {"x_largest_double", actWith(R"({"kind":"click","x":1.7976931348623157e308,"y":200})"), {kOutside}},
        {"x_NaN_string", actWith(R"({"kind":"click","x":"NaN","y":200})"), {kOutside}},
        {"x_NaN_token", actWith(R"({"kind":"click","x":NaN,"y":200})"), {kGeneric}},
        {"x_1e400", actWith(R"({"kind":"click","x":1e400,"y":200})"), {kGeneric}},
        // Scopes the bridge must write again to compare.
        {"scope_bounds_1e400", actWithScope(R"({"bounds":{"height":600,"width":800,"x":1e400,"y":50},)"
                                            R"("pid":4242,"window":"Document","window_id":77})"),
         {kGeneric, kChanged}},
        {"scope_pid_huge", actWithScope(R"({"bounds":{"height":600,"width":800,"x":100,"y":50},)"
                                        R"("pid":42420000000000000000000,"window":"Document","window_id":77})"),
         {kChanged}},
        {"scope_duplicate_pid", actWithScope(R"({"pid":1,)" + members + "}"), {kSuccess, kChanged},
         testing::press(48, " flags=0x0")},
        {"scope_title_with_nul", actWithScope(R"({"bounds":{"height":600,"width":800,"x":100,"y":50},)"
                                              R"("pid":4242,"window":"Document\u0000","window_id":77})"),
         {kChanged}},
        {"scope_nested_deeply",
         actWithScope(R"({"deep":)" + std::string(127000, '[') + std::string(127000, ']') + "}"), {kChanged}},
        // NUL inside names the bridge compares, and in typed text.
        {"key_name_with_nul", actWith(R"({"kind":"key","value":"enter\u0000"})"), {msg::kKey}},
        {"kind_with_nul", actWith(R"({"kind":"key\u0000","value":"enter"})"), {msg::kAction}},
        {"typed_nul", actWith(R"({"kind":"type","value":"a\u0000b","replace":false,"expected_value":"hello"})"),
         {kSuccess}, testing::typed("a\\u0000b")},
    };
    return all;
}

class BadInputOnDesktop : public ::testing::TestWithParam<Case> {};

TEST_P(BadInputOnDesktop, AnswersWithOneClearEnvelopeAndPostsOnlyWhatIsValid) {
    const Case& c = GetParam();
    fake::FormScene scene;
    Response r = respond(scene.desktop, c.input);
    std::string outcome = outcomeOf(r.body, r.status);
    EXPECT_TRUE(c.acceptable.count(outcome)) << "answered: " << outcome;
    EXPECT_EQ(scene.desktop.postedLog(), outcome == kSuccess ? c.posted : testing::Events{});
    EXPECT_EQ(scene.desktop.unreleased(), 0);
}

INSTANTIATE_TEST_SUITE_P(Table, BadInputOnDesktop, ::testing::ValuesIn(desktopCases()),
                         [](const ::testing::TestParamInfo<Case>& info) { return info.param.name; });

}  // namespace
}  // namespace quorvel
