// POSIX only: fork and exec, pipes, poll and waitpid, so that the server
// runs wherever the bridge does.
#include "mcp/bridge_runner.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>
#ifdef __APPLE__
#include <mach-o/dyld.h>
#endif

#include <cstdio>
#include <thread>

namespace quorvel::mcp {
namespace {

using Clock = std::chrono::steady_clock;

// An answer is a window's nodes and image: a few megabytes at most. More
// than this is not an answer.
constexpr size_t kMaxOutput = size_t{64} << 20;
// After SIGTERM the bridge restores the keyboard mapping and exits; it gets
// this long before SIGKILL.
constexpr auto kTerminationGrace = std::chrono::seconds(2);
constexpr char kRetry[] = " Observe the current state before retrying.";

// One owned file descriptor.
class Descriptor {
public:
    Descriptor() = default;
    ~Descriptor() { reset(); }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return fd_; }
    void reset(int fd = -1) {
        if (fd_ >= 0) close(fd_);
        fd_ = fd;
    }

private:
    int fd_ = -1;
};

// A pipe whose ends are closed in the child on exec, so the bridge holds
// only the two ends it is given as its standard input and output.
bool makePipe(Descriptor& read, Descriptor& write) {
    int fds[2];
    if (pipe(fds) != 0) return false;
    fcntl(fds[0], F_SETFD, FD_CLOEXEC);
    fcntl(fds[1], F_SETFD, FD_CLOEXEC);
    read.reset(fds[0]);
    write.reset(fds[1]);
    return true;
}

// Starts the bridge; its exec error, if any, arrives on `report`.
pid_t spawn(const std::string& path, int in, int out, int report) {
    char* const argv[] = {const_cast<char*>(path.c_str()), nullptr};
    pid_t pid = fork();
    if (pid != 0) return pid;
    // The child: only async-signal-safe calls until exec. SIGPIPE is ignored
    // in this process and would stay ignored in the bridge.
    struct sigaction standard {};
    standard.sa_handler = SIG_DFL;
    sigemptyset(&standard.sa_mask);
    sigaction(SIGPIPE, &standard, nullptr);
    int quiet = open("/dev/null", O_WRONLY);
    if (quiet >= 0 && dup2(in, STDIN_FILENO) >= 0 && dup2(out, STDOUT_FILENO) >= 0 &&
        dup2(quiet, STDERR_FILENO) >= 0)
        execv(path.c_str(), argv);
    int error = errno;
    ssize_t ignored = write(report, &error, sizeof error);
    (void)ignored;
    _exit(127);
}

// Waits for the child until `deadline`; false if it is still running then.
bool waitUntil(pid_t pid, int& status, Clock::time_point deadline) {
    for (;;) {
        pid_t done = waitpid(pid, &status, WNOHANG);
        if (done == pid) return true;
        if (done < 0 && errno != EINTR) return true;  // not our child any more
        if (Clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

void stop(pid_t pid, int& status) {
    kill(pid, SIGTERM);
    if (waitUntil(pid, status, Clock::now() + kTerminationGrace)) return;
    kill(pid, SIGKILL);
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
}

std::string seconds(std::chrono::milliseconds duration) {
    char text[32];
    if (duration.count() % 1000 == 0)
        std::snprintf(text, sizeof text, "%lld", static_cast<long long>(duration.count() / 1000));
    else
        std::snprintf(text, sizeof text, "%.1f", static_cast<double>(duration.count()) / 1000);
    return text;
}

BridgeAnswer problem(std::string sentence) { return {std::nullopt, std::move(sentence)}; }

// The envelope, if the output is one and agrees with the exit status.
std::optional<Json> envelopeOf(const std::string& output, int exitStatus) {
    Json envelope = Json::parse(output, nullptr, false);
    if (!envelope.is_object()) return std::nullopt;
    auto ok = envelope.find("ok");
    if (ok == envelope.end() || !ok->is_boolean()) return std::nullopt;
    if (ok->get<bool>()) {
        auto result = envelope.find("result");
        if (exitStatus != 0 || result == envelope.end() || !result->is_object()) return std::nullopt;
    } else {
        auto error = envelope.find("error");
        if (exitStatus != 1 || error == envelope.end() || !error->is_string()) return std::nullopt;
    }
    return envelope;
}

}  // namespace

ProcessBridge::ProcessBridge(std::string path, std::chrono::milliseconds timeout)
    : path_(std::move(path)), timeout_(timeout) {
    // A bridge that ends without reading its input must not end this
    // process with it.
    signal(SIGPIPE, SIG_IGN);
}

BridgeAnswer ProcessBridge::run(const Json& request) {
    const std::string input = request.dump(-1, ' ', false, Json::error_handler_t::replace);
    Descriptor inRead, inWrite, outRead, outWrite, reportRead, reportWrite;
    if (!makePipe(inRead, inWrite) || !makePipe(outRead, outWrite) ||
        !makePipe(reportRead, reportWrite))
        return problem(std::string("The bridge could not be started: ") + strerror(errno) + ".");
    pid_t pid = spawn(path_, inRead.get(), outWrite.get(), reportWrite.get());
    if (pid < 0) return problem(std::string("The bridge could not be started: ") + strerror(errno) + ".");
    inRead.reset();
    outWrite.reset();
    reportWrite.reset();

    // The report pipe closes when exec succeeds, or carries its error.
    int execError = 0;
    ssize_t got;
    while ((got = read(reportRead.get(), &execError, sizeof execError)) < 0 && errno == EINTR) {
    }
    if (got == static_cast<ssize_t>(sizeof execError)) {
        int status;
        waitUntil(pid, status, Clock::now() + kTerminationGrace);
        return problem("The bridge could not be started from " + path_ + ": " + strerror(execError) + ".");
    }

    // Feed the request and collect the answer at the same time: the bridge
    // reads all of its input first, but one that fails early may answer
    // without reading it.
    fcntl(inWrite.get(), F_SETFL, O_NONBLOCK);
    fcntl(outRead.get(), F_SETFL, O_NONBLOCK);
    const Clock::time_point deadline = Clock::now() + timeout_;
    size_t written = 0;
    std::string output;
    bool late = false, tooLong = false;
    if (input.empty()) inWrite.reset();
    while (outRead.get() >= 0) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0) {
            late = true;
            break;
        }
        pollfd fds[2] = {{outRead.get(), POLLIN, 0}, {inWrite.get(), POLLOUT, 0}};
        int ready = poll(fds, inWrite.get() >= 0 ? 2 : 1, static_cast<int>(left.count()));
        if (ready < 0 && errno != EINTR) break;
        if (ready <= 0) continue;
        if (inWrite.get() >= 0 && fds[1].revents) {
            ssize_t n = write(inWrite.get(), input.data() + written, input.size() - written);
            if (n > 0) written += static_cast<size_t>(n);
            // Everything sent, or the bridge stopped reading (EPIPE).
            if (written == input.size() || (n < 0 && errno != EAGAIN && errno != EINTR))
                inWrite.reset();
        }
        if (fds[0].revents) {
            char buffer[65536];
            ssize_t n = read(outRead.get(), buffer, sizeof buffer);
            if (n > 0) {
                output.append(buffer, static_cast<size_t>(n));
                if (output.size() > kMaxOutput) {
                    tooLong = true;
                    break;
                }
            } else if (n == 0 || (errno != EAGAIN && errno != EINTR)) {
                outRead.reset();
            }
        }
    }
    inWrite.reset();
    outRead.reset();

    int status = 0;
    if (late || tooLong || !waitUntil(pid, status, deadline)) {
        stop(pid, status);
        if (!tooLong) late = true;
    }
    if (late)
        return problem("The bridge did not answer within " + seconds(timeout_) +
                       " seconds and was stopped." + kRetry);
    if (tooLong) return problem(std::string("The bridge's answer was too long and was discarded.") + kRetry);
    if (WIFSIGNALED(status))
        return problem("The bridge ended on signal " + std::to_string(WTERMSIG(status)) +
                       " without an answer." + kRetry);
    int exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    if (std::optional<Json> envelope = envelopeOf(output, exitStatus)) return {std::move(envelope), ""};
    return problem("The bridge gave no valid answer (exit status " + std::to_string(exitStatus) + ")." +
                   kRetry);
}

std::string bridgeBesideExecutable() {
    std::string self;
#ifdef __APPLE__
    uint32_t size = 0;
    _NSGetExecutablePath(nullptr, &size);
    std::string path(size, '\0');
    if (_NSGetExecutablePath(path.data(), &size) != 0) return "";
    path.resize(strlen(path.c_str()));
    char resolved[PATH_MAX];
    self = realpath(path.c_str(), resolved) ? resolved : path;
#else
    char path[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
    if (n <= 0) return "";
    self.assign(path, static_cast<size_t>(n));
#endif
    size_t slash = self.rfind('/');
    if (slash == std::string::npos) return "";
    return self.substr(0, slash + 1) + "quorvel-bridge";
}

}  // namespace quorvel::mcp
