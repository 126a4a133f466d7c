// Termination requests (SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGPIPE) are held
// back while the keyboard mapping is changed, so that the process never dies
// with characters left on spare keycodes. The owner of the changed mapping
// polls `pending()`, restores the mapping and then calls `release()`, which
// lets a held request take its ordinary course.
#pragma once

namespace quorvel::linux_backend::deferred_termination {

void hold();
// The held signal, 0 when none arrived.
int pending();
// Restores the previous handlers and re-raises the held signal, if any.
void release();

}  // namespace quorvel::linux_backend::deferred_termination
