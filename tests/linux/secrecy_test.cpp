// The Linux backend's half of the secrecy test (tests/secrecy_test.cpp): it
// asks an application for an element's text only once it has read the
// element's role, in the same request, and seen that it is not password
// text. Each path that asks for text is given an element whose role read
// fails while its text would be answered: an attribute read, the tree
// scan's prefetch, and the focused editor that typing watches.
#include <gtest/gtest.h>

#include <atspi/atspi-constants.h>
#include <dbus/dbus.h>
#include <sys/socket.h>
#include <unistd.h>

#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/linux/atspi/direct_link.h"
#include "platform/linux/atspi/element_facts.h"
#include "platform/linux/atspi/live_facts.h"
#include "platform/linux/atspi/tree_snapshot.h"
#include "scripted_facts.h"

namespace quorvel::linux_backend {
namespace {

constexpr char kSecret[] = "hunter2";
constexpr char kBus[] = ":1.5";

// What the test reads an element's role as; nothing for a read that fails.
struct ScriptedElement { std::optional<int> role; std::string text; };

// One element whose role read fails, one password field, one plain entry
// and one paragraph (whose value is text only when it offers the Text
// interface), under a window; each would answer for its text.
const std::map<std::string, ScriptedElement>& elements() {
    static const std::map<std::string, ScriptedElement> all = {
        {"/window", {ATSPI_ROLE_FRAME, ""}},
        {"/unread", {std::nullopt, kSecret}},
        {"/password", {ATSPI_ROLE_PASSWORD_TEXT, kSecret}},
        {"/entry", {ATSPI_ROLE_ENTRY, "visible"}},
        {"/paragraph", {ATSPI_ROLE_PARAGRAPH, "words"}},
    };
    return all;
}
const std::vector<std::string> kChildren = {"/unread", "/password", "/entry", "/paragraph"};

// The application at the other end of a direct link: answers every call
// from `elements()` on a thread of its own, and logs the calls for text.
class ScriptedApplication {
public:
    ScriptedApplication() {
        int sockets[2];
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, sockets) != 0) throw std::runtime_error("socketpair");
        link_ = DirectLink::adopt(sockets[0]);
        peer_ = sockets[1];
        thread_ = std::thread([this] { serve(); });
    }
    ~ScriptedApplication() {
        link_.reset();  // closes our end: the application sees the end and stops
        thread_.join();
        close(peer_);
    }
    DirectLink* link() { return link_.get(); }
    // The objects whose text was asked for, in order.
    std::vector<std::string> textsAsked() {
        std::lock_guard lock(mutex_);
        return textsAsked_;
    }

private:
    void serve() {
        std::string unread;
        char buffer[4096];
        for (;;) {
            ssize_t got = read(peer_, buffer, sizeof buffer);
            if (got <= 0) return;
            unread.append(buffer, static_cast<size_t>(got));
            for (;;) {
                int needed = dbus_message_demarshal_bytes_needed(unread.data(),
                                                                 static_cast<int>(unread.size()));
                if (needed <= 0 || static_cast<size_t>(needed) > unread.size()) break;
                Message call(dbus_message_demarshal(unread.data(), needed, nullptr));
                unread.erase(0, static_cast<size_t>(needed));
                if (!call) return;
                Message reply = answer(call.get());
                dbus_message_set_serial(reply.get(), ++serial_);
                char* bytes = nullptr;
                int length = 0;
                if (!dbus_message_marshal(reply.get(), &bytes, &length)) return;
                bool written = write(peer_, bytes, static_cast<size_t>(length)) == length;
                dbus_free(bytes);
                if (!written) return;
            }
        }
    }

    Message answer(DBusMessage* call) {
        const std::string member = dbus_message_get_member(call);
        const char* path = dbus_message_get_path(call);
        auto element = elements().find(path ? path : "");
        auto fail = [&] { return Message(dbus_message_new_error(call, DBUS_ERROR_FAILED, "no")); };
        if (element == elements().end()) return fail();  // the cache, among others
        const ScriptedElement& e = element->second;
        Message reply(dbus_message_new_method_return(call));
        DBusMessageIter iter, inner;
        dbus_message_iter_init_append(reply.get(), &iter);
        if (member == "GetRole") {
            if (!e.role) return fail();
            dbus_uint32_t role = static_cast<dbus_uint32_t>(*e.role);
            dbus_message_append_args(reply.get(), DBUS_TYPE_UINT32, &role, DBUS_TYPE_INVALID);
        } else if (member == "GetText") {
            std::lock_guard lock(mutex_);
            textsAsked_.push_back(path);
            const char* text = e.text.c_str();
            dbus_message_append_args(reply.get(), DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
        } else if (member == "GetInterfaces") {
            const char* names[] = {"org.a11y.atspi.Accessible", kTextInterface};
            const char** list = names;
            dbus_message_append_args(reply.get(), DBUS_TYPE_ARRAY, DBUS_TYPE_STRING, &list, 2,
                                     DBUS_TYPE_INVALID);
        } else if (member == "GetState") {
            const dbus_uint32_t words[2] = {
                1u << ATSPI_STATE_ENABLED | 1u << ATSPI_STATE_VISIBLE | 1u << ATSPI_STATE_SHOWING, 0};
            const dbus_uint32_t* list = words;
            dbus_message_append_args(reply.get(), DBUS_TYPE_ARRAY, DBUS_TYPE_UINT32, &list, 2,
                                     DBUS_TYPE_INVALID);
        } else if (member == "Get") {  // Name, Description and ChildCount
            const char* interface = nullptr;
            const char* property = nullptr;
            if (!dbus_message_get_args(call, nullptr, DBUS_TYPE_STRING, &interface,
                                       DBUS_TYPE_STRING, &property, DBUS_TYPE_INVALID))
                return fail();
            if (std::string(property) == "ChildCount") {
                dbus_int32_t count =
                    std::string(path) == "/window" ? static_cast<dbus_int32_t>(kChildren.size()) : 0;
                dbus_message_iter_open_container(&iter, DBUS_TYPE_VARIANT, "i", &inner);
                dbus_message_iter_append_basic(&inner, DBUS_TYPE_INT32, &count);
            } else {
                const char* empty = "";
                dbus_message_iter_open_container(&iter, DBUS_TYPE_VARIANT, "s", &inner);
                dbus_message_iter_append_basic(&inner, DBUS_TYPE_STRING, &empty);
            }
            dbus_message_iter_close_container(&iter, &inner);
        } else if (member == "GetExtents") {
            dbus_message_iter_open_container(&iter, DBUS_TYPE_STRUCT, nullptr, &inner);
            for (dbus_int32_t value : {10, 10, 100, 20})
                dbus_message_iter_append_basic(&inner, DBUS_TYPE_INT32, &value);
            dbus_message_iter_close_container(&iter, &inner);
        } else if (member == "GetChildren" && std::string(path) == "/window") {
            dbus_message_iter_open_container(&iter, DBUS_TYPE_ARRAY, "(so)", &inner);
            for (const std::string& child : kChildren) {
                DBusMessageIter ref;
                const char* bus = kBus;
                const char* object = child.c_str();
                dbus_message_iter_open_container(&inner, DBUS_TYPE_STRUCT, nullptr, &ref);
                dbus_message_iter_append_basic(&ref, DBUS_TYPE_STRING, &bus);
                dbus_message_iter_append_basic(&ref, DBUS_TYPE_OBJECT_PATH, &object);
                dbus_message_iter_close_container(&inner, &ref);
            }
            dbus_message_iter_close_container(&iter, &inner);
        } else {
            return fail();
        }
        return reply;
    }

    int peer_ = -1;
    std::unique_ptr<DirectLink> link_;
    std::thread thread_;
    dbus_uint32_t serial_ = 0;
    std::mutex mutex_;
    std::vector<std::string> textsAsked_;
};

// Facts as an attribute read asks for them, from the script.
ScriptedFacts factsOf(const ScriptedElement& element) {
    ScriptedFacts facts;
    facts.roleValue = element.role;
    facts.statesValue = 0;
    facts.interfacesValue = std::vector<std::string>{"org.a11y.atspi.Accessible", kTextInterface};
    facts.textValue = element.text;
    return facts;
}

// "AXValue" as the core reads it; "error" for any failure.
std::string value(const AttributeRead& read) {
    std::string got = outcome(read);
    return got.starts_with("error") ? "error" : got;
}

struct Expected {
    const char* path;
    std::string value;                // "AXValue" as the core reads it
    std::vector<std::string> asked;   // what an attribute read asks, in order
};
const Expected kExpected[] = {
    {"/unread", "error", {"role"}},
    {"/password", "error", {"role"}},
    {"/entry", "visible", {"role", "text"}},
    {"/paragraph", "words", {"role", "interfaces", "text"}},
};

TEST(LinuxSecrecy, AnAttributeReadAsksForTextOnlyAfterTheRoleRuledOutPassword) {
    for (const Expected& e : kExpected) {
        ScriptedFacts facts = factsOf(elements().at(e.path));
        EXPECT_EQ(value(readAttribute(facts, "AXValue")), e.value) << e.path;
        EXPECT_EQ(facts.asked, e.asked) << e.path;
    }
}

// The prefetch asks for an element's text only in a batch after the one
// that brought its role, and not at all when the role did not come. What it
// did not fetch is read live, through the attribute rule above. Both rules
// that choose the children (GTK 4's asks for extents too) reach them all.
TEST(LinuxSecrecy, TheTreePrefetchAsksForTextOnlyAfterTheRoleRuledOutPassword) {
    const std::vector<std::string> texts = {"/entry", "/paragraph"};
    for (ChildRule rule : {ChildRule::Showing, ChildRule::VisibleWithArea}) {
        ScriptedApplication app;
        TreeSnapshot snapshot({kBus, "/window"}, nullptr, app.link(), 2000, 10, ScanManner{rule});
        ASSERT_FALSE(snapshot.stalled());
        EXPECT_EQ(app.textsAsked(), texts);
        for (const Expected& e : kExpected) {
            ScriptedFacts live = factsOf(elements().at(e.path));
            std::unique_ptr<ElementFacts> facts = snapshot.facts({kBus, e.path}, live);
            ASSERT_TRUE(facts) << e.path;
            EXPECT_EQ(value(readAttribute(*facts, "AXValue")), e.value) << e.path;
            EXPECT_EQ(live.asked, std::vector<std::string>{}) << e.path << " was asked again";
        }
        EXPECT_EQ(app.textsAsked(), texts);
    }
}

// Typing watches the focused editor's text to see its keys arrive; it gets
// an editor to watch only when the role was read and is not password text.
TEST(LinuxSecrecy, TypingWatchesTheTextOnlyOfAnEditorWhoseRoleRuledOutPassword) {
    ScriptedApplication app;
    for (const Expected& e : kExpected) {
        std::optional<ObjectRef> watched = readableText({kBus, e.path}, nullptr, 2000, app.link());
        EXPECT_EQ(watched.has_value(), e.value != "error") << e.path;
    }
    EXPECT_EQ(app.textsAsked(), std::vector<std::string>{});
}

}  // namespace
}  // namespace quorvel::linux_backend
