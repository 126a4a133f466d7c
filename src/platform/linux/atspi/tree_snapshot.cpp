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

class SnapshotFacts final : public ElementFacts {
public:
    SnapshotFacts(const TreeSnapshot::Record& record, ElementFacts& live)
        : record_(record), live_(live) {}

    std::optional<int> role() override { return record_.role; }
    std::optional<StateBits> states() override { return record_.states; }
    std::optional<std::string> name() override { return record_.properties.name; }
    std::optional<std::string> description() override { return record_.properties.description; }
    std::optional<Extents> extents() override { return record_.extents; }
    std::optional<std::string> text() override {
        return record_.textFetched ? record_.text : live_.text();
    }
    std::optional<double> currentValue() override {
        return record_.valueFetched ? record_.value : live_.currentValue();
    }
    std::optional<ElementList> children() override {
        return record_.childrenFetched ? record_.children : live_.children();
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
                           int timeoutMs, size_t limit)
    : bus_(root.bus) {
    CacheIndex cache;
    {
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

    // The scan's visit list grows exactly as here: an element's children are
    // added while the list is below the limit, as many as still fit.
    std::vector<ObjectRef> level{root};
    size_t planned = 1;  // estimate from child counts, decides what to fetch
    size_t visited = 1;  // from the children actually listed
    while (!level.empty() && !stalled_) {
        struct Calls {
            std::optional<size_t> properties, role, states, interfaces, extents, text, value;
            std::vector<size_t> children;
            bool wholeList = false;
        };
        std::vector<Calls> calls(level.size());

        // Text and value, once the role and interfaces are known.
        auto askContents = [](CallBatch& batch, Calls& c, Record& record, const ObjectRef& ref) {
            if (!record.role) return;
            if (isTextRole(*record.role)) {
                // Password text is never asked for; the attribute layer
                // refuses it before it would look here.
                if (!isPasswordRole(*record.role)) c.text = batch.add(textCall(ref));
            } else if (record.hasValue) {
                c.value = batch.add(currentValueCall(ref));
            } else {
                record.valueFetched = true;  // no Value interface: nothing to ask
            }
        };

        CallBatch first(bus, timeoutMs, link);
        for (size_t i = 0; i < level.size(); ++i) {
            const ObjectRef& ref = level[i];
            Record& record = records_[ref.path];
            Calls& c = calls[i];
            c.extents = first.add(extentsCall(ref));
            auto item = cache.items.find(ref.path);
            if (item == cache.items.end()) {
                c.properties = first.add(accessiblePropertiesCall(ref));
                c.role = first.add(roleCall(ref));
                c.states = first.add(stateCall(ref));
                continue;
            }
            record.role = item->second.role;
            record.states = item->second.states;
            record.properties.name = item->second.name;
            record.properties.description = item->second.description;
            if (item->second.childCount >= 0)
                record.properties.childCount = item->second.childCount;
            else c.properties = first.add(accessiblePropertiesCall(ref));
            record.hasValue = hasInterface(item->second.interfaces, kValueInterface);
            askContents(first, c, record, ref);
            if (auto listed = cache.children.find(ref.path); listed != cache.children.end()) {
                record.childrenFetched = true;
                ElementList children;
                for (const ObjectRef& child : listed->second) children.push_back(elementFor(child));
                record.children = std::move(children);
            }
        }
        first.wait();

        CallBatch second(bus, timeoutMs, link);
        for (size_t i = 0; i < level.size(); ++i) {
            const ObjectRef& ref = level[i];
            Record& record = records_[ref.path];
            Calls& c = calls[i];
            record.extents = parseExtents(first.reply(*c.extents));
            if (c.properties) {
                AccessibleProperties properties =
                    parseAccessibleProperties(first.reply(*c.properties));
                if (!record.properties.name) record.properties = properties;
                else record.properties.childCount = properties.childCount;
            }
            if (c.role) {
                record.role = parseRole(first.reply(*c.role));
                record.states = parseStates(first.reply(*c.states));
                // Outside the cache the interfaces are not known, and asking
                // would cost a call per element: the value is asked of the
                // roles that carry one.
                record.hasValue = record.role && carriesValue(*record.role);
                askContents(second, c, record, ref);
            } else {
                if (c.text) {
                    record.textFetched = true;
                    record.text = parseText(first.reply(*c.text));
                    c.text.reset();
                }
                if (c.value) {
                    record.valueFetched = true;
                    record.value = parseCurrentValue(first.reply(*c.value));
                    c.value.reset();
                }
            }

            std::optional<int> count = record.properties.childCount;
            if (planned >= limit || !count) continue;
            size_t take = std::min(static_cast<size_t>(std::max(*count, 0)), limit - planned);
            planned += take;
            if (record.childrenFetched) continue;
            if (*count <= 0) {
                record.childrenFetched = true;
                record.children = ElementList{};
            } else if (*count <= kWholeListLimit) {
                c.wholeList = true;
                c.children.push_back(second.add(childrenCall(ref)));
            } else {
                for (size_t k = 0; k < take; ++k)
                    c.children.push_back(second.add(childAtIndexCall(ref, static_cast<int>(k))));
            }
        }
        if (first.timedOut()) {
            stalled_ = true;
            break;
        }
        second.wait();
        if (second.timedOut()) stalled_ = true;

        std::vector<ObjectRef> next;
        for (size_t i = 0; i < level.size(); ++i) {
            const Calls& c = calls[i];
            Record& record = records_[level[i].path];
            if (c.text) {
                record.textFetched = true;
                record.text = parseText(second.reply(*c.text));
            }
            if (c.value) {
                record.valueFetched = true;
                record.value = parseCurrentValue(second.reply(*c.value));
            }
            if (!c.children.empty()) {
                std::vector<ObjectRef> refs;
                bool complete = true;
                if (c.wholeList) {
                    auto listed = parseChildren(second.reply(c.children.front()));
                    if (listed) refs = std::move(*listed);
                    else complete = false;
                } else {
                    for (size_t id : c.children) {
                        auto child = parseChild(second.reply(id));
                        if (!child) {
                            complete = false;
                            break;
                        }
                        refs.push_back(std::move(*child));
                    }
                }
                // An incomplete list is left to a live read.
                if (complete) {
                    ElementList children;
                    for (const ObjectRef& child : refs) children.push_back(elementFor(child));
                    record.childrenFetched = true;
                    record.children = std::move(children);
                }
            }
            if (!record.childrenFetched || !record.children || visited >= limit) continue;
            size_t take = std::min(record.children->size(), limit - visited);
            for (size_t k = 0; k < take; ++k)
                next.push_back(static_cast<const AccessibleElement&>(*(*record.children)[k]).ref());
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
