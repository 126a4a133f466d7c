// Real editors from Debian, one table through one set of checks, on X and
// on sway alike: observed, typed into with mixed Unicode at a clicked point,
// clicked, scrolled, and refused a scope that their window has outgrown.
// Each opens a file of numbered lines, so that there is something to scroll.
#include <atspi/atspi.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "harness.h"

namespace quorvel::e2e {
namespace {

struct Editor {
    const char* name;
    std::vector<std::string> argv;  // the file's path is added
};
void PrintTo(const Editor& editor, std::ostream* out) { *out << editor.name; }

// The position of the first vertical scroll bar in process `pid`'s active
// window, as the application reports it over AT-SPI (libatspi, not the
// bridge); nothing when there is none.
std::optional<double> scrollPosition(pid_t pid) {
    atspi_init();
    std::optional<double> found;
    AtspiAccessible* desktop = atspi_get_desktop(0);
    std::function<void(AtspiAccessible*, int)> visit = [&](AtspiAccessible* node, int depth) {
        if (!node || found || depth > 30) return;
        if (atspi_accessible_get_role(node, nullptr) == ATSPI_ROLE_SCROLL_BAR) {
            // GTK says which way a scroll bar goes; Qt does not, and its shape says.
            AtspiStateSet* states = atspi_accessible_get_state_set(node);
            bool vertical = atspi_state_set_contains(states, ATSPI_STATE_VERTICAL);
            if (!vertical && !atspi_state_set_contains(states, ATSPI_STATE_HORIZONTAL))
                if (AtspiComponent* component = atspi_accessible_get_component_iface(node)) {
                    AtspiRect* box = atspi_component_get_extents(component, ATSPI_COORD_TYPE_SCREEN,
                                                                 nullptr);
                    vertical = box && box->height > box->width;
                    if (box) g_free(box);
                    g_object_unref(component);
                }
            g_object_unref(states);
            AtspiValue* value = atspi_accessible_get_value_iface(node);
            if (vertical && value) found = atspi_value_get_current_value(value, nullptr);
            if (value) g_object_unref(value);
        }
        int count = atspi_accessible_get_child_count(node, nullptr);
        for (int i = 0; i < count && !found; ++i) {
            AtspiAccessible* child = atspi_accessible_get_child_at_index(node, i, nullptr);
            visit(child, depth + 1);
            if (child) g_object_unref(child);
        }
    };
    int apps = atspi_accessible_get_child_count(desktop, nullptr);
    for (int i = 0; i < apps && !found; ++i) {
        AtspiAccessible* app = atspi_accessible_get_child_at_index(desktop, i, nullptr);
        if (app && static_cast<pid_t>(atspi_accessible_get_process_id(app, nullptr)) == pid)
            for (int w = 0; w < atspi_accessible_get_child_count(app, nullptr) && !found; ++w) {
                AtspiAccessible* window = atspi_accessible_get_child_at_index(app, w, nullptr);
                AtspiStateSet* states = window ? atspi_accessible_get_state_set(window) : nullptr;
                if (states && atspi_state_set_contains(states, ATSPI_STATE_ACTIVE)) visit(window, 0);
                if (states) g_object_unref(states);
                if (window) g_object_unref(window);
            }
        if (app) g_object_unref(app);
    }
    g_object_unref(desktop);
    return found;
}

Json firstEditor(const Json& observation) {
    for (const Json& record : observation.value("nodes", Json::array()))
        if (record["role"] == "AXTextArea" && record["editable"] == true) return record;
    return nullptr;
}

class Editors : public ::testing::TestWithParam<Editor> {
protected:
    void SetUp() override {
        char path[] = "/tmp/quorvel-lines-XXXXXX.txt";
        int fd = mkstemps(path, 4);
        ASSERT_GE(fd, 0);
        close(fd);
        file_ = path;
        std::ofstream out(file_);
        for (int line = 1; line <= 300; ++line) out << "Line " << line << "\n";
        out.close();
        std::vector<std::string> argv = GetParam().argv;
        argv.push_back(file_);
        pid_ = spawn(argv);
    }
    void TearDown() override {
        if (pid_ > 0) {
            kill(pid_, SIGTERM);
            waitpid(pid_, nullptr, 0);
        }
        unlink(file_.c_str());
    }
    // An observation of the application's window once its editor has the
    // focus and holds `value` at its start (anywhere, when `anywhere`).
    Json settled(const std::string& value, bool anywhere = false,
                 std::chrono::milliseconds limit = std::chrono::seconds(15)) {
        return observeUntil([&](const Json& o) {
            if (o["scope"]["pid"] != pid_ || o["context"]["focused_role"] != "AXTextArea")
                return false;
            size_t at = o["context"]["focused_value"].get<std::string>().find(value);
            return anywhere ? at != std::string::npos : at == 0;
        }, limit);
    }

    std::string file_;
    pid_t pid_ = -1;
};

TEST_P(Editors, AreObservedTypedIntoClickedScrolledAndGuarded) {
    const std::string lines = "Line 1\nLine 2\n";
    Json seen = settled(lines, false, std::chrono::seconds(40));
    ASSERT_EQ(seen["scope"]["pid"], pid_) << seen.dump().substr(0, 300);
    EXPECT_EQ(seen["scope"]["bounds"], windowBounds(seen["scope"]["window_id"].get<std::uint32_t>()));
    Json editor = firstEditor(seen);
    ASSERT_FALSE(editor.is_null());
    std::string original = seen["context"]["focused_value"];

    // Typed where the click put the caret, in the middle of the text. One
    // chunk of 16 units, since typing marks the title as changed.
    const std::string mixed = "Zoë Привет 漢字😀";
    Json typing = {{"kind", "type_into"}, {"x", centerX(editor)}, {"y", centerY(editor)},
                   {"value", mixed}, {"replace", false}, {"expected_value", original}};
    EXPECT_EQ(act(seen["scope"], typing)["ok"], true);
    Json typed = settled(mixed, true);
    std::string value = typed["context"]["focused_value"];
    EXPECT_EQ(value.size(), original.size() + mixed.size());
    EXPECT_NE(value.find(mixed), std::string::npos) << value.substr(0, 300);

    // A click in the corner puts the caret at the start.
    double left = editor["bounds"]["x"].get<double>() + 3, top = editor["bounds"]["y"].get<double>() + 3;
    EXPECT_EQ(act(typed["scope"], {{"kind", "click"}, {"x", left}, {"y", top}})["ok"], true);
    EXPECT_EQ(act(typed["scope"], {{"kind", "type"}, {"value", "Q"}, {"replace", false},
                                   {"expected_value", typed["context"]["focused_value"]}})["ok"],
              true);
    Json clicked = settled("Q" + lines);
    EXPECT_EQ(clicked["context"]["focused_value"], "Q" + value);

    // Scrolled under the pointer, which stays where it was.
    std::optional<double> before = scrollPosition(pid_);
    ASSERT_TRUE(before) << "no vertical scroll bar";
    int x = static_cast<int>(centerX(editor)), y = static_cast<int>(centerY(editor));
    movePointer(x, y);
    EXPECT_EQ(act(clicked["scope"], {{"kind", "scroll"}, {"amount", -600}})["ok"], true);
    std::optional<double> after = before;
    for (int i = 0; i < 50 && after == before; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        after = scrollPosition(pid_);
    }
    EXPECT_GT(after.value_or(0), *before);
    EXPECT_EQ(pointerPosition(), std::make_pair(x, y));

    // The window moved since it was observed: nothing is typed.
    std::uint32_t window = clicked["scope"]["window_id"];
    moveWindow(window, 24, 16);
    observeUntil([&](const Json& o) { return o["scope"] != clicked["scope"]; });
    EXPECT_EQ(act(clicked["scope"], {{"kind", "type"}, {"value", "stale"}, {"replace", false},
                                     {"expected_value", clicked["context"]["focused_value"]}})["error"],
              kWindowChanged);
    Json now = observe();
    EXPECT_EQ(now["context"]["focused_value"], clicked["context"]["focused_value"]);
}

INSTANTIATE_TEST_SUITE_P(
    OnEitherDesktop, Editors,
    ::testing::Values(Editor{"mousepad_gtk3", {"mousepad", "--disable-server"}},
                      Editor{"featherpad_qt5", {"featherpad", "--standalone"}}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace quorvel::e2e
