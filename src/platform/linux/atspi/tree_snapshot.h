// One prefetch of a window's accessibility tree, made for one tree scan.
//
// The scan visits the window breadth-first and reads the same few facts of
// every element; asked one by one, each costs a round trip to the
// application. Unless its cache costs more than it saves, the snapshot asks
// the application once for its own account of every object (the Cache
// interface: role, name, description, states, interfaces, place among its
// parent's children), then sends the remaining calls (extents, text, values,
// and everything about objects the cache does not cover) a whole
// breadth-first level at a time, as far as the scan can reach. Each children
// list is filtered by the application's child rule (child_filter.h), with
// the children's states from the cache, by the application itself, or with
// their states asked all at once, so the snapshot visits exactly what the
// scan will. It lives only between the backend's beginTreeScan and
// endTreeScan.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/linux/atspi/child_filter.h"
#include "platform/linux/atspi/element_facts.h"
#include "platform/linux/atspi/message.h"
#include "platform/linux/atspi/methods.h"

namespace quorvel::linux_backend {

class DirectLink;

// The application's cache, indexed: each object of application `bus` by
// path, and the children lists the cache fully accounts for (every position
// filled, none twice); any other list is asked of the application.
struct CacheIndex {
    std::unordered_map<std::string, CacheItem> items;
    std::unordered_map<std::string, std::vector<ObjectRef>> children;
};
CacheIndex indexCache(std::vector<CacheItem> items, const std::string& bus);

// How an application's tree is best asked for.
struct ScanManner {
    ChildRule rule = ChildRule::Showing;  // which children the scan keeps
    bool allProperties = false;  // answers for all of an object's properties at once
    bool readCache = true;       // its cache costs less than it saves
};

class TreeSnapshot {
public:
    // Prefetches the tree under `root` as far as a breadth-first scan of at
    // most `limit` elements reaches, over `link` when there is one, else over
    // the bus.
    TreeSnapshot(const ObjectRef& root, DBusConnection* bus, DirectLink* link, int timeoutMs,
                 size_t limit, const ScanManner& manner);

    // What was prefetched about one element; a fact that was not prefetched
    // is read from `live`. Null when the element is not in the snapshot.
    std::unique_ptr<ElementFacts> facts(const ObjectRef& element, ElementFacts& live) const;

    // The application stopped answering while the tree was prefetched.
    bool stalled() const { return stalled_; }

    const ObjectRef& root() const { return root_; }
    // The first element, breadth-first, that had the keyboard focus
    // (FOCUSED and FOCUSABLE) when the tree was prefetched.
    const std::optional<ObjectRef>& focused() const { return focused_; }

    struct Record {
        std::optional<int> role;
        std::optional<StateBits> states;
        AccessibleProperties properties;
        bool extentsFetched = false;
        std::optional<Extents> extents;
        bool interfacesFetched = false;
        std::optional<std::vector<std::string>> interfaces;
        bool hasValue = false;  // implements the Value interface
        bool textFetched = false;
        std::optional<std::string> text;
        bool valueFetched = false;
        std::optional<double> value;
        bool childrenFetched = false;
        std::optional<ElementList> children;
    };

private:
    ObjectRef root_;
    std::string bus_;
    std::unordered_map<std::string, Record> records_;  // by object path
    bool stalled_ = false;
    std::optional<ObjectRef> focused_;
};

}  // namespace quorvel::linux_backend
