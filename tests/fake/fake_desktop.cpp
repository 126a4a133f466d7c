#include "fake/fake_desktop.h"

#include <algorithm>
#include <iomanip>
#include <sstream>
#include <tuple>

namespace quorvel::fake {

void FakeDesktop::record(std::string call) {
    std::string op = call.substr(0, call.find(' '));
    int nth = ++callCounts_[op];
    if (auto it = hooks_.find({op, nth}); it != hooks_.end()) {
        auto hooks = std::move(it->second);
        hooks_.erase(it);
        for (auto& hook : hooks) hook();
    }
    calls.push_back(std::move(call));
}

void FakeDesktop::before(const std::string& operation, int nth, std::function<void()> hook) {
    hooks_[{operation, nth}].push_back(std::move(hook));
}

int FakeDesktop::count(const std::string& operation) const {
    auto it = callCounts_.find(operation);
    return it == callCounts_.end() ? 0 : it->second;
}

bool FakeDesktop::wasRead(ElementId el, const std::string& attribute) const {
    std::string needle = "copyAttributeValue " + std::to_string(el) + " " + attribute;
    for (const std::string& c : calls)
        if (c == needle) return true;
    return false;
}

ElementId FakeDesktop::add(std::map<std::string, Value> attributes) {
    ElementId id = nextId_++;
    ElementData& data = elements[id];
    for (auto& [name, value] : attributes) data.attributes[name] = {kAXErrorSuccess, value};
    return id;
}

void FakeDesktop::set(ElementId el, const std::string& attribute, Value value, AXError code) {
    elements.at(el).attributes[attribute] = {code, std::move(value)};
}

void FakeDesktop::unset(ElementId el, const std::string& attribute) {
    elements.at(el).attributes.erase(attribute);
}

void FakeDesktop::setChildren(ElementId parent, const std::vector<ElementId>& children) {
    ElementList list;
    for (ElementId c : children) list.push_back(handle(c));
    set(parent, "AXChildren", std::move(list));
}

Element FakeDesktop::handle(ElementId el) const { return std::make_shared<FakeElement>(el); }

Element FakeDesktop::issue(ElementId el) const {
    auto element = std::make_shared<FakeElement>(el);
    element->live.track(live_);
    return element;
}

Value FakeDesktop::issue(const Value& value) const {
    if (auto* el = std::get_if<Element>(&value)) return *el ? issue(idOf(*el)) : Element{};
    if (auto* list = std::get_if<ElementList>(&value)) {
        ElementList fresh;
        fresh.reserve(list->size());
        for (const Element& el : *list) fresh.push_back(el ? issue(idOf(el)) : Element{});
        return fresh;
    }
    return value;
}

std::vector<std::string> FakeDesktop::readsOf(ElementId el) const {
    std::string prefix = "copyAttributeValue " + std::to_string(el) + " ";
    std::vector<std::string> reads;
    for (const std::string& c : calls)
        if (c.compare(0, prefix.size(), prefix) == 0) reads.push_back(c.substr(prefix.size()));
    return reads;
}

std::vector<std::string> FakeDesktop::postedLog() const {
    std::vector<std::string> log;
    for (const FakeEvent& e : posted) log.push_back(describe(e));
    return log;
}

std::vector<ElementId> FakeDesktop::addTree(ElementId root, int count, int fanout) {
    std::vector<ElementId> made;
    for (int i = 0; i < count; ++i) {
        made.push_back(add({
            {"AXRole", std::string("AXStaticText")},
            {"AXTitle", "Item " + std::to_string(i)},
            {"AXPosition", Point{110.0 + i % 700, 60.0 + (i / 700) * 20}},
            {"AXSize", Size{40, 16}},
        }));
    }
    // The root holds elements 0 to fanout - 1, element p the next `fanout`
    // after those of element p - 1.
    for (int parent = -1; (parent + 1) * fanout < count; ++parent) {
        auto first = made.begin() + (parent + 1) * fanout;
        auto last = made.begin() + std::min(count, (parent + 2) * fanout);
        setChildren(parent < 0 ? root : made[parent], std::vector<ElementId>(first, last));
    }
    return made;
}

std::string describe(const FakeEvent& e) {
    std::ostringstream s;
    auto flags = [&] {
        if (e.flags) s << " flags=0x" << std::hex << *e.flags << std::dec;
    };
    switch (e.kind) {
        case FakeEvent::Kind::Keyboard:
            s << "key " << e.keyCode << (e.keyDown ? " down" : " up");
            flags();
            if (e.hasUnicode) {
                s << " text=\"";
                for (char16_t u : e.unicode) {
                    if (u >= 0x20 && u < 0x7F && u != '"' && u != '\\')
                        s << static_cast<char>(u);
                    else
                        s << "\\u" << std::hex << std::setw(4) << std::setfill('0')
                          << static_cast<unsigned>(u) << std::dec << std::setfill(' ');
                }
                s << '"';
            }
            break;
        case FakeEvent::Kind::Mouse:
            s << "mouse " << (e.mouseType == MouseEventType::LeftMouseDown ? "down" : "up");
            if (e.clickState) s << " click=" << *e.clickState;
            flags();
            s << " at " << e.location.x << "," << e.location.y;
            break;
        case FakeEvent::Kind::Scroll:
            s << "scroll " << (e.scrollUnit == ScrollUnit::Pixel ? "pixel" : "line")
              << " wheels=" << e.wheelCount << " delta=" << e.wheel[0] << "," << e.wheel[1]
              << "," << e.wheel[2];
            flags();
            break;
    }
    return s.str();
}

ElementId FakeDesktop::idOf(const Element& el) {
    auto* fake = dynamic_cast<const FakeElement*>(el.get());
    if (!fake) throw std::logic_error("not an element of the fake desktop");
    return fake->id;
}

ElementId FakeDesktop::applicationElement(std::int32_t pid) {
    auto [it, made] = applicationElements_.try_emplace(pid, 0);
    if (made) it->second = add();
    return it->second;
}

Application FakeDesktop::frontmostApplication() {
    record("frontmostApplication");
    if (!frontmost) return nullptr;
    auto app = std::make_shared<FakeApplication>(*frontmost);
    app->live.track(live_);
    return app;
}

Element FakeDesktop::createApplicationElement(std::int32_t pid) {
    record("createApplicationElement " + std::to_string(pid));
    return issue(applicationElement(pid));
}

void FakeDesktop::setMessagingTimeout(const Element& el, float seconds) {
    std::ostringstream s;
    s << "setMessagingTimeout " << idOf(el) << " " << seconds;
    record(s.str());
}

AttributeRead FakeDesktop::copyAttributeValue(const Element& el, std::string_view attribute) {
    ElementId id = idOf(el);
    if (logCalls) record("copyAttributeValue " + std::to_string(id) + " " + std::string(attribute));
    auto e = elements.find(id);
    if (e == elements.end()) return {kAXErrorFailure, {}};
    auto a = e->second.attributes.find(attribute);
    if (a == e->second.attributes.end()) return {kAXErrorNoValue, {}};
    return {a->second.code, issue(a->second.value)};
}

AXError FakeDesktop::isAttributeSettable(const Element& el, std::string_view attribute,
                                         bool& settable) {
    ElementId id = idOf(el);
    record("isAttributeSettable " + std::to_string(id) + " " + std::string(attribute));
    // The flag is written even when the call fails, as a failing platform
    // call may leave anything there.
    const ElementData& data = elements.at(id);
    settable = data.valueSettable;
    return data.settableCode;
}

AXError FakeDesktop::setAttributeValue(const Element& el, std::string_view attribute,
                                       const std::string& text) {
    ElementId id = idOf(el);
    record("setAttributeValue " + std::to_string(id) + " " + std::string(attribute));
    ElementData& data = elements.at(id);
    if (data.setCode == kAXErrorSuccess) {
        data.attributes[std::string(attribute)] = {kAXErrorSuccess, text};
        setValues.emplace_back(id, text);
    }
    return data.setCode;
}

std::optional<std::vector<WindowListEntry>> FakeDesktop::copyWindowInfo(std::uint32_t options,
                                                                        std::uint32_t relative) {
    record("copyWindowInfo " + std::to_string(options) + " " + std::to_string(relative));
    return windowList;
}

Image FakeDesktop::createWindowImage(const Rect& bounds, std::uint32_t listOption,
                                     std::uint32_t windowID, std::uint32_t imageOption) {
    std::ostringstream s;
    s << "createWindowImage " << bounds.x << "," << bounds.y << "," << bounds.width << ","
      << bounds.height << " " << listOption << " " << windowID << " " << imageOption;
    record(s.str());
    if (!imageBytes) return nullptr;
    auto image = std::make_shared<FakeImage>();
    image->bytes = *imageBytes;
    image->live.track(live_);
    return image;
}

std::optional<std::vector<std::uint8_t>> FakeDesktop::copyImageData(const Image& image) {
    record("copyImageData");
    if (!imageHasData) return std::nullopt;
    return dynamic_cast<const FakeImage&>(*image).bytes;
}

std::vector<TextObservation> FakeDesktop::recognizeText(const Image&) {
    record("recognizeText");
    if (recognizerError) throw std::runtime_error(*recognizerError);
    return recognized;
}

std::optional<EncodedImage> FakeDesktop::encodePng(const Image& image) {
    record("encodePng");
    if (!pngSize) return std::nullopt;
    EncodedImage png{{0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'}, pngSize->first, pngSize->second};
    const auto& bytes = dynamic_cast<const FakeImage&>(*image).bytes;
    png.bytes.insert(png.bytes.end(), bytes.begin(), bytes.end());
    return png;
}

std::optional<Point> FakeDesktop::pointerLocation() {
    record("pointerLocation");
    if (eventCreationFails()) return std::nullopt;
    return pointer;
}

Event FakeDesktop::newEvent(FakeEvent event) {
    if (eventCreationFails()) return nullptr;
    auto created = std::make_unique<FakeEvent>(std::move(event));
    created->live.track(live_);
    return created;
}

Event FakeDesktop::createKeyboardEvent(std::uint16_t virtualKey, bool keyDown) {
    record("createKeyboardEvent " + std::to_string(virtualKey) + (keyDown ? " down" : " up"));
    FakeEvent e;
    e.keyCode = virtualKey;
    e.keyDown = keyDown;
    return newEvent(std::move(e));
}

Event FakeDesktop::createMouseEvent(MouseEventType type, Point location, MouseButton) {
    record("createMouseEvent " + std::to_string(static_cast<int>(type)));
    FakeEvent e;
    e.kind = FakeEvent::Kind::Mouse;
    e.mouseType = type;
    e.location = location;
    return newEvent(std::move(e));
}

Event FakeDesktop::createScrollWheelEvent(ScrollUnit unit, std::uint32_t wheelCount,
                                          std::int32_t w1, std::int32_t w2, std::int32_t w3) {
    record("createScrollWheelEvent " + std::to_string(w1));
    FakeEvent e;
    e.kind = FakeEvent::Kind::Scroll;
    e.scrollUnit = unit;
    e.wheelCount = wheelCount;
    std::tie(e.wheel[0], e.wheel[1], e.wheel[2]) = std::tie(w1, w2, w3);
    return newEvent(std::move(e));
}

void FakeDesktop::setFlags(EventObject& event, EventFlags flags) {
    record("setFlags " + std::to_string(flags));
    dynamic_cast<FakeEvent&>(event).flags = flags;
}

void FakeDesktop::setUnicodeString(EventObject& event, std::span<const char16_t> text) {
    record("setUnicodeString " + std::to_string(text.size()));
    auto& e = dynamic_cast<FakeEvent&>(event);
    e.unicode.assign(text.begin(), text.end());
    e.hasUnicode = true;
}

void FakeDesktop::setIntegerValueField(EventObject& event, EventField field, std::int64_t value) {
    record("setIntegerValueField " + std::to_string(static_cast<int>(field)) + " " +
           std::to_string(value));
    if (field == EventField::MouseClickState) dynamic_cast<FakeEvent&>(event).clickState = value;
}

void FakeDesktop::post(EventTap tap, EventObject& event) {
    record("post " + std::to_string(static_cast<int>(tap)));
    posted.push_back(dynamic_cast<FakeEvent&>(event));
}

void FakeDesktop::sleep(double seconds) {
    std::ostringstream s;
    s << "sleep " << seconds;
    record(s.str());
}

StandardScene::StandardScene(FakeDesktop& d) : desktop(d) {
    desktop.frontmost = FakeApplication{};
    desktop.frontmost->pid = kPid;
    desktop.frontmost->name = "Fake Editor";
    app = desktop.applicationElement(kPid);
    window = desktop.add({
        {"AXRole", std::string("AXWindow")},
        {"AXTitle", std::string("Document")},
        {"AXPosition", Point{kFrame.x, kFrame.y}},
        {"AXSize", Size{kFrame.width, kFrame.height}},
    });
    desktop.set(app, "AXFocusedWindow", desktop.handle(window));
    desktop.windowList = std::vector<WindowListEntry>{{
        std::int64_t{kPid},
        std::int64_t{0},
        kFrame,
        std::int64_t{kWindowNumber},
    }};
}

void StandardScene::moveWindow(double dx, double dy) {
    auto& position = std::get<Point>(desktop.elements.at(window).attributes.at("AXPosition").value);
    position.x += dx;
    position.y += dy;
    for (WindowListEntry& entry : *desktop.windowList) {
        if (std::get_if<std::int64_t>(&entry.number) &&
            std::get<std::int64_t>(entry.number) == kWindowNumber && entry.bounds) {
            entry.bounds->x += dx;
            entry.bounds->y += dy;
        }
    }
}

void StandardScene::retitle(const std::string& title) {
    desktop.set(window, "AXTitle", title);
}

void StandardScene::focus(ElementId element) {
    if (element == 0)
        desktop.unset(app, "AXFocusedUIElement");
    else
        desktop.set(app, "AXFocusedUIElement", desktop.handle(element));
}

FormScene::FormScene(bool settable) {
    // An element of this role at x,y of size w x h, with more attributes.
    auto add = [this](const char* role, Rect r, std::map<std::string, Value> more = {}) {
        more.insert({{"AXRole", std::string(role)}, {"AXPosition", Point{r.x, r.y}},
                     {"AXSize", Size{r.width, r.height}}});
        return desktop.add(std::move(more));
    };
    auto text = [](const char* s) { return Value{std::string(s)}; };
    ElementId label = add("AXStaticText", {110, 60, 80, 20}, {{"AXValue", text("Name:")}});
    editor = add("AXTextField", {200, 60, 300, 24},
                 {{"AXValue", text("hello")}, {"AXEnabled", true}, {"AXEditable", true}});
    twin = add("AXTextArea", {200, 100, 300, 200}, {{"AXValue", text("hello")}});
    desktop.elements.at(editor).valueSettable = settable;
    desktop.elements.at(twin).valueSettable = settable;
    password = add("AXTextField", {200, 320, 300, 24},
                   {{"AXSubrole", text("AXSecureTextField")}, {"AXValue", text(kSecretValue)},
                    {"AXTitle", text(kSecretTitle)}, {"AXDescription", text(kSecretDescription)},
                    {"AXEnabled", true}, {"AXEditable", true}});
    // Writable if anyone asked, so that a write would not fail by itself.
    desktop.elements.at(password).valueSettable = true;
    ElementId button = add("AXButton", {600, 500, 80, 30}, {{"AXTitle", text("Save")}});
    ElementId slider = desktop.add({{"AXRole", text("AXSlider")}, {"AXValue", std::int64_t{42}}});
    group = desktop.add({{"AXRole", text("AXGroup")}});
    desktop.setChildren(standard.window, {label, editor, twin, group});
    desktop.setChildren(group, {password, button, slider});
    standard.focus(editor);
    desktop.pointer = Point{300, 300};
    desktop.recognized = {{{0.1, 0.8, 0.3, 0.1}, {{"Name:", 0.9f}}}};
    ElementId otherWindow = add("AXWindow", kOtherFrame, {{"AXTitle", text("Other")}});
    desktop.set(desktop.applicationElement(kOtherPid), "AXFocusedWindow", desktop.handle(otherWindow));
}

void FormScene::bringOtherWindowToFront() {
    desktop.frontmost = FakeApplication{};
    desktop.frontmost->pid = kOtherPid;
    desktop.frontmost->name = "Other";
    desktop.windowList->insert(desktop.windowList->begin(),
                               WindowListEntry{std::int64_t{kOtherPid}, std::int64_t{0},
                                               kOtherFrame, std::int64_t{88}});
}

}  // namespace quorvel::fake
