// Malformed and hostile requests. Each must end in exactly one envelope with
// the matching exit status (a clear refusal, or a success where the request
// is acceptable after all) and post nothing a valid request would not: never
// a crash, a hang or a sanitizer report. Every case runs in-process on the
// fake desktop; those that stress reading the request also go to the built
// bridge as a process, which must not write a word on standard error.
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
    Json e = Json::parse(body, nullptr, false);
    bool envelope = e.is_object() && e.size() == 2 && e.contains("ok") && e["ok"].is_boolean() &&
                    (e["ok"] ? e.contains("result") && e["result"].is_object()
                             : e.contains("error") && e["error"].is_string());
    EXPECT_TRUE(envelope) << "not one envelope: " << body;
    if (!envelope) return "<broken>";
    bool ok = e["ok"].get<bool>();
    EXPECT_EQ(status, ok ? 0 : 1) << body;
    if (!ok) return e["error"].get<std::string>();
    EXPECT_EQ(writeJson(e), body) << "a success is written in canonical form";
    return kSuccess;
}

const std::string kCapabilities = R"({"version":1,"operation":"capabilities"})";

std::string capabilitiesWith(const std::string& extraField) {
    return R"({"version":1,"operation":"capabilities",)" + extraField + "}";
}
std::string actWith(const std::string& action) {
    return testing::act(testing::standardScope(), action);
}
// An "act" request whose scope is the standard one, written as `scope` says.
std::string actWithScope(const std::string& scope) {
    return R"({"version":1,"operation":"act","scope":)" + scope +
           R"(,"action":{"kind":"key","value":"tab"}})";
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
    // What a success posts, one `describe` line per event; a refusal posts
    // nothing.
    testing::Events posted = {};
    bool throughTheBridge = false;
};

void PrintTo(const Case& c, std::ostream* os) { *os << c.name; }

const std::vector<Case>& cases() {
    const std::string kGeneric = msg::kGeneric, kInvalid = msg::kInvalidRequest,
                      kProtocol = msg::kProtocol, kChanged = msg::kChanged;
    auto scrolled = [](const char* delta) {
        return testing::Events{"scroll pixel wheels=1 delta=" + std::string(delta) + ",0,0"};
    };
    static const std::vector<Case> all{
        // The envelope itself, and the size limit: 256000 bytes are read, one
        // more is refused; nesting that fits.
        {"empty_input", "", {kGeneric}, {}, true},
        {"top_level_array", "[]", {kInvalid}},
        {"bare_number", "1", {kGeneric}},
        {"two_objects", kCapabilities + "{}", {kGeneric}},
        {"raw_nul_after_object", kCapabilities + std::string(1, '\0'), {kGeneric}, {}, true},
        {"exactly_the_limit", kCapabilities + std::string(256000 - kCapabilities.size(), ' '),
         {kSuccess}, {}, true},
        {"one_byte_over_the_limit", kCapabilities + std::string(256001 - kCapabilities.size(), ' '),
         {kInvalid}, {}, true},
        {"balanced_deep_nesting_in_a_field",
         capabilitiesWith(R"("deep":)" + std::string(120000, '[') + std::string(120000, ']')),
         {kSuccess}},
        {"objects_256000_bytes", nestedObjects(256000), {kProtocol}, {}, true},
        {"unclosed_256000_bytes", std::string(256000, '['), {kGeneric}, {}, true},
        {"utf8_encoded_surrogate", capabilitiesWith("\"note\":\"\xED\xA0\x80\""), {kGeneric}},
        {"utf8_valid_four_byte", capabilitiesWith("\"note\":\"\xF0\x9F\x98\x80\""), {kSuccess}},
        // NUL inside names the bridge compares, and in typed text.
        {"escaped_nul_in_operation", R"({"version":1,"operation":"capabilities\u0000"})",
         {msg::kOperation}},
        {"key_name_with_nul", actWith(R"({"kind":"key","value":"enter\u0000"})"), {msg::kKey}},
        {"typed_nul",
         actWith(R"({"kind":"type","value":"a\u0000b","replace":false,"expected_value":"hello"})"),
         {kSuccess}, testing::typed("a\\u0000b")},
        // Optional numbers that are not whole numbers in range fall back to
        // their defaults (0 for the amount, one click for the count); amounts
        // in range are clamped to 2000 either way.
        {"amount_absent", actWith(R"({"kind":"scroll"})"), {kSuccess}, scrolled("0")},
        {"amount_2001", actWith(R"({"kind":"scroll","amount":2001})"), {kSuccess}, scrolled("2000")},
        {"amount_int64_min", actWith(R"({"kind":"scroll","amount":-9223372036854775808})"),
         {kSuccess}, scrolled("-2000")},
        {"amount_above_int64", actWith(R"({"kind":"scroll","amount":9223372036854775808})"),
         {kSuccess}, scrolled("0")},
        {"amount_integral_float", actWith(R"({"kind":"scroll","amount":-5.0})"), {kSuccess},
         scrolled("-5")},
        {"amount_fraction", actWith(R"({"kind":"scroll","amount":2.5})"), {kSuccess}, scrolled("0")},
        {"amount_1e300", actWith(R"({"kind":"scroll","amount":1e300})"), {kSuccess}, scrolled("0")},
        {"count_fraction", actWith(R"({"kind":"click","x":300,"y":200,"count":1.5})"), {kSuccess},
         testing::clicks("300,200")},
        {"x_NaN_string", actWith(R"({"kind":"click","x":"NaN","y":200})"), {msg::kOutside}},
        // Scopes the bridge must write again to compare.
        {"scope_pid_huge",
         actWithScope(R"({"bounds":{"height":600,"width":800,"x":100,"y":50},)"
                      R"("pid":42420000000000000000000,"window":"Document","window_id":77})"),
         {kChanged}},
        {"scope_title_with_nul",
         actWithScope(R"({"bounds":{"height":600,"width":800,"x":100,"y":50},)"
                      R"("pid":4242,"window":"Document\u0000","window_id":77})"),
         {kChanged}},
        {"scope_nested_deeply",
         actWithScope(R"({"deep":)" + std::string(127000, '[') + std::string(127000, ']') + "}"),
         {kChanged}},
    };
    return all;
}

class BadInput : public ::testing::TestWithParam<Case> {};

TEST_P(BadInput, AnswersWithOneClearEnvelopeAndPostsOnlyWhatIsValid) {
    const Case& c = GetParam();
    fake::FormScene scene;
    Response r = respond(scene.desktop, c.input);
    std::string outcome = outcomeOf(r.body, r.status);
    EXPECT_TRUE(c.acceptable.count(outcome)) << "answered: " << outcome;
    EXPECT_EQ(scene.desktop.postedLog(), outcome == kSuccess ? c.posted : testing::Events{});
    EXPECT_EQ(scene.desktop.unreleased(), 0);
}

INSTANTIATE_TEST_SUITE_P(Table, BadInput, ::testing::ValuesIn(cases()),
                         [](const ::testing::TestParamInfo<Case>& info) { return info.param.name; });

// A sanitizer report in the bridge ends it with this status instead of the
// usual 1, and leaves the report in a file, since the bridge silences its
// standard error.
constexpr int kSanitizerStatus = 86;

TEST(BadInputThroughTheBridge, AnswersWithOneClearEnvelopeAndNothingElse) {
    auto logs = std::filesystem::temp_directory_path() /
                ("quorvel-bad-input-" + std::to_string(getpid()));
    std::filesystem::create_directories(logs);
    for (const Case& c : cases()) {
        if (!c.throughTheBridge) continue;
        const std::string prefix = (logs / c.name).string();
        testing::ProcessResult r = testing::runBridge(
            c.input, {"ASAN_OPTIONS=exitcode=86:log_path=" + prefix,
                      "UBSAN_OPTIONS=exitcode=86:halt_on_error=1:print_stacktrace=1:log_path=" +
                          prefix});
        if (r.status == kSanitizerStatus || r.status == -1) {
            std::string reports;
            for (const auto& entry : std::filesystem::directory_iterator(logs)) {
                std::ifstream file(entry.path());
                reports += std::string(std::istreambuf_iterator<char>(file), {});
            }
            ADD_FAILURE() << c.name << ": "
                          << (r.status == -1 ? "the bridge hung or crashed" : "sanitizer report")
                          << "\n" << reports;
        }
        EXPECT_EQ(r.err, "") << c.name;
        EXPECT_TRUE(c.acceptable.count(outcomeOf(r.out, r.status))) << c.name << ": " << r.out;
    }
    std::filesystem::remove_all(logs);
}

}  // namespace
}  // namespace quorvel
