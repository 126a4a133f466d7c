// Gives the seat of a headless sway a keyboard and a pointer, and keeps
// them until it is ended (SIGTERM or SIGINT).
//
// sway started with WLR_LIBINPUT_NO_DEVICES=1 has a seat with no input
// device at all. Toolkits then never receive keyboard focus, so no window is
// ever ACTIVE, and the first keys or clicks of a short-lived virtual device
// are lost while applications bind the keyboard and pointer that appear
// with it. A desktop always has both; this stands in for them. It prints
// "ready" once the compositor has both devices.
#define _GNU_SOURCE /* memfd_create */
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>
#include <wayland-client.h>

#include "virtual-keyboard-unstable-v1-client-protocol.h"
#include "wlr-virtual-pointer-unstable-v1-client-protocol.h"

static struct wl_seat *seat;
static struct zwp_virtual_keyboard_manager_v1 *keyboards;
static struct zwlr_virtual_pointer_manager_v1 *pointers;
static volatile sig_atomic_t stop;

static void global(void *data, struct wl_registry *registry, uint32_t name, const char *interface,
                   uint32_t version) {
    (void)data, (void)version;
    if (!strcmp(interface, wl_seat_interface.name) && !seat)
        seat = wl_registry_bind(registry, name, &wl_seat_interface, 1);
    else if (!strcmp(interface, zwp_virtual_keyboard_manager_v1_interface.name))
        keyboards = wl_registry_bind(registry, name, &zwp_virtual_keyboard_manager_v1_interface, 1);
    else if (!strcmp(interface, zwlr_virtual_pointer_manager_v1_interface.name))
        pointers = wl_registry_bind(registry, name, &zwlr_virtual_pointer_manager_v1_interface, 1);
}
static void global_remove(void *data, struct wl_registry *registry, uint32_t name) {
    (void)data, (void)registry, (void)name;
}
static const struct wl_registry_listener registry_listener = {global, global_remove};

static void on_signal(int signal) {
    (void)signal;
    stop = 1;
}

int main(void) {
    struct wl_display *display = wl_display_connect(NULL);
    if (!display) {
        fprintf(stderr, "seat-hold: no Wayland compositor\n");
        return 1;
    }
    struct wl_registry *registry = wl_display_get_registry(display);
    wl_registry_add_listener(registry, &registry_listener, NULL);
    wl_display_roundtrip(display);
    if (!seat || !keyboards || !pointers) {
        fprintf(stderr, "seat-hold: the compositor offers no virtual keyboard or pointer\n");
        return 1;
    }
    struct zwp_virtual_keyboard_v1 *keyboard =
        zwp_virtual_keyboard_manager_v1_create_virtual_keyboard(keyboards, seat);
    // The compositor adds a keyboard to the seat once it has a keymap.
    static const char keymap[] =
        "xkb_keymap {\n"
        "xkb_keycodes \"hold\" { minimum = 8; maximum = 255; <K9> = 9; };\n"
        "xkb_types \"hold\" { type \"ONE_LEVEL\" { modifiers = none; level_name[Level1] = \"Any\"; }; };\n"
        "xkb_compatibility \"hold\" { };\n"
        "xkb_symbols \"hold\" { key <K9> { [ Escape ] }; };\n"
        "};\n";
    int fd = memfd_create("seat-hold-keymap", MFD_CLOEXEC);
    if (fd < 0 || write(fd, keymap, sizeof keymap) != (ssize_t)sizeof keymap) {
        perror("seat-hold: keymap");
        return 1;
    }
    zwp_virtual_keyboard_v1_keymap(keyboard, WL_KEYBOARD_KEYMAP_FORMAT_XKB_V1, fd, sizeof keymap);
    close(fd);
    struct zwlr_virtual_pointer_v1 *pointer =
        zwlr_virtual_pointer_manager_v1_create_virtual_pointer(pointers, seat);
    wl_display_roundtrip(display);

    struct sigaction action;
    memset(&action, 0, sizeof action);
    action.sa_handler = on_signal;
    sigaction(SIGTERM, &action, NULL);
    sigaction(SIGINT, &action, NULL);
    printf("ready\n");
    fflush(stdout);
    while (!stop && wl_display_dispatch(display) != -1) {
    }
    zwlr_virtual_pointer_v1_destroy(pointer);
    zwp_virtual_keyboard_v1_destroy(keyboard);
    wl_display_roundtrip(display);
    wl_display_disconnect(display);
    return 0;
}
