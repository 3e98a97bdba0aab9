// The portable view vocabulary: every window of the application is described as a tree of
// these nodes, built by a view function from the model's state. Renderers (AppKit, Qt, the
// text renderer of the tests) only draw trees and send the actions of interactive nodes back
// unchanged; they hold no logic of their own.
//
// A node's `key` is stable across rebuilds of the same window, so a renderer can update a
// drawn tree in place (a slider being dragged, a focused field, an open picker keep their
// place). Symbols keep their system names ("speaker.wave.2.fill"); each renderer maps them to
// its platform's icons. Nothing here knows about audio.
//
// Thread: any (plain values). Realtime-safe: no.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace brightmix::ui {

enum class NodeKind {
    window,       // a window root: title
    panel,        // the menu-bar panel root
    section,      // a titled group (title may be empty)
    row,          // children side by side
    stack,        // children one under the other
    text,         // text with a role
    toggle,       // a switch: title, isOn
    slider,       // value in [minimum, maximum], with valueText beside it
    picker,       // title, options, selection
    button,       // title, symbol, role
    menu,         // a pull-down of entries (title, symbol)
    callout,      // symbol, message (text), optional button (buttonTitle + action)
    list,         // rows (children), or `text` as the empty-list placeholder
    textField,    // text, placeholder, clear button
    levelMeter,   // value in [minimum, maximum], valueText
    image,        // symbol (or an application icon by name)
    confirmation, // a dialog: title, text, confirm (buttonTitle, role, action) and cancel
    spacer,       // flexible space in a row or stack
};

enum class TextRole { title, headline, body, status, help, caption, error, monospaced };
enum class ButtonRole { normal, primary, destructive, cancel, link, plain };

// What an interactive node asks for: an operation name and its fixed arguments. Controls that
// carry a value (toggle, slider, picker, text field) send it with the action.
struct Action {
    std::string name;
    std::vector<std::string> arguments;

    bool empty() const { return name.empty(); }
    friend bool operator==(const Action&, const Action&) = default;
};

// An action as a renderer sends it back: the node's action and, for controls with a value,
// the new value ("true"/"false", a number in shortest form, the chosen option's value, the
// typed text). A confirmation sends its action with "confirm" or "cancel".
struct ActionEvent {
    Action action;
    std::optional<std::string> value;
    friend bool operator==(const ActionEvent&, const ActionEvent&) = default;
};

struct Option {
    std::string value;
    std::string title;
    bool isEnabled = true;
    friend bool operator==(const Option&, const Option&) = default;
};

struct MenuEntry {
    std::string key;
    std::string title;
    std::string symbol;
    std::optional<bool> isChecked; // set: a toggle entry
    bool isSeparator = false;
    bool isEnabled = true;
    std::string help;
    Action action;
    std::vector<MenuEntry> children; // non-empty: a submenu

    friend bool operator==(const MenuEntry&, const MenuEntry&) = default;
};

struct Node {
    NodeKind kind = NodeKind::stack;
    std::string key;

    std::string title;
    std::string text;
    TextRole textRole = TextRole::body;
    std::string symbol;
    ButtonRole buttonRole = ButtonRole::normal;
    std::string buttonTitle; // callouts and confirmations
    std::string cancelTitle; // confirmations
    std::string help;        // tooltip
    std::string accessibilityLabel;
    bool isEnabled = true;

    bool isOn = false;
    double value = 0;
    double minimum = 0;
    double maximum = 1;
    std::string valueText;
    std::vector<Option> options;
    std::string selection;
    std::string placeholder;
    bool hasClearButton = false;

    Action action;
    std::vector<MenuEntry> entries;
    std::vector<Node> children;

    friend bool operator==(const Node&, const Node&) = default;
};

// Builders, so view functions read like the windows they describe.
Node window(std::string key, std::string title, std::vector<Node> children);
Node panel(std::string key, std::vector<Node> children);
Node section(std::string key, std::string title, std::vector<Node> children);
Node row(std::string key, std::vector<Node> children);
Node stack(std::string key, std::vector<Node> children);
Node text(std::string key, std::string content, TextRole role = TextRole::body);
Node toggle(std::string key, std::string title, bool isOn, Action action);
Node slider(std::string key, std::string title, double value, double minimum, double maximum,
            std::string valueText, Action action);
Node picker(std::string key, std::string title, std::vector<Option> options, std::string selection,
            Action action);
Node button(std::string key, std::string title, std::string symbol, Action action,
            ButtonRole role = ButtonRole::normal);
Node menu(std::string key, std::string title, std::string symbol, std::vector<MenuEntry> entries);
Node callout(std::string key, std::string symbol, std::string message, std::string buttonTitle = {},
             Action action = {});
Node list(std::string key, std::vector<Node> rows, std::string emptyText = {});
Node textField(std::string key, std::string text, std::string placeholder, Action action,
               bool hasClearButton = false);
Node levelMeter(std::string key, std::string title, double value, double minimum, double maximum,
                std::string valueText);
Node image(std::string key, std::string symbol);
Node confirmation(std::string key, std::string title, std::string message, std::string confirmTitle,
                  Action confirm, std::string cancelTitle = "Cancel");
Node spacer(std::string key);

MenuEntry menuItem(std::string key, std::string title, Action action);
MenuEntry menuToggle(std::string key, std::string title, bool isChecked, Action action);
MenuEntry menuSeparator(std::string key);
MenuEntry submenu(std::string key, std::string title, std::vector<MenuEntry> children);

// Whether nodes of this kind hold child nodes that a renderer draws in order (window, panel,
// section, row, stack, list).
bool isContainer(NodeKind kind);

// The first node with this key in the tree (depth first), or none.
const Node* findNode(const Node& root, const std::string& key);
// The first menu entry with this key anywhere in the tree's menus, or none.
const MenuEntry* findMenuEntry(const Node& root, const std::string& key);

// Number formatting that does not depend on the locale: a double in its shortest form that
// reads back exactly ("0.5", "80", "1e-07").
std::string formatNumber(double value);

} // namespace brightmix::ui
