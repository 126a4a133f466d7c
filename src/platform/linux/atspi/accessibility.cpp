#include "platform/linux/atspi/accessibility.h"

#include <atspi/atspi-constants.h>
#include <dbus/dbus.h>

#include <cctype>
#include <climits>
#include <cstdlib>
#include <vector>

#include "platform/linux/atspi/bus.h"
#include "platform/linux/atspi/call_batch.h"
#include "platform/linux/atspi/direct_link.h"
#include "platform/linux/atspi/live_facts.h"
#include "platform/linux/atspi/methods.h"
#include "platform/linux/atspi/tree_snapshot.h"

namespace quorvel::linux_backend {
namespace {

// How far the focused-element search walks a window whose toolkit offers no
// Collection interface.
constexpr size_t kFocusSearchLimit = 5000;

const AccessibleElement* atspi(const Element& element) {
    return dynamic_cast<const AccessibleElement*>(element.get());
}

// The first descendant of `window` with the FOCUSED and FOCUSABLE states
// (focusedDescendantCall), found by the application itself in one Collection
// query: null when there is none or the application did not answer, empty
// when it offers no Collection interface.
std::optional<Element> focusedByCollection(const ObjectRef& window, DBusConnection* bus,
                                           int timeoutMs) {
    CallBatch batch(bus, timeoutMs);
    size_t call = batch.add(focusedDescendantCall(window));
    batch.wait();
    if (batch.unsupported(call)) return std::nullopt;
    auto matches = parseMatches(batch.reply(call));
    if (!matches || matches->empty()) return Element{};
    return elementFor(std::move(matches->front()));
}

// The application's windows, the active ones first, in their order.
std::vector<ObjectRef> activeFirst(const std::vector<ObjectRef>& windows,
                                   const std::vector<Message>& states) {
    std::vector<ObjectRef> active, rest;
    for (size_t i = 0; i < windows.size(); ++i) {
        std::optional<StateBits> bits = parseStates(states[i].get());
        (bits && hasState(*bits, ATSPI_STATE_ACTIVE) ? active : rest).push_back(windows[i]);
    }
    active.insert(active.end(), rest.begin(), rest.end());
    return active;
}

// The same search, walking the tree one level at a time: every children
// list of a level, and then every state of the next, asked at once. Only
// what `rule` keeps is searched further: the focus is on what is shown.
Element focusedByWalk(const Element& window, DBusConnection* bus, int timeoutMs, ChildRule rule) {
    std::vector<ObjectRef> level{atspi(window)->ref()};
    size_t seen = 0;
    while (!level.empty() && seen < kFocusSearchLimit) {
        CallBatch lists(bus, timeoutMs);
        for (const ObjectRef& ref : level) lists.add(childrenCall(ref));
        lists.wait();
        std::vector<ObjectRef> next;
        for (size_t i = 0; i < level.size(); ++i)
            if (auto children = parseChildren(lists.reply(i)))
                for (ObjectRef& child : *children)
                    if (child.path != "/org/a11y/atspi/null") next.push_back(std::move(child));
        if (lists.timedOut() || next.empty()) break;
        seen += next.size();
        const size_t calls = needsExtents(rule) ? 2 : 1;
        CallBatch states(bus, timeoutMs);
        for (const ObjectRef& ref : next) {
            states.add(stateCall(ref));
            if (needsExtents(rule)) states.add(extentsCall(ref));
        }
        states.wait();
        std::vector<ObjectRef> shown;
        for (size_t i = 0; i < next.size(); ++i) {
            std::optional<StateBits> bits = parseStates(states.reply(i * calls));
            if (bits && hasState(*bits, ATSPI_STATE_FOCUSED) &&
                hasState(*bits, ATSPI_STATE_FOCUSABLE))
                return elementFor(std::move(next[i]));
            std::optional<Extents> extents;
            if (needsExtents(rule)) extents = parseExtents(states.reply(i * calls + 1));
            if (keepsChild(rule, bits, extents)) shown.push_back(std::move(next[i]));
        }
        if (states.timedOut()) break;
        level = std::move(shown);
    }
    return nullptr;
}

}  // namespace

Browser browserOf(std::string_view toolkitName) {
    std::string name(toolkitName);
    for (char& c : name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (name == "chromium") return Browser::Chromium;
    if (name == "gecko") return Browser::Gecko;
    return Browser::None;
}

Accessibility::Accessibility(std::function<std::optional<std::string>()> rootWindowAddress)
    : rootWindowAddress_(std::move(rootWindowAddress)) {}

Accessibility::~Accessibility() = default;

const Accessibility::ApplicationFacts& Accessibility::applicationFacts(const std::string& bus,
                                                                      bool retry) {
    auto known = applications_.find(bus);
    if (known != applications_.end() && (known->second.answered || !retry)) return known->second;
    DBusConnection* connection = bus_.get();
    CallBatch batch(connection, timeoutMs_);
    size_t address = batch.add(applicationBusAddressCall(bus));
    size_t toolkit = batch.add(applicationPropertyCall(bus, "ToolkitName"));
    size_t version = batch.add(applicationPropertyCall(bus, "Version"));
    size_t pid = batch.add(processIdCall(bus));
    size_t application = batch.add(nameCall(ObjectRef{bus, kApplicationRoot}));
    batch.wait();
    ApplicationFacts facts;
    facts.answered = !batch.timedOut();
    facts.address = parseApplicationBusAddress(batch.reply(address));
    // GTK 3 calls itself "gtk", GTK 4 "GTK".
    std::string name = parseStringProperty(batch.reply(toolkit)).value_or("");
    for (char& c : name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    facts.gtk4 = name == "gtk" && parseStringProperty(batch.reply(version)).value_or("").rfind("4.", 0) == 0;
    facts.browser = browserOf(name);
    facts.manner.rule = facts.gtk4 ? ChildRule::VisibleWithArea : ChildRule::Showing;
    // Qt 5.15 crashes on GetAll; an application that did not name its
    // toolkit may be Qt.
    facts.manner.allProperties = !name.empty() && name != "qt";
    // Qt's cache is always empty. LibreOffice answers for its cache with
    // every object of its whole interface, every closed menu's items
    // included (some 4000 objects, 700 kB, 100 ms of its time), while a scan
    // of its window visits a few hundred: asked one level at a time, the
    // window takes less.
    facts.manner.readCache =
        name != "qt" && parseStringProperty(batch.reply(application)).value_or("") != "soffice";
    facts.pid = parseProcessId(batch.reply(pid));
    return applications_[bus] = std::move(facts);
}

DirectLink* Accessibility::linkTo(const std::string& bus) {
    if (bus.empty()) return nullptr;
    if (links_.count(bus)) return openLink(bus);

    // Toolkits built on the AT-SPI bridge also listen on a socket of their
    // own. Talking to it directly skips the bus daemon, which otherwise
    // relays every request and every reply, and lets the tree scan's
    // thousands of calls go out together. Only a scan opens one (openLink).
    const ApplicationFacts& application = applicationFacts(bus);
    if (!application.answered) return nullptr;  // asked again next time
    std::unique_ptr<DirectLink> link;
    if (application.address && !application.address->empty())
        link = DirectLink::open(*application.address, timeoutMs_);
    DirectLink* result = link.get();
    links_[bus] = std::move(link);
    return result;
}

DirectLink* Accessibility::openLink(const std::string& bus) const {
    auto known = links_.find(bus);
    if (known == links_.end() || !known->second || known->second->broken()) return nullptr;
    return known->second.get();
}

bool Accessibility::connect() {
    if (connectAttempted_) return bus_ != nullptr;
    connectAttempted_ = true;
    std::optional<std::string> address = accessibilityBusAddress(rootWindowAddress_, timeoutMs_);
    if (!address) return false;
    bus_ = openBus(*address);
    return bus_ != nullptr;
}

bool Accessibility::reachable() {
    // Access belongs to the session, not to a moment: once the registry has
    // answered, it stays granted for the rest of this short-lived process.
    if (reachable_) return true;
    if (!connect()) return false;
    reachable_ =
        parseChildren(callAndWait(bus_.get(), childrenCall(kRegistryRoot), timeoutMs_)
                          .get())
            .has_value();
    return reachable_;
}

std::optional<Accessibility::ChildReplies> Accessibility::askChildren(
    const ObjectRef& parent, Message (*ask)(const ObjectRef&), Message extra) {
    DBusConnection* bus = bus_.get();
    const std::vector<ObjectRef>& known = children_.last(parent);
    CallBatch batch(bus, timeoutMs_);
    size_t list = batch.add(childrenCall(parent));
    size_t first = batch.size();
    for (const ObjectRef& child : known) batch.add(ask(child));
    size_t asked = known.size();
    size_t extraCall = extra ? batch.add(std::move(extra)) : 0;
    batch.wait();
    auto children = parseChildren(batch.reply(list));
    if (!children) return std::nullopt;

    ChildReplies result;
    if (extraCall) result.extra = batch.take(extraCall);
    if (children_.unchanged(parent, *children)) {
        for (size_t i = 0; i < asked; ++i) result.replies.push_back(batch.take(first + i));
    } else {
        CallBatch again(bus, timeoutMs_);
        for (const ObjectRef& child : *children) again.add(ask(child));
        again.wait();
        for (size_t i = 0; i < children->size(); ++i) result.replies.push_back(again.take(i));
    }
    result.children = std::move(*children);
    return result;
}

std::optional<Accessibility::ChildReplies> Accessibility::windowStates(const ObjectRef& application,
                                                                      Message extra) {
    return askChildren(application, stateCall, std::move(extra));
}

std::optional<ObjectRef> Accessibility::findApplication(std::int32_t pid) {
    if (!connect() || pid <= 0) return std::nullopt;
    // An application is its process's connection to the bus, which stays
    // the same for as long as the process runs: once found, it serves the
    // rest of this short-lived process. Were it to go away, it would answer
    // no more calls, and every read of it would fail.
    if (auto known = applicationOf_.find(pid); known != applicationOf_.end()) return known->second;
    // Every registered application and the process that owns each.
    auto owners = askChildren(kRegistryRoot, [](const ObjectRef& app) {
        return processIdCall(app.bus);
    });
    if (!owners) return std::nullopt;
    std::vector<ObjectRef> matches;
    for (size_t i = 0; i < owners->children.size(); ++i)
        if (parseProcessId(owners->replies[i].get()) == pid) matches.push_back(owners->children[i]);
    if (matches.empty()) return std::nullopt;
    if (matches.size() == 1) return applicationOf_[pid] = matches.front();

    // A process may register more than one application; the one with the
    // active window is the one in front, asked again each time.
    for (const ObjectRef& app : matches) {
        auto windows = windowStates(app);
        if (!windows) continue;
        for (const Message& reply : windows->replies) {
            std::optional<StateBits> states = parseStates(reply.get());
            if (states && hasState(*states, ATSPI_STATE_ACTIVE)) return app;
        }
    }
    return matches.front();
}

Application Accessibility::application(std::int32_t pid) {
    return std::make_shared<ApplicationHandle>(pid);
}

std::optional<std::string> Accessibility::applicationName(const Application& app) {
    auto* handle = dynamic_cast<const ApplicationHandle*>(app.get());
    if (!handle) return std::nullopt;
    std::optional<ObjectRef> ref = findApplication(handle->pid());
    if (!ref) return std::nullopt;
    return LiveFacts(*ref, bus_.get(), timeoutMs_, nullptr, ChildRule::Showing, openLink(ref->bus))
        .name();
}

Element Accessibility::applicationElement(std::int32_t pid) {
    std::optional<ObjectRef> ref = findApplication(pid);
    if (!ref) return nullptr;
    return elementFor(std::move(*ref), AccessibleElement::Kind::Application);
}

void Accessibility::setTimeout(float seconds) {
    if (!(seconds > 0)) return;
    timeoutMs_ = static_cast<int>(seconds * 1000);
}

AttributeRead Accessibility::focusedWindow(const AccessibleElement& application) {
    // Chromium marks none of its windows ACTIVE until a client has asked for
    // its socket's address, as libatspi does of every application it first
    // touches; so that question goes out before the states are read. It
    // builds a window's tree only once the window's attributes were asked.
    if (!applicationFacts(application.ref().bus, true).answered) return {kAXErrorNoValue, {}};
    auto windows = windowStates(application.ref());
    if (!windows) return {kAXErrorNoValue, {}};
    // Only an ACTIVE window is the focused one: Chromium also lists windows
    // that are SHOWING with no X window behind them.
    for (size_t i = 0; i < windows->children.size(); ++i) {
        std::optional<StateBits> states = parseStates(windows->replies[i].get());
        if (!states || !hasState(*states, ATSPI_STATE_ACTIVE)) continue;
        // Asked once per application in a process, as a screen reader does.
        ApplicationFacts& known = applications_[application.ref().bus];
        if (!known.windowAttributesAsked) {
            known.windowAttributesAsked = true;
            callAndWait(bus_.get(), attributesCall(windows->children[i]), timeoutMs_);
        }
        return {kAXErrorSuccess, elementFor(windows->children[i], AccessibleElement::Kind::TopLevel)};
    }
    return {kAXErrorNoValue, {}};
}

std::optional<Accessibility::TopLevel> Accessibility::topLevel(const Element& element) {
    const AccessibleElement* target = atspi(element);
    if (!target || !bus_) return std::nullopt;
    const ObjectRef& ref = target->ref();
    const ApplicationFacts& application = applicationFacts(ref.bus);
    CallBatch batch(bus_.get(), timeoutMs_);
    size_t extents = batch.add(extentsCall(ref));
    size_t name = batch.add(nameCall(ref));
    size_t states = batch.add(stateCall(ref));
    batch.wait();
    TopLevel facts;
    facts.extents = parseExtents(batch.reply(extents));
    facts.name = parseStringProperty(batch.reply(name));
    facts.states = parseStates(batch.reply(states));
    facts.pid = application.pid;
    facts.relativeCoordinates = application.gtk4;
    return facts;
}

AttributeRead Accessibility::focusedElement(const AccessibleElement& application) {
    // A toolkit marks the focused widget of its active window, so the active
    // windows are searched first. The window that was active last time is
    // asked for its focused descendant along with the list; the answer
    // serves if that window is still the first to search.
    // The element a scan of the first window to search just found focused
    // is asked whether it still is, in that same round trip, instead: a
    // toolkit without the Collection interface would otherwise be walked
    // once more.
    DBusConnection* bus = bus_.get();
    const ObjectRef& app = application.ref();
    std::optional<ScanFocus> scanned;
    if (auto found = scanFocus_.find(app.bus); found != scanFocus_.end()) scanned = found->second;
    auto known = lastActive_.find(app.bus);
    std::optional<ObjectRef> guess;
    if (!scanned && known != lastActive_.end()) guess = known->second;
    Message extra = scanned ? stateCall(scanned->focused)
                            : guess ? focusedDescendantCall(*guess) : nullptr;
    auto windows = windowStates(app, std::move(extra));
    if (!windows) return {kAXErrorNoValue, {}};
    std::vector<ObjectRef> ordered = activeFirst(windows->children, windows->replies);
    if (!ordered.empty()) lastActive_[app.bus] = ordered.front();
    if (scanned && !ordered.empty() && ordered.front() == scanned->window) {
        std::optional<StateBits> bits = parseStates(windows->extra.get());
        if (bits && hasState(*bits, ATSPI_STATE_FOCUSED) && hasState(*bits, ATSPI_STATE_FOCUSABLE))
            return {kAXErrorSuccess, elementFor(scanned->focused)};
    }
    for (const ObjectRef& window : ordered) {
        std::optional<Element> focused;
        if (guess && window == *guess && windows->extra) {
            auto matches = parseMatches(windows->extra.get());
            focused = matches && !matches->empty() ? elementFor(std::move(matches->front()))
                                                   : Element{};
        } else {
            focused = focusedByCollection(window, bus, timeoutMs_);
        }
        if (!focused) focused = focusedByWalk(elementFor(window), bus, timeoutMs_, childRule(app.bus));
        if (*focused) return {kAXErrorSuccess, *focused};
    }
    return {kAXErrorNoValue, {}};
}

AttributeRead Accessibility::read(const Element& element, std::string_view attribute) {
    const AccessibleElement* target = atspi(element);
    if (!target || !bus_) return {kAXErrorCannotComplete, {}};
    if (scanning_ && scanStalled_) return {kAXErrorCannotComplete, {}};

    // The window, the focused element and every value outside a scan are
    // always read from the application itself.
    if (target->application()) {
        if (attribute == "AXFocusedWindow") return focusedWindow(*target);
        if (attribute == "AXFocusedUIElement") return focusedElement(*target);
    } else if (attribute == "AXFocusedWindow" || attribute == "AXFocusedUIElement") {
        return {kAXErrorAttributeUnsupported, {}};
    }

    // GTK 4 places its elements relative to their window, not on the
    // screen: no position is better than a wrong one, unless the caller
    // places them.
    const ObjectRef& ref = target->ref();
    if ((attribute == "AXPosition" || attribute == "AXSize") && !windowRelativePlacement_ &&
        applicationFacts(ref.bus).gtk4)
        return {kAXErrorNoValue, {}};

    bool timedOut = false;
    LiveFacts live(ref, bus_.get(), timeoutMs_, &timedOut, childRule(ref.bus), openLink(ref.bus));
    AttributeRead result;
    if (std::unique_ptr<ElementFacts> cached = snapshot_ ? snapshot_->facts(ref, live) : nullptr)
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
    if (!target || !bus_) return kAXErrorCannotComplete;
    if (attribute != "AXValue") return kAXErrorSuccess;
    // Settable means the application offers to replace the whole text and
    // says the element is editable.
    ObjectRef ref = target->ref();
    CallBatch batch(bus_.get(), timeoutMs_);
    size_t interfaces = batch.add(interfacesCall(ref));
    size_t states = batch.add(stateCall(ref));
    batch.wait();
    auto names = parseInterfaces(batch.reply(interfaces));
    auto bits = parseStates(batch.reply(states));
    if (!names || !bits) return kAXErrorCannotComplete;
    // Neither web engine's replacement reaches the page: Chromium offers
    // none, and Gecko answers that it replaced the text while the field,
    // and the page's input listeners, saw nothing. Typing over a select-all
    // is real input, which the page and its framework hear.
    if (applicationFacts(ref.bus).browser != Browser::None) return kAXErrorSuccess;
    settable =
        hasInterface(*names, kEditableTextInterface) && hasState(*bits, ATSPI_STATE_EDITABLE);
    return kAXErrorSuccess;
}

AXError Accessibility::setText(const Element& element, std::string_view attribute,
                               const std::string& text) {
    const AccessibleElement* target = atspi(element);
    if (!target || !bus_) return kAXErrorCannotComplete;
    if (attribute != "AXValue") return kAXErrorAttributeUnsupported;
    const ObjectRef& ref = target->ref();
    Message reply = callAndWait(bus_.get(), setTextContentsCall(ref, text), timeoutMs_);
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
    if (!target || !bus_) return;
    const ObjectRef& ref = target->ref();
    snapshot_ = std::make_unique<TreeSnapshot>(ref, bus_.get(), linkTo(ref.bus), timeoutMs_,
                                               kMaxNodes, applicationFacts(ref.bus).manner);
    scanStalled_ = snapshot_->stalled();
}

void Accessibility::endTreeScan() {
    if (snapshot_ && snapshot_->focused())
        scanFocus_[snapshot_->root().bus] = {snapshot_->root(), *snapshot_->focused()};
    snapshot_.reset();
    scanning_ = false;
    scanStalled_ = false;
}

std::optional<ObjectRef> Accessibility::focusedText(std::int64_t pid) {
    if (pid <= 0 || pid > INT32_MAX) return std::nullopt;
    std::optional<ObjectRef> app = findApplication(static_cast<std::int32_t>(pid));
    if (!app) return std::nullopt;
    DBusConnection* bus = bus_.get();
    auto matches = parseMatches(callAndWait(bus, focusedDescendantCall(*app), timeoutMs_).get());
    if (!matches || matches->empty()) return std::nullopt;
    // Focus may have moved to a password field since typing began.
    return readableText(matches->front(), bus, timeoutMs_);
}

int Accessibility::pixelsPerWheelStep(std::int64_t pid) {
    // One step of Chromium's wheel scrolls 120 pixels, of Gecko's 114, at
    // any page zoom or font size; the other toolkits scroll a few lines.
    constexpr int kChromiumStep = 120, kGeckoStep = 114, kOtherStep = 50;
    switch (browser(pid)) {
        case Browser::Chromium:
            return kChromiumStep;
        case Browser::Gecko:
            return kGeckoStep;
        case Browser::None:
            break;
    }
    return kOtherStep;
}

Browser Accessibility::browser(std::int64_t pid) {
    if (pid <= 0 || pid > INT32_MAX) return Browser::None;
    std::optional<ObjectRef> app = findApplication(static_cast<std::int32_t>(pid));
    if (!app) return Browser::None;
    return applicationFacts(app->bus).browser;
}

std::optional<int> Accessibility::caretOffset(const ObjectRef& text) {
    if (!bus_) return std::nullopt;
    Message reply = callAndWait(bus_.get(), caretOffsetCall(text), timeoutMs_);
    return parseCaretOffset(reply.get());
}

std::optional<std::string> Accessibility::text(const ObjectRef& text, int start, int end) {
    if (!bus_) return std::nullopt;
    Message reply = callAndWait(bus_.get(), textCall(text, start, end), timeoutMs_);
    return parseText(reply.get());
}

}  // namespace quorvel::linux_backend
