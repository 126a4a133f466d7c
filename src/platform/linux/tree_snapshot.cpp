#include "platform/linux/tree_snapshot.h"

#include <atspi/atspi.h>

#include <algorithm>
#include <vector>

#include "platform/linux/roles.h"

namespace quorvel::linux_backend {
namespace {

// Children lists up to this length are fetched whole (one call); longer ones
// only as far as the scan can take them, one call per child.
constexpr int kWholeListLimit = 4096;

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

constexpr char kValueInterface[] = "org.a11y.atspi.Value";

// Asking a toolkit for a property of an interface the object lacks is not
// just refused: GTK logs a critical warning for every such call.
bool hasInterface(DBusMessage* reply, const char* name) {
    std::optional<std::vector<std::string>> interfaces = parseInterfaces(reply);
    return interfaces && std::find(interfaces->begin(), interfaces->end(), name) != interfaces->end();
}

const AtspiElement& atspi(const Element& element) {
    return static_cast<const AtspiElement&>(*element);
}

}  // namespace

TreeSnapshot::TreeSnapshot(const AtspiElement& root, DBusConnection* bus, int timeoutMs,
                           size_t limit)
    : bus_(root.ref().bus) {
    indexDescendants(root);

    // The scan's visit list grows exactly as here: an element's children are
    // added while the list is below the limit, as many as still fit.
    std::vector<Element> level{wrap(root.accessible(), root.application())};
    size_t planned = 1;  // estimate from child counts, decides what to fetch
    size_t visited = 1;  // from the children actually listed
    while (!level.empty() && !stalled_) {
        struct Calls {
            std::string path;
            size_t properties, role, states, extents, interfaces;
            std::optional<size_t> text, value;
            std::vector<size_t> children;
            bool wholeList = false;
        };
        std::vector<Calls> calls(level.size());

        CallBatch first(bus, timeoutMs);
        for (size_t i = 0; i < level.size(); ++i) {
            ObjectRef ref = atspi(level[i]).ref();
            calls[i].path = ref.path;
            calls[i].properties = first.add(accessiblePropertiesCall(ref));
            calls[i].role = first.add(roleCall(ref));
            calls[i].states = first.add(stateCall(ref));
            calls[i].extents = first.add(extentsCall(ref));
            calls[i].interfaces = first.add(interfacesCall(ref));
        }
        first.wait();
        for (const Calls& c : calls) {
            Record& record = records_[c.path];
            record.properties = parseAccessibleProperties(first.reply(c.properties));
            record.role = parseRole(first.reply(c.role));
            record.states = parseStates(first.reply(c.states));
            record.extents = parseExtents(first.reply(c.extents));
            record.hasValue = hasInterface(first.reply(c.interfaces), kValueInterface);
        }
        if (first.timedOut()) {
            stalled_ = true;
            break;
        }

        CallBatch second(bus, timeoutMs);
        for (size_t i = 0; i < level.size(); ++i) {
            Calls& c = calls[i];
            Record& record = records_[c.path];
            ObjectRef ref = atspi(level[i]).ref();
            if (record.role && isTextRole(*record.role)) {
                // Password text is never asked for; the attribute layer
                // refuses it before it would look here.
                if (!isPasswordRole(*record.role)) c.text = second.add(textCall(ref));
            } else if (record.hasValue) {
                c.value = second.add(currentValueCall(ref));
            } else {
                // Nothing to ask: the element has no Value interface.
                record.valueFetched = true;
            }
            std::optional<int> count = record.properties.childCount;
            if (planned >= limit || !count) continue;
            if (*count <= 0) {
                record.childrenFetched = true;
                record.children = ElementList{};
                continue;
            }
            size_t take = std::min(static_cast<size_t>(*count), limit - planned);
            planned += take;
            if (*count <= kWholeListLimit) {
                c.wholeList = true;
                c.children.push_back(second.add(childrenCall(ref)));
            } else {
                for (size_t k = 0; k < take; ++k)
                    c.children.push_back(second.add(childAtIndexCall(ref, static_cast<int>(k))));
            }
        }
        second.wait();
        if (second.timedOut()) stalled_ = true;

        std::vector<Element> next;
        for (size_t i = 0; i < level.size(); ++i) {
            const Calls& c = calls[i];
            Record& record = records_[c.path];
            if (c.text) {
                record.textFetched = true;
                record.text = parseText(second.reply(*c.text));
            }
            if (c.value) {
                record.valueFetched = true;
                record.value = parseCurrentValue(second.reply(*c.value));
            }
            if (c.children.empty()) continue;
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
            if (!complete) continue;  // a later read asks the application itself
            ElementList children;
            children.reserve(refs.size());
            const AtspiElement& parent = atspi(level[i]);
            for (size_t k = 0; k < refs.size(); ++k)
                if (Element child = materialise(parent, refs[k], static_cast<int>(k)))
                    children.push_back(std::move(child));
            if (visited < limit) {
                size_t take = std::min(children.size(), limit - visited);
                next.insert(next.end(), children.begin(), children.begin() + take);
                visited += take;
            }
            record.childrenFetched = true;
            record.children = std::move(children);
        }
        level = std::move(next);
    }
}

TreeSnapshot::~TreeSnapshot() {
    for (auto& [path, accessible] : known_) g_object_unref(accessible);
}

void TreeSnapshot::indexDescendants(const AtspiElement& root) {
    AtspiCollection* collection = atspi_accessible_get_collection_iface(root.accessible());
    if (!collection) return;
    AtspiStateSet* states = atspi_state_set_new(nullptr);
    AtspiMatchRule* everything = atspi_match_rule_new(
        states, ATSPI_Collection_MATCH_ALL, nullptr, ATSPI_Collection_MATCH_ALL, nullptr,
        ATSPI_Collection_MATCH_ALL, nullptr, ATSPI_Collection_MATCH_ALL, FALSE);
    GError* error = nullptr;
    GArray* found = atspi_collection_get_matches(
        collection, everything, ATSPI_Collection_SORT_ORDER_CANONICAL, 0, TRUE, &error);
    if (found) {
        for (guint i = 0; i < found->len; ++i) {
            AtspiAccessible* accessible = g_array_index(found, AtspiAccessible*, i);
            if (!accessible) continue;
            auto [it, inserted] = known_.emplace(accessible->parent.path, accessible);
            if (!inserted) g_object_unref(accessible);
        }
        g_array_free(found, TRUE);
    }
    g_clear_error(&error);
    g_object_unref(everything);
    g_object_unref(states);
    g_object_unref(collection);
}

Element TreeSnapshot::materialise(const AtspiElement& parent, const ObjectRef& child,
                                  int index) const {
    if (child.bus == bus_)
        if (auto it = known_.find(child.path); it != known_.end()) return wrap(it->second);
    GError* error = nullptr;
    AtspiAccessible* accessible =
        atspi_accessible_get_child_at_index(parent.accessible(), index, &error);
    g_clear_error(&error);
    if (!accessible) return nullptr;
    return std::make_shared<AtspiElement>(accessible, false);
}

std::unique_ptr<ElementFacts> TreeSnapshot::facts(const AtspiElement& element,
                                                  ElementFacts& live) const {
    ObjectRef ref = element.ref();
    if (ref.bus != bus_) return nullptr;
    auto it = records_.find(ref.path);
    if (it == records_.end()) return nullptr;
    return std::make_unique<SnapshotFacts>(it->second, live);
}

}  // namespace quorvel::linux_backend
