// A private connection to one application's own D-Bus socket, for sending
// many requests at once.
//
// libdbus writes every message with a system call of its own and keeps a
// pending-call object and a timer for each, which makes its per-message cost
// about that of the application answering. The tree scan sends thousands of
// small requests at a time, so over the application's own socket (a
// peer-to-peer connection: no bus daemon, no routing, nobody else's
// messages) they are marshalled by libdbus into one buffer, written in large
// pieces while the replies are read back, and matched to their requests by
// serial number.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/linux/atspi/message.h"

namespace quorvel::linux_backend {

class DirectLink {
public:
    // Connects to `address` ("unix:path=..." or "unix:abstract=...") and
    // authenticates as this process's user. Null when that fails.
    static std::unique_ptr<DirectLink> open(const std::string& address, int timeoutMs);
    // A link over `fd`, a connected socket past authentication, which the
    // link then owns.
    static std::unique_ptr<DirectLink> adopt(int fd) {
        return std::unique_ptr<DirectLink>(new DirectLink(fd));
    }
    ~DirectLink();
    DirectLink(const DirectLink&) = delete;
    DirectLink& operator=(const DirectLink&) = delete;

    // Sends every call and waits for every reply, at most `timeoutMs` after
    // the last progress. The replies come back in the order of the calls;
    // a failed call, an error reply or a call left unanswered gives null.
    // `timedOut` is set when the application stopped answering; the link is
    // unusable afterwards.
    std::vector<Message> exchange(std::vector<Message> calls, int timeoutMs, bool& timedOut);
    bool broken() const { return fd_ < 0; }

private:
    explicit DirectLink(int fd) : fd_(fd) {}
    void close();

    int fd_;
    std::uint32_t serial_ = 0;
    std::string unread_;  // bytes received that do not make a whole message yet
};

}  // namespace quorvel::linux_backend
