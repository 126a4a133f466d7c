#include "platform/linux/atspi/methods.h"

#include <atspi/atspi-constants.h>

#include <cstring>

namespace quorvel::linux_backend {
namespace {

constexpr char kAccessible[] = "org.a11y.atspi.Accessible";
constexpr char kComponent[] = "org.a11y.atspi.Component";
constexpr char kProperties[] = "org.freedesktop.DBus.Properties";
constexpr dbus_uint32_t kScreenCoordinates = 0;  // ATSPI_COORD_TYPE_SCREEN

Message methodCall(const ObjectRef& ref, const char* interface, const char* method) {
    return Message(dbus_message_new_method_call(ref.bus.c_str(), ref.path.c_str(), interface,
                                                method));
}

bool isReply(DBusMessage* reply, const char* signature) {
    return reply && dbus_message_get_type(reply) == DBUS_MESSAGE_TYPE_METHOD_RETURN &&
           std::strcmp(dbus_message_get_signature(reply), signature) == 0;
}

std::string basicString(DBusMessageIter* iter) {
    const char* text = nullptr;
    dbus_message_iter_get_basic(iter, &text);
    return text ? text : "";
}

Message propertyCall(const ObjectRef& ref, const char* interface, const char* property) {
    Message call = methodCall(ref, kProperties, "Get");
    if (call)
        dbus_message_append_args(call.get(), DBUS_TYPE_STRING, &interface, DBUS_TYPE_STRING,
                                 &property, DBUS_TYPE_INVALID);
    return call;
}

// The value of a property's reply when it is of `type`.
template <typename T>
std::optional<T> propertyValue(DBusMessage* reply, int type) {
    if (!isReply(reply, "v")) return std::nullopt;
    DBusMessageIter iter, variant;
    dbus_message_iter_init(reply, &iter);
    dbus_message_iter_recurse(&iter, &variant);
    if (dbus_message_iter_get_arg_type(&variant) != type) return std::nullopt;
    T value{};
    dbus_message_iter_get_basic(&variant, &value);
    return value;
}

// Reads an (so) structure: a bus name and an object path.
ObjectRef readRef(DBusMessageIter* iter) {
    DBusMessageIter fields;
    dbus_message_iter_recurse(iter, &fields);
    ObjectRef ref;
    ref.bus = basicString(&fields);
    dbus_message_iter_next(&fields);
    ref.path = basicString(&fields);
    return ref;
}

}  // namespace

Message roleCall(const ObjectRef& ref) { return methodCall(ref, kAccessible, "GetRole"); }
Message stateCall(const ObjectRef& ref) { return methodCall(ref, kAccessible, "GetState"); }
Message interfacesCall(const ObjectRef& ref) {
    return methodCall(ref, kAccessible, "GetInterfaces");
}
Message childrenCall(const ObjectRef& ref) { return methodCall(ref, kAccessible, "GetChildren"); }
Message attributesCall(const ObjectRef& ref) {
    return methodCall(ref, kAccessible, "GetAttributes");
}

Message childAtIndexCall(const ObjectRef& ref, int index) {
    Message call = methodCall(ref, kAccessible, "GetChildAtIndex");
    dbus_int32_t i = index;
    if (call) dbus_message_append_args(call.get(), DBUS_TYPE_INT32, &i, DBUS_TYPE_INVALID);
    return call;
}

Message nameCall(const ObjectRef& ref) { return propertyCall(ref, kAccessible, "Name"); }
Message descriptionCall(const ObjectRef& ref) {
    return propertyCall(ref, kAccessible, "Description");
}
Message accessiblePropertiesCall(const ObjectRef& ref) {
    Message call = methodCall(ref, kProperties, "GetAll");
    const char* interface = kAccessible;
    if (call) dbus_message_append_args(call.get(), DBUS_TYPE_STRING, &interface, DBUS_TYPE_INVALID);
    return call;
}

Message childCountCall(const ObjectRef& ref) {
    return propertyCall(ref, kAccessible, "ChildCount");
}

Message setTextContentsCall(const ObjectRef& ref, const std::string& text) {
    Message call = methodCall(ref, kEditableTextInterface, "SetTextContents");
    const char* contents = text.c_str();
    if (call) dbus_message_append_args(call.get(), DBUS_TYPE_STRING, &contents, DBUS_TYPE_INVALID);
    return call;
}

Message cacheItemsCall(const std::string& bus) {
    return Message(dbus_message_new_method_call(bus.c_str(), "/org/a11y/atspi/cache",
                                                "org.a11y.atspi.Cache", "GetItems"));
}

Message processIdCall(const std::string& bus) {
    Message call(dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS,
                                              DBUS_INTERFACE_DBUS, "GetConnectionUnixProcessID"));
    const char* name = bus.c_str();
    if (call) dbus_message_append_args(call.get(), DBUS_TYPE_STRING, &name, DBUS_TYPE_INVALID);
    return call;
}

Message applicationBusAddressCall(const std::string& bus) {
    return Message(dbus_message_new_method_call(bus.c_str(), kApplicationRoot,
                                                "org.a11y.atspi.Application",
                                                "GetApplicationBusAddress"));
}

Message applicationPropertyCall(const std::string& bus, const char* property) {
    return propertyCall(ObjectRef{bus, kApplicationRoot}, "org.a11y.atspi.Application", property);
}

namespace {

// Collection.GetMatches with a rule of these states, all of them; no
// attributes, roles or interfaces asked for; not inverted. In document
// order, at most `count` objects (0: all), among the descendants when
// `traverse`, else among the children only.
Message statesMatchCall(const ObjectRef& ref, dbus_int32_t states, dbus_int32_t count,
                        dbus_bool_t traverse) {
    Message call = methodCall(ref, kCollectionInterface, "GetMatches");
    if (!call) return call;
    const dbus_int32_t all = ATSPI_Collection_MATCH_ALL;
    const dbus_bool_t invert = FALSE;
    DBusMessageIter iter, rule;
    // One criterion: its array (of words, or empty), then how it must match.
    auto criterion = [&](const char* signature, std::initializer_list<dbus_int32_t> words) {
        DBusMessageIter list;
        dbus_message_iter_open_container(&rule, DBUS_TYPE_ARRAY, signature, &list);
        for (dbus_int32_t word : words) dbus_message_iter_append_basic(&list, DBUS_TYPE_INT32, &word);
        dbus_message_iter_close_container(&rule, &list);
        dbus_message_iter_append_basic(&rule, DBUS_TYPE_INT32, &all);
    };
    dbus_message_iter_init_append(call.get(), &iter);
    dbus_message_iter_open_container(&iter, DBUS_TYPE_STRUCT, nullptr, &rule);
    criterion("i", {states, 0});    // states (aiia{ss}iaiiasib)
    criterion("{ss}", {});          // attributes
    criterion("i", {0, 0, 0, 0});   // roles
    criterion("s", {});             // interfaces
    dbus_message_iter_append_basic(&rule, DBUS_TYPE_BOOLEAN, &invert);
    dbus_message_iter_close_container(&iter, &rule);
    const dbus_uint32_t order = ATSPI_Collection_SORT_ORDER_CANONICAL;
    dbus_message_append_args(call.get(), DBUS_TYPE_UINT32, &order, DBUS_TYPE_INT32, &count,
                             DBUS_TYPE_BOOLEAN, &traverse, DBUS_TYPE_INVALID);
    return call;
}

}  // namespace

Message focusedDescendantCall(const ObjectRef& ref) {
    return statesMatchCall(ref, 1 << ATSPI_STATE_FOCUSED | 1 << ATSPI_STATE_FOCUSABLE, 1, TRUE);
}

Message showingChildrenCall(const ObjectRef& ref) {
    return statesMatchCall(ref, 1 << ATSPI_STATE_SHOWING, 0, FALSE);
}

Message extentsCall(const ObjectRef& ref) {
    Message call = methodCall(ref, kComponent, "GetExtents");
    dbus_uint32_t coordinates = kScreenCoordinates;
    if (call)
        dbus_message_append_args(call.get(), DBUS_TYPE_UINT32, &coordinates, DBUS_TYPE_INVALID);
    return call;
}

Message textCall(const ObjectRef& ref, int start, int end) {
    Message call = methodCall(ref, kTextInterface, "GetText");
    dbus_int32_t from = start, to = end;
    if (call)
        dbus_message_append_args(call.get(), DBUS_TYPE_INT32, &from, DBUS_TYPE_INT32, &to,
                                 DBUS_TYPE_INVALID);
    return call;
}

Message currentValueCall(const ObjectRef& ref) {
    return propertyCall(ref, kValueInterface, "CurrentValue");
}
Message caretOffsetCall(const ObjectRef& ref) {
    return propertyCall(ref, kTextInterface, "CaretOffset");
}

std::optional<int> parseRole(DBusMessage* reply) {
    if (!isReply(reply, "u")) return std::nullopt;
    dbus_uint32_t role = 0;
    dbus_message_get_args(reply, nullptr, DBUS_TYPE_UINT32, &role, DBUS_TYPE_INVALID);
    return static_cast<int>(role);
}

std::optional<StateBits> parseStates(DBusMessage* reply) {
    if (!isReply(reply, "au")) return std::nullopt;
    DBusMessageIter iter, words;
    dbus_message_iter_init(reply, &iter);
    dbus_message_iter_recurse(&iter, &words);
    StateBits states = 0;
    for (int word = 0; word < 2 && dbus_message_iter_get_arg_type(&words) == DBUS_TYPE_UINT32;
         ++word) {
        dbus_uint32_t bits = 0;
        dbus_message_iter_get_basic(&words, &bits);
        states |= static_cast<StateBits>(bits) << (32 * word);
        dbus_message_iter_next(&words);
    }
    return states;
}

std::optional<std::vector<std::string>> parseInterfaces(DBusMessage* reply) {
    if (!isReply(reply, "as")) return std::nullopt;
    DBusMessageIter iter, names;
    dbus_message_iter_init(reply, &iter);
    dbus_message_iter_recurse(&iter, &names);
    std::vector<std::string> interfaces;
    while (dbus_message_iter_get_arg_type(&names) == DBUS_TYPE_STRING) {
        interfaces.push_back(basicString(&names));
        dbus_message_iter_next(&names);
    }
    return interfaces;
}

std::optional<int> parseIntProperty(DBusMessage* reply) {
    return propertyValue<dbus_int32_t>(reply, DBUS_TYPE_INT32);
}

AccessibleProperties parseAccessibleProperties(DBusMessage* reply) {
    AccessibleProperties properties;
    if (!isReply(reply, "a{sv}")) return properties;
    DBusMessageIter iter, entries;
    dbus_message_iter_init(reply, &iter);
    dbus_message_iter_recurse(&iter, &entries);
    while (dbus_message_iter_get_arg_type(&entries) == DBUS_TYPE_DICT_ENTRY) {
        DBusMessageIter entry, variant;
        dbus_message_iter_recurse(&entries, &entry);
        std::string key = basicString(&entry);
        dbus_message_iter_next(&entry);
        dbus_message_iter_recurse(&entry, &variant);
        int type = dbus_message_iter_get_arg_type(&variant);
        if (key == "Name" && type == DBUS_TYPE_STRING) {
            properties.name = basicString(&variant);
        } else if (key == "Description" && type == DBUS_TYPE_STRING) {
            properties.description = basicString(&variant);
        } else if (key == "ChildCount" && type == DBUS_TYPE_INT32) {
            dbus_int32_t count = 0;
            dbus_message_iter_get_basic(&variant, &count);
            properties.childCount = count;
        }
        dbus_message_iter_next(&entries);
    }
    return properties;
}

std::optional<Extents> parseExtents(DBusMessage* reply) {
    if (!isReply(reply, "(iiii)")) return std::nullopt;
    DBusMessageIter iter, fields;
    dbus_message_iter_init(reply, &iter);
    dbus_message_iter_recurse(&iter, &fields);
    dbus_int32_t values[4] = {0, 0, 0, 0};
    for (dbus_int32_t& value : values) {
        dbus_message_iter_get_basic(&fields, &value);
        dbus_message_iter_next(&fields);
    }
    return Extents{values[0], values[1], values[2], values[3]};
}

std::optional<std::string> parseText(DBusMessage* reply) {
    if (!isReply(reply, "s")) return std::nullopt;
    DBusMessageIter iter;
    dbus_message_iter_init(reply, &iter);
    return basicString(&iter);
}

std::optional<double> parseCurrentValue(DBusMessage* reply) {
    return propertyValue<double>(reply, DBUS_TYPE_DOUBLE);
}

std::optional<int> parseCaretOffset(DBusMessage* reply) {
    return propertyValue<dbus_int32_t>(reply, DBUS_TYPE_INT32);
}

std::optional<std::vector<ObjectRef>> parseChildren(DBusMessage* reply) {
    if (!isReply(reply, "a(so)")) return std::nullopt;
    DBusMessageIter iter, refs;
    dbus_message_iter_init(reply, &iter);
    dbus_message_iter_recurse(&iter, &refs);
    std::vector<ObjectRef> children;
    while (dbus_message_iter_get_arg_type(&refs) == DBUS_TYPE_STRUCT) {
        children.push_back(readRef(&refs));
        dbus_message_iter_next(&refs);
    }
    return children;
}

std::optional<ObjectRef> parseChild(DBusMessage* reply) {
    if (!isReply(reply, "(so)")) return std::nullopt;
    DBusMessageIter iter;
    dbus_message_iter_init(reply, &iter);
    return readRef(&iter);
}

std::optional<bool> parseSetTextContents(DBusMessage* reply) {
    if (!isReply(reply, "b")) return std::nullopt;
    dbus_bool_t done = FALSE;
    dbus_message_get_args(reply, nullptr, DBUS_TYPE_BOOLEAN, &done, DBUS_TYPE_INVALID);
    return done != FALSE;
}

std::optional<std::int64_t> parseProcessId(DBusMessage* reply) {
    if (!isReply(reply, "u")) return std::nullopt;
    dbus_uint32_t pid = 0;
    dbus_message_get_args(reply, nullptr, DBUS_TYPE_UINT32, &pid, DBUS_TYPE_INVALID);
    return static_cast<std::int64_t>(pid);
}

std::optional<std::string> parseApplicationBusAddress(DBusMessage* reply) {
    if (!isReply(reply, "s")) return std::nullopt;
    DBusMessageIter iter;
    dbus_message_iter_init(reply, &iter);
    return basicString(&iter);
}

std::optional<std::string> parseStringProperty(DBusMessage* reply) {
    if (!isReply(reply, "v")) return std::nullopt;
    DBusMessageIter iter, variant;
    dbus_message_iter_init(reply, &iter);
    dbus_message_iter_recurse(&iter, &variant);
    if (dbus_message_iter_get_arg_type(&variant) != DBUS_TYPE_STRING) return std::nullopt;
    return basicString(&variant);
}

std::optional<std::vector<ObjectRef>> parseMatches(DBusMessage* reply) {
    auto matches = parseChildren(reply);
    if (matches)
        std::erase_if(*matches, [](const ObjectRef& ref) {
            return ref.path.empty() || ref.path == "/org/a11y/atspi/null";
        });
    return matches;
}

std::optional<std::vector<CacheItem>> parseCacheItems(DBusMessage* reply) {
    if (!isReply(reply, "a((so)(so)(so)iiassusau)")) return std::nullopt;
    DBusMessageIter iter, items;
    dbus_message_iter_init(reply, &iter);
    dbus_message_iter_recurse(&iter, &items);
    std::vector<CacheItem> result;
    while (dbus_message_iter_get_arg_type(&items) == DBUS_TYPE_STRUCT) {
        DBusMessageIter fields, list;
        dbus_message_iter_recurse(&items, &fields);
        CacheItem item;
        item.ref = readRef(&fields);
        dbus_message_iter_next(&fields);
        dbus_message_iter_next(&fields);  // the application
        item.parent = readRef(&fields);
        dbus_message_iter_next(&fields);
        dbus_int32_t number = -1;
        dbus_message_iter_get_basic(&fields, &number);
        item.index = number;
        dbus_message_iter_next(&fields);
        dbus_message_iter_get_basic(&fields, &number);
        item.childCount = number;
        dbus_message_iter_next(&fields);
        dbus_message_iter_recurse(&fields, &list);
        while (dbus_message_iter_get_arg_type(&list) == DBUS_TYPE_STRING) {
            item.interfaces.push_back(basicString(&list));
            dbus_message_iter_next(&list);
        }
        dbus_message_iter_next(&fields);
        item.name = basicString(&fields);
        dbus_message_iter_next(&fields);
        dbus_uint32_t role = 0;
        dbus_message_iter_get_basic(&fields, &role);
        item.role = static_cast<int>(role);
        dbus_message_iter_next(&fields);
        item.description = basicString(&fields);
        dbus_message_iter_next(&fields);
        dbus_message_iter_recurse(&fields, &list);
        for (int word = 0; word < 2 && dbus_message_iter_get_arg_type(&list) == DBUS_TYPE_UINT32;
             ++word) {
            dbus_uint32_t bits = 0;
            dbus_message_iter_get_basic(&list, &bits);
            item.states |= static_cast<StateBits>(bits) << (32 * word);
            dbus_message_iter_next(&list);
        }
        result.push_back(std::move(item));
        dbus_message_iter_next(&items);
    }
    return result;
}

bool hasInterface(const std::vector<std::string>& interfaces, const char* name) {
    for (const std::string& interface : interfaces)
        if (interface == name) return true;
    return false;
}

}  // namespace quorvel::linux_backend
