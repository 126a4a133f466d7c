#include "platform/linux/input/deferred_termination.h"

#include <csignal>
#include <iterator>

namespace quorvel::linux_backend::deferred_termination {
namespace {

constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGPIPE};
struct sigaction previous[std::size(kSignals)];
bool holding = false;
volatile std::sig_atomic_t held = 0;

void remember(int signal) { held = signal; }

}  // namespace

void hold() {
    if (holding) return;
    struct sigaction action {};
    action.sa_handler = remember;
    sigemptyset(&action.sa_mask);
    // Interrupted system calls resume, so the rest of the request is not
    // disturbed; the waits of typing check `pending()` themselves.
    action.sa_flags = SA_RESTART;
    for (size_t i = 0; i < std::size(kSignals); ++i) sigaction(kSignals[i], &action, &previous[i]);
    holding = true;
}

int pending() { return held; }

void release() {
    if (!holding) return;
    for (size_t i = 0; i < std::size(kSignals); ++i) sigaction(kSignals[i], &previous[i], nullptr);
    holding = false;
    int signal = held;
    held = 0;
    if (signal != 0) std::raise(signal);
}

}  // namespace quorvel::linux_backend::deferred_termination
