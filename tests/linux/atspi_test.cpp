// The AT-SPI side's rules that the end-to-end tests cannot reach, checked
// without a desktop: AT-SPI facts to accessibility attributes, the reading
// of malformed AT-SPI replies, and finding the accessibility bus without
// starting anything.
#include <gtest/gtest.h>

#include <atspi/atspi-constants.h>
#include <dbus/dbus.h>
#include <stdlib.h>

#include <climits>
#include <map>

#include "platform/linux/atspi/bus.h"
#include "platform/linux/atspi/methods.h"
#include "platform/linux/atspi/element_facts.h"

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
