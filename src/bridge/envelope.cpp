#include "bridge/envelope.h"

#include "bridge/dispatch.h"
#include "bridge/failure.h"
#include "bridge/json.h"

namespace quorvel {
namespace {

// The failure envelope holds a boolean and one string, which the writer
// always accepts; its key order is free, so it is written by hand.
Response failure(const std::string& message) {
    std::string body = "{\"ok\":false,\"error\":";
    body += writeJson(message);
    body += '}';
    return {std::move(body), 1};
}

}  // namespace

Response respond(Platform& platform, std::string_view input) {
    try {
        if (input.size() > kRequestSizeLimit) fail(kInvalidRequestMessage);
        Json request = parseJson(input);
        if (request.is_array()) fail(kInvalidRequestMessage);
        // A top-level scalar is a parse error of the request, not a refusal.
        if (!request.is_object()) return failure(kGenericMessage);
        Json envelope = Json::object();
        envelope["ok"] = true;
        envelope["result"] = dispatch(platform, request.get_ref<const JsonObject&>());
        return {writeJson(envelope), 0};
    } catch (const Failure& f) {
        return failure(f.message());
    } catch (...) {
        return failure(kGenericMessage);
    }
}

}  // namespace quorvel
