#include "platform/linux/atspi/live_facts.h"

#include "platform/linux/atspi/accessible_element.h"
#include "platform/linux/atspi/call_batch.h"

namespace quorvel::linux_backend {

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

LiveFacts::LiveFacts(ObjectRef ref, DBusConnection* bus, int timeoutMs, bool* timedOut)
    : ref_(std::move(ref)), bus_(bus), timeoutMs_(timeoutMs), timedOut_(timedOut) {}

Message LiveFacts::call(Message request) {
    bool late = false;
    Message reply = callAndWait(bus_, std::move(request), timeoutMs_, &late);
    if (late && timedOut_) *timedOut_ = true;
    return reply;
}

std::optional<int> LiveFacts::role() {
    // Several attributes need the role; one read asks for it once.
    if (!role_) role_ = parseRole(call(roleCall(ref_)).get());
    return *role_;
}

std::optional<StateBits> LiveFacts::states() { return parseStates(call(stateCall(ref_)).get()); }

const AccessibleProperties& LiveFacts::properties() {
    if (!properties_)
        properties_ = parseAccessibleProperties(call(accessiblePropertiesCall(ref_)).get());
    return *properties_;
}

std::optional<std::string> LiveFacts::name() { return properties().name; }
std::optional<std::string> LiveFacts::description() { return properties().description; }

std::optional<Extents> LiveFacts::extents() { return parseExtents(call(extentsCall(ref_)).get()); }
std::optional<std::string> LiveFacts::text() { return parseText(call(textCall(ref_)).get()); }

std::optional<double> LiveFacts::currentValue() {
    // GTK logs a critical warning when a Value property is asked of an
    // object without that interface, so the interface is checked first.
    auto interfaces = parseInterfaces(call(interfacesCall(ref_)).get());
    if (!interfaces || !hasInterface(*interfaces, kValueInterface)) return std::nullopt;
    return parseCurrentValue(call(currentValueCall(ref_)).get());
}

std::optional<ElementList> LiveFacts::children() {
    auto refs = parseChildren(call(childrenCall(ref_)).get());
    if (!refs) return std::nullopt;
    ElementList children;
    children.reserve(refs->size());
    for (ObjectRef& child : *refs) children.push_back(elementFor(std::move(child)));
    return children;
}

}  // namespace quorvel::linux_backend
