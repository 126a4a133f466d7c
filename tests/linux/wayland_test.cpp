// The Wayland side's rules that need no compositor: sway's tree as a window
// list front to back, the placing of a client's elements, the keymaps typing
// uploads, one typist at a time, and the copying of a screencopy frame into the hashed layout.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>
#include <xkbcommon/xkbcommon-keysyms.h>
#include <xkbcommon/xkbcommon.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "platform/linux/wayland/keyboard.h"
#include "platform/linux/wayland/keymap.h"
#include "platform/linux/wayland/screencopy.h"
#include "platform/linux/wayland/sway_ipc.h"
#include "platform/linux/wayland/window_mapping.h"

namespace quorvel::linux_backend::wayland {
namespace {

// A view of sway's tree: a container with a client.
std::string view(int id, int pid, int x, int y, const char* extra = "") {
    return "{\"id\":" + std::to_string(id) + ",\"type\":\"con\",\"pid\":" + std::to_string(pid) +
           ",\"name\":\"w" + std::to_string(id) + "\",\"visible\":true,\"rect\":{\"x\":" +
           std::to_string(x) + ",\"y\":" + std::to_string(y) +
           ",\"width\":500,\"height\":330},\"window_rect\":{\"x\":2,\"y\":0,\"width\":496,"
           "\"height\":328}" + extra + ",\"nodes\":[],\"floating_nodes\":[]}";
}

// One output showing workspace "1" (tiled views 4 and 5, 5 focused last;
// floating 6 under floating 7; a split container holding 8), a hidden
// workspace "2" with view 9, and sway's scratchpad with view 10.
std::string tree(const std::string& workspaceOneFocus, const char* focusedExtra = "") {
    return std::string(R"({"id":1,"type":"root","focus":[3],"nodes":[)") +
           R"({"id":2147483647,"type":"output","name":"__i3","nodes":[{"id":2147483646,)" +
           R"("type":"workspace","name":"__i3_scratch","focus":[10],"nodes":[],"floating_nodes":[)" +
           view(10, 110, 0, 0, R"(,"type":"floating_con","visible":false)") + "]}]}," +
           R"({"id":3,"type":"output","name":"HEADLESS-1","current_workspace":"1","focus":[20,30],)" +
           R"("nodes":[{"id":30,"type":"workspace","name":"2","focus":[9],"nodes":[)" +
           view(9, 109, 0, 0, R"(,"visible":false)") + R"(],"floating_nodes":[]},)" +
           R"({"id":20,"type":"workspace","name":"1","fullscreen_mode":1,"focus":)" +
           workspaceOneFocus + R"(,"nodes":[)" + view(4, 104, 0, 0) + "," +
           view(5, 105, 500, 0, focusedExtra) +
           R"(,{"id":21,"type":"con","pid":null,"focus":[8],"nodes":[)" + view(8, 108, 0, 400) +
           R"(],"floating_nodes":[]}],"floating_nodes":[)" +
           view(6, 106, 100, 100, R"(,"type":"floating_con")") + "," +
           view(7, 107, 120, 120, R"(,"type":"floating_con","shell":"xwayland")") + "]}]}]}";
}

std::vector<std::int64_t> ids(const std::vector<SwayWindow>& windows) {
    std::vector<std::int64_t> result;
    for (const SwayWindow& window : windows) result.push_back(window.id);
    return result;
}

TEST(SwayTree, WindowsComeFrontToBack) {
    struct { const char* label; std::string json; std::vector<std::int64_t> order; } cases[] = {
        {"floating on top, the last drawn first, then tiled by focus",
         tree("[5,21,4,6,7]"), {7, 6, 5, 8, 4, 9, 10}},
        {"another focus order", tree("[4,5,21]"), {7, 6, 4, 5, 8, 9, 10}},
        {"a fullscreen window before everything on its workspace",
         tree("[5,21,4]", R"(,"fullscreen_mode":1)"), {5, 7, 6, 8, 4, 9, 10}},
    };
    for (const auto& c : cases) {
        auto windows = parseTree(c.json);
        ASSERT_TRUE(windows) << c.label;
        EXPECT_EQ(ids(*windows), c.order) << c.label;
    }
}

// Each window's title, process and bounds (the container's rect and the
// window's within it) the end-to-end tests on sway compare with swaymsg's.
TEST(SwayTree, AWindowSaysWhetherItIsFocusedShownAndXwaylands) {
    auto windows = parseTree(tree("[5,21,4]", R"(,"focused":true)"));
    ASSERT_TRUE(windows);
    for (const SwayWindow& w : *windows) {
        EXPECT_EQ(w.focused, w.id == 5) << w.id;
        EXPECT_EQ(w.xwayland, w.id == 7) << w.id;
        EXPECT_EQ(w.visible, w.id != 9 && w.id != 10) << w.id;
    }
}

TEST(SwayTree, AnythingButATreeGivesNothing) {
    for (const char* json : {"", "[]", "{\"type\":\"output\"}", "{\"type\":\"root\",\"id\":",
                             R"({"type":"root","nodes":[{"type":"output","current_workspace":7}]})"})
        EXPECT_FALSE(parseTree(json)) << json;
    auto empty = parseTree(R"({"type":"root","nodes":[]})");
    ASSERT_TRUE(empty);
    EXPECT_TRUE(empty->empty());
}

TEST(WindowMapping, TheFrameIsTheCompositorsPlaceWithTheToolkitsSize) {
    const Rect window{320, 140, 1361, 740};
    struct {
        const char* label;
        Rect topLevel;
        std::vector<Rect> children;
        bool relative;
        Rect frame;
        Point offset;
    } cases[] = {
        {"server-side decorations: the surface is the window", {0, 0, 1361, 740}, {}, true,
         {320, 140, 1361, 740}, {320, 140}},
        {"client-side shadows: the children say where the window begins",
         {0, 0, 1413, 792},
         {{26, 23, 1361, 47}, {26, 70, 1361, 693}, {0, 0, 0, 0}},
         true,
         {320, 140, 1361, 740},
         {294, 117}},
        {"a top-level that does not fit keeps its size, which then disagrees",
         {0, 0, 1413, 792}, {}, true, {320, 140, 1413, 792}, {320, 140}},
        {"children that cover more than the window say so too",
         {0, 0, 1413, 792}, {{0, 0, 1413, 792}}, true, {320, 140, 1413, 792}, {320, 140}},
        {"an X11 client under Xwayland places itself", {320, 140, 1361, 740}, {}, false,
         {320, 140, 1361, 740}, {0, 0}},
    };
    for (const auto& c : cases) {
        WindowMapping mapping = mapWindow(window, c.topLevel, c.children, c.relative);
        const Rect& f = mapping.frame;
        EXPECT_EQ(std::tuple(f.x, f.y, f.width, f.height, mapping.offset.x, mapping.offset.y),
                  std::tuple(c.frame.x, c.frame.y, c.frame.width, c.frame.height, c.offset.x,
                             c.offset.y))
            << c.label;
    }
    EXPECT_FALSE(needsChildren(window, {0, 0, 1361, 740}, true));
    EXPECT_TRUE(needsChildren(window, {0, 0, 1413, 792}, true));
    EXPECT_FALSE(needsChildren(window, {0, 0, 1413, 792}, false));
}

struct KeymapDeleter {
    void operator()(xkb_keymap* keymap) const { xkb_keymap_unref(keymap); }
};

std::unique_ptr<xkb_keymap, KeymapDeleter> compile(const std::string& text) {
    xkb_context* context = xkb_context_new(XKB_CONTEXT_NO_DEFAULT_INCLUDES);
    xkb_keymap* keymap =
        xkb_keymap_new_from_string(context, text.c_str(), XKB_KEYMAP_FORMAT_TEXT_V1,
                                   XKB_KEYMAP_COMPILE_NO_FLAGS);
    xkb_context_unref(context);
    return std::unique_ptr<xkb_keymap, KeymapDeleter>(keymap);
}

// Every character is on its own key at the only level, so it is typed as
// itself with no modifier, and no key repeats; Control and Alt are real
// modifiers.
TEST(Keymap, TypesEachCharacterAsItselfAndHoldsControlAndAlt) {
    std::u32string text = U"aA\u00e9\u20ac\u6f22\U0001F600\u0301 \n\t";
    std::vector<Keysym> keysyms = keysymsAhead(text);
    ASSERT_EQ(keysyms.size(), text.size());
    auto keymap = compile(keymapText(keysyms));
    ASSERT_TRUE(keymap);
    xkb_state* state = xkb_state_new(keymap.get());
    for (size_t i = 0; i < keysyms.size(); ++i) {
        std::uint32_t keycode = kFirstKeycode + static_cast<std::uint32_t>(i);
        EXPECT_EQ(xkb_state_key_get_one_sym(state, keycode), keysyms[i]) << i;
        // A press that an application handles late never types twice.
        EXPECT_EQ(xkb_keymap_key_repeats(keymap.get(), keycode), 0) << i;
    }
    EXPECT_EQ(keysyms[1], static_cast<Keysym>(XKB_KEY_A));
    EXPECT_EQ(keysyms[8], static_cast<Keysym>(XKB_KEY_Return));
    EXPECT_EQ(keysyms[9], static_cast<Keysym>(XKB_KEY_Tab));
    for (auto [keycode, modifier] : {std::pair{controlKeycode(keysyms.size()), XKB_MOD_NAME_CTRL},
                                     std::pair{altKeycode(keysyms.size()), XKB_MOD_NAME_ALT}}) {
        xkb_state_update_key(state, keycode, XKB_KEY_DOWN);
        EXPECT_EQ(xkb_state_mod_name_is_active(state, modifier, XKB_STATE_MODS_EFFECTIVE), 1)
            << modifier;
        // The modifiers' masks are the bits of these modifiers in this keymap.
        xkb_mod_mask_t mask = 1u << xkb_keymap_mod_get_index(keymap.get(), modifier);
        EXPECT_EQ(mask, modifier == std::string(XKB_MOD_NAME_CTRL) ? kControlMask : kAltMask);
        xkb_state_update_key(state, keycode, XKB_KEY_UP);
    }
    xkb_state_unref(state);
}

TEST(Keymap, PlansTheDistinctCharactersAheadUpToOneKeymap) {
    EXPECT_EQ(keysymsAhead(U"abba\r\nb"),
              (std::vector<Keysym>{'a', 'b', XKB_KEY_Return}));
    EXPECT_FALSE(keysymFor(U'\x07'));
    EXPECT_FALSE(keysymFor(U'\x7f'));
    std::u32string many;
    for (char32_t c = 0x4E00; c < 0x4E00 + 300; ++c) many += c;
    std::vector<Keysym> planned = keysymsAhead(many);
    ASSERT_EQ(planned.size(), kKeysPerKeymap);
    EXPECT_EQ(planned.front(), *keysymFor(0x4E00));
    EXPECT_EQ(planned.back(), *keysymFor(0x4E00 + kKeysPerKeymap - 1));
    EXPECT_TRUE(compile(keymapText(planned)));
}

TEST(ScreencopyFrame, BecomesRowsOfBlueGreenRedOpaque) {
    struct {
        const char* label;
        FrameLayout layout;
        std::vector<std::uint8_t> data;
        int canvasWidth, canvasHeight, x, y;
        std::vector<std::uint8_t> bgra;
    } cases[] = {
        {"padded rows, junk in the pad byte",
         {2, 2, 12, false, false},
         {1, 2, 3, 77, 4, 5, 6, 88, 9, 9, 9, 9, 7, 8, 9, 66, 10, 11, 12, 55, 9, 9, 9, 9},
         2, 2, 0, 0,
         {1, 2, 3, 255, 4, 5, 6, 255, 7, 8, 9, 255, 10, 11, 12, 255}},
        {"bottom row first", {1, 2, 4, false, true}, {1, 2, 3, 0, 4, 5, 6, 0}, 1, 2, 0, 0,
         {4, 5, 6, 255, 1, 2, 3, 255}},
        {"red first", {1, 1, 4, true, false}, {3, 2, 1, 0}, 1, 1, 0, 0, {1, 2, 3, 255}},
        {"at an offset, cut at the canvas", {2, 1, 8, false, false}, {1, 1, 1, 0, 2, 2, 2, 0},
         2, 1, 1, 0, {0, 0, 0, 0, 1, 1, 1, 255}},
    };
    for (auto& c : cases) {
        Pixels pixels;
        pixels.width = c.canvasWidth;
        pixels.height = c.canvasHeight;
        pixels.bgra.assign(static_cast<size_t>(c.canvasWidth) * c.canvasHeight * 4, 0);
        copyFrame(c.data.data(), c.layout, pixels, c.x, c.y);
        EXPECT_EQ(pixels.bgra, c.bgra) << c.label;
    }
}

// Two bridges in one session open the lock file apart, as two processes
// would; the second gets it only once the first lets go.
TEST(TypingClaim, OneOpenFileHoldsItUntilClosed) {
    char path[] = "/tmp/quorvel-claim-XXXXXX";
    int first = mkstemp(path);
    ASSERT_GE(first, 0);
    int second = open(path, O_RDWR | O_CLOEXEC);
    ASSERT_GE(second, 0);
    unlink(path);

    EXPECT_TRUE(lockWithin(first, std::chrono::milliseconds(0)));
    EXPECT_FALSE(lockWithin(second, std::chrono::milliseconds(60)));
    close(first);
    EXPECT_TRUE(lockWithin(second, std::chrono::milliseconds(0)));
    close(second);
}

}  // namespace
}  // namespace quorvel::linux_backend::wayland
