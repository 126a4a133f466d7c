#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <ostream>

#include "bridge/json.h"

namespace quorvel {
namespace {

struct WriteCase {
    Json value;
    std::string text;
};

// Failures name the case by the text it should write, not by raw bytes.
void PrintTo(const WriteCase& c, std::ostream* os) { *os << "writes " << c.text; }

class WriterTest : public ::testing::TestWithParam<WriteCase> {};

TEST_P(WriterTest, WritesCanonicalTextThatSurvivesARoundTrip) {
    const WriteCase& c = GetParam();
    std::string written = writeJson(c.value);
    EXPECT_EQ(written, c.text);
    EXPECT_EQ(writeJson(parseJson(written)), written);
}

INSTANTIATE_TEST_SUITE_P(
    Values, WriterTest,
    ::testing::Values(
        WriteCase{25.0, "25"}, WriteCase{25, "25"}, WriteCase{std::uint64_t{25}, "25"},
        WriteCase{-3.0, "-3"}, WriteCase{100.5, "100.5"}, WriteCase{0.1, "0.1"},
        WriteCase{-0.0, "0"}, WriteCase{1e20, "100000000000000000000"},
        WriteCase{1e21, "1e+21"}, WriteCase{1.5e-7, "1.5e-07"},
        WriteCase{0.30000000000000004, "0.30000000000000004"},
        WriteCase{std::numeric_limits<std::int64_t>::min(), "-9223372036854775808"},
        WriteCase{std::numeric_limits<std::uint64_t>::max(), "18446744073709551615"},
        WriteCase{9007199254740993.0, "9007199254740992"},
        WriteCase{true, "true"}, WriteCase{false, "false"}, WriteCase{nullptr, "null"},
        WriteCase{"say \"hi\"\\", R"("say \"hi\"\\")"},
        WriteCase{std::string("\x01\b\f\n\r\t\x1f", 7), R"("\u0001\b\f\n\r\t\u001f")"},
        WriteCase{"é – 日本 😀 /", "\"é – 日本 😀 /\""},
        WriteCase{Json::parse(R"({"b":1,"a":{"z":[],"_":{}},"A":2})"),
                  R"({"A":2,"a":{"_":{},"z":[]},"b":1})"}));

TEST(Writer, SortsKeysByByteOrder) {
    Json v = {{"window_id", 1}, {"window", "t"}, {"pid", 2}, {"bounds", 3}};
    EXPECT_EQ(writeJson(v), R"({"bounds":3,"pid":2,"window":"t","window_id":1})");
}

TEST(Writer, IntegralValuesPrintTheSameWhateverTheirType) {
    EXPECT_EQ(writeJson(Json(42.0)), writeJson(Json(42)));
    EXPECT_EQ(writeJson(Json::parse("42.0")), "42");
    EXPECT_EQ(writeJson(Json::parse("4.2e1")), "42");
}

TEST(Writer, RefusesValuesWithoutJsonText) {
    EXPECT_THROW(writeJson(Json(std::nan(""))), JsonWriteError);
    EXPECT_THROW(writeJson(Json(std::numeric_limits<double>::infinity())), JsonWriteError);
    EXPECT_THROW(writeJson(Json::array({1, -std::numeric_limits<double>::infinity()})),
                 JsonWriteError);
    Json deep = Json::array();
    for (int i = 0; i < 2000; ++i) deep = Json::array({std::move(deep)});
    EXPECT_THROW(writeJson(deep), JsonWriteError);
}

TEST(Writer, ReplacesIllFormedUtf8SoTheOutputStaysValid) {
    std::string bad = "a\xff" "b\xc3";  // a stray byte, and a truncated sequence
    std::string written = writeJson(Json(bad));
    EXPECT_EQ(written, "\"a\xEF\xBF\xBD" "b\xEF\xBF\xBD\"");
    EXPECT_EQ(writeJson(parseJson(written)), written);
    EXPECT_EQ(writeJson(Json(std::string("\xed\xa0\x80"))), "\"\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\"");
}

}  // namespace
}  // namespace quorvel
