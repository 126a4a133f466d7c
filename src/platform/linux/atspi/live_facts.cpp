#include "platform/linux/atspi/live_facts.h"

#include <atspi/atspi-constants.h>

#include "platform/linux/atspi/accessible_element.h"
#include "platform/linux/atspi/call_batch.h"

namespace quorvel::linux_backend {
namespace {

// How deep embedded objects are followed: a region's blocks, the links
// and spans in them, and what those hold.
constexpr int kEmbeddingDepth = 4;
const std::string kObjectCharacter = "\xEF\xBF\xBC";

// The objects embedded in the text of `parent`: its children other than
// text runs (Chromium lists each run of a paragraph's text as a static
// child, which the text holds as characters), each with its text, its own
// embedded objects put in down to `depth` levels.
std::optional<std::vector<EmbeddedObject>> embeddedIn(const ObjectRef& parent,
                                                      DBusConnection* bus, int timeoutMs,
                                                      int depth) {
    auto children = parseChildren(callAndWait(bus, childrenCall(parent), timeoutMs).get());
    if (!children) return std::nullopt;
    CallBatch roles(bus, timeoutMs);
    for (const ObjectRef& child : *children) roles.add(roleCall(child));
    roles.wait();
    std::vector<ObjectRef> embedded;
    std::vector<int> embeddedRoles;
    for (size_t i = 0; i < children->size(); ++i) {
        std::optional<int> role = parseRole(roles.reply(i));
        if ((*children)[i].path == "/org/a11y/atspi/null" || (role && *role == ATSPI_ROLE_STATIC))
            continue;
        embedded.push_back((*children)[i]);
        // An unknown role may be a password field's: its text is not asked.
        embeddedRoles.push_back(role.value_or(ATSPI_ROLE_PASSWORD_TEXT));
    }
    CallBatch texts(bus, timeoutMs);
    std::vector<std::optional<size_t>> calls(embedded.size());
    for (size_t i = 0; i < embedded.size(); ++i)
        if (!isPasswordRole(embeddedRoles[i])) calls[i] = texts.add(textCall(embedded[i]));
    texts.wait();
    std::vector<EmbeddedObject> objects;
    for (size_t i = 0; i < embedded.size(); ++i) {
        EmbeddedObject object{embeddedRoles[i], {}};
        if (calls[i]) object.text = withoutAstralPadding(parseText(texts.reply(*calls[i])).value_or(""));
        if (depth > 1 && object.text.find(kObjectCharacter) != std::string::npos) {
            auto inner = embeddedIn(embedded[i], bus, timeoutMs, depth - 1);
            object.text = withEmbeddedText(object.text, inner.value_or(std::vector<EmbeddedObject>{}));
        }
        objects.push_back(std::move(object));
    }
    return objects;
}

}  // namespace

std::optional<ObjectRef> readableText(const ObjectRef& candidate, DBusConnection* bus,
                                      int timeoutMs, DirectLink* link) {
    CallBatch batch(bus, timeoutMs, link);
    size_t role = batch.add(roleCall(candidate));
    size_t interfaces = batch.add(interfacesCall(candidate));
    batch.wait();
    std::optional<int> known = parseRole(batch.reply(role));
    auto offered = parseInterfaces(batch.reply(interfaces));
    if (!known || isPasswordRole(*known) || !offered || !hasInterface(*offered, kTextInterface))
        return std::nullopt;
    return candidate;
}

LiveFacts::LiveFacts(ObjectRef ref, DBusConnection* bus, int timeoutMs, bool* timedOut,
                     ChildRule rule, DirectLink* link)
    : ref_(std::move(ref)),
      bus_(bus),
      timeoutMs_(timeoutMs),
      timedOut_(timedOut),
      rule_(rule),
      link_(link) {}

Message LiveFacts::call(Message request) {
    bool late = false;
    Message reply = callAndWait(bus_, std::move(request), timeoutMs_, &late, link_);
    if (late && timedOut_) *timedOut_ = true;
    return reply;
}

std::optional<int> LiveFacts::role() {
    // Several attributes need the role; one read asks for it once.
    if (!role_) role_ = parseRole(call(roleCall(ref_)).get());
    return *role_;
}

std::optional<StateBits> LiveFacts::states() { return parseStates(call(stateCall(ref_)).get()); }

std::optional<std::string> LiveFacts::name() {
    if (!name_) name_ = parseStringProperty(call(nameCall(ref_)).get());
    return *name_;
}
std::optional<std::string> LiveFacts::description() {
    return parseStringProperty(call(descriptionCall(ref_)).get());
}

std::optional<Extents> LiveFacts::extents() { return parseExtents(call(extentsCall(ref_)).get()); }
std::optional<std::string> LiveFacts::text() { return parseText(call(textCall(ref_)).get()); }

std::optional<std::vector<std::string>> LiveFacts::interfaces() {
    if (!interfaces_) interfaces_ = parseInterfaces(call(interfacesCall(ref_)).get());
    return *interfaces_;
}

std::optional<double> LiveFacts::currentValue() {
    // GTK logs a critical warning when a Value property is asked of an
    // object without that interface, so the interface is checked first.
    auto offered = interfaces();
    if (!offered || !hasInterface(*offered, kValueInterface)) return std::nullopt;
    return parseCurrentValue(call(currentValueCall(ref_)).get());
}

std::optional<std::vector<EmbeddedObject>> LiveFacts::embeddedObjects() {
    return embeddedIn(ref_, bus_, timeoutMs_, kEmbeddingDepth);
}

std::optional<ElementList> LiveFacts::children() {
    auto refs = parseChildren(call(childrenCall(ref_)).get());
    if (!refs) return std::nullopt;
    // What the rule needs of every child, asked of all of them at once.
    std::vector<std::optional<StateBits>> states(refs->size());
    std::vector<std::optional<Extents>> extents(refs->size());
    if (rule_ != ChildRule::All && !refs->empty()) {
        CallBatch batch(bus_, timeoutMs_, link_);
        std::vector<std::optional<size_t>> stateCalls(refs->size()), extentsCalls(refs->size());
        for (size_t i = 0; i < refs->size(); ++i) {
            // A child in another application (an embedded one) is kept.
            if ((*refs)[i].bus != ref_.bus) continue;
            stateCalls[i] = batch.add(stateCall((*refs)[i]));
            if (needsExtents(rule_)) extentsCalls[i] = batch.add(extentsCall((*refs)[i]));
        }
        batch.wait();
        if (batch.timedOut() && timedOut_) *timedOut_ = true;
        for (size_t i = 0; i < refs->size(); ++i) {
            if (stateCalls[i]) states[i] = parseStates(batch.reply(*stateCalls[i]));
            if (extentsCalls[i]) extents[i] = parseExtents(batch.reply(*extentsCalls[i]));
        }
    }
    ElementList children;
    children.reserve(refs->size());
    for (size_t i = 0; i < refs->size(); ++i)
        if (keepsChild(rule_, states[i], extents[i]))
            children.push_back(elementFor(std::move((*refs)[i])));
    return children;
}

}  // namespace quorvel::linux_backend
