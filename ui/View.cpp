#include "ui/View.h"

#include <charconv>
#include <utility>

namespace brightmix::ui {

namespace {

Node make(NodeKind kind, std::string key) {
    Node node;
    node.kind = kind;
    node.key = std::move(key);
    return node;
}

const MenuEntry* findEntry(const std::vector<MenuEntry>& entries, const std::string& key) {
    for (const MenuEntry& entry : entries) {
        if (entry.key == key) return &entry;
        if (const MenuEntry* found = findEntry(entry.children, key)) return found;
    }
    return nullptr;
}

} // namespace

Node window(std::string key, std::string title, std::vector<Node> children) {
    Node node = make(NodeKind::window, std::move(key));
    node.title = std::move(title);
    node.children = std::move(children);
    return node;
}

Node panel(std::string key, std::vector<Node> children) {
    Node node = make(NodeKind::panel, std::move(key));
    node.children = std::move(children);
    return node;
}

Node section(std::string key, std::string title, std::vector<Node> children) {
    Node node = make(NodeKind::section, std::move(key));
    node.title = std::move(title);
    node.children = std::move(children);
    return node;
}

Node row(std::string key, std::vector<Node> children) {
    Node node = make(NodeKind::row, std::move(key));
    node.children = std::move(children);
    return node;
}

Node stack(std::string key, std::vector<Node> children) {
    Node node = make(NodeKind::stack, std::move(key));
    node.children = std::move(children);
    return node;
}

Node text(std::string key, std::string content, TextRole role) {
    Node node = make(NodeKind::text, std::move(key));
    node.text = std::move(content);
    node.textRole = role;
    return node;
}

Node toggle(std::string key, std::string title, bool isOn, Action action) {
    Node node = make(NodeKind::toggle, std::move(key));
    node.title = std::move(title);
    node.isOn = isOn;
    node.action = std::move(action);
    return node;
}

Node slider(std::string key, std::string title, double value, double minimum, double maximum,
            std::string valueText, Action action) {
    Node node = make(NodeKind::slider, std::move(key));
    node.title = std::move(title);
    node.value = value;
    node.minimum = minimum;
    node.maximum = maximum;
    node.valueText = std::move(valueText);
    node.action = std::move(action);
    return node;
}

Node picker(std::string key, std::string title, std::vector<Option> options, std::string selection,
            Action action) {
    Node node = make(NodeKind::picker, std::move(key));
    node.title = std::move(title);
    node.options = std::move(options);
    node.selection = std::move(selection);
    node.action = std::move(action);
    return node;
}

Node button(std::string key, std::string title, std::string symbol, Action action,
            ButtonRole role) {
    Node node = make(NodeKind::button, std::move(key));
    node.title = std::move(title);
    node.symbol = std::move(symbol);
    node.action = std::move(action);
    node.buttonRole = role;
    return node;
}

Node menu(std::string key, std::string title, std::string symbol, std::vector<MenuEntry> entries) {
    Node node = make(NodeKind::menu, std::move(key));
    node.title = std::move(title);
    node.symbol = std::move(symbol);
    node.entries = std::move(entries);
    return node;
}

Node callout(std::string key, std::string symbol, std::string message, std::string buttonTitle,
             Action action) {
    Node node = make(NodeKind::callout, std::move(key));
    node.symbol = std::move(symbol);
    node.text = std::move(message);
    node.buttonTitle = std::move(buttonTitle);
    node.action = std::move(action);
    return node;
}

Node list(std::string key, std::vector<Node> rows, std::string emptyText) {
    Node node = make(NodeKind::list, std::move(key));
    node.children = std::move(rows);
    node.text = std::move(emptyText);
    return node;
}

Node textField(std::string key, std::string content, std::string placeholder, Action action,
               bool hasClearButton) {
    Node node = make(NodeKind::textField, std::move(key));
    node.text = std::move(content);
    node.placeholder = std::move(placeholder);
    node.action = std::move(action);
    node.hasClearButton = hasClearButton;
    return node;
}

Node levelMeter(std::string key, std::string title, double value, double minimum, double maximum,
                std::string valueText) {
    Node node = make(NodeKind::levelMeter, std::move(key));
    node.title = std::move(title);
    node.value = value;
    node.minimum = minimum;
    node.maximum = maximum;
    node.valueText = std::move(valueText);
    return node;
}

Node image(std::string key, std::string symbol) {
    Node node = make(NodeKind::image, std::move(key));
    node.symbol = std::move(symbol);
    return node;
}

Node confirmation(std::string key, std::string title, std::string message, std::string confirmTitle,
                  Action confirm, std::string cancelTitle) {
    Node node = make(NodeKind::confirmation, std::move(key));
    node.title = std::move(title);
    node.text = std::move(message);
    node.buttonTitle = std::move(confirmTitle);
    node.buttonRole = ButtonRole::destructive;
    node.action = std::move(confirm);
    node.cancelTitle = std::move(cancelTitle);
    return node;
}

Node spacer(std::string key) {
    return make(NodeKind::spacer, std::move(key));
}

MenuEntry menuItem(std::string key, std::string title, Action action) {
    MenuEntry entry;
    entry.key = std::move(key);
    entry.title = std::move(title);
    entry.action = std::move(action);
    return entry;
}

MenuEntry menuToggle(std::string key, std::string title, bool isChecked, Action action) {
    MenuEntry entry = menuItem(std::move(key), std::move(title), std::move(action));
    entry.isChecked = isChecked;
    return entry;
}

MenuEntry menuSeparator(std::string key) {
    MenuEntry entry;
    entry.key = std::move(key);
    entry.isSeparator = true;
    return entry;
}

MenuEntry submenu(std::string key, std::string title, std::vector<MenuEntry> children) {
    MenuEntry entry;
    entry.key = std::move(key);
    entry.title = std::move(title);
    entry.children = std::move(children);
    return entry;
}

bool isContainer(NodeKind kind) {
    switch (kind) {
    case NodeKind::window:
    case NodeKind::panel:
    case NodeKind::section:
    case NodeKind::row:
    case NodeKind::stack:
    case NodeKind::list:
        return true;
    default:
        return false;
    }
}

const Node* findNode(const Node& root, const std::string& key) {
    if (root.key == key) return &root;
    for (const Node& child : root.children) {
        if (const Node* found = findNode(child, key)) return found;
    }
    return nullptr;
}

const MenuEntry* findMenuEntry(const Node& root, const std::string& key) {
    if (const MenuEntry* found = findEntry(root.entries, key)) return found;
    for (const Node& child : root.children) {
        if (const MenuEntry* found = findMenuEntry(child, key)) return found;
    }
    return nullptr;
}

std::string formatNumber(double value) {
    char buffer[32];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    return std::string(buffer, result.ptr);
}

} // namespace brightmix::ui
