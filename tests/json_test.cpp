// The one JSON writer: canonical text that survives a parse and a second write.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "bridge/json.h"

namespace quorvel {
namespace {

TEST(Writer, WritesCanonicalTextThatSurvivesARoundTrip) {
    for (const auto& [value, text] : std::vector<std::pair<Json, std::string>>{
             {25.0, "25"}, {25, "25"}, {std::uint64_t{25}, "25"}, {Json::parse("4.2e1"), "42"},
             {-3.0, "-3"}, {100.5, "100.5"}, {0.1, "0.1"}, {-0.0, "0"},
             {1e20, "100000000000000000000"}, {1e21, "1e+21"}, {1.5e-7, "1.5e-07"},
             {0.30000000000000004, "0.30000000000000004"},
             {std::numeric_limits<std::int64_t>::min(), "-9223372036854775808"},
             {std::numeric_limits<std::uint64_t>::max(), "18446744073709551615"},
             {9007199254740993.0, "9007199254740992"},
             {true, "true"}, {false, "false"}, {nullptr, "null"},
             {"say \"hi\"\\", R"("say \"hi\"\\")"},
             {std::string("\x01\b\f\n\r\t\x1f", 7), R"("\u0001\b\f\n\r\t\u001f")"},
             {"é – 日本 😀 /", "\"é – 日本 😀 /\""},
             // Ill-formed UTF-8 becomes U+FFFD, so the output stays valid: a stray
             // byte, a truncated sequence, an encoded surrogate.
             {std::string("a\xff" "b\xc3"), "\"a\xEF\xBF\xBD" "b\xEF\xBF\xBD\""},
             {std::string("\xed\xa0\x80"), "\"\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\""},
             // Keys sorted by byte order at every depth.
             {Json::parse(R"({"b":1,"a":{"z":[],"_":{}},"A":2})"), R"({"A":2,"a":{"_":{},"z":[]},"b":1})"},
         }) {
        std::string written = writeJson(value);
        EXPECT_EQ(written, text);
        EXPECT_EQ(writeJson(parseJson(written)), written);
    }
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

}  // namespace
}  // namespace quorvel
