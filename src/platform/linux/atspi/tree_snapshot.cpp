#include "platform/linux/atspi/tree_snapshot.h"

#include <algorithm>
#include <vector>

#include <atspi/atspi-constants.h>

#include "platform/linux/atspi/accessible_element.h"
#include "platform/linux/atspi/call_batch.h"
#include "platform/linux/atspi/roles.h"

namespace quorvel::linux_backend {
namespace {

// Children lists up to this length are fetched whole (one call); longer ones
// only as far as the scan can take them, one call per child, so a list view
// of a million rows costs no more than the scan visits.
constexpr int kWholeListLimit = 4096;

// Roles whose objects offer the Value interface in the common toolkits.
bool carriesValue(int role) {
    switch (role) {
        case ATSPI_ROLE_SCROLL_BAR:
        case ATSPI_ROLE_SLIDER:
        case ATSPI_ROLE_SPIN_BUTTON:
        case ATSPI_ROLE_PROGRESS_BAR:
        case ATSPI_ROLE_LEVEL_BAR:
        case ATSPI_ROLE_DIAL:
        case ATSPI_ROLE_SPLIT_PANE:
            return true;
        default:
            return false;
    }
}

// Whether an object's children may be too many to list whole: it says it
// manages its descendants (tables, trees, documents).
bool mayBeHuge(StateBits states) { return hasState(states, ATSPI_STATE_MANAGES_DESCENDANTS); }

class SnapshotFacts final : public ElementFacts {
public:
    SnapshotFacts(const TreeSnapshot::Record& record, ElementFacts& live)
        : record_(record), live_(live) {}

    std::optional<int> role() override { return record_.role; }
    std::optional<StateBits> states() override { return record_.states; }
    std::optional<std::string> name() override { return record_.properties.name; }
    std::optional<std::string> description() override { return record_.properties.description; }
    std::optional<Extents> extents() override {
        return record_.extentsFetched ? record_.extents : live_.extents();
    }
    std::optional<std::vector<std::string>> interfaces() override {
        return record_.interfacesFetched ? record_.interfaces : live_.interfaces();
    }
    std::optional<std::string> text() override {
        return record_.textFetched ? record_.text : live_.text();
    }
    std::optional<double> currentValue() override {
        return record_.valueFetched ? record_.value : live_.currentValue();
    }
    std::optional<ElementList> children() override {
        return record_.childrenFetched ? record_.children : live_.children();
    }
    // Only editable web regions ask, and a page holds few of them.
    std::optional<std::vector<EmbeddedObject>> embeddedObjects() override {
        return live_.embeddedObjects();
    }

private:
    const TreeSnapshot::Record& record_;
    ElementFacts& live_;
};

}  // namespace

CacheIndex indexCache(std::vector<CacheItem> items, const std::string& bus) {
    CacheIndex cache;
    for (CacheItem& item : items)
        if (item.ref.bus == bus) cache.items.emplace(item.ref.path, std::move(item));
    std::unordered_map<std::string, std::vector<ObjectRef>> slots;
    std::unordered_map<std::string, bool> broken;
    for (const auto& [path, item] : cache.items) {
        if (item.index < 0 || item.parent.bus != bus) continue;
        auto parent = cache.items.find(item.parent.path);
        if (parent == cache.items.end() || parent->second.childCount < 0) continue;
        std::vector<ObjectRef>& list = slots[item.parent.path];
        list.resize(static_cast<size_t>(parent->second.childCount));
        if (item.index >= parent->second.childCount || !list[item.index].path.empty())
            broken[item.parent.path] = true;
        else
            list[item.index] = item.ref;
    }
    for (auto& [parent, list] : slots) {
        bool complete = !broken.count(parent) &&
                        std::none_of(list.begin(), list.end(),
                                     [](const ObjectRef& ref) { return ref.path.empty(); });
        if (complete) cache.children.emplace(parent, std::move(list));
    }
    for (const auto& [path, item] : cache.items)
        if (item.childCount == 0) cache.children.emplace(path, std::vector<ObjectRef>{});
    return cache;
}

TreeSnapshot::TreeSnapshot(const ObjectRef& root, DBusConnection* bus, DirectLink* link,
                           int timeoutMs, size_t limit, const ScanManner& manner)
    : root_(root), bus_(root.bus) {
    const ChildRule rule = manner.rule;
    CacheIndex cache;
    if (manner.readCache) {
        CallBatch batch(bus, timeoutMs, link);
        batch.add(cacheItemsCall(bus_));
        batch.wait();
        if (batch.timedOut()) {
            stalled_ = true;
            return;
        }
        if (auto items = parseCacheItems(batch.reply(0)))
            cache = indexCache(std::move(*items), bus_);
    }

    // The scan's visit list grows exactly as here: an element's children,
    // as the rule keeps them, are added while the list is below the limit,
    // as many as still fit.
    std::vector<ObjectRef> level{root};
    size_t visited = 1;
    // Where the application itself can leave out the children that are not
    // SHOWING (it offers the Collection interface, which the root's
    // interfaces tell), one call lists what the rule keeps; elsewhere the
    // list and then every child's states are read.
    bool applicationFilters = false;
    while (!level.empty() && !stalled_) {
        struct Calls {
            std::optional<size_t> name, description, childCount, role, states, extents,
                interfaces, text, value, properties;
            std::vector<size_t> children;
            bool wholeList = false;
            // The children as the application lists them, and whether that
            // is the whole list (a very long one is read only as far as the
            // scan can take it).
            std::optional<std::vector<ObjectRef>> listed;
            bool complete = true;
            bool filtered = false;  // listed as the rule keeps them
        };
        std::vector<Calls> calls(level.size());

        // Text and value, once the role and states are known. Where the
        // role's meaning depends on the Text interface and the interfaces
        // are not known, they are asked along with the text.
        auto askContents = [](CallBatch& batch, Calls& c, Record& record, const ObjectRef& ref) {
            if (!record.role || isPasswordRole(*record.role)) {
                // Password text is never asked for; the attribute layer
                // refuses it before it would look here.
                record.valueFetched = true;
                return;
            }
            int role = *record.role;
            StateBits states = record.states.value_or(0);
            bool hasText = true;
            if (roleNeedsInterfaces(role)) {
                if (!record.interfacesFetched) c.interfaces = batch.add(interfacesCall(ref));
                else hasText = record.interfaces && hasInterface(*record.interfaces, kTextInterface);
            }
            if (valueIsText(role, states, hasText)) {
                c.text = batch.add(textCall(ref));
            } else if (record.hasValue) {
                c.value = batch.add(currentValueCall(ref));
            } else {
                record.valueFetched = true;  // no Value interface: nothing to ask
            }
        };
        auto takeContents = [](const CallBatch& batch, Calls& c, Record& record) {
            if (c.interfaces) {
                record.interfacesFetched = true;
                record.interfaces = parseInterfaces(batch.reply(*c.interfaces));
            }
            if (c.text) {
                record.textFetched = true;
                record.text = parseText(batch.reply(*c.text));
            }
            if (c.value) {
                record.valueFetched = true;
                record.value = parseCurrentValue(batch.reply(*c.value));
            }
            c.interfaces.reset();
            c.text.reset();
            c.value.reset();
        };

        CallBatch first(bus, timeoutMs, link);
        std::optional<size_t> rootInterfaces;
        for (size_t i = 0; i < level.size(); ++i) {
            const ObjectRef& ref = level[i];
            Record& record = records_[ref.path];
            Calls& c = calls[i];
            if (!record.extentsFetched) c.extents = first.add(extentsCall(ref));
            auto item = cache.items.find(ref.path);
            if (item == cache.items.end()) {
                if (rule == ChildRule::Showing && visited == 1)
                    rootInterfaces = first.add(interfacesCall(ref));
                // Name, description and count in one call where the toolkit
                // can take it; one call each otherwise. Only a list that may
                // be huge needs the count; any other is listed whole.
                if (manner.allProperties) {
                    c.properties = first.add(accessiblePropertiesCall(ref));
                } else {
                    c.name = first.add(nameCall(ref));
                    c.description = first.add(descriptionCall(ref));
                    if (!record.states || mayBeHuge(*record.states))
                        c.childCount = first.add(childCountCall(ref));
                }
                c.role = first.add(roleCall(ref));
                if (!record.states) c.states = first.add(stateCall(ref));
                continue;
            }
            record.role = item->second.role;
            record.states = item->second.states;
            record.properties.name = item->second.name;
            record.properties.description = item->second.description;
            if (item->second.childCount >= 0)
                record.properties.childCount = item->second.childCount;
            else c.childCount = first.add(childCountCall(ref));
            record.interfacesFetched = true;
            record.interfaces = item->second.interfaces;
            record.hasValue = hasInterface(item->second.interfaces, kValueInterface);
            askContents(first, c, record, ref);
            if (auto known = cache.children.find(ref.path); known != cache.children.end())
                c.listed = known->second;
        }
        first.wait();
        if (first.timedOut()) {
            stalled_ = true;
            break;
        }
        if (visited == 1 && rule == ChildRule::Showing) {
            Record& record = records_[root_.path];
            if (rootInterfaces) {
                record.interfacesFetched = true;
                record.interfaces = parseInterfaces(first.reply(*rootInterfaces));
            }
            applicationFilters =
                record.interfaces && hasInterface(*record.interfaces, kCollectionInterface);
        }

        CallBatch second(bus, timeoutMs, link);
        auto listWhole = [&](Calls& c, const ObjectRef& ref) {
            c.wholeList = true;
            c.filtered = applicationFilters;
            c.children.push_back(second.add(c.filtered ? showingChildrenCall(ref) : childrenCall(ref)));
        };
        for (size_t i = 0; i < level.size(); ++i) {
            const ObjectRef& ref = level[i];
            Record& record = records_[ref.path];
            Calls& c = calls[i];
            if (c.extents) {
                record.extentsFetched = true;
                record.extents = parseExtents(first.reply(*c.extents));
            }
            if (c.properties) record.properties = parseAccessibleProperties(first.reply(*c.properties));
            if (c.name) record.properties.name = parseStringProperty(first.reply(*c.name));
            if (c.description)
                record.properties.description = parseStringProperty(first.reply(*c.description));
            if (c.childCount)
                record.properties.childCount = parseIntProperty(first.reply(*c.childCount));
            if (c.role) {
                record.role = parseRole(first.reply(*c.role));
                if (c.states) record.states = parseStates(first.reply(*c.states));
                // Outside the cache the interfaces are not known, and asking
                // would cost a call per element: the value is asked of the
                // roles that carry one.
                record.hasValue = record.role && carriesValue(*record.role);
                askContents(second, c, record, ref);
            } else {
                takeContents(first, c, record);
            }

            // The children list, while the scan still takes children.
            if (c.listed || visited >= limit) continue;
            std::optional<int> count = record.properties.childCount;
            if (!count) {
                // Not counted: a list that cannot be huge is listed whole;
                // any other is left to a live read.
                if (!record.states || mayBeHuge(*record.states)) continue;
                listWhole(c, ref);
                continue;
            }
            if (*count <= 0) {
                c.listed.emplace();
            } else if (*count <= kWholeListLimit) {
                listWhole(c, ref);
            } else {
                size_t take = std::min(static_cast<size_t>(*count), limit - visited);
                for (size_t k = 0; k < take; ++k)
                    c.children.push_back(second.add(childAtIndexCall(ref, static_cast<int>(k))));
                c.complete = take == static_cast<size_t>(*count);
            }
        }
        second.wait();
        if (second.timedOut()) stalled_ = true;

        // What the rule needs to know of every child listed: from the cache,
        // from an earlier look, or asked of all of them at once.
        struct Look {
            std::optional<size_t> statesCall, extentsCall;
            std::optional<StateBits> states;
            bool extentsFetched = false;
            std::optional<Extents> extents;
        };
        std::unordered_map<std::string, Look> looks;
        CallBatch third(bus, timeoutMs, link);
        for (size_t i = 0; i < level.size(); ++i) {
            Calls& c = calls[i];
            takeContents(second, c, records_[level[i].path]);
            if (!c.children.empty()) {
                std::vector<ObjectRef> refs;
                if (c.wholeList) {
                    DBusMessage* reply = second.reply(c.children.front());
                    if (auto listed = c.filtered ? parseMatches(reply) : parseChildren(reply))
                        c.listed = std::move(*listed);
                } else {
                    for (size_t id : c.children) {
                        auto child = parseChild(second.reply(id));
                        if (!child) break;
                        refs.push_back(std::move(*child));
                    }
                    // An incomplete list is left to a live read.
                    if (refs.size() == c.children.size()) c.listed = std::move(refs);
                }
            }
            if (!c.listed || c.filtered || rule == ChildRule::All || visited >= limit || stalled_)
                continue;
            for (const ObjectRef& child : *c.listed) {
                // A child in another application (an embedded one) is kept,
                // as a live read keeps it.
                if (child.bus != bus_ || looks.count(child.path)) continue;
                Look& look = looks[child.path];
                auto item = cache.items.find(child.path);
                auto earlier = records_.find(child.path);
                if (item != cache.items.end()) look.states = item->second.states;
                else if (earlier != records_.end() && earlier->second.states)
                    look.states = earlier->second.states;
                else look.statesCall = third.add(stateCall(child));
                if (!needsExtents(rule)) continue;
                if (earlier != records_.end() && earlier->second.extentsFetched) {
                    look.extentsFetched = true;
                    look.extents = earlier->second.extents;
                } else {
                    look.extentsCall = third.add(extentsCall(child));
                }
            }
        }
        third.wait();
        if (third.timedOut()) stalled_ = true;
        for (auto& [path, look] : looks) {
            if (look.statesCall) look.states = parseStates(third.reply(*look.statesCall));
            if (look.extentsCall) {
                look.extentsFetched = true;
                look.extents = parseExtents(third.reply(*look.extentsCall));
            }
        }

        std::vector<ObjectRef> next;
        for (size_t i = 0; i < level.size(); ++i) {
            const Calls& c = calls[i];
            Record& record = records_[level[i].path];
            if (!focused_ && record.states && hasState(*record.states, ATSPI_STATE_FOCUSED) &&
                hasState(*record.states, ATSPI_STATE_FOCUSABLE))
                focused_ = level[i];
            if (!c.listed) continue;
            ElementList children;
            std::vector<ObjectRef> kept;
            for (const ObjectRef& child : *c.listed) {
                auto look = looks.find(child.path);
                if (child.bus == bus_ && look != looks.end() &&
                    !keepsChild(rule, look->second.states, look->second.extents))
                    continue;
                kept.push_back(child);
            }
            size_t room = visited < limit ? limit - visited : 0;
            // A list read only in part serves only if it fills the room.
            if (!c.complete && kept.size() < room) continue;
            for (const ObjectRef& child : kept) children.push_back(elementFor(child));
            record.childrenFetched = true;
            record.children = std::move(children);
            size_t take = std::min(kept.size(), room);
            for (size_t k = 0; k < take; ++k) {
                next.push_back(kept[k]);
                auto look = looks.find(kept[k].path);
                if (look == looks.end()) continue;
                Record& child = records_[kept[k].path];
                if (!child.states) child.states = look->second.states;
                if (look->second.extentsFetched && !child.extentsFetched) {
                    child.extentsFetched = true;
                    child.extents = look->second.extents;
                }
            }
            visited += take;
        }
        level = std::move(next);
    }
}

std::unique_ptr<ElementFacts> TreeSnapshot::facts(const ObjectRef& ref,
                                                  ElementFacts& live) const {
    if (ref.bus != bus_) return nullptr;
    auto it = records_.find(ref.path);
    if (it == records_.end()) return nullptr;
    return std::make_unique<SnapshotFacts>(it->second, live);
}

}  // namespace quorvel::linux_backend
