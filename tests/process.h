// Runs the built bridge as a child process, as the agent does.
#pragma once

#include <string>
#include <vector>

namespace quorvel::testing {

struct ProcessResult {
    std::string out;
    std::string err;
    int status = -1;  // exit status, or -1 when the process did not exit normally
};

// Feeds `input` to the bridge's standard input and closes it. The child gets
// `environment` only (empty by default: no display, no session bus).
ProcessResult runBridge(const std::string& input, const std::vector<std::string>& environment = {});
// The same for any program: `argv` names it and its arguments.
ProcessResult runProcess(const std::vector<std::string>& argv, const std::string& input,
                         const std::vector<std::string>& environment = {});

}  // namespace quorvel::testing
