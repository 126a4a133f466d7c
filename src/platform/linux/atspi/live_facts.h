// Facts about one element read from its application at the moment they are
// asked for. An instance lives for one attribute read, so a fact is never
// reused beyond the read that fetched it.
#pragma once

#include "platform/linux/atspi/child_filter.h"
#include "platform/linux/atspi/element_facts.h"
#include "platform/linux/atspi/message.h"
#include "platform/linux/atspi/methods.h"

namespace quorvel::linux_backend {

class DirectLink;

// `candidate` when its text may be read outside an attribute read (typing
// reads the focused editor's text to see its keys arrive): it offers the
// Text interface, and its role, asked in the same round trip, has been read
// and is not password text. An element whose role could not be read may be
// a password field, so it gets nothing. Over `link` when one is given.
std::optional<ObjectRef> readableText(const ObjectRef& candidate, DBusConnection* bus,
                                      int timeoutMs, DirectLink* link = nullptr);

class LiveFacts final : public ElementFacts {
public:
    // `timedOut`, when given, is set once a call goes unanswered. `rule`
    // chooses the children that make "AXChildren". Over `link` when one is
    // given.
    LiveFacts(ObjectRef ref, DBusConnection* bus, int timeoutMs, bool* timedOut = nullptr,
              ChildRule rule = ChildRule::Showing, DirectLink* link = nullptr);

    std::optional<int> role() override;
    std::optional<StateBits> states() override;
    std::optional<std::string> name() override;
    std::optional<std::string> description() override;
    std::optional<Extents> extents() override;
    std::optional<std::vector<std::string>> interfaces() override;
    std::optional<std::string> text() override;
    std::optional<double> currentValue() override;
    std::optional<ElementList> children() override;
    std::optional<std::vector<EmbeddedObject>> embeddedObjects() override;

private:
    Message call(Message request);

    ObjectRef ref_;
    DBusConnection* bus_;
    int timeoutMs_;
    bool* timedOut_;
    ChildRule rule_;
    DirectLink* link_;
    std::optional<std::optional<int>> role_;
    std::optional<std::optional<std::vector<std::string>>> interfaces_;
    std::optional<std::optional<std::string>> name_;
};

}  // namespace quorvel::linux_backend
