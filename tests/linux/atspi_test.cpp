// The AT-SPI side's rules that the end-to-end tests cannot reach, checked
// without a desktop: AT-SPI facts to accessibility attributes, the reading
// of malformed replies, the reuse of answers about a child list, the index
// of an application's cache, the direct link's matching of replies, and
// finding the accessibility bus without starting anything.
#include <gtest/gtest.h>

#include <atspi/atspi-constants.h>
#include <dbus/dbus.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <climits>
#include <functional>
#include <optional>

#include "platform/linux/atspi/bus.h"
#include "platform/linux/atspi/child_lists.h"
#include "platform/linux/atspi/direct_link.h"
#include "platform/linux/atspi/element_facts.h"
#include "platform/linux/atspi/methods.h"
#include "platform/linux/atspi/tree_snapshot.h"
#include "scripted_facts.h"

namespace quorvel::linux_backend {
namespace {

// The end-to-end tests see the plain role mappings, text values, extents
// and children on real widgets, and password fields as such; the secrecy
// test sees that their text is never asked for. These are the rest.
TEST(Attributes, FactsBecomeAttributesOrFailWithoutGuessing) {
    const std::string cannot = "error " + std::to_string(kAXErrorCannotComplete),
                      noValue = "error " + std::to_string(kAXErrorNoValue),
                      unsupported = "error " + std::to_string(kAXErrorAttributeUnsupported);
    const StateBits enabled = states({ATSPI_STATE_ENABLED}),
                    sensitive = states({ATSPI_STATE_SENSITIVE}),
                    editable = states({ATSPI_STATE_EDITABLE});
    struct {
        std::optional<int> role;
        std::optional<StateBits> states;
        const char* attribute;
        std::string read;
    } cases[] = {
        {ATSPI_ROLE_PUSH_BUTTON, 0, "AXSubrole", noValue},
        {ATSPI_ROLE_PUSH_BUTTON, 0, "AXValue", noValue},
        {ATSPI_ROLE_LIST_ITEM, 0, "AXRole", "list item"},  // AT-SPI's own name
        {{}, enabled, "AXEnabled", "true"},
        {{}, sensitive, "AXEnabled", "true"},
        {{}, editable, "AXEnabled", "false"},
        {{}, editable, "AXEditable", "true"},
        {{}, sensitive, "AXEditable", "false"},
        {{}, {}, "AXPosition", noValue},
        {ATSPI_ROLE_PUSH_BUTTON, 0, "AXNoSuchThing", unsupported},
    };
    for (const auto& c : cases) {
        ScriptedFacts facts;
        facts.roleValue = c.role;
        facts.statesValue = c.states;
        facts.textValue = "hunter2";
        EXPECT_EQ(outcome(readAttribute(facts, c.attribute)), c.read)
            << c.attribute << " of role " << c.role.value_or(-1);
        EXPECT_EQ(facts.times("text"), 0) << c.attribute;  // no text role here
    }
    // Nothing known, as from an application that timed out.
    for (const char* attribute : {"AXRole", "AXSubrole", "AXValue", "AXTitle", "AXDescription",
                                  "AXEnabled", "AXEditable", "AXChildren"}) {
        ScriptedFacts facts;
        EXPECT_EQ(outcome(readAttribute(facts, attribute)), cannot) << attribute;
    }
    // GTK's position for a widget that is not drawn: it has no frame.
    ScriptedFacts hidden;
    hidden.extentsValue = Extents{INT_MIN, INT_MIN, 100, 20};
    EXPECT_EQ(outcome(readAttribute(hidden, "AXSize")), noValue);
}

// A method return holding what an application would answer.
Message reply(const std::function<void(DBusMessageIter*)>& fill) {
    Message message(dbus_message_new(DBUS_MESSAGE_TYPE_METHOD_RETURN));
    dbus_message_set_reply_serial(message.get(), 1);
    DBusMessageIter iter;
    dbus_message_iter_init_append(message.get(), &iter);
    fill(&iter);
    return message;
}

// Every real scan reads well-formed replies; an application may send others,
// which are no answer rather than misread.
TEST(Replies, OfAnotherShapeThanTheMethodsAreNoAnswer) {
    // A property is read only when the variant holds the property's type.
    Message offset = reply([](DBusMessageIter* iter) {
        DBusMessageIter variant;
        dbus_int32_t value = 7;
        dbus_message_iter_open_container(iter, DBUS_TYPE_VARIANT, "i", &variant);
        dbus_message_iter_append_basic(&variant, DBUS_TYPE_INT32, &value);
        dbus_message_iter_close_container(iter, &variant);
    });
    EXPECT_EQ(parseCaretOffset(offset.get()), 7);
    EXPECT_FALSE(parseCurrentValue(offset.get()));

    Message text = reply([](DBusMessageIter* iter) {
        const char* value = "not a role";
        dbus_message_iter_append_basic(iter, DBUS_TYPE_STRING, &value);
    });
    EXPECT_FALSE(parseRole(text.get()));
    EXPECT_FALSE(parseStates(text.get()));
    EXPECT_FALSE(parseExtents(text.get()));
    EXPECT_FALSE(parseChildren(text.get()));
    EXPECT_FALSE(parseRole(nullptr));
    Message error(dbus_message_new(DBUS_MESSAGE_TYPE_ERROR));
    EXPECT_FALSE(parseText(error.get()));
}

// The answers asked along with a list serve only while the list is exactly
// the one they were asked about.
TEST(ChildLists, AnswersServeOnlyAnUnchangedList) {
    const ObjectRef app{":1.5", "/root"}, sameOnAnotherBus{":1.6", "/root"};
    const ObjectRef a{":1.5", "/a"}, b{":1.5", "/b"};
    ChildLists lists;
    EXPECT_TRUE(lists.last(app).empty());
    EXPECT_FALSE(lists.unchanged(app, {a, b}));
    EXPECT_EQ(lists.last(app), (std::vector<ObjectRef>{a, b}));
    EXPECT_TRUE(lists.unchanged(app, {a, b}));
    EXPECT_TRUE(lists.last(sameOnAnotherBus).empty());
    EXPECT_FALSE(lists.unchanged(app, {b, a}));  // reordered
    EXPECT_FALSE(lists.unchanged(app, {b}));
    EXPECT_TRUE(lists.unchanged(app, {b}));
}

// Only children lists that the cache accounts for in full are taken from it.
TEST(CacheIndex, KeepsOnlyTheListsTheCacheAccountsForInFull) {
    auto item = [](const char* path, const char* parent, int index, int childCount,
                   const char* bus = ":1.5") {
        CacheItem i;
        i.ref = {bus, path};
        i.parent = {bus, parent};
        i.index = index;
        i.childCount = childCount;
        return i;
    };
    CacheIndex index = indexCache(
        {
            item("/whole", "/", -1, 2), item("/w1", "/whole", 1, 0), item("/w0", "/whole", 0, 0),
            item("/hole", "/", -1, 2), item("/h0", "/hole", 0, -1),
            item("/twice", "/", -1, 1), item("/t0", "/twice", 0, 0), item("/t0b", "/twice", 0, 0),
            item("/beyond", "/", -1, 1), item("/b0", "/beyond", 0, 0), item("/b5", "/beyond", 5, 0),
            item("/unsaid", "/", -1, -1), item("/u0", "/unsaid", 0, 0),
            item("/elsewhere", "/", -1, 1), item("/e0", "/elsewhere", 0, 0, ":1.9"),
        },
        ":1.5");
    auto list = [&](const char* path) -> std::string {
        auto found = index.children.find(path);
        if (found == index.children.end()) return "asked";
        std::string paths;
        for (const ObjectRef& child : found->second) paths += child.path;
        return paths;
    };
    EXPECT_EQ(list("/whole"), "/w0/w1");
    EXPECT_EQ(list("/w0"), "");  // no children at all
    EXPECT_EQ(list("/h0"), "asked");
    for (const char* parent : {"/hole", "/twice", "/beyond", "/unsaid", "/elsewhere"})
        EXPECT_EQ(list(parent), "asked") << parent;
    EXPECT_EQ(index.items.count("/e0"), 0u);  // another application's object
}

// Replies come back matched to their calls by serial number, in the order of
// the calls, whatever order the application answers in and whatever else it
// sends; a call left unanswered times out and breaks the link.
TEST(DirectLink, MatchesRepliesToCallsBySerial) {
    int sockets[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sockets), 0);
    std::unique_ptr<DirectLink> link = DirectLink::adopt(sockets[0]);
    auto send = [&](int type, dbus_uint32_t replyTo, const char* text) {
        Message m(type == DBUS_MESSAGE_TYPE_SIGNAL ? dbus_message_new_signal("/x", "org.x", "Changed")
                                                   : dbus_message_new(type));
        dbus_message_set_reply_serial(m.get(), replyTo);
        if (type == DBUS_MESSAGE_TYPE_ERROR) dbus_message_set_error_name(m.get(), "org.x.Error");
        dbus_message_set_serial(m.get(), 1000 + replyTo);
        dbus_message_append_args(m.get(), DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
        char* bytes = nullptr;
        int length = 0;
        ASSERT_TRUE(dbus_message_marshal(m.get(), &bytes, &length));
        ASSERT_EQ(write(sockets[1], bytes, length), length);
        dbus_free(bytes);
    };
    // The link numbers its calls from 1; the application answers the third
    // first, sends a signal that names the first and a reply to no call of
    // ours, and refuses the second; the fourth call is never answered.
    send(DBUS_MESSAGE_TYPE_METHOD_RETURN, 3, "third");
    send(DBUS_MESSAGE_TYPE_SIGNAL, 1, "signal");
    send(DBUS_MESSAGE_TYPE_METHOD_RETURN, 99, "stray");
    send(DBUS_MESSAGE_TYPE_METHOD_RETURN, 1, "first");
    send(DBUS_MESSAGE_TYPE_ERROR, 2, "refused");
    std::vector<Message> calls;
    for (int i = 0; i < 4; ++i) calls.push_back(textCall({":1.5", "/o"}));
    bool timedOut = false;
    std::vector<Message> replies = link->exchange(std::move(calls), 200, timedOut);
    ASSERT_EQ(replies.size(), 4u);
    EXPECT_EQ(parseText(replies[0].get()), "first");
    EXPECT_FALSE(replies[1]);
    EXPECT_EQ(parseText(replies[2].get()), "third");
    EXPECT_FALSE(replies[3]);
    EXPECT_TRUE(timedOut);
    EXPECT_TRUE(link->broken());
    close(sockets[1]);
}

TEST(Bus, IsFoundInOrderAndNothingIsStarted) {
    // The variables this test changes, restored at its end.
    const char* names[] = {"AT_SPI_BUS_ADDRESS", "DBUS_SESSION_BUS_ADDRESS"};
    std::optional<std::string> saved[2];
    for (int i = 0; i < 2; ++i)
        if (const char* value = getenv(names[i])) saved[i] = value;
    std::function<std::optional<std::string>()> rootWindow = [] { return "unix:path=/x"; };
    struct {
        const char* accessibilityBus;
        const char* sessionBus;
        bool onTheRootWindow;
        std::optional<std::string> found;
    } cases[] = {
        {"unix:path=/run/a11y", nullptr, true, "unix:path=/run/a11y"},
        {nullptr, "unix:path=/nonexistent/bus", true, "unix:path=/x"},
        {nullptr, nullptr, false, std::nullopt},
        // An address that would make libdbus launch a bus is never used.
        {nullptr, "autolaunch:", false, std::nullopt},
        {nullptr, "unix:path=/nonexistent/bus", false, std::nullopt},
    };
    for (const auto& c : cases) {
        for (auto [name, value] : {std::pair{"AT_SPI_BUS_ADDRESS", c.accessibilityBus},
                                   std::pair{"DBUS_SESSION_BUS_ADDRESS", c.sessionBus}}) {
            if (value) setenv(name, value, 1);
            else unsetenv(name);
        }
        EXPECT_EQ(accessibilityBusAddress(c.onTheRootWindow ? rootWindow : nullptr, 100), c.found)
            << "case " << &c - cases;
    }
    for (int i = 0; i < 2; ++i)
        saved[i] ? setenv(names[i], saved[i]->c_str(), 1) : unsetenv(names[i]);
    for (const char* starts : {"autolaunch:", "unix:path=/nonexistent;autolaunch:", "systemd:"})
        EXPECT_TRUE(startsProcess(starts)) << starts;
    for (const char* plain : {"unix:path=/run/user/0/bus", "unix:abstract=/tmp/dbus-x,guid=1"})
        EXPECT_FALSE(startsProcess(plain)) << plain;
}

}  // namespace
}  // namespace quorvel::linux_backend
