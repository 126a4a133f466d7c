// The Linux backend's translation rules that the end-to-end tests cannot
// reach, checked without a desktop: AT-SPI facts to accessibility
// attributes, the raw pixel layout that is hashed whatever the server's
// format, the reading of malformed AT-SPI replies, and finding the
// accessibility bus without starting anything.
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

#include "platform/linux/atspi/bus.h"
#include "platform/linux/atspi/methods.h"
#include "platform/linux/atspi/element_facts.h"
#include "platform/linux/x11/capture.h"

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

// The end-to-end tests see the plain mappings and the single- and
// multi-line text roles on real widgets; these are the rest: the secure
// subrole, and AT-SPI's own name for a role without an equivalent.
TEST(Attributes, RolesMapToTheSharedVocabulary) {
    struct {
        int role;
        StateBits states;
        const char* axRole;
        const char* axSubrole;  // null: no subrole
    } cases[] = {
        {ATSPI_ROLE_PASSWORD_TEXT, states({ATSPI_STATE_SINGLE_LINE}), "AXTextField",
         "AXSecureTextField"},
        {ATSPI_ROLE_PUSH_BUTTON, 0, "AXButton", nullptr},
        {ATSPI_ROLE_LIST_ITEM, 0, "list item", nullptr},
    };
    for (const auto& c : cases) {
        ScriptedFacts facts;
        facts.roleValue = c.role;
        facts.statesValue = c.states;
        AttributeRead role = readAttribute(facts, "AXRole");
        AttributeRead subrole = readAttribute(facts, "AXSubrole");
        ASSERT_EQ(role.code, kAXErrorSuccess) << c.axRole;
        EXPECT_EQ(std::get<std::string>(role.value), c.axRole);
        EXPECT_EQ(subrole.code == kAXErrorSuccess ? std::get<std::string>(subrole.value) : "-",
                  c.axSubrole ? c.axSubrole : "-")
            << c.axRole;
    }
}

TEST(Attributes, PasswordTextIsNeverAskedForWhoeverAsks) {
    ScriptedFacts facts;
    facts.roleValue = ATSPI_ROLE_PASSWORD_TEXT;
    facts.textValue = "hunter2";
    AttributeRead value = readAttribute(facts, "AXValue");
    EXPECT_NE(value.code, kAXErrorSuccess);
    EXPECT_TRUE(std::holds_alternative<std::monostate>(value.value));
    EXPECT_EQ(facts.asked["text"], 0);
}

// Text roles' values are seen end to end.
TEST(Attributes, ValueIsTheNumberOfOtherRolesThatHaveOne) {
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

TEST(Attributes, AnUnplacedWidgetHasNoFrame) {
    ScriptedFacts hidden;
    hidden.extentsValue = Extents{INT_MIN, INT_MIN, 100, 20};  // GTK's answer for one not drawn
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

TEST(PixelLayout, EveryServerFormatComesOutAsRowsOfFourBytesAPixelWithOpaqueAlpha) {
    struct {
        const char* label;
        std::vector<std::uint8_t> data;  // as the server lays it out, little-endian
        int width, height, bitsPerPixel, bytesPerLine;
        int canvasWidth, canvasHeight, x, y;  // where the image lands
        std::vector<std::uint8_t> bgra;       // the whole canvas afterwards
    } cases[] = {
        // Rows padded to 12 bytes, with junk in the padding and in the
        // unused fourth byte of each pixel.
        {"32 bits, padded rows",
         {1, 2, 3, 77, 4, 5, 6, 88, 9, 9, 9, 9, 7, 8, 9, 66, 10, 11, 12, 55, 9, 9, 9, 9},
         2, 2, 32, 12, 2, 2, 0, 0,
         {1, 2, 3, 255, 4, 5, 6, 255, 7, 8, 9, 255, 10, 11, 12, 255}},
        // 5-6-5: full red, full green, full blue, white.
        {"16 bits", {0x00, 0xf8, 0xe0, 0x07, 0x1f, 0x00, 0xff, 0xff}, 4, 1, 16, 8, 4, 1, 0, 0,
         {0, 0, 255, 255, 0, 255, 0, 255, 255, 0, 0, 255, 255, 255, 255, 255}},
        {"a part at its offset", {10, 20, 30, 0}, 1, 1, 32, 4, 2, 2, 1, 1,
         {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 10, 20, 30, 255}},
    };
    for (auto& c : cases) {
        bool wide = c.bitsPerPixel == 32;
        XImage image{.width = c.width, .height = c.height, .xoffset = 0, .format = ZPixmap,
                     .data = reinterpret_cast<char*>(c.data.data()), .byte_order = LSBFirst,
                     .bitmap_unit = 32, .bitmap_bit_order = LSBFirst, .bitmap_pad = 32,
                     .depth = wide ? 24 : 16, .bytes_per_line = c.bytesPerLine,
                     .bits_per_pixel = c.bitsPerPixel, .red_mask = wide ? 0xff0000ul : 0xf800ul,
                     .green_mask = wide ? 0xff00ul : 0x07e0ul,
                     .blue_mask = wide ? 0xfful : 0x001ful, .obdata = nullptr, .f = {}};
        XInitImage(&image);
        Pixels pixels;
        pixels.width = c.canvasWidth;
        pixels.height = c.canvasHeight;
        pixels.bgra.assign(static_cast<size_t>(c.canvasWidth) * c.canvasHeight * 4, 0);
        copyToBgra(image, pixels, c.x, c.y);
        EXPECT_EQ(pixels.bgra, c.bgra) << c.label;
    }
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

TEST_F(Environment, TheBusIsFoundInOrderAndNothingIsStarted) {
    std::function<std::optional<std::string>()> rootWindow = [] { return "unix:path=/x"; };
    struct {
        const char* accessibilityBus;
        const char* sessionBus;
        bool onTheRootWindow;
        std::optional<std::string> found;
    } cases[] = {
        {"unix:path=/run/a11y", nullptr, true, "unix:path=/run/a11y"},
        {nullptr, "unix:path=/nonexistent/bus", true, "unix:path=/x"},
        {nullptr, nullptr, false, std::nullopt},
        // An address that would make libdbus launch a bus is never used.
        {nullptr, "autolaunch:", false, std::nullopt},
        {nullptr, "unix:path=/nonexistent/bus", false, std::nullopt},
    };
    for (const auto& c : cases) {
        for (auto [name, value] : {std::pair{"AT_SPI_BUS_ADDRESS", c.accessibilityBus},
                                   std::pair{"DBUS_SESSION_BUS_ADDRESS", c.sessionBus}}) {
            if (value) setenv(name, value, 1);
            else unsetenv(name);
        }
        EXPECT_EQ(accessibilityBusAddress(c.onTheRootWindow ? rootWindow : nullptr, 100), c.found)
            << "case " << &c - cases;
    }
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
