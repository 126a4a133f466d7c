// The call transport: AT-SPI method calls sent straight over the
// accessibility bus, or over an application's direct link, many at a time,
// and their replies collected once every call is out, so that the round
// trips overlap.
#pragma once

#include <cstddef>
#include <vector>

#include "platform/linux/atspi/message.h"

namespace quorvel::linux_backend {

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
    // or the interface (or, as Qt says it, does not exist).
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
Message callAndWait(DBusConnection*, Message call, int timeoutMs, bool* timedOut = nullptr,
                    DirectLink* link = nullptr);

}  // namespace quorvel::linux_backend
