// Linked only with libdbus's static archive (QUORVEL_STATIC_LIBS). The
// archive holds libdbus whole, servers included, and a server listening on a
// "systemd:" address takes its sockets from systemd's socket activation,
// in libsystemd. The bridge only ever connects as a client, so that path is
// never taken; these answer it as libsystemd does in a process that was
// handed no sockets, and spare every run the loading of libsystemd and the
// five libraries it loads in turn.
extern "C" {

int sd_listen_fds(int /*unset_environment*/) { return 0; }

int sd_is_socket(int /*fd*/, int /*family*/, int /*type*/, int /*listening*/) { return 0; }

}
