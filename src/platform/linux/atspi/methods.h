// The AT-SPI methods the backend calls, as D-Bus requests of our own, and
// the readers of their replies. libatspi waits for each reply before it
// sends the next request; these go out through a CallBatch (call_batch.h),
// many at a time for the tree scan and one at a time for live reads, so both
// paths read exactly the same things.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/linux/atspi/message.h"
#include "platform/linux/atspi/roles.h"

namespace quorvel::linux_backend {

struct Extents {
    int x = 0;
    int y = 0;
    int width = 0;
    int height = 0;
};

// Requests. Each names one AT-SPI method of the object.
Message roleCall(const ObjectRef&);
Message stateCall(const ObjectRef&);
Message interfacesCall(const ObjectRef&);
// One property of the Accessible interface, asked on its own; or all of
// them at once (GetAll), which Qt 5.15 crashes on.
Message nameCall(const ObjectRef&);
Message descriptionCall(const ObjectRef&);
Message childCountCall(const ObjectRef&);
Message accessiblePropertiesCall(const ObjectRef&);
Message extentsCall(const ObjectRef&);                // screen coordinates
// The characters from `start` to `end`; an end of -1 is the end of the text.
Message textCall(const ObjectRef&, int start = 0, int end = -1);
Message caretOffsetCall(const ObjectRef&);
Message currentValueCall(const ObjectRef&);
Message childrenCall(const ObjectRef&);
// The object's attributes (name-value pairs). Screen readers ask a window
// for them first, and Chromium builds a window's tree only once a client
// has: until then the window's one child is the null object.
Message attributesCall(const ObjectRef&);
Message childAtIndexCall(const ObjectRef&, int index);
Message setTextContentsCall(const ObjectRef&, const std::string& text);
// The application's own account of every object it has announced.
Message cacheItemsCall(const std::string& bus);
// The bus daemon's account of which process owns the connection `bus`.
Message processIdCall(const std::string& bus);
// The address of the application's own socket. Asking it is also what tells
// an application that an assistive technology is looking: Chromium marks no
// window ACTIVE until some client has asked.
Message applicationBusAddressCall(const std::string& bus);
// A property of the application's Application interface ("ToolkitName",
// "Version"), asked one by one: Qt 5.15 crashes when asked for them all.
Message applicationPropertyCall(const std::string& bus, const char* property);
// The first descendant of `ref` with the FOCUSED and FOCUSABLE states, as
// the application finds it in its own tree (Collection.GetMatches).
// LibreOffice and Qt also mark FOCUSED some of the containers of the focus,
// which cannot take it.
Message focusedDescendantCall(const ObjectRef&);
// The children of `ref` with the SHOWING state, in their order, as the
// application filters them itself (Collection.GetMatches, not traversing):
// one call instead of the list and a state read per child.
Message showingChildrenCall(const ObjectRef&);

// Replies. Each is empty when the call failed or the reply is not of the
// expected type.
std::optional<int> parseRole(DBusMessage*);
std::optional<StateBits> parseStates(DBusMessage*);
std::optional<std::vector<std::string>> parseInterfaces(DBusMessage*);
std::optional<std::string> parseStringProperty(DBusMessage*);
struct AccessibleProperties {
    std::optional<std::string> name;
    std::optional<std::string> description;
    std::optional<int> childCount;
};
std::optional<int> parseIntProperty(DBusMessage*);
AccessibleProperties parseAccessibleProperties(DBusMessage*);
std::optional<Extents> parseExtents(DBusMessage*);
std::optional<std::string> parseText(DBusMessage*);
std::optional<double> parseCurrentValue(DBusMessage*);
std::optional<int> parseCaretOffset(DBusMessage*);
std::optional<std::vector<ObjectRef>> parseChildren(DBusMessage*);
std::optional<ObjectRef> parseChild(DBusMessage*);
std::optional<bool> parseSetTextContents(DBusMessage*);
std::optional<std::int64_t> parseProcessId(DBusMessage*);
std::optional<std::string> parseApplicationBusAddress(DBusMessage*);
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
inline constexpr char kTextInterface[] = "org.a11y.atspi.Text";
inline constexpr char kValueInterface[] = "org.a11y.atspi.Value";
inline constexpr char kEditableTextInterface[] = "org.a11y.atspi.EditableText";
inline constexpr char kCollectionInterface[] = "org.a11y.atspi.Collection";

}  // namespace quorvel::linux_backend
