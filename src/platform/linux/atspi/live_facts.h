// Facts about one element read from its application at the moment they are
// asked for. An instance lives for one attribute read, so a fact is never
// reused beyond the read that fetched it.
#pragma once

#include "platform/linux/atspi/element_facts.h"
#include "platform/linux/atspi/message.h"
#include "platform/linux/atspi/methods.h"

namespace quorvel::linux_backend {

class LiveFacts final : public ElementFacts {
public:
    // `timedOut`, when given, is set once a call goes unanswered.
    LiveFacts(ObjectRef ref, DBusConnection* bus, int timeoutMs, bool* timedOut = nullptr);

    std::optional<int> role() override;
    std::optional<StateBits> states() override;
    std::optional<std::string> name() override;
    std::optional<std::string> description() override;
    std::optional<Extents> extents() override;
    std::optional<std::string> text() override;
    std::optional<double> currentValue() override;
    std::optional<ElementList> children() override;

private:
    Message call(Message request);
    const AccessibleProperties& properties();

    ObjectRef ref_;
    DBusConnection* bus_;
    int timeoutMs_;
    bool* timedOut_;
    std::optional<std::optional<int>> role_;
    std::optional<AccessibleProperties> properties_;
};

}  // namespace quorvel::linux_backend
