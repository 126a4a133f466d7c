// The GTK 3 window that the end-to-end tests, the benchmark and the demo
// observe and operate.
//
// It holds every kind of widget the bridge has to describe: a text entry, a
// password entry, a multi-line text view, an editor that accessibility cannot
// write to, buttons that change a label, labels that report the last key and
// click the window received, a long scrollable list, and a grid of small
// cells that gives the window well over 1500 accessible elements on screen
// (the list's rows out of sight are not among its children).
//
// It prints "ready" on standard output once its window is active, then takes
// one command per line on standard input and answers each with "ok" once it
// has been applied (the window manager may still be catching up with moves):
//
//   title TEXT        retitle the main window
//   move DX DY        move the main window by DX, DY pixels
//   second            open a second window of the same size at the same place
//   close-second      close it again
//   iconify           iconify every window, so none is in front
//   present           bring the main window back to the front
//   label TEXT        set the status label
//   entry TEXT | password TEXT | notes TEXT
//                     set the contents of that editor
//   focus NAME        focus entry, password, notes or plain (else Increment)
//   freeze SECONDS    stop answering anything (accessibility included)
//   no-ping           stop offering the window manager's ping (_NET_WM_PING),
//                     like an application that never answers it
//   quit
//
// End of input quits too, so the fixture never outlives its test.
//
// Under Wayland a window cannot place, iconify or raise itself: there the
// fixture asks sway for what moving, iconifying (to sway's scratchpad) and
// presenting do under X, with swaymsg.
#include <gtk/gtk.h>
#include <gtk/gtk-a11y.h>
#include <gdk/gdkwayland.h>
#include <gdk/gdkx.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#define LIST_ROWS 800
#define GRID_COLUMNS 50
#define GRID_ROWS 28

static GtkWidget *main_window, *second_window;
static GtkWidget *entry, *password, *notes, *plain, *increment;
static GtkWidget *status_label, *key_label, *click_label;
static int count;
static gboolean announced;

// ---- An editor that accessibility can read but not write ------------------
// It exposes the Text interface and the EDITABLE state but no EditableText,
// so its value is not settable and replacing its text has to go through a
// select-all key press followed by typing. It takes keys itself: Ctrl+A
// selects everything, any other character is inserted (replacing the
// selection).

typedef struct {
    GtkDrawingArea parent;
    GString *text;
    gboolean all_selected;
} PlainEditor;
typedef struct {
    GtkDrawingAreaClass parent_class;
} PlainEditorClass;

typedef struct {
    GtkWidgetAccessible parent;
} PlainEditorAccessible;
typedef struct {
    GtkWidgetAccessibleClass parent_class;
} PlainEditorAccessibleClass;

static GType plain_editor_get_type(void);
static GType plain_editor_accessible_get_type(void);
#define PLAIN_EDITOR(o) (G_TYPE_CHECK_INSTANCE_CAST((o), plain_editor_get_type(), PlainEditor))

static const char *accessible_text(AtkText *text) {
    GtkWidget *widget = gtk_accessible_get_widget(GTK_ACCESSIBLE(text));
    return widget ? PLAIN_EDITOR(widget)->text->str : "";
}

static gint plain_get_character_count(AtkText *text) {
    return (gint)g_utf8_strlen(accessible_text(text), -1);
}

static gchar *plain_get_text(AtkText *text, gint start, gint end) {
    gint length = plain_get_character_count(text);
    if (end < 0 || end > length) end = length;
    return g_utf8_substring(accessible_text(text), CLAMP(start, 0, end), end);
}

// Typing always appends, so the caret is at the end.
static gint plain_get_caret_offset(AtkText *text) { return plain_get_character_count(text); }

static void plain_text_iface_init(AtkTextIface *iface) {
    iface->get_text = plain_get_text;
    iface->get_character_count = plain_get_character_count;
    iface->get_caret_offset = plain_get_caret_offset;
}

G_DEFINE_TYPE_WITH_CODE(PlainEditorAccessible, plain_editor_accessible, GTK_TYPE_WIDGET_ACCESSIBLE,
                        G_IMPLEMENT_INTERFACE(ATK_TYPE_TEXT, plain_text_iface_init))

static AtkStateSet *plain_ref_state_set(AtkObject *object) {
    AtkStateSet *states =
        ATK_OBJECT_CLASS(plain_editor_accessible_parent_class)->ref_state_set(object);
    atk_state_set_add_state(states, ATK_STATE_EDITABLE);
    atk_state_set_add_state(states, ATK_STATE_SINGLE_LINE);
    return states;
}

static void plain_accessible_initialize(AtkObject *object, gpointer data) {
    ATK_OBJECT_CLASS(plain_editor_accessible_parent_class)->initialize(object, data);
    object->role = ATK_ROLE_TEXT;
}

static void plain_editor_accessible_class_init(PlainEditorAccessibleClass *klass) {
    AtkObjectClass *atk_class = ATK_OBJECT_CLASS(klass);
    atk_class->ref_state_set = plain_ref_state_set;
    atk_class->initialize = plain_accessible_initialize;
}

static void plain_editor_accessible_init(PlainEditorAccessible *self) { (void)self; }

G_DEFINE_TYPE(PlainEditor, plain_editor, GTK_TYPE_DRAWING_AREA)

// Black text in a white box, framed more thickly while it has the focus.
static gboolean plain_draw(GtkWidget *widget, cairo_t *cr) {
    cairo_set_source_rgb(cr, 1, 1, 1);
    cairo_paint(cr);
    cairo_set_source_rgb(cr, 0, 0, 0);
    cairo_set_line_width(cr, gtk_widget_has_focus(widget) ? 3 : 1);
    cairo_rectangle(cr, 0.5, 0.5, gtk_widget_get_allocated_width(widget) - 1,
                    gtk_widget_get_allocated_height(widget) - 1);
    cairo_stroke(cr);
    PangoLayout *layout = gtk_widget_create_pango_layout(widget, PLAIN_EDITOR(widget)->text->str);
    cairo_move_to(cr, 6, 8);
    pango_cairo_show_layout(cr, layout);
    g_object_unref(layout);
    return TRUE;
}

static gboolean plain_key_press(GtkWidget *widget, GdkEventKey *event) {
    PlainEditor *editor = PLAIN_EDITOR(widget);
    GdkModifierType mods = event->state & gtk_accelerator_get_default_mod_mask();
    if (mods == GDK_CONTROL_MASK && (event->keyval == GDK_KEY_a || event->keyval == GDK_KEY_A)) {
        editor->all_selected = TRUE;
    } else {
        gunichar c = gdk_keyval_to_unicode(event->keyval);
        if (!c || (mods & (GDK_CONTROL_MASK | GDK_MOD1_MASK)) || g_unichar_iscntrl(c))
            return FALSE;
        if (editor->all_selected) g_string_truncate(editor->text, 0);
        g_string_append_unichar(editor->text, c);
        editor->all_selected = FALSE;
    }
    gtk_widget_queue_draw(widget);
    return TRUE;
}

static gboolean plain_button_press(GtkWidget *widget, GdkEventButton *event) {
    (void)event;
    gtk_widget_grab_focus(widget);
    return TRUE;
}

static void plain_editor_class_init(PlainEditorClass *klass) {
    GtkWidgetClass *widget_class = GTK_WIDGET_CLASS(klass);
    widget_class->draw = plain_draw;
    widget_class->key_press_event = plain_key_press;
    widget_class->button_press_event = plain_button_press;
    gtk_widget_class_set_accessible_type(widget_class, plain_editor_accessible_get_type());
}

static void plain_editor_init(PlainEditor *editor) {
    editor->text = g_string_new("");
    gtk_widget_set_can_focus(GTK_WIDGET(editor), TRUE);
    gtk_widget_add_events(GTK_WIDGET(editor), GDK_KEY_PRESS_MASK | GDK_BUTTON_PRESS_MASK);
    gtk_widget_set_size_request(GTK_WIDGET(editor), -1, 34);
}

// ---- The main window ------------------------------------------------------

static void name_widget(GtkWidget *widget, const char *name) {
    atk_object_set_name(gtk_widget_get_accessible(widget), name);
}

// Increment adds one, Reset (whose data is non-null) starts again.
static void on_count(GtkButton *button, gpointer reset) {
    (void)button;
    count = reset ? 0 : count + 1;
    char text[64];
    snprintf(text, sizeof text, "Count: %d", count);
    gtk_label_set_text(GTK_LABEL(status_label), text);
}

// Reports the last key the window received, with its modifiers, before any
// widget handles it (so Tab is reported even though it moves the focus).
static gboolean on_key_press(GtkWidget *widget, GdkEventKey *event, gpointer data) {
    (void)widget, (void)data;
    if (event->is_modifier) return FALSE;
    GdkModifierType mods = event->state & gtk_accelerator_get_default_mod_mask();
    const char *name =
        gdk_keyval_name(event->keyval == GDK_KEY_ISO_Left_Tab ? GDK_KEY_Tab : event->keyval);
    char text[96];
    snprintf(text, sizeof text, "Last key: %s%s%s", mods & GDK_CONTROL_MASK ? "Ctrl+" : "",
             mods & GDK_MOD1_MASK ? "Alt+" : "", name ? name : "unknown");
    gtk_label_set_text(GTK_LABEL(key_label), text);
    return FALSE;
}

// Reports the click count GTK saw: a second press within the double-click
// time arrives as a 2BUTTON_PRESS.
static gboolean on_click_area(GtkWidget *widget, GdkEventButton *event, gpointer data) {
    (void)widget, (void)data;
    gtk_label_set_text(GTK_LABEL(click_label), event->type == GDK_2BUTTON_PRESS
                                                   ? "Last click: double"
                                                   : "Last click: single");
    return FALSE;
}

// Prints `word` once the X server has seen what was done before, so that
// the caller who reads it finds the change in place.
static gboolean say(gpointer word) {
    gdk_display_sync(gdk_display_get_default());
    printf("%s\n", (const char *)word);
    fflush(stdout);
    return G_SOURCE_REMOVE;
}

static void on_active(GObject *object, GParamSpec *pspec, gpointer data) {
    (void)pspec, (void)data;
    if (announced || !gtk_window_is_active(GTK_WINDOW(object))) return;
    announced = TRUE;
    // The entry selected its text when it held the focus for a moment at
    // start; selected text is drawn inverted, which reads worse.
    gtk_editable_select_region(GTK_EDITABLE(entry), 0, 0);
    // The window manager may still be placing and framing the window when
    // it first becomes active; give it a moment to settle.
    g_timeout_add(250, say, "ready");
}

// A row of `box`: the caption, then `widget`; `named` (the widget or what it
// holds) takes the caption as its accessible name.
static void labelled_row(GtkWidget *box, const char *caption, GtkWidget *named, GtkWidget *widget) {
    name_widget(named, caption);
    GtkWidget *row = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 8);
    GtkWidget *label = gtk_label_new(caption);
    gtk_widget_set_size_request(label, 110, -1);
    gtk_label_set_xalign(GTK_LABEL(label), 0);
    gtk_box_pack_start(GTK_BOX(row), label, FALSE, FALSE, 0);
    gtk_box_pack_start(GTK_BOX(row), widget, TRUE, TRUE, 0);
    gtk_box_pack_start(GTK_BOX(box), row, FALSE, FALSE, 0);
}

static void build_main_window(void) {
    main_window = gtk_window_new(GTK_WINDOW_TOPLEVEL);
    gtk_window_set_title(GTK_WINDOW(main_window), "Quorvel Fixture");
    gtk_window_set_default_size(GTK_WINDOW(main_window), 1280, 800);
    gtk_window_move(GTK_WINDOW(main_window), 40, 40);
    g_signal_connect(main_window, "destroy", G_CALLBACK(gtk_main_quit), NULL);
    g_signal_connect(main_window, "key-press-event", G_CALLBACK(on_key_press), NULL);
    g_signal_connect(main_window, "notify::is-active", G_CALLBACK(on_active), NULL);

    GtkWidget *columns = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 16);
    gtk_container_set_border_width(GTK_CONTAINER(columns), 16);
    gtk_container_add(GTK_CONTAINER(main_window), columns);

    GtkWidget *left = gtk_box_new(GTK_ORIENTATION_VERTICAL, 10);
    gtk_widget_set_size_request(left, 560, -1);
    gtk_box_pack_start(GTK_BOX(columns), left, FALSE, FALSE, 0);

    GtkWidget *heading = gtk_label_new(NULL);
    gtk_label_set_markup(GTK_LABEL(heading),
                         "<span size='xx-large' weight='bold'>Observation Fixture</span>");
    gtk_label_set_xalign(GTK_LABEL(heading), 0);
    gtk_box_pack_start(GTK_BOX(left), heading, FALSE, FALSE, 8);

    entry = gtk_entry_new();
    gtk_entry_set_text(GTK_ENTRY(entry), "Ada Lovelace");
    labelled_row(left, "Name", entry, entry);

    password = gtk_entry_new();
    gtk_entry_set_visibility(GTK_ENTRY(password), FALSE);
    gtk_entry_set_input_purpose(GTK_ENTRY(password), GTK_INPUT_PURPOSE_PASSWORD);
    labelled_row(left, "Password", password, password);

    plain = g_object_new(plain_editor_get_type(), NULL);
    g_string_assign(PLAIN_EDITOR(plain)->text, "plain text");
    labelled_row(left, "Plain editor", plain, plain);

    notes = gtk_text_view_new();
    gtk_text_buffer_set_text(gtk_text_view_get_buffer(GTK_TEXT_VIEW(notes)),
                             "First line\nSecond line", -1);
    // Scrolled and wrapped, so that typing many lines never grows the
    // window, which would change its scope in the middle of the typing.
    GtkWidget *notes_frame = gtk_scrolled_window_new(NULL, NULL);
    gtk_scrolled_window_set_shadow_type(GTK_SCROLLED_WINDOW(notes_frame), GTK_SHADOW_IN);
    gtk_text_view_set_wrap_mode(GTK_TEXT_VIEW(notes), GTK_WRAP_WORD_CHAR);
    gtk_widget_set_size_request(notes_frame, -1, 120);
    gtk_container_add(GTK_CONTAINER(notes_frame), notes);
    labelled_row(left, "Notes", notes, notes_frame);

    GtkWidget *buttons = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 8);
    increment = gtk_button_new_with_label("Increment");
    GtkWidget *reset = gtk_button_new_with_label("Reset");
    g_signal_connect(increment, "clicked", G_CALLBACK(on_count), NULL);
    g_signal_connect(reset, "clicked", G_CALLBACK(on_count), reset);
    gtk_box_pack_start(GTK_BOX(buttons), increment, FALSE, FALSE, 0);
    gtk_box_pack_start(GTK_BOX(buttons), reset, FALSE, FALSE, 0);
    gtk_box_pack_start(GTK_BOX(left), buttons, FALSE, FALSE, 0);

    status_label = gtk_label_new("Count: 0");
    key_label = gtk_label_new("Last key: none");
    click_label = gtk_label_new("Last click: none");
    GtkWidget *reports[] = {status_label, key_label, click_label};
    for (size_t i = 0; i < G_N_ELEMENTS(reports); i++) {
        gtk_label_set_xalign(GTK_LABEL(reports[i]), 0);
        gtk_box_pack_start(GTK_BOX(left), reports[i], FALSE, FALSE, 0);
    }

    GtkWidget *click_area = gtk_event_box_new();
    GtkWidget *click_caption = gtk_label_new("Click target");
    gtk_widget_set_size_request(click_area, 240, 80);
    gtk_container_add(GTK_CONTAINER(click_area), click_caption);
    gtk_widget_add_events(click_area, GDK_BUTTON_PRESS_MASK);
    g_signal_connect(click_area, "button-press-event", G_CALLBACK(on_click_area), NULL);
    GtkWidget *click_frame = gtk_frame_new(NULL);
    gtk_container_add(GTK_CONTAINER(click_frame), click_area);
    gtk_box_pack_start(GTK_BOX(left), click_frame, FALSE, FALSE, 0);

    // The grid of cells, above the list. It sits a few boxes deep, so that
    // a breadth-first walk meets every other widget (the list's rows
    // included) before its cells fill the walk's budget.
    GtkWidget *right = gtk_box_new(GTK_ORIENTATION_VERTICAL, 4);
    gtk_box_pack_start(GTK_BOX(columns), right, TRUE, TRUE, 0);
    GtkWidget *holder = right;
    for (int depth = 0; depth < 5; depth++) {
        GtkWidget *box = gtk_box_new(GTK_ORIENTATION_VERTICAL, 0);
        gtk_box_pack_start(GTK_BOX(holder), box, FALSE, FALSE, 0);
        holder = box;
    }
    GtkWidget *grid = gtk_grid_new();
    name_widget(grid, "Cells");
    gtk_grid_set_column_homogeneous(GTK_GRID(grid), TRUE);
    for (int row = 0; row < GRID_ROWS; row++)
        for (int column = 0; column < GRID_COLUMNS; column++) {
            GtkWidget *cell = gtk_label_new(NULL);
            gtk_label_set_markup(GTK_LABEL(cell), "<span size='6000'>·</span>");
            gtk_grid_attach(GTK_GRID(grid), cell, column, row, 1, 1);
        }
    gtk_box_pack_start(GTK_BOX(holder), grid, FALSE, FALSE, 0);

    // The long list: every row is a list item holding a label.
    GtkWidget *scroller = gtk_scrolled_window_new(NULL, NULL);
    gtk_scrolled_window_set_policy(GTK_SCROLLED_WINDOW(scroller), GTK_POLICY_NEVER,
                                   GTK_POLICY_ALWAYS);
    gtk_box_pack_start(GTK_BOX(right), scroller, TRUE, TRUE, 0);
    GtkWidget *list = gtk_list_box_new();
    name_widget(list, "Rows");
    for (int i = 1; i <= LIST_ROWS; i++) {
        char text[32];
        snprintf(text, sizeof text, "Row %d", i);
        GtkWidget *label = gtk_label_new(text);
        gtk_label_set_xalign(GTK_LABEL(label), 0);
        gtk_list_box_insert(GTK_LIST_BOX(list), label, -1);
    }
    gtk_container_add(GTK_CONTAINER(scroller), list);

    gtk_widget_show_all(main_window);
    gtk_widget_grab_focus(increment);
}

// ---- Commands ---------------------------------------------------------------

static gboolean on_wayland(void) { return GDK_IS_WAYLAND_DISPLAY(gdk_display_get_default()); }

// Runs a sway command on the main window (this process's window with its
// title; on every window of this process when `all`), and waits for it.
static void sway_command(gboolean all, const char *command) {
    GString *criteria = g_string_new(NULL);
    g_string_printf(criteria, "[pid=%d", (int)getpid());
    if (!all) {
        // The title as a regular expression that matches it alone.
        g_string_append(criteria, " title=\"^");
        for (const char *c = gtk_window_get_title(GTK_WINDOW(main_window)); *c; c++) {
            if (strchr("\\^$.|?*+()[]{}\"", *c)) g_string_append_c(criteria, '\\');
            g_string_append_c(criteria, *c);
        }
        g_string_append(criteria, "$\"");
    }
    g_string_append_printf(criteria, "] %s", command);
    char *argv[] = {"swaymsg", criteria->str, NULL};
    g_spawn_sync(NULL, argv, NULL, G_SPAWN_SEARCH_PATH | G_SPAWN_STDOUT_TO_DEV_NULL |
                 G_SPAWN_STDERR_TO_DEV_NULL, NULL, NULL, NULL, NULL, NULL, NULL);
    g_string_free(criteria, TRUE);
}

static void open_second_window(void) {
    if (second_window) return;
    int x, y, width, height;
    gtk_window_get_position(GTK_WINDOW(main_window), &x, &y);
    gtk_window_get_size(GTK_WINDOW(main_window), &width, &height);
    second_window = gtk_window_new(GTK_WINDOW_TOPLEVEL);
    gtk_window_set_title(GTK_WINDOW(second_window), "Second Window");
    gtk_window_set_default_size(GTK_WINDOW(second_window), width, height);
    gtk_window_move(GTK_WINDOW(second_window), x, y);
    gtk_container_add(GTK_CONTAINER(second_window), gtk_label_new("Second window"));
    g_signal_connect(second_window, "destroy", G_CALLBACK(gtk_widget_destroyed), &second_window);
    gtk_widget_show_all(second_window);
    gtk_window_present(GTK_WINDOW(second_window));
}

static gboolean run_command(char *line) {
    char *argument = strchr(line, ' ');
    if (argument) *argument++ = '\0';
    else argument = "";

    if (!strcmp(line, "title")) {
        gtk_window_set_title(GTK_WINDOW(main_window), argument);
    } else if (!strcmp(line, "move")) {
        int dx = 0, dy = 0, x, y;
        sscanf(argument, "%d %d", &dx, &dy);
        if (on_wayland()) {
            char command[96];
            snprintf(command, sizeof command, "move %s %d px, move %s %d px", dx < 0 ? "left" : "right",
                     abs(dx), dy < 0 ? "up" : "down", abs(dy));
            sway_command(FALSE, command);
        } else {
            gtk_window_get_position(GTK_WINDOW(main_window), &x, &y);
            gtk_window_move(GTK_WINDOW(main_window), x + dx, y + dy);
        }
    } else if (!strcmp(line, "second")) {
        open_second_window();
    } else if (!strcmp(line, "close-second")) {
        if (second_window) gtk_widget_destroy(second_window);
    } else if (!strcmp(line, "iconify")) {
        if (on_wayland()) {
            sway_command(TRUE, "move scratchpad");
        } else {
            gtk_window_iconify(GTK_WINDOW(main_window));
            if (second_window) gtk_window_iconify(GTK_WINDOW(second_window));
        }
    } else if (!strcmp(line, "present")) {
        if (on_wayland()) {
            // Focusing a window in the scratchpad shows it again.
            sway_command(FALSE, "focus");
        } else {
            gtk_window_deiconify(GTK_WINDOW(main_window));
            gtk_window_present(GTK_WINDOW(main_window));
        }
    } else if (!strcmp(line, "label")) {
        gtk_label_set_text(GTK_LABEL(status_label), argument);
    } else if (!strcmp(line, "entry")) {
        gtk_entry_set_text(GTK_ENTRY(entry), argument);
    } else if (!strcmp(line, "password")) {
        gtk_entry_set_text(GTK_ENTRY(password), argument);
    } else if (!strcmp(line, "notes")) {
        gtk_text_buffer_set_text(gtk_text_view_get_buffer(GTK_TEXT_VIEW(notes)), argument, -1);
    } else if (!strcmp(line, "focus")) {
        GtkWidget *target = !strcmp(argument, "entry")      ? entry
                            : !strcmp(argument, "password") ? password
                            : !strcmp(argument, "notes")    ? notes
                            : !strcmp(argument, "plain")    ? plain
                                                            : increment;
        gtk_widget_grab_focus(target);
    } else if (!strcmp(line, "freeze")) {
        say("ok");
        g_usleep((gulong)(atof(argument) * G_USEC_PER_SEC));
        return TRUE;
    } else if (!strcmp(line, "no-ping")) {
        if (on_wayland()) {
            say("not under Wayland, which has no pings");
            return TRUE;
        }
        Display *display = GDK_DISPLAY_XDISPLAY(gdk_display_get_default());
        Atom protocols[] = {XInternAtom(display, "WM_DELETE_WINDOW", False),
                            XInternAtom(display, "WM_TAKE_FOCUS", False)};
        XSetWMProtocols(display, GDK_WINDOW_XID(gtk_widget_get_window(main_window)), protocols,
                        G_N_ELEMENTS(protocols));
    } else if (!strcmp(line, "quit")) {
        gtk_main_quit();
    } else {
        say("unknown command");
        return TRUE;
    }
    // Answer once the change is complete: GTK finishes some of it in idle
    // callbacks (the accessible focus follows the widget focus from one,
    // painting happens in another), so the answer waits behind them.
    g_idle_add_full(G_PRIORITY_LOW, say, "ok", NULL);
    return TRUE;
}

static gboolean on_input(GIOChannel *channel, GIOCondition condition, gpointer data) {
    (void)data;
    gchar *line = NULL;
    gsize terminator = 0;
    GIOStatus status = G_IO_STATUS_EOF;
    if (condition & (G_IO_IN | G_IO_PRI))
        status = g_io_channel_read_line(channel, &line, NULL, &terminator, NULL);
    if (status == G_IO_STATUS_AGAIN) return TRUE;
    if (status != G_IO_STATUS_NORMAL || !line) {
        g_free(line);
        gtk_main_quit();
        return FALSE;
    }
    line[terminator] = '\0';
    run_command(line);
    g_free(line);
    return TRUE;
}

int main(int argc, char **argv) {
    gtk_init(&argc, &argv);
    g_set_application_name("Quorvel Fixture");

    // A still window hashes the same every time: no blinking caret, no
    // animations.
    g_object_set(gtk_settings_get_default(), "gtk-cursor-blink", FALSE, "gtk-enable-animations",
                 FALSE, NULL);

    build_main_window();
    GIOChannel *input = g_io_channel_unix_new(0);
    g_io_add_watch(input, G_IO_IN | G_IO_PRI | G_IO_HUP | G_IO_ERR, on_input, NULL);
    gtk_main();
    return 0;
}
