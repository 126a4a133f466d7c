// One prefetch of a window's accessibility tree, made for one tree scan.
//
// The scan visits the window breadth-first and reads the same few facts of
// every element. Asking for them one by one costs a bus round trip each; the
// snapshot instead sends a whole level's requests at once and collects the
// replies, level after level, as far as the scan can reach. It lives only
// between the backend's beginTreeScan and endTreeScan.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <unordered_map>

#include "platform/linux/accessibility.h"
#include "platform/linux/element_attributes.h"

namespace quorvel::linux_backend {

class TreeSnapshot {
public:
    // Prefetches the tree under `root` as far as a breadth-first scan of at
    // most `limit` elements reaches.
    TreeSnapshot(const AtspiElement& root, DBusConnection* bus, int timeoutMs, size_t limit);
    ~TreeSnapshot();
    TreeSnapshot(const TreeSnapshot&) = delete;
    TreeSnapshot& operator=(const TreeSnapshot&) = delete;

    // What was prefetched about one element; a fact that was not prefetched
    // is read from `live`. Null when the element is not in the snapshot.
    std::unique_ptr<ElementFacts> facts(const AtspiElement& element, ElementFacts& live) const;

    // The application stopped answering while the tree was prefetched.
    bool stalled() const { return stalled_; }
    size_t size() const { return records_.size(); }

    struct Record {
        std::optional<int> role;
        std::optional<StateBits> states;
        AccessibleProperties properties;
        std::optional<Extents> extents;
        bool hasValue = false;  // implements the Value interface
        bool textFetched = false;
        std::optional<std::string> text;
        bool valueFetched = false;
        std::optional<double> value;
        bool childrenFetched = false;
        std::optional<ElementList> children;
    };

private:
    void indexDescendants(const AtspiElement& root);
    Element materialise(const AtspiElement& parent, const ObjectRef& child, int index) const;

    std::string bus_;
    std::unordered_map<std::string, Record> records_;  // by object path
    // Every descendant of the root that one Collection query returned, by
    // object path: children are turned into element handles from here
    // without another round trip each.
    std::unordered_map<std::string, _AtspiAccessible*> known_;
    bool stalled_ = false;
};

}  // namespace quorvel::linux_backend
