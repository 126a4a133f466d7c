#include "platform/linux/atspi/direct_link.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>

#include "unicode/unicode.h"

namespace quorvel::linux_backend {
namespace {

constexpr size_t kReadChunk = 65536;

// D-Bus addresses escape bytes as %xx.
std::string unescape(const std::string& value) {
    std::string out;
    for (size_t i = 0; i < value.size(); ++i) {
        if (value[i] == '%' && i + 2 < value.size()) {
            out += static_cast<char>(std::stoi(value.substr(i + 1, 2), nullptr, 16));
            i += 2;
        } else {
            out += value[i];
        }
    }
    return out;
}

// Waits until `fd` is ready for `events`, at most `timeoutMs`.
bool ready(int fd, short events, int timeoutMs) {
    pollfd descriptor{fd, events, 0};
    int result;
    do {
        result = poll(&descriptor, 1, timeoutMs);
    } while (result < 0 && errno == EINTR);
    return result > 0 && (descriptor.revents & (events | POLLHUP | POLLERR));
}

bool writeAll(int fd, const std::string& text, int timeoutMs) {
    size_t done = 0;
    while (done < text.size()) {
        ssize_t n = send(fd, text.data() + done, text.size() - done, MSG_NOSIGNAL);
        if (n > 0) {
            done += static_cast<size_t>(n);
        } else if (n < 0 && errno == EINTR) {
            continue;
        } else if (n < 0 && errno == EAGAIN) {
            if (!ready(fd, POLLOUT, timeoutMs)) return false;
        } else {
            return false;
        }
    }
    return true;
}

// One line of the authentication exchange, without its CR LF; whatever
// arrived after it is left in `rest`.
bool readLine(int fd, std::string& line, std::string& rest, int timeoutMs) {
    std::string received;
    size_t end;
    while ((end = received.find("\r\n")) == std::string::npos) {
        if (received.size() > 4096 || !ready(fd, POLLIN, timeoutMs)) return false;
        char buffer[512];
        ssize_t n = recv(fd, buffer, sizeof buffer, 0);
        if (n == 0 || (n < 0 && errno != EINTR && errno != EAGAIN)) return false;
        if (n > 0) received.append(buffer, static_cast<size_t>(n));
    }
    line = received.substr(0, end);
    rest = received.substr(end + 2);
    return true;
}

// The socket path of a D-Bus address ('\0' first for an abstract socket);
// empty when the address names no Unix socket.
std::string socketPath(const std::string& address) {
    // The first transport only; its key=value pairs are comma-separated.
    std::string first = address.substr(0, address.find(';'));
    if (first.rfind("unix:", 0) != 0) return {};
    std::string pairs = first.substr(5);
    size_t start = 0;
    while (start <= pairs.size()) {
        size_t end = pairs.find(',', start);
        std::string pair = pairs.substr(start, end == std::string::npos ? end : end - start);
        if (pair.rfind("path=", 0) == 0) return unescape(pair.substr(5));
        if (pair.rfind("abstract=", 0) == 0) {
            std::string path(1, '\0');
            return path.append(unescape(pair.substr(9)));
        }
        if (end == std::string::npos) break;
        start = end + 1;
    }
    return {};
}

}  // namespace

std::unique_ptr<DirectLink> DirectLink::open(const std::string& address, int timeoutMs) {
    std::string path = socketPath(address);
    sockaddr_un socketAddress{};
    if (path.empty() || path.size() >= sizeof socketAddress.sun_path) return nullptr;
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) return nullptr;
    std::unique_ptr<DirectLink> link = adopt(fd);
    socketAddress.sun_family = AF_UNIX;
    std::memcpy(socketAddress.sun_path, path.data(), path.size());
    socklen_t length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size() +
                                              (path[0] == '\0' ? 0 : 1));
    if (connect(fd, reinterpret_cast<sockaddr*>(&socketAddress), length) < 0 &&
        !(errno == EINPROGRESS && ready(fd, POLLOUT, timeoutMs)))
        return nullptr;

    // SASL EXTERNAL: the server checks our credentials on the socket; the
    // user id is sent as hex-encoded decimal digits.
    std::string uid = std::to_string(geteuid()), line;
    std::string hexUid = hex({reinterpret_cast<const std::uint8_t*>(uid.data()), uid.size()});
    if (!writeAll(fd, std::string(1, '\0') + "AUTH EXTERNAL " + hexUid + "\r\n", timeoutMs) ||
        !readLine(fd, line, link->unread_, timeoutMs) || line.rfind("OK ", 0) != 0 ||
        !writeAll(fd, "BEGIN\r\n", timeoutMs))
        return nullptr;
    return link;
}

DirectLink::~DirectLink() { close(); }

void DirectLink::close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
}

std::vector<Message> DirectLink::exchange(std::vector<Message> calls, int timeoutMs,
                                          bool& timedOut) {
    std::vector<Message> replies(calls.size());
    if (fd_ < 0) return replies;

    // Everything to send, marshalled into one buffer; serials number the calls.
    std::string out;
    std::vector<std::uint32_t> serialOf(calls.size(), 0);
    std::uint32_t first = serial_ + 1;
    size_t expected = 0;
    for (size_t i = 0; i < calls.size(); ++i) {
        if (!calls[i]) continue;
        dbus_message_set_serial(calls[i].get(), ++serial_);
        char* bytes = nullptr;
        int length = 0;
        if (!dbus_message_marshal(calls[i].get(), &bytes, &length)) continue;
        out.append(bytes, static_cast<size_t>(length));
        dbus_free(bytes);
        serialOf[i] = serial_;
        ++expected;
    }
    std::vector<size_t> indexOf(serial_ - first + 1, SIZE_MAX);
    for (size_t i = 0; i < calls.size(); ++i)
        if (serialOf[i]) indexOf[serialOf[i] - first] = i;

    size_t written = 0, answered = 0;
    char buffer[kReadChunk];
    while (answered < expected) {
        // Write while reading: the application answers as it reads, and it
        // stops reading once its replies fill the socket.
        pollfd descriptor{fd_, static_cast<short>(POLLIN | (written < out.size() ? POLLOUT : 0)),
                          0};
        int result = poll(&descriptor, 1, timeoutMs);
        if (result < 0 && errno == EINTR) continue;
        if (result == 0) {
            timedOut = true;
            close();
            break;
        }
        if (result < 0 || (descriptor.revents & (POLLERR | POLLNVAL))) {
            close();
            break;
        }
        if ((descriptor.revents & POLLOUT) && written < out.size()) {
            ssize_t n = send(fd_, out.data() + written, out.size() - written, MSG_NOSIGNAL);
            if (n > 0) written += static_cast<size_t>(n);
            else if (n < 0 && errno != EAGAIN && errno != EINTR) {
                close();
                break;
            }
        }
        if (descriptor.revents & (POLLIN | POLLHUP)) {
            ssize_t n = recv(fd_, buffer, sizeof buffer, 0);
            if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR)) {
                close();
                break;
            }
            if (n > 0) unread_.append(buffer, static_cast<size_t>(n));
        }
        // Whole messages out of what has arrived.
        size_t used = 0;
        while (unread_.size() - used >= 16) {
            int needed = dbus_message_demarshal_bytes_needed(
                unread_.data() + used, static_cast<int>(unread_.size() - used));
            if (needed < 0) {
                close();
                break;
            }
            if (needed == 0 || static_cast<size_t>(needed) > unread_.size() - used) break;
            DBusError error;
            dbus_error_init(&error);
            DBusMessage* message = dbus_message_demarshal(unread_.data() + used, needed, &error);
            dbus_error_free(&error);
            used += static_cast<size_t>(needed);
            if (!message) continue;
            Message owned(message);
            int type = dbus_message_get_type(message);
            if (type != DBUS_MESSAGE_TYPE_METHOD_RETURN && type != DBUS_MESSAGE_TYPE_ERROR)
                continue;  // a signal: not ours to handle
            std::uint32_t serial = dbus_message_get_reply_serial(message);
            if (serial < first || serial - first >= indexOf.size()) continue;
            size_t index = indexOf[serial - first];
            if (index == SIZE_MAX || serialOf[index] == 0) continue;
            serialOf[index] = 0;  // answered
            ++answered;
            if (type == DBUS_MESSAGE_TYPE_METHOD_RETURN) replies[index] = std::move(owned);
        }
        unread_.erase(0, used);
        if (fd_ < 0) break;
    }
    return replies;
}

}  // namespace quorvel::linux_backend
