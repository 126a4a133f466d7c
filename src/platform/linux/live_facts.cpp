#include "platform/linux/live_facts.h"

#include <atspi/atspi.h>

#include <algorithm>

namespace quorvel::linux_backend {

LiveFacts::LiveFacts(const AtspiElement& element, DBusConnection* bus, int timeoutMs,
                     bool* timedOut)
    : element_(element), ref_(element.ref()), bus_(bus), timeoutMs_(timeoutMs),
      timedOut_(timedOut) {}

Message LiveFacts::call(Message request) {
    bool late = false;
    Message reply = callAndWait(bus_, std::move(request), timeoutMs_, &late);
    if (late && timedOut_) *timedOut_ = true;
    return reply;
}

std::optional<int> LiveFacts::role() {
    // The role is asked for by several attributes of one read; ask once.
    if (!role_) role_ = parseRole(call(roleCall(ref_)).get());
    return *role_;
}

std::optional<StateBits> LiveFacts::states() { return parseStates(call(stateCall(ref_)).get()); }

const AccessibleProperties& LiveFacts::properties() {
    if (!properties_) properties_ = parseAccessibleProperties(call(accessiblePropertiesCall(ref_)).get());
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
    if (!interfaces || std::find(interfaces->begin(), interfaces->end(),
                                 "org.a11y.atspi.Value") == interfaces->end())
        return std::nullopt;
    return parseCurrentValue(call(currentValueCall(ref_)).get());
}

std::optional<ElementList> LiveFacts::children() {
    // Children are made through libatspi, which turns each into an object.
    AtspiAccessible* parent = element_.accessible();
    GError* error = nullptr;
    gint count = atspi_accessible_get_child_count(parent, &error);
    if (error || count < 0) {
        g_clear_error(&error);
        return std::nullopt;
    }
    ElementList children;
    children.reserve(static_cast<size_t>(count));
    for (gint i = 0; i < count; ++i) {
        AtspiAccessible* child = atspi_accessible_get_child_at_index(parent, i, &error);
        if (error || !child) {
            g_clear_error(&error);
            if (child) g_object_unref(child);
            return std::nullopt;
        }
        children.push_back(std::make_shared<AtspiElement>(child, false));
    }
    return children;
}

}  // namespace quorvel::linux_backend
