// JSON values and the one canonical writer.
//
// Requests are parsed with nlohmann-json. Everything the bridge writes, and
// the scope comparison, goes through `writeJson`: compact, keys sorted by
// byte order at every depth, every number printed by its value alone. So a
// value that is written, parsed and written again gives the same bytes.
#pragma once

#include <nlohmann/json.hpp>

#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace quorvel {

using Json = nlohmann::json;
using JsonObject = Json::object_t;
using JsonArray = Json::array_t;

// A value that has no JSON text (NaN, an infinity, nesting too deep).
class JsonWriteError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Throws JsonWriteError when the value cannot be written.
std::string writeJson(const Json& value);
// The same for an object, written in place: turning a request's object into
// a Json first would copy it recursively, and a deeply nested one (a scope
// sent back with 100000 levels inside) would exhaust the stack.
std::string writeJson(const JsonObject& object);

// Parses one JSON text; throws nlohmann's parse errors, or
// std::invalid_argument for a text that holds a raw NUL byte.
Json parseJson(std::string_view text);

}  // namespace quorvel
