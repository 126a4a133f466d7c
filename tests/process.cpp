#include "process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>

namespace quorvel::testing {

ProcessResult runBridge(const std::string& input, const std::vector<std::string>& environment) {
    int in[2], out[2], err[2];
    if (pipe(in) || pipe(out) || pipe(err)) throw std::runtime_error("pipe");
    pid_t pid = fork();
    if (pid < 0) throw std::runtime_error("fork");
    if (pid == 0) {
        dup2(in[0], 0);
        dup2(out[1], 1);
        dup2(err[1], 2);
        for (int fd : {in[0], in[1], out[0], out[1], err[0], err[1]}) close(fd);
        std::vector<char*> envp;
        for (const std::string& e : environment) envp.push_back(const_cast<char*>(e.c_str()));
        envp.push_back(nullptr);
        char* argv[] = {const_cast<char*>(QUORVEL_BRIDGE_BINARY), nullptr};
        execve(argv[0], argv, envp.data());
        _exit(127);
    }
    close(in[0]);
    close(out[1]);
    close(err[1]);
    signal(SIGPIPE, SIG_IGN);
    fcntl(in[1], F_SETFL, O_NONBLOCK);

    ProcessResult result;
    size_t written = 0;
    bool inOpen = true, outOpen = true, errOpen = true;
    if (input.empty()) {
        close(in[1]);
        inOpen = false;
    }
    while (outOpen || errOpen) {
        pollfd fds[3];
        int n = 0;
        if (inOpen) fds[n++] = {in[1], POLLOUT, 0};
        if (outOpen) fds[n++] = {out[0], POLLIN, 0};
        if (errOpen) fds[n++] = {err[0], POLLIN, 0};
        if (poll(fds, n, 30000) <= 0) break;
        for (int i = 0; i < n; ++i) {
            if (!fds[i].revents) continue;
            if (fds[i].fd == in[1]) {
                ssize_t w = write(in[1], input.data() + written, input.size() - written);
                if (w > 0) written += static_cast<size_t>(w);
                if (w < 0 || written == input.size()) {
                    close(in[1]);
                    inOpen = false;
                }
                continue;
            }
            char buf[65536];
            ssize_t r = read(fds[i].fd, buf, sizeof buf);
            std::string& sink = fds[i].fd == out[0] ? result.out : result.err;
            if (r > 0) {
                sink.append(buf, static_cast<size_t>(r));
            } else {
                (fds[i].fd == out[0] ? outOpen : errOpen) = false;
            }
        }
    }
    if (inOpen) close(in[1]);
    close(out[0]);
    close(err[0]);
    int status = 0;
    if (outOpen || errOpen) kill(pid, SIGKILL);
    waitpid(pid, &status, 0);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

}  // namespace quorvel::testing
