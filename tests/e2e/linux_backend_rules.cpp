// The Linux backend's translation rules, checked without a desktop: AT-SPI
// facts to accessibility attributes, the frame geometry the window list
// reports, the raw pixel layout that is hashed, recognised boxes, the
// reading of AT-SPI replies, and finding the accessibility bus without
// starting anything.
#include <gtest/gtest.h>

// clang-format off
#include <X11/Xlib.h>
#include <X11/Xutil.h>
// clang-format on
#include <atspi/atspi-constants.h>
#include <dbus/dbus.h>
#include <stdlib.h>

#include <climits>
#include <map>

#include "platform/linux/atspi_bus.h"
#include "platform/linux/atspi_calls.h"
#include "platform/linux/element_attributes.h"
#include "platform/linux/text_recognition.h"
#include "platform/linux/x_capture.h"
#include "platform/linux/x_display.h"

namespace quorvel::linux_backend {
namespace {

StateBits states(std::initializer_list<int> list) {
    StateBits bits = 0;
    for (int state : list) bits |= StateBits{1} << state;
    return bits;
}

// Facts as a test scripts them; records which ones were asked for.
class ScriptedFacts final : public ElementFacts {
public:
    std::optional<int> roleValue;
    std::optional<StateBits> statesValue;
    std::optional<std::string> nameValue, descriptionValue, textValue;
    std::optional<Extents> extentsValue;
    std::optional<double> valueValue;
    std::map<std::string, int> asked;

    std::optional<int> role() override { return ++asked["role"], roleValue; }
    std::optional<StateBits> states() override { return ++asked["states"], statesValue; }
    std::optional<std::string> name() override { return ++asked["name"], nameValue; }
    std::optional<std::string> description() override {
        return ++asked["description"], descriptionValue;
    }
    std::optional<Extents> extents() override { return ++asked["extents"], extentsValue; }
    std::optional<std::string> text() override { return ++asked["text"], textValue; }
    std::optional<double> currentValue() override { return ++asked["value"], valueValue; }
    std::optional<ElementList> children() override { return ++asked["children"], std::nullopt; }
};

struct RoleCase {
    const char* label;
    int role;
    StateBits states;
    const char* axRole;
    const char* axSubrole;  // null: no subrole
};

class Roles : public ::testing::TestWithParam<RoleCase> {};

TEST_P(Roles, MapToTheSharedVocabulary) {
    const RoleCase& c = GetParam();
    ScriptedFacts facts;
    facts.roleValue = c.role;
    facts.statesValue = c.states;
    AttributeRead role = readAttribute(facts, "AXRole");
    ASSERT_EQ(role.code, kAXErrorSuccess);
    EXPECT_EQ(std::get<std::string>(role.value), c.axRole);
    AttributeRead subrole = readAttribute(facts, "AXSubrole");
    if (c.axSubrole) {
        ASSERT_EQ(subrole.code, kAXErrorSuccess);
        EXPECT_EQ(std::get<std::string>(subrole.value), c.axSubrole);
    } else {
        EXPECT_NE(subrole.code, kAXErrorSuccess);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Table, Roles,
    ::testing::Values(
        RoleCase{"single_line_text", ATSPI_ROLE_TEXT, states({ATSPI_STATE_SINGLE_LINE}),
                 "AXTextField", nullptr},
        RoleCase{"multi_line_text", ATSPI_ROLE_TEXT, states({ATSPI_STATE_MULTI_LINE}), "AXTextArea",
                 nullptr},
        RoleCase{"entry", ATSPI_ROLE_ENTRY, 0, "AXTextField", nullptr},
        RoleCase{"password", ATSPI_ROLE_PASSWORD_TEXT, states({ATSPI_STATE_SINGLE_LINE}),
                 "AXTextField", "AXSecureTextField"},
        RoleCase{"push_button", ATSPI_ROLE_PUSH_BUTTON, 0, "AXButton", nullptr},
        RoleCase{"label", ATSPI_ROLE_LABEL, 0, "AXStaticText", nullptr},
        RoleCase{"frame", ATSPI_ROLE_FRAME, 0, "AXWindow", nullptr},
        RoleCase{"dialog", ATSPI_ROLE_DIALOG, 0, "AXWindow", nullptr},
        RoleCase{"check_box", ATSPI_ROLE_CHECK_BOX, 0, "AXCheckBox", nullptr},
        RoleCase{"list_box", ATSPI_ROLE_LIST_BOX, 0, "AXList", nullptr},
        RoleCase{"no_equivalent_keeps_its_name", ATSPI_ROLE_VIEWPORT, 0, "viewport", nullptr},
        RoleCase{"raw_name_with_spaces", ATSPI_ROLE_LIST_ITEM, 0, "list item", nullptr}),
    [](const auto& info) { return std::string(info.param.label); });

TEST(Attributes, PasswordTextIsNeverAskedForWhoeverAsks) {
    ScriptedFacts facts;
    facts.roleValue = ATSPI_ROLE_PASSWORD_TEXT;
    facts.textValue = "hunter2";
    AttributeRead value = readAttribute(facts, "AXValue");
    EXPECT_NE(value.code, kAXErrorSuccess);
    EXPECT_TRUE(std::holds_alternative<std::monostate>(value.value));
    EXPECT_EQ(facts.asked["text"], 0);
}

TEST(Attributes, ValueIsTheWholeTextOfTextRolesAndTheNumberOfOthers) {
    ScriptedFacts entry;
    entry.roleValue = ATSPI_ROLE_TEXT;
    entry.textValue = "Ada Lovelace";
    entry.valueValue = 3;
    AttributeRead text = readAttribute(entry, "AXValue");
    ASSERT_EQ(text.code, kAXErrorSuccess);
    EXPECT_EQ(std::get<std::string>(text.value), "Ada Lovelace");
    EXPECT_EQ(entry.asked["value"], 0);

    ScriptedFacts slider;
    slider.roleValue = ATSPI_ROLE_SLIDER;
    slider.valueValue = 0.25;
    AttributeRead number = readAttribute(slider, "AXValue");
    ASSERT_EQ(number.code, kAXErrorSuccess);
    EXPECT_EQ(std::get<double>(number.value), 0.25);
    EXPECT_EQ(slider.asked["text"], 0);

    ScriptedFacts button;
    button.roleValue = ATSPI_ROLE_PUSH_BUTTON;
    EXPECT_EQ(readAttribute(button, "AXValue").code, kAXErrorNoValue);
}

TEST(Attributes, UnreadableFactsFailTheReadInsteadOfGuessing) {
    ScriptedFacts silent;  // every fact missing, as from an application that timed out
    for (const char* attribute : {"AXRole", "AXSubrole", "AXValue", "AXTitle", "AXDescription",
                                  "AXPosition", "AXSize", "AXEnabled", "AXEditable",
                                  "AXChildren"})
        EXPECT_NE(readAttribute(silent, attribute).code, kAXErrorSuccess) << attribute;
    EXPECT_EQ(readAttribute(silent, "AXNoSuchThing").code, kAXErrorAttributeUnsupported);
}

TEST(Attributes, FrameComesFromScreenExtentsAndAnUnplacedWidgetHasNone) {
    ScriptedFacts placed;
    placed.extentsValue = Extents{40, 60, 1282, 825};
    AttributeRead position = readAttribute(placed, "AXPosition");
    AttributeRead size = readAttribute(placed, "AXSize");
    ASSERT_EQ(position.code, kAXErrorSuccess);
    ASSERT_EQ(size.code, kAXErrorSuccess);
    EXPECT_EQ(std::get<Point>(position.value).x, 40);
    EXPECT_EQ(std::get<Point>(position.value).y, 60);
    EXPECT_EQ(std::get<Size>(size.value).width, 1282);
    EXPECT_EQ(std::get<Size>(size.value).height, 825);

    // GTK's answer for a widget that is not drawn.
    ScriptedFacts hidden;
    hidden.extentsValue = Extents{INT_MIN, INT_MIN, 100, 20};
    EXPECT_NE(readAttribute(hidden, "AXPosition").code, kAXErrorSuccess);
    EXPECT_NE(readAttribute(hidden, "AXSize").code, kAXErrorSuccess);
}

TEST(Attributes, EnabledAndEditableComeFromStates) {
    struct Case {
        StateBits states;
        bool enabled, editable;
    } cases[] = {
        {states({ATSPI_STATE_ENABLED, ATSPI_STATE_SENSITIVE}), true, false},
        {states({ATSPI_STATE_SENSITIVE}), true, false},
        {states({ATSPI_STATE_EDITABLE}), false, true},
        {0, false, false},
    };
    for (const Case& c : cases) {
        ScriptedFacts facts;
        facts.statesValue = c.states;
        EXPECT_EQ(std::get<bool>(readAttribute(facts, "AXEnabled").value), c.enabled);
        EXPECT_EQ(std::get<bool>(readAttribute(facts, "AXEditable").value), c.editable);
    }
}

TEST(WindowList, BoundsAddTheFrameExtentsToTheClient) {
    // Measured under openbox: a 1280x800 client at (41, 60) in a frame of
    // 1 pixel left and right, a 20-pixel title bar and a 5-pixel bottom
    // handle, which GTK reports to AT-SPI as (40, 40, 1282, 825).
    Rect framed = framedBounds(41, 60, 1280, 800, FrameExtents{1, 1, 20, 5});
    EXPECT_EQ(framed.x, 40);
    EXPECT_EQ(framed.y, 40);
    EXPECT_EQ(framed.width, 1282);
    EXPECT_EQ(framed.height, 825);
    Rect bare = framedBounds(554, 339, 1366, 741, FrameExtents{});
    EXPECT_EQ(bare.x, 554);
    EXPECT_EQ(bare.width, 1366);
}

XImage imageOver(std::vector<char>& data, int width, int height, int bitsPerPixel, int bytesPerLine,
                 unsigned long red, unsigned long green, unsigned long blue) {
    XImage image{};
    image.width = width;
    image.height = height;
    image.format = ZPixmap;
    image.data = data.data();
    image.byte_order = LSBFirst;
    image.bitmap_unit = 32;
    image.bitmap_bit_order = LSBFirst;
    image.bitmap_pad = 32;
    image.depth = bitsPerPixel == 32 ? 24 : 16;
    image.bytes_per_line = bytesPerLine;
    image.bits_per_pixel = bitsPerPixel;
    image.red_mask = red;
    image.green_mask = green;
    image.blue_mask = blue;
    XInitImage(&image);
    return image;
}

TEST(PixelLayout, RowsAreExactlyFourBytesAPixelWithOpaqueAlpha) {
    // Two pixels a row, each row padded to 12 bytes as X may lay it out, with
    // junk in the padding and in the unused fourth byte of each pixel.
    std::vector<char> data = {
        1, 2, 3, 77, 4, 5, 6, 88, 9, 9, 9, 9,  //
        7, 8, 9, 66, 10, 11, 12, 55, 9, 9, 9, 9,
    };
    XImage image = imageOver(data, 2, 2, 32, 12, 0xff0000, 0xff00, 0xff);
    Pixels pixels;
    pixels.width = 2;
    pixels.height = 2;
    pixels.bgra.assign(16, 0);
    copyToBgra(image, pixels, 0, 0);
    EXPECT_EQ(pixels.bgra, (std::vector<std::uint8_t>{1, 2, 3, 255, 4, 5, 6, 255,  //
                                                      7, 8, 9, 255, 10, 11, 12, 255}));
}

TEST(PixelLayout, OtherServerFormatsComeOutInTheSameLayout) {
    // 16-bit 5-6-5: full red, full green, full blue, white.
    std::vector<std::uint16_t> words = {0xf800, 0x07e0, 0x001f, 0xffff};
    std::vector<char> data(reinterpret_cast<char*>(words.data()),
                           reinterpret_cast<char*>(words.data()) + 8);
    XImage image = imageOver(data, 4, 1, 16, 8, 0xf800, 0x07e0, 0x001f);
    Pixels pixels;
    pixels.width = 4;
    pixels.height = 1;
    pixels.bgra.assign(16, 0);
    copyToBgra(image, pixels, 0, 0);
    EXPECT_EQ(pixels.bgra, (std::vector<std::uint8_t>{0, 0, 255, 255, 0, 255, 0, 255,  //
                                                      255, 0, 0, 255, 255, 255, 255, 255}));
}

TEST(PixelLayout, APartialImageLandsAtItsOffset) {
    std::vector<char> data = {10, 20, 30, 0};
    XImage image = imageOver(data, 1, 1, 32, 4, 0xff0000, 0xff00, 0xff);
    Pixels pixels;
    pixels.width = 2;
    pixels.height = 2;
    pixels.bgra.assign(16, 0);
    copyToBgra(image, pixels, 1, 1);
    EXPECT_EQ(std::vector<std::uint8_t>(pixels.bgra.begin() + 12, pixels.bgra.end()),
              (std::vector<std::uint8_t>{10, 20, 30, 255}));
    EXPECT_EQ(std::vector<std::uint8_t>(pixels.bgra.begin(), pixels.bgra.begin() + 4),
              (std::vector<std::uint8_t>{0, 0, 0, 0}));
}

TEST(Recognition, BoxesAreNormalisedWithTheOriginAtTheLowerLeft) {
    Rect whole = normalisedBox(0, 0, 200, 100, 200, 100);
    EXPECT_EQ(whole.x, 0);
    EXPECT_EQ(whole.y, 0);
    EXPECT_EQ(whole.width, 1);
    EXPECT_EQ(whole.height, 1);
    // A line in the top-left corner sits at the top of the normalised box.
    Rect corner = normalisedBox(0, 0, 50, 10, 200, 100);
    EXPECT_DOUBLE_EQ(corner.y + corner.height, 1.0);
    EXPECT_DOUBLE_EQ(corner.width, 0.25);
    // A line in the lower half has its top below the middle.
    Rect low = normalisedBox(20, 60, 120, 80, 200, 100);
    EXPECT_LT(low.y + low.height, 0.5);
    EXPECT_DOUBLE_EQ(low.y, 0.2);
}

// A method return holding what an application would answer.
Message reply(const std::function<void(DBusMessageIter*)>& fill) {
    Message message(dbus_message_new(DBUS_MESSAGE_TYPE_METHOD_RETURN));
    dbus_message_set_reply_serial(message.get(), 1);
    DBusMessageIter iter;
    dbus_message_iter_init_append(message.get(), &iter);
    fill(&iter);
    return message;
}

void appendRef(DBusMessageIter* iter, const char* bus, const char* path) {
    DBusMessageIter ref;
    dbus_message_iter_open_container(iter, DBUS_TYPE_STRUCT, nullptr, &ref);
    dbus_message_iter_append_basic(&ref, DBUS_TYPE_STRING, &bus);
    dbus_message_iter_append_basic(&ref, DBUS_TYPE_OBJECT_PATH, &path);
    dbus_message_iter_close_container(iter, &ref);
}

TEST(Replies, StatesSpanBothWords) {
    Message message = reply([](DBusMessageIter* iter) {
        DBusMessageIter words;
        dbus_message_iter_open_container(iter, DBUS_TYPE_ARRAY, "u", &words);
        dbus_uint32_t low = 1u << ATSPI_STATE_FOCUSED, high = 1u << (ATSPI_STATE_READ_ONLY - 32);
        dbus_message_iter_append_basic(&words, DBUS_TYPE_UINT32, &low);
        dbus_message_iter_append_basic(&words, DBUS_TYPE_UINT32, &high);
        dbus_message_iter_close_container(iter, &words);
    });
    std::optional<StateBits> bits = parseStates(message.get());
    ASSERT_TRUE(bits);
    EXPECT_TRUE(hasState(*bits, ATSPI_STATE_FOCUSED));
    EXPECT_TRUE(hasState(*bits, ATSPI_STATE_READ_ONLY));
    EXPECT_FALSE(hasState(*bits, ATSPI_STATE_ACTIVE));
}

TEST(Replies, AReplyOfAnotherShapeIsNoAnswer) {
    Message text = reply([](DBusMessageIter* iter) {
        const char* value = "not a role";
        dbus_message_iter_append_basic(iter, DBUS_TYPE_STRING, &value);
    });
    EXPECT_FALSE(parseRole(text.get()));
    EXPECT_FALSE(parseExtents(text.get()));
    EXPECT_FALSE(parseChildren(text.get()));
    EXPECT_FALSE(parseRole(nullptr));
    Message error(dbus_message_new(DBUS_MESSAGE_TYPE_ERROR));
    EXPECT_FALSE(parseText(error.get()));
}

TEST(Replies, CacheItemsCarryEverythingButGeometry) {
    Message message = reply([](DBusMessageIter* iter) {
        DBusMessageIter items, item, list;
        dbus_message_iter_open_container(iter, DBUS_TYPE_ARRAY, "((so)(so)(so)iiassusau)", &items);
        dbus_message_iter_open_container(&items, DBUS_TYPE_STRUCT, nullptr, &item);
        appendRef(&item, ":1.7", "/org/a11y/atspi/accessible/12");
        appendRef(&item, ":1.7", "/org/a11y/atspi/accessible/root");
        appendRef(&item, ":1.7", "/org/a11y/atspi/accessible/3");
        dbus_int32_t index = 2, count = 0;
        dbus_message_iter_append_basic(&item, DBUS_TYPE_INT32, &index);
        dbus_message_iter_append_basic(&item, DBUS_TYPE_INT32, &count);
        dbus_message_iter_open_container(&item, DBUS_TYPE_ARRAY, "s", &list);
        for (const char* name : {"org.a11y.atspi.Accessible", "org.a11y.atspi.Value"})
            dbus_message_iter_append_basic(&list, DBUS_TYPE_STRING, &name);
        dbus_message_iter_close_container(&item, &list);
        const char* name = "Volume";
        dbus_uint32_t role = ATSPI_ROLE_SLIDER;
        const char* description = "Output level";
        dbus_message_iter_append_basic(&item, DBUS_TYPE_STRING, &name);
        dbus_message_iter_append_basic(&item, DBUS_TYPE_UINT32, &role);
        dbus_message_iter_append_basic(&item, DBUS_TYPE_STRING, &description);
        dbus_message_iter_open_container(&item, DBUS_TYPE_ARRAY, "u", &list);
        dbus_uint32_t words[2] = {1u << ATSPI_STATE_ENABLED, 0};
        for (dbus_uint32_t& word : words)
            dbus_message_iter_append_basic(&list, DBUS_TYPE_UINT32, &word);
        dbus_message_iter_close_container(&item, &list);
        dbus_message_iter_close_container(&items, &item);
        dbus_message_iter_close_container(iter, &items);
    });
    auto items = parseCacheItems(message.get());
    ASSERT_TRUE(items);
    ASSERT_EQ(items->size(), 1u);
    const CacheItem& item = items->front();
    EXPECT_EQ(item.ref, (ObjectRef{":1.7", "/org/a11y/atspi/accessible/12"}));
    EXPECT_EQ(item.parent, (ObjectRef{":1.7", "/org/a11y/atspi/accessible/3"}));
    EXPECT_EQ(item.index, 2);
    EXPECT_EQ(item.childCount, 0);
    EXPECT_TRUE(hasInterface(item.interfaces, kValueInterface));
    EXPECT_FALSE(hasInterface(item.interfaces, kEditableTextInterface));
    EXPECT_EQ(item.name, "Volume");
    EXPECT_EQ(item.role, ATSPI_ROLE_SLIDER);
    EXPECT_EQ(item.description, "Output level");
    EXPECT_TRUE(hasState(item.states, ATSPI_STATE_ENABLED));
}

// Restores the environment variables a test changes.
class Environment : public ::testing::Test {
protected:
    void SetUp() override {
        for (const char* name : {"AT_SPI_BUS_ADDRESS", "DBUS_SESSION_BUS_ADDRESS"}) {
            const char* value = getenv(name);
            saved_[name] = value ? std::optional<std::string>(value) : std::nullopt;
            unsetenv(name);
        }
    }
    void TearDown() override {
        for (const auto& [name, value] : saved_) {
            if (value) setenv(name.c_str(), value->c_str(), 1);
            else unsetenv(name.c_str());
        }
    }
    std::map<std::string, std::optional<std::string>> saved_;
};

TEST_F(Environment, TheBusNamedInTheEnvironmentComesFirst) {
    setenv("AT_SPI_BUS_ADDRESS", "unix:path=/run/a11y", 1);
    auto address = accessibilityBusAddress([] { return std::string("unix:path=/x"); }, 100);
    EXPECT_EQ(address, "unix:path=/run/a11y");
}

TEST_F(Environment, TheRootWindowIsAskedBeforeTheSessionBus) {
    setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
    auto address = accessibilityBusAddress([] { return std::string("unix:path=/x"); }, 100);
    EXPECT_EQ(address, "unix:path=/x");
}

TEST_F(Environment, NoSessionMeansNoBusAndNothingStarted) {
    EXPECT_FALSE(accessibilityBusAddress(nullptr, 100));
    // Addresses that would make libdbus launch a bus are never used.
    setenv("DBUS_SESSION_BUS_ADDRESS", "autolaunch:", 1);
    EXPECT_FALSE(accessibilityBusAddress(nullptr, 100));
    setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
    EXPECT_FALSE(accessibilityBusAddress(nullptr, 100));
}

TEST(BusAddresses, ThoseThatStartProcessesAreRecognised) {
    EXPECT_TRUE(startsProcess("autolaunch:"));
    EXPECT_TRUE(startsProcess("unix:path=/nonexistent;autolaunch:"));
    EXPECT_TRUE(startsProcess("systemd:"));
    EXPECT_FALSE(startsProcess("unix:path=/run/user/0/bus"));
    EXPECT_FALSE(startsProcess("unix:abstract=/tmp/dbus-x,guid=1"));
}

}  // namespace
}  // namespace quorvel::linux_backend
