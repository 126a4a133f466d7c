#include "platform/linux/accessibility.h"

#include <atspi/atspi.h>

#include <cstdlib>
#include <vector>

#include "observation/scan.h"
#include "platform/linux/atspi_bus.h"
#include "platform/linux/direct_link.h"
#include "platform/linux/live_facts.h"
#include "platform/linux/tree_snapshot.h"

namespace quorvel::linux_backend {
namespace {

// How far the focused-element search walks a window whose toolkit offers no
// Collection interface.
constexpr size_t kFocusSearchLimit = 5000;

const AccessibleElement* atspi(const Element& element) {
    return dynamic_cast<const AccessibleElement*>(element.get());
}

// The application's top-level objects, in order.
std::vector<Element> topLevels(AtspiAccessible* application) {
    std::vector<Element> windows;
    GError* error = nullptr;
    gint count = atspi_accessible_get_child_count(application, &error);
    g_clear_error(&error);
    for (gint i = 0; i < count; ++i) {
        AtspiAccessible* window = atspi_accessible_get_child_at_index(application, i, &error);
        g_clear_error(&error);
        if (window) windows.push_back(std::make_shared<AccessibleElement>(window, false));
    }
    return windows;
}

// The states of several objects, asked for all at once.
std::vector<std::optional<StateBits>> statesOf(const std::vector<Element>& elements,
                                               DBusConnection* bus, int timeoutMs) {
    if (elements.empty()) return {};
    CallBatch batch(bus, timeoutMs);
    for (const Element& element : elements) batch.add(stateCall(atspi(element)->ref()));
    batch.wait();
    std::vector<std::optional<StateBits>> states;
    for (size_t i = 0; i < elements.size(); ++i) states.push_back(parseStates(batch.reply(i)));
    return states;
}

// The first descendant of `window` with the FOCUSED state, found by the
// application itself in one Collection query: null when there is none or the
// application did not answer, empty when it offers no Collection interface.
std::optional<Element> focusedByCollection(AtspiAccessible* window) {
    if (!window) return std::nullopt;
    AtspiCollection* collection = atspi_accessible_get_collection_iface(window);
    if (!collection) return std::nullopt;
    AtspiStateSet* focused = atspi_state_set_new(nullptr);
    atspi_state_set_add(focused, ATSPI_STATE_FOCUSED);
    AtspiMatchRule* rule = atspi_match_rule_new(
        focused, ATSPI_Collection_MATCH_ALL, nullptr, ATSPI_Collection_MATCH_ALL, nullptr,
        ATSPI_Collection_MATCH_ALL, nullptr, ATSPI_Collection_MATCH_ALL, FALSE);
    GError* error = nullptr;
    GArray* found = atspi_collection_get_matches(
        collection, rule, ATSPI_Collection_SORT_ORDER_CANONICAL, 1, TRUE, &error);
    std::optional<Element> result = Element{};
    if (found && !error) {
        for (guint i = 0; i < found->len; ++i) {
            AtspiAccessible* match = g_array_index(found, AtspiAccessible*, i);
            if (match && !*result) result = std::make_shared<AccessibleElement>(match, false);
            else if (match) g_object_unref(match);
        }
    }
    if (found) g_array_free(found, TRUE);
    g_clear_error(&error);
    g_object_unref(rule);
    g_object_unref(focused);
    g_object_unref(collection);
    return result;
}

// The same search, walking the tree one level at a time.
Element focusedByWalk(const Element& window, DBusConnection* bus, int timeoutMs) {
    std::vector<Element> level{window};
    size_t seen = 0;
    while (!level.empty() && seen < kFocusSearchLimit) {
        std::vector<Element> next;
        for (const Element& element : level) {
            LiveFacts facts(atspi(element)->ref(), bus, timeoutMs);
            if (auto children = facts.children())
                next.insert(next.end(), children->begin(), children->end());
        }
        seen += next.size();
        std::vector<std::optional<StateBits>> states = statesOf(next, bus, timeoutMs);
        for (size_t i = 0; i < next.size(); ++i)
            if (states[i] && hasState(*states[i], ATSPI_STATE_FOCUSED)) return next[i];
        level = std::move(next);
    }
    return nullptr;
}

}  // namespace

AccessibleElement::AccessibleElement(AtspiAccessible* accessible, bool application)
    : accessible_(accessible), application_(application) {
    const AtspiObject& object = accessible->parent;
    if (object.app && object.app->bus_name) ref_.bus = object.app->bus_name;
    if (object.path) ref_.path = object.path;
}

AccessibleElement::AccessibleElement(ObjectRef ref, bool application)
    : ref_(std::move(ref)), application_(application) {}

AccessibleElement::~AccessibleElement() {
    if (accessible_) g_object_unref(accessible_);
}

Element elementFor(ObjectRef ref) {
    return std::make_shared<AccessibleElement>(std::move(ref), false);
}

AtspiApplicationHandle::AtspiApplicationHandle(std::int32_t pid, AtspiAccessible* application)
    : pid_(pid), application_(application) {}

AtspiApplicationHandle::~AtspiApplicationHandle() {
    if (application_) g_object_unref(application_);
}

Accessibility::Accessibility(std::function<std::optional<std::string>()> rootWindowAddress)
    : rootWindowAddress_(std::move(rootWindowAddress)) {}

Accessibility::~Accessibility() = default;

DirectLink* Accessibility::linkTo(const std::string& bus) {
    if (bus.empty()) return nullptr;
    auto known = links_.find(bus);
    if (known != links_.end()) {
        DirectLink* link = known->second.get();
        return link && !link->broken() ? link : nullptr;
    }

    // Toolkits built on the AT-SPI bridge also listen on a socket of their
    // own. Talking to it directly skips the bus daemon, which otherwise
    // relays every request and every reply, and lets the tree scan's
    // thousands of calls go out together. Single reads stay on the bus: the
    // extra question would double what an application that does not answer
    // costs them.
    Message call(dbus_message_new_method_call(bus.c_str(), "/org/a11y/atspi/accessible/root",
                                              "org.a11y.atspi.Application",
                                              "GetApplicationBusAddress"));
    bool late = false;
    Message reply = callAndWait(atspi_get_a11y_bus(), std::move(call), timeoutMs_, &late);
    if (late) return nullptr;  // asked again next time
    const char* address = nullptr;
    std::unique_ptr<DirectLink> link;
    if (reply && dbus_message_get_type(reply.get()) == DBUS_MESSAGE_TYPE_METHOD_RETURN &&
        dbus_message_get_args(reply.get(), nullptr, DBUS_TYPE_STRING, &address,
                              DBUS_TYPE_INVALID) &&
        address && *address)
        link = DirectLink::open(address, timeoutMs_);
    DirectLink* result = link.get();
    links_[bus] = std::move(link);
    return result;
}

bool Accessibility::connect() {
    if (connectAttempted_) return connected_;
    connectAttempted_ = true;
    std::optional<std::string> address = accessibilityBusAddress(rootWindowAddress_, timeoutMs_);
    if (!address) return false;
    // libatspi looks here first, so it never goes looking for a bus itself.
    setenv("AT_SPI_BUS_ADDRESS", address->c_str(), 1);
    if (atspi_init() > 1 || !atspi_get_a11y_bus()) return false;
    // No start-up grace: an application that does not answer costs the
    // time-out and no more, however recently it started.
    atspi_set_timeout(timeoutMs_, -1);
    connected_ = true;
    return true;
}

bool Accessibility::reachable() {
    if (!connect()) return false;
    AtspiAccessible* desktop = atspi_get_desktop(0);
    if (!desktop) return false;
    GError* error = nullptr;
    gint count = atspi_accessible_get_child_count(desktop, &error);
    bool answered = !error && count >= 0;
    g_clear_error(&error);
    g_object_unref(desktop);
    return answered;
}

AtspiAccessible* Accessibility::findApplication(std::int32_t pid) {
    if (!connect() || pid <= 0) return nullptr;
    AtspiAccessible* desktop = atspi_get_desktop(0);
    if (!desktop) return nullptr;
    GError* error = nullptr;
    gint count = atspi_accessible_get_child_count(desktop, &error);
    g_clear_error(&error);
    std::vector<AtspiAccessible*> matches;
    for (gint i = 0; i < count; ++i) {
        AtspiAccessible* app = atspi_accessible_get_child_at_index(desktop, i, &error);
        g_clear_error(&error);
        if (!app) continue;
        guint owner = atspi_accessible_get_process_id(app, &error);
        bool match = !error && static_cast<std::int64_t>(owner) == pid;
        g_clear_error(&error);
        if (match) matches.push_back(app);
        else g_object_unref(app);
    }
    g_object_unref(desktop);
    if (matches.empty()) return nullptr;

    // A process may register more than one application; the one with the
    // active window is the one in front.
    AtspiAccessible* chosen = matches.front();
    if (matches.size() > 1) {
        for (AtspiAccessible* app : matches) {
            std::vector<Element> windows = topLevels(app);
            bool active = false;
            for (const auto& states : statesOf(windows, atspi_get_a11y_bus(), timeoutMs_))
                active = active || (states && hasState(*states, ATSPI_STATE_ACTIVE));
            if (active) {
                chosen = app;
                break;
            }
        }
    }
    for (AtspiAccessible* app : matches)
        if (app != chosen) g_object_unref(app);
    return chosen;
}

Application Accessibility::application(std::int32_t pid) {
    return std::make_shared<AtspiApplicationHandle>(pid, findApplication(pid));
}

std::optional<std::string> Accessibility::applicationName(const Application& app) {
    auto* handle = dynamic_cast<const AtspiApplicationHandle*>(app.get());
    if (!handle || !handle->application()) return std::nullopt;
    GError* error = nullptr;
    gchar* name = atspi_accessible_get_name(handle->application(), &error);
    std::optional<std::string> result;
    if (!error && name) result = name;
    g_clear_error(&error);
    g_free(name);
    return result;
}

Element Accessibility::applicationElement(std::int32_t pid) {
    AtspiAccessible* app = findApplication(pid);
    if (!app) return nullptr;
    return std::make_shared<AccessibleElement>(app, true);
}

void Accessibility::setTimeout(float seconds) {
    if (!(seconds > 0)) return;
    timeoutMs_ = static_cast<int>(seconds * 1000);
    if (connected_) atspi_set_timeout(timeoutMs_, -1);
}

AttributeRead Accessibility::focusedWindow(const AccessibleElement& application) {
    std::vector<Element> windows = topLevels(application.accessible());
    std::vector<std::optional<StateBits>> states =
        statesOf(windows, atspi_get_a11y_bus(), timeoutMs_);
    for (size_t i = 0; i < windows.size(); ++i)
        if (states[i] && hasState(*states[i], ATSPI_STATE_ACTIVE))
            return {kAXErrorSuccess, windows[i]};
    return {kAXErrorNoValue, {}};
}

AttributeRead Accessibility::focusedElement(const AccessibleElement& application) {
    // A toolkit marks the focused widget of its active window, so the active
    // windows are searched first.
    std::vector<Element> windows = topLevels(application.accessible());
    DBusConnection* bus = atspi_get_a11y_bus();
    std::vector<std::optional<StateBits>> states = statesOf(windows, bus, timeoutMs_);
    std::vector<Element> ordered;
    for (size_t i = 0; i < windows.size(); ++i)
        if (states[i] && hasState(*states[i], ATSPI_STATE_ACTIVE)) ordered.push_back(windows[i]);
    for (size_t i = 0; i < windows.size(); ++i)
        if (!states[i] || !hasState(*states[i], ATSPI_STATE_ACTIVE))
            ordered.push_back(windows[i]);
    for (const Element& window : ordered) {
        std::optional<Element> focused = focusedByCollection(atspi(window)->accessible());
        if (!focused) focused = focusedByWalk(window, bus, timeoutMs_);
        if (*focused) return {kAXErrorSuccess, *focused};
    }
    return {kAXErrorNoValue, {}};
}

AttributeRead Accessibility::read(const Element& element, std::string_view attribute) {
    const AccessibleElement* target = atspi(element);
    if (!target || !connected_) return {kAXErrorCannotComplete, {}};
    if (scanning_ && scanStalled_) return {kAXErrorCannotComplete, {}};

    // The window, the focused element and every value outside a scan are
    // always read from the application itself.
    if (target->application()) {
        if (attribute == "AXFocusedWindow") return focusedWindow(*target);
        if (attribute == "AXFocusedUIElement") return focusedElement(*target);
    } else if (attribute == "AXFocusedWindow" || attribute == "AXFocusedUIElement") {
        return {kAXErrorAttributeUnsupported, {}};
    }

    bool timedOut = false;
    LiveFacts live(target->ref(), atspi_get_a11y_bus(), timeoutMs_, &timedOut);
    AttributeRead result;
    if (std::unique_ptr<ElementFacts> cached =
            snapshot_ ? snapshot_->facts(*target, live) : nullptr)
        result = readAttribute(*cached, attribute);
    else
        result = readAttribute(live, attribute);
    if (timedOut && scanning_) scanStalled_ = true;
    return result;
}

AXError Accessibility::isSettable(const Element& element, std::string_view attribute,
                                  bool& settable) {
    settable = false;
    const AccessibleElement* target = atspi(element);
    if (!target || !connected_) return kAXErrorCannotComplete;
    if (attribute != "AXValue") return kAXErrorSuccess;
    // Settable means the application offers to replace the whole text and
    // says the element is editable.
    ObjectRef ref = target->ref();
    CallBatch batch(atspi_get_a11y_bus(), timeoutMs_);
    size_t interfaces = batch.add(interfacesCall(ref));
    size_t states = batch.add(stateCall(ref));
    batch.wait();
    auto names = parseInterfaces(batch.reply(interfaces));
    auto bits = parseStates(batch.reply(states));
    if (!names || !bits) return kAXErrorCannotComplete;
    settable =
        hasInterface(*names, kEditableTextInterface) && hasState(*bits, ATSPI_STATE_EDITABLE);
    return kAXErrorSuccess;
}

AXError Accessibility::setText(const Element& element, std::string_view attribute,
                               const std::string& text) {
    const AccessibleElement* target = atspi(element);
    if (!target || !connected_) return kAXErrorCannotComplete;
    if (attribute != "AXValue") return kAXErrorAttributeUnsupported;
    const ObjectRef& ref = target->ref();
    Message reply = callAndWait(atspi_get_a11y_bus(), setTextContentsCall(ref, text), timeoutMs_);
    std::optional<bool> done = parseSetTextContents(reply.get());
    if (!done) return kAXErrorCannotComplete;
    return *done ? kAXErrorSuccess : kAXErrorFailure;
}

bool Accessibility::equal(const Element& a, const Element& b) {
    const AccessibleElement* x = atspi(a);
    const AccessibleElement* y = atspi(b);
    if (!x || !y) return false;
    return x->ref() == y->ref();
}

void Accessibility::beginTreeScan(const Element& root) {
    snapshot_.reset();
    scanning_ = true;
    scanStalled_ = false;
    const AccessibleElement* target = atspi(root);
    if (!target || !connected_) return;
    snapshot_ = std::make_unique<TreeSnapshot>(*target, atspi_get_a11y_bus(),
                                               linkTo(target->ref().bus), timeoutMs_, kMaxNodes);
    scanStalled_ = snapshot_->stalled();
}

void Accessibility::endTreeScan() {
    snapshot_.reset();
    scanning_ = false;
    scanStalled_ = false;
}

}  // namespace quorvel::linux_backend
