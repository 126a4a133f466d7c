// AT-SPI method calls sent straight over the accessibility bus, many at a
// time. libatspi waits for each reply before it sends the next request; the
// tree scan instead sends a whole level of requests and then collects the
// replies, so the round trips overlap. Live reads use the same calls one at a
// time, so both paths read exactly the same things.
#pragma once

#include <dbus/dbus.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/linux/atspi/roles.h"

namespace quorvel::linux_backend {

// One accessible object: the bus name of its application and its path.
struct ObjectRef {
    std::string bus;
    std::string path;
    friend bool operator==(const ObjectRef&, const ObjectRef&) = default;
};

// The registry's root object: its children are the registered applications,
// each named by its bus name and the path of its own root object.
inline const ObjectRef kRegistryRoot{"org.a11y.atspi.Registry", "/org/a11y/atspi/accessible/root"};

struct Extents {
    int x = 0;
    int y = 0;
    int width = 0;
    int height = 0;
};

struct MessageRelease {
    void operator()(DBusMessage* message) const { dbus_message_unref(message); }
};
using Message = std::unique_ptr<DBusMessage, MessageRelease>;

// Requests. Each names one AT-SPI method of the object.
Message roleCall(const ObjectRef&);
Message stateCall(const ObjectRef&);
Message interfacesCall(const ObjectRef&);
Message accessiblePropertiesCall(const ObjectRef&);  // name, description, child count
Message extentsCall(const ObjectRef&);                // screen coordinates
Message textCall(const ObjectRef&);                   // the whole text
Message currentValueCall(const ObjectRef&);
Message childrenCall(const ObjectRef&);
Message childAtIndexCall(const ObjectRef&, int index);
Message setTextContentsCall(const ObjectRef&, const std::string& text);
// The application's own account of every object it has announced.
Message cacheItemsCall(const std::string& bus);
// The bus daemon's account of which process owns the connection `bus`.
Message processIdCall(const std::string& bus);
// The first descendant of `ref` with the FOCUSED state, as the application
// finds it in its own tree (Collection.GetMatches).
Message focusedDescendantCall(const ObjectRef&);

// Replies. Each is empty when the call failed or the reply is not of the
// expected type.
std::optional<int> parseRole(DBusMessage*);
std::optional<StateBits> parseStates(DBusMessage*);
std::optional<std::vector<std::string>> parseInterfaces(DBusMessage*);
struct AccessibleProperties {
    std::optional<std::string> name;
    std::optional<std::string> description;
    std::optional<int> childCount;
};
AccessibleProperties parseAccessibleProperties(DBusMessage*);
std::optional<Extents> parseExtents(DBusMessage*);
std::optional<std::string> parseText(DBusMessage*);
std::optional<double> parseCurrentValue(DBusMessage*);
std::optional<std::vector<ObjectRef>> parseChildren(DBusMessage*);
std::optional<ObjectRef> parseChild(DBusMessage*);
std::optional<bool> parseSetTextContents(DBusMessage*);
std::optional<std::int64_t> parseProcessId(DBusMessage*);
// The objects a Collection query found; the null object stands for none.
std::optional<std::vector<ObjectRef>> parseMatches(DBusMessage*);

// One object of the application's cache: what it reports about itself at
// the moment of the call. `index` is its position among its parent's
// children and `childCount` its number of children, each -1 when the
// application does not say (objects that manage their descendants).
struct CacheItem {
    ObjectRef ref;
    ObjectRef parent;
    int index = -1;
    int childCount = -1;
    std::vector<std::string> interfaces;
    std::string name;
    int role = 0;
    std::string description;
    StateBits states = 0;
};
std::optional<std::vector<CacheItem>> parseCacheItems(DBusMessage*);

bool hasInterface(const std::vector<std::string>& interfaces, const char* name);
inline constexpr char kValueInterface[] = "org.a11y.atspi.Value";
inline constexpr char kEditableTextInterface[] = "org.a11y.atspi.EditableText";

class DirectLink;

// A set of calls in flight on one connection. On a bus connection every call
// is written as soon as it is added, with its own time-out counted from then;
// over a direct link the calls go out together when `wait` is called, and
// the time-out counts from the last reply received. `wait` collects the
// replies either way.
class CallBatch {
public:
    CallBatch(DBusConnection* connection, int timeoutMs, DirectLink* link = nullptr);
    ~CallBatch();
    CallBatch(const CallBatch&) = delete;
    CallBatch& operator=(const CallBatch&) = delete;

    // Sends the call; the index names its reply. A call that cannot be sent
    // has no reply.
    size_t add(Message call);
    // Blocks until every call has its reply or has timed out.
    void wait();
    // The reply of call `index` after `wait`; null when it failed.
    DBusMessage* reply(size_t index) const;
    // The reply of call `index` after `wait`, handed over; null when it failed.
    Message take(size_t index);
    // Whether call `index` was refused because its object lacks the method
    // or the interface.
    bool unsupported(size_t index) const;
    // Whether some application did not answer in time.
    bool timedOut() const { return timedOut_; }
    size_t size() const { return pending_.size(); }

private:
    DBusConnection* connection_;
    int timeoutMs_;
    DirectLink* link_;
    std::vector<Message> unsent_;  // for the direct link
    std::vector<DBusPendingCall*> pending_;
    std::vector<DBusMessage*> replies_;
    std::vector<bool> unsupported_;
    bool timedOut_ = false;
};

// One call, sent and waited for.
Message callAndWait(DBusConnection*, Message call, int timeoutMs, bool* timedOut = nullptr);

}  // namespace quorvel::linux_backend
