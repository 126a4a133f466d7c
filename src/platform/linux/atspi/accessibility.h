// The accessibility half of the Linux backend: the orchestrator of AT-SPI
// reads. Every read is an AT-SPI method call of our own (methods.h), sent
// with the others it does not depend on, over our own connection to the
// accessibility bus (bus.h).
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/linux/atspi/accessible_element.h"
#include "platform/linux/atspi/bus.h"
#include "platform/linux/atspi/child_lists.h"
#include "platform/linux/atspi/message.h"
#include "platform/linux/atspi/methods.h"
#include "platform/linux/atspi/tree_snapshot.h"
#include "platform/platform.h"

namespace quorvel::linux_backend {

class DirectLink;

// The frontmost application: its process. Its AT-SPI application is looked
// up afresh whenever it is needed.
class ApplicationHandle final : public ApplicationObject {
public:
    explicit ApplicationHandle(std::int32_t pid) : pid_(pid) {}
    std::int32_t pid() const { return pid_; }

private:
    std::int32_t pid_;
};

// The web engines whose pages differ from a desktop form (see browserOf).
enum class Browser { None, Chromium, Gecko };

// The engine named by an application's toolkit name, in any letter case.
Browser browserOf(std::string_view toolkitName);

class Accessibility {
public:
    // `rootWindowAddress` reads the bus address that the session may have
    // published on the X root window; it is asked only when the environment
    // names no bus.
    explicit Accessibility(std::function<std::optional<std::string>()> rootWindowAddress);
    ~Accessibility();
    Accessibility(const Accessibility&) = delete;
    Accessibility& operator=(const Accessibility&) = delete;

    // Whether the AT-SPI registry answers. Connects on first use, without
    // ever starting a bus or any other process.
    bool reachable();

    // The application of process `pid`.
    Application application(std::int32_t pid);
    std::optional<std::string> applicationName(const Application&);
    Element applicationElement(std::int32_t pid);

    // What a top-level says about itself, read afresh, and what is known of
    // its application; nothing when `element` is no AT-SPI object.
    struct TopLevel {
        std::optional<Extents> extents;  // screen coordinates
        std::optional<std::string> name;
        std::optional<StateBits> states;
        std::optional<std::int64_t> pid;  // of the application's bus connection
        // GTK 4: nothing is placed on screen; every position is relative to
        // the top-level, whose own reads as (0, 0).
        bool relativeCoordinates = false;
    };
    std::optional<TopLevel> topLevel(const Element&);

    void setTimeout(float seconds);
    // Whether the caller places positions given relative to their window
    // (every native client of a Wayland compositor); GTK 4's are then read
    // like anyone's instead of refused.
    void setWindowRelativePlacement(bool placed) { windowRelativePlacement_ = placed; }
    AttributeRead read(const Element&, std::string_view attribute);
    AXError isSettable(const Element&, std::string_view attribute, bool& settable);
    AXError setText(const Element&, std::string_view attribute, const std::string& text);
    bool equal(const Element&, const Element&);

    // Between these two calls, reads of the scanned window's elements are
    // served from one prefetch of its tree; the prefetch is dropped at the
    // end, so every other read asks the application.
    void beginTreeScan(const Element& root);
    void endTreeScan();

    // What typing reads to learn that the application has handled its keys:
    // the focused element of process `pid` when it is text that may be read
    // (readableText: never password text, never of an unknown role; nothing
    // otherwise), found by the application in one Collection query; its
    // caret offset; and its characters from `start` to `end`.
    std::optional<ObjectRef> focusedText(std::int64_t pid);
    std::optional<int> caretOffset(const ObjectRef& text);
    std::optional<std::string> text(const ObjectRef& text, int start, int end);

    // How many pixels one wheel step scrolls in the application of process
    // `pid`: browsers scroll a fixed distance per step, whatever the page.
    int pixelsPerWheelStep(std::int64_t pid);
    // Whether the application of process `pid` is a web browser.
    bool isBrowser(std::int64_t pid) { return browser(pid) != Browser::None; }

private:
    bool connect();
    // The web engine of the application of process `pid`, if any.
    Browser browser(std::int64_t pid);
    // The root object of the AT-SPI application of process `pid`.
    std::optional<ObjectRef> findApplication(std::int32_t pid);
    AttributeRead focusedWindow(const AccessibleElement& application);
    AttributeRead focusedElement(const AccessibleElement& application);
    // The children of `parent`, each with the reply to `ask(child)`; nothing
    // when the list cannot be had. The questions about the children found
    // last time go out with the list, in one round trip, and are asked again
    // only when the list has changed: every answer is as fresh as the list.
    // `extra`, when given, goes out in that same round trip too.
    struct ChildReplies {
        std::vector<ObjectRef> children;
        std::vector<Message> replies;
        Message extra;
    };
    std::optional<ChildReplies> askChildren(const ObjectRef& parent,
                                            Message (*ask)(const ObjectRef&),
                                            Message extra = nullptr);
    // The application's windows and their states.
    std::optional<ChildReplies> windowStates(const ObjectRef& application,
                                             Message extra = nullptr);
    // What is asked once of each application in a process, before its
    // windows: the address of its own socket (asking is what wakes
    // Chromium), its toolkit, and the process of its bus connection.
    // An application that did not answer is taken as one that offers
    // nothing, until `retry` asks it again (each identification does).
    struct ApplicationFacts {
        bool answered = false;
        bool windowAttributesAsked = false;  // see attributesCall
        std::optional<std::string> address;
        bool gtk4 = false;
        Browser browser = Browser::None;
        ScanManner manner;
        std::optional<std::int64_t> pid;
    };
    const ApplicationFacts& applicationFacts(const std::string& bus, bool retry = false);
    // Which children make "AXChildren" in the application of `bus`.
    ChildRule childRule(const std::string& bus) { return applicationFacts(bus).manner.rule; }
    // A direct link to the application's own socket, for the tree scan;
    // null when it offers none (its requests then go over the bus).
    DirectLink* linkTo(const std::string& bus);
    // The link to the application if a scan has opened one: single reads
    // take it then, and skip the bus daemon's relay, but never open one.
    DirectLink* openLink(const std::string& bus) const;

    std::function<std::optional<std::string>()> rootWindowAddress_;
    Bus bus_;
    bool connectAttempted_ = false;
    bool reachable_ = false;
    int timeoutMs_ = 2000;
    bool windowRelativePlacement_ = false;
    std::map<std::string, ApplicationFacts> applications_;  // by bus name
    // The application of each process that registered only one.
    std::map<std::int32_t, ObjectRef> applicationOf_;
    // Direct links by bus name; null where the application offers none.
    std::map<std::string, std::unique_ptr<DirectLink>> links_;
    // Which children each parent had when last asked, and which window of
    // each application was active: whom to ask along with the next list.
    ChildLists children_;
    std::map<std::string, ObjectRef> lastActive_;
    // What the last scan of each application's window found focused.
    struct ScanFocus {
        ObjectRef window, focused;
    };
    std::map<std::string, ScanFocus> scanFocus_;
    std::unique_ptr<TreeSnapshot> snapshot_;
    bool scanning_ = false;
    // Set when an application stopped answering during the current scan:
    // the scan's remaining reads fail at once instead of waiting again.
    bool scanStalled_ = false;
};

}  // namespace quorvel::linux_backend
