#include "platform/linux/atspi/call_batch.h"

#include <cstring>

#include "platform/linux/atspi/direct_link.h"

namespace quorvel::linux_backend {

CallBatch::CallBatch(DBusConnection* connection, int timeoutMs, DirectLink* link)
    : connection_(connection), timeoutMs_(timeoutMs), link_(link) {}

CallBatch::~CallBatch() {
    for (DBusPendingCall* pending : pending_) {
        if (!pending) continue;
        dbus_pending_call_cancel(pending);
        dbus_pending_call_unref(pending);
    }
    for (DBusMessage* reply : replies_)
        if (reply) dbus_message_unref(reply);
}

size_t CallBatch::add(Message call) {
    if (link_) {
        unsent_.push_back(std::move(call));
        pending_.push_back(nullptr);
        replies_.push_back(nullptr);
        unsupported_.push_back(false);
        return pending_.size() - 1;
    }
    DBusPendingCall* pending = nullptr;
    if (call && connection_ &&
        !dbus_connection_send_with_reply(connection_, call.get(), &pending, timeoutMs_))
        pending = nullptr;
    pending_.push_back(pending);
    replies_.push_back(nullptr);
    unsupported_.push_back(false);
    return pending_.size() - 1;
}

void CallBatch::wait() {
    if (link_) {
        std::vector<Message> replies = link_->exchange(std::move(unsent_), timeoutMs_, timedOut_);
        unsent_.clear();
        for (size_t i = 0; i < replies.size() && i < replies_.size(); ++i)
            replies_[i] = replies[i].release();
        return;
    }
    for (size_t i = 0; i < pending_.size(); ++i) {
        DBusPendingCall* pending = pending_[i];
        if (!pending) continue;
        // Every call went out at about the same moment, so once one has
        // timed out, so has every other still unanswered: libdbus would
        // otherwise wait the whole time-out again for each of them.
        if (timedOut_ && !dbus_pending_call_get_completed(pending)) {
            dbus_pending_call_cancel(pending);
            dbus_pending_call_unref(pending);
            pending_[i] = nullptr;
            continue;
        }
        dbus_pending_call_block(pending);
        DBusMessage* reply = dbus_pending_call_steal_reply(pending);
        dbus_pending_call_unref(pending);
        pending_[i] = nullptr;
        if (reply && dbus_message_get_type(reply) == DBUS_MESSAGE_TYPE_ERROR) {
            const char* name = dbus_message_get_error_name(reply);
            if (name && (!std::strcmp(name, DBUS_ERROR_NO_REPLY) ||
                         !std::strcmp(name, DBUS_ERROR_TIMEOUT) ||
                         !std::strcmp(name, DBUS_ERROR_TIMED_OUT)))
                timedOut_ = true;
            // Qt answers an interface it lacks (Collection) with "no such
            // object".
            unsupported_[i] = name && (!std::strcmp(name, DBUS_ERROR_UNKNOWN_METHOD) ||
                                       !std::strcmp(name, DBUS_ERROR_UNKNOWN_INTERFACE) ||
                                       !std::strcmp(name, DBUS_ERROR_UNKNOWN_OBJECT));
            dbus_message_unref(reply);
            reply = nullptr;
        }
        replies_[i] = reply;
    }
}

DBusMessage* CallBatch::reply(size_t index) const {
    return index < replies_.size() ? replies_[index] : nullptr;
}

Message CallBatch::take(size_t index) {
    if (index >= replies_.size()) return nullptr;
    Message reply(replies_[index]);
    replies_[index] = nullptr;
    return reply;
}

bool CallBatch::unsupported(size_t index) const {
    return index < unsupported_.size() && unsupported_[index];
}

Message callAndWait(DBusConnection* connection, Message call, int timeoutMs, bool* timedOut,
                    DirectLink* link) {
    CallBatch batch(connection, timeoutMs, link);
    size_t index = batch.add(std::move(call));
    batch.wait();
    if (timedOut) *timedOut = batch.timedOut();
    DBusMessage* reply = batch.reply(index);
    if (reply) dbus_message_ref(reply);
    return Message(reply);
}

}  // namespace quorvel::linux_backend
