// quorvel-mcp: an MCP server over stdio through which an agent observes and
// operates the frontmost window, by running quorvel-bridge once per tool
// call.
//
//   quorvel-mcp [--bridge PATH] [--timeout SECONDS]
//
// The bridge is the one beside this executable unless --bridge names
// another; a bridge run that takes longer than the timeout (120 seconds by
// default) is stopped. Standard output carries only protocol messages.
#include <errno.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "mcp/bridge_runner.h"
#include "mcp/server.h"

namespace {

// Longer lines are not messages this server takes (the largest is text to
// type, at most 60000 UTF-16 units, well below this).
constexpr size_t kMaxLine = size_t{16} << 20;

constexpr char kUsage[] =
    "usage: quorvel-mcp [--bridge PATH] [--timeout SECONDS]\n"
    "An MCP server over stdio that runs quorvel-bridge once per tool call.\n";

bool writeLine(const std::string& text) {
    std::string line = text + "\n";
    size_t done = 0;
    while (done < line.size()) {
        ssize_t n = write(STDOUT_FILENO, line.data() + done, line.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    std::string bridge;
    double timeout = 120;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            std::fputs(kUsage, stdout);
            return 0;
        }
        if (arg == "--bridge" && i + 1 < argc) {
            bridge = argv[++i];
        } else if (arg == "--timeout" && i + 1 < argc) {
            char* end = nullptr;
            timeout = std::strtod(argv[++i], &end);
            if (*end || !(timeout > 0) || timeout > 86400) {
                std::fputs(kUsage, stderr);
                return 2;
            }
        } else {
            std::fputs(kUsage, stderr);
            return 2;
        }
    }
    if (bridge.empty()) bridge = quorvel::mcp::bridgeBesideExecutable();
    if (bridge.empty()) {
        std::fputs("quorvel-mcp: cannot find quorvel-bridge beside this program; use --bridge\n", stderr);
        return 1;
    }

    // A client that goes away ends the server at its next write, not by SIGPIPE.
    signal(SIGPIPE, SIG_IGN);
    quorvel::mcp::ProcessBridge runner(
        bridge, std::chrono::milliseconds(static_cast<long long>(timeout * 1000)));
    quorvel::mcp::Server server(runner);

    // Answers one line; false when the client can no longer be written to.
    auto answer = [&server](std::string_view line) {
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        if (line.find_first_not_of(" \t") == std::string_view::npos) return true;
        std::optional<std::string> reply = server.handle(line);
        return !reply || writeLine(*reply);
    };
    std::string pending;
    bool discarding = false;  // inside a line that was too long
    char buffer[65536];
    for (;;) {
        ssize_t n = read(STDIN_FILENO, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            // The client closed the stream: the session is over, once a last
            // message without its newline is answered.
            if (!discarding) answer(pending);
            return 0;
        }
        pending.append(buffer, static_cast<size_t>(n));
        size_t start = 0;
        for (size_t end; (end = pending.find('\n', start)) != std::string::npos; start = end + 1) {
            if (discarding) {
                discarding = false;
                continue;
            }
            if (!answer(std::string_view(pending).substr(start, end - start))) return 0;
        }
        pending.erase(0, start);
        if (pending.size() > kMaxLine) {
            pending.clear();
            if (!discarding && !writeLine(quorvel::mcp::oversizedMessageReply())) return 0;
            discarding = true;
        }
    }
}
