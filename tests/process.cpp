#include "process.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <stdexcept>

namespace quorvel::testing {
namespace {

// The whole of a file that the child wrote, from its start.
std::string contents(std::FILE* file) {
    std::string data;
    std::rewind(file);
    char buf[65536];
    for (size_t n; (n = std::fread(buf, 1, sizeof buf, file)) > 0;) data.append(buf, n);
    std::fclose(file);
    return data;
}

}  // namespace

ProcessResult runBridge(const std::string& input, const std::vector<std::string>& environment) {
    return runProcess({QUORVEL_BRIDGE_BINARY}, input, environment);
}

ProcessResult runProcess(const std::vector<std::string>& argv, const std::string& input,
                         const std::vector<std::string>& environment) {
    // Files rather than pipes: nothing can block on a full pipe, whatever the
    // child writes or fails to read.
    std::FILE *in = std::tmpfile(), *out = std::tmpfile(), *err = std::tmpfile();
    if (!in || !out || !err) throw std::runtime_error("tmpfile");
    std::fwrite(input.data(), 1, input.size(), in);
    std::fflush(in);
    std::rewind(in);
    pid_t pid = fork();
    if (pid < 0) throw std::runtime_error("fork");
    if (pid == 0) {
        dup2(fileno(in), 0);
        dup2(fileno(out), 1);
        dup2(fileno(err), 2);
        for (std::FILE* f : {in, out, err}) close(fileno(f));
        std::vector<char*> envp, args;
        for (const std::string& e : environment) envp.push_back(const_cast<char*>(e.c_str()));
        for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
        envp.push_back(nullptr);
        args.push_back(nullptr);
        alarm(30);  // survives the exec: a program that hangs is ended by SIGALRM
        execve(args[0], args.data(), envp.data());
        _exit(127);
    }
    std::fclose(in);
    int status = 0;
    waitpid(pid, &status, 0);
    return ProcessResult{contents(out), contents(err), WIFEXITED(status) ? WEXITSTATUS(status) : -1};
}

}  // namespace quorvel::testing
