#include "ui/TextRenderer.h"

#include <sstream>

namespace brightmix::ui {

namespace {

std::string quoted(const std::string& text) {
    std::string result = "\"";
    for (char c : text) {
        if (c == '"' || c == '\\') result += '\\';
        if (c == '\n') {
            result += "\\n";
            continue;
        }
        result += c;
    }
    return result + "\"";
}

const char* roleName(TextRole role) {
    switch (role) {
    case TextRole::title:
        return "title";
    case TextRole::headline:
        return "headline";
    case TextRole::body:
        return "body";
    case TextRole::status:
        return "status";
    case TextRole::help:
        return "help";
    case TextRole::caption:
        return "caption";
    case TextRole::error:
        return "error";
    case TextRole::monospaced:
        return "monospaced";
    }
    return "?";
}

const char* roleName(ButtonRole role) {
    switch (role) {
    case ButtonRole::normal:
        return "";
    case ButtonRole::primary:
        return "[primary]";
    case ButtonRole::destructive:
        return "[destructive]";
    case ButtonRole::cancel:
        return "[cancel]";
    case ButtonRole::link:
        return "[link]";
    case ButtonRole::plain:
        return "[plain]";
    }
    return "";
}

std::string symbol(const std::string& name) {
    return name.empty() ? "" : " (" + name + ")";
}

std::string arrow(const Action& action) {
    return action.empty() ? "" : " -> " + describeAction(action);
}

void renderEntries(std::ostringstream& out, const std::vector<MenuEntry>& entries, int depth) {
    for (const MenuEntry& entry : entries) {
        out << std::string(std::size_t(depth) * 2, ' ');
        if (entry.isSeparator) {
            out << "separator";
        } else if (!entry.children.empty()) {
            out << "submenu " << quoted(entry.title);
        } else {
            out << "item " << quoted(entry.title);
            if (entry.isChecked) out << (*entry.isChecked ? " [x]" : " [ ]");
        }
        out << symbol(entry.symbol);
        if (!entry.isEnabled) out << " disabled";
        if (!entry.help.empty()) out << " help " << quoted(entry.help);
        out << arrow(entry.action) << " #" << entry.key << "\n";
        renderEntries(out, entry.children, depth + 1);
    }
}

void render(std::ostringstream& out, const Node& node, int depth) {
    const std::string indent(std::size_t(depth) * 2, ' ');
    out << indent;
    switch (node.kind) {
    case NodeKind::window:
        out << "window " << quoted(node.title);
        break;
    case NodeKind::panel:
        out << "panel";
        break;
    case NodeKind::section:
        out << "section";
        if (!node.title.empty()) out << " " << quoted(node.title);
        break;
    case NodeKind::row:
        out << "row";
        break;
    case NodeKind::stack:
        out << "stack";
        break;
    case NodeKind::text:
        out << "text[" << roleName(node.textRole) << "] " << quoted(node.text);
        break;
    case NodeKind::toggle:
        out << "toggle " << quoted(node.title) << (node.isOn ? " on" : " off");
        break;
    case NodeKind::slider:
        out << "slider " << quoted(node.title) << " " << formatNumber(node.value) << " in "
            << formatNumber(node.minimum) << "..." << formatNumber(node.maximum) << " "
            << quoted(node.valueText);
        break;
    case NodeKind::picker:
        out << "picker " << quoted(node.title) << " = " << quoted(node.selection);
        break;
    case NodeKind::button:
        out << "button" << roleName(node.buttonRole) << " " << quoted(node.title)
            << symbol(node.symbol);
        break;
    case NodeKind::menu:
        out << "menu " << quoted(node.title) << symbol(node.symbol);
        break;
    case NodeKind::callout:
        out << "callout" << symbol(node.symbol) << " " << quoted(node.text);
        if (!node.buttonTitle.empty()) out << " button " << quoted(node.buttonTitle);
        break;
    case NodeKind::list:
        out << "list";
        if (node.children.empty() && !node.text.empty()) out << " empty " << quoted(node.text);
        break;
    case NodeKind::textField:
        out << "field " << quoted(node.text) << " placeholder " << quoted(node.placeholder);
        if (node.hasClearButton) out << " clear";
        break;
    case NodeKind::levelMeter:
        out << "meter " << quoted(node.title) << " " << formatNumber(node.value) << " in "
            << formatNumber(node.minimum) << "..." << formatNumber(node.maximum) << " "
            << quoted(node.valueText);
        break;
    case NodeKind::image:
        out << "image" << symbol(node.symbol);
        break;
    case NodeKind::confirmation:
        out << "confirmation " << quoted(node.title) << " " << quoted(node.text) << " cancel "
            << quoted(node.cancelTitle) << " confirm" << roleName(node.buttonRole) << " "
            << quoted(node.buttonTitle);
        break;
    case NodeKind::spacer:
        out << "spacer";
        break;
    }
    if (!node.isEnabled) out << " disabled";
    if (!node.help.empty()) out << " help " << quoted(node.help);
    if (!node.accessibilityLabel.empty()) out << " label " << quoted(node.accessibilityLabel);
    out << arrow(node.action) << " #" << node.key << "\n";
    for (const Option& option : node.options) {
        out << indent << "  " << (option.value == node.selection ? "* " : "- ")
            << quoted(option.title) << " = " << quoted(option.value)
            << (option.isEnabled ? "" : " disabled") << "\n";
    }
    renderEntries(out, node.entries, depth + 1);
    for (const Node& child : node.children)
        render(out, child, depth + 1);
}

} // namespace

std::string describeAction(const Action& action) {
    if (action.arguments.empty()) return action.name;
    std::string result = action.name + "(";
    for (std::size_t i = 0; i < action.arguments.size(); ++i) {
        if (i > 0) result += ", ";
        result += quoted(action.arguments[i]);
    }
    return result + ")";
}

std::string renderText(const Node& root) {
    std::ostringstream out;
    render(out, root, 0);
    return out.str();
}

} // namespace brightmix::ui
