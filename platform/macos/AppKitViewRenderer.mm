#include "platform/macos/AppKitViewRenderer.h"

#include <map>
#include <optional>
#include <set>
#include <vector>

#include "platform/macos/NSStrings.h"
#include "platform/macos/RunLoopMainLoop.h"

// The target of every control, menu item and text field of one node: it forwards to the
// renderer, which looks the node up by key.
@interface BMNodeTarget : NSObject <NSTextFieldDelegate, NSMenuDelegate> {
@public
    std::function<void(id sender)> onAction;
    std::function<void(bool isOpen)> onMenu;
}
- (void)perform:(id)sender;
@end

@implementation BMNodeTarget
- (void)perform:(id)sender {
    brightmix::runCatching("a control's action", [&] {
        if (onAction) onAction(sender);
    });
}
- (void)controlTextDidChange:(NSNotification*)notification {
    [self perform:notification.object];
}
- (void)menuWillOpen:(NSMenu*)menu {
    (void)menu;
    if (onMenu) onMenu(true);
}
- (void)menuDidClose:(NSMenu*)menu {
    (void)menu;
    if (onMenu) onMenu(false);
}
@end

// A list's rows: the views the renderer drew for the list's children, one per table row.
@interface BMListSource : NSObject <NSTableViewDataSource, NSTableViewDelegate> {
@public
    NSMutableArray<NSView*>* rows;
}
@end

@implementation BMListSource
- (instancetype)init {
    if ((self = [super init])) rows = [NSMutableArray array];
    return self;
}
- (NSInteger)numberOfRowsInTableView:(NSTableView*)tableView {
    (void)tableView;
    return static_cast<NSInteger>(rows.count);
}
- (NSView*)tableView:(NSTableView*)tableView
    viewForTableColumn:(NSTableColumn*)tableColumn
                   row:(NSInteger)row {
    (void)tableView;
    (void)tableColumn;
    return row >= 0 && static_cast<NSUInteger>(row) < rows.count
               ? rows[static_cast<NSUInteger>(row)]
               : nil;
}
- (BOOL)tableView:(NSTableView*)tableView shouldSelectRow:(NSInteger)row {
    (void)tableView;
    (void)row;
    return NO;
}
@end

namespace brightmix {

namespace {

NSTextField* makeLabel(bool wraps) {
    NSTextField* label =
        wraps ? [NSTextField wrappingLabelWithString:@""] : [NSTextField labelWithString:@""];
    label.translatesAutoresizingMaskIntoConstraints = NO;
    if (wraps) label.preferredMaxLayoutWidth = 320;
    return label;
}

void styleText(NSTextField* label, ui::TextRole role) {
    switch (role) {
    case ui::TextRole::title:
        label.font = [NSFont boldSystemFontOfSize:15];
        break;
    case ui::TextRole::headline:
        label.font = [NSFont boldSystemFontOfSize:[NSFont systemFontSize]];
        break;
    case ui::TextRole::body:
    case ui::TextRole::status:
        label.font = [NSFont systemFontOfSize:[NSFont systemFontSize]];
        label.textColor = NSColor.labelColor;
        break;
    case ui::TextRole::help:
    case ui::TextRole::caption:
        label.font = [NSFont systemFontOfSize:[NSFont smallSystemFontSize]];
        label.textColor = NSColor.secondaryLabelColor;
        break;
    case ui::TextRole::error:
        label.font = [NSFont systemFontOfSize:[NSFont systemFontSize]];
        label.textColor = NSColor.systemRedColor;
        break;
    case ui::TextRole::monospaced:
        label.font = [NSFont monospacedSystemFontOfSize:[NSFont smallSystemFontSize]
                                                 weight:NSFontWeightRegular];
        label.selectable = YES;
        break;
    }
}

NSStackView* makeStack(NSUserInterfaceLayoutOrientation orientation, CGFloat spacing) {
    NSStackView* stack = [[NSStackView alloc] init];
    stack.orientation = orientation;
    stack.spacing = spacing;
    stack.alignment = orientation == NSUserInterfaceLayoutOrientationVertical
                          ? NSLayoutAttributeLeading
                          : NSLayoutAttributeCenterY;
    stack.translatesAutoresizingMaskIntoConstraints = NO;
    return stack;
}

const ui::MenuEntry* findEntry(const std::vector<ui::MenuEntry>& entries, const std::string& key) {
    for (const ui::MenuEntry& entry : entries) {
        if (entry.key == key) return &entry;
        if (const ui::MenuEntry* found = findEntry(entry.children, key)) return found;
    }
    return nullptr;
}

} // namespace

NSImage* AppKitViewRenderer::symbolImage(const std::string& symbol,
                                         const std::string& description) {
    if (symbol.empty()) return nil;
    if (symbol.front() == '/') return [[NSWorkspace sharedWorkspace] iconForFile:nsString(symbol)];
    return [NSImage imageWithSystemSymbolName:nsString(symbol)
                     accessibilityDescription:description.empty() ? nil : nsString(description)];
}

struct AppKitViewRenderer::Impl {
    struct Entry {
        ui::Node node; // the last node drawn, without children
        NSView* view = nil;
        NSStackView* stack = nil; // where children go
        NSTextField* label = nil;
        NSTextField* valueLabel = nil;
        NSSlider* slider = nil;
        NSSwitch* toggle = nil;
        NSPopUpButton* popUp = nil;
        NSButton* button = nil;
        NSTextField* field = nil;
        NSLevelIndicator* meter = nil;
        NSImageView* image = nil;
        NSTableView* table = nil;
        NSScrollView* scroll = nil;
        BMListSource* rows = nil;
        BMNodeTarget* target = nil;
        NSAlert* alert = nil;
        std::vector<NSView*> children;
        bool isTracking = false; // a slider under the pointer
        bool isMenuOpen = false; // a pop-up showing its menu
    };

    ActionHandler handler;
    NSStackView* host = nil;
    std::map<std::string, std::unique_ptr<Entry>> entries;
    std::set<std::string> seen;

    void send(const std::string& key, std::optional<std::string> value) {
        const auto found = entries.find(key);
        if (found == entries.end() || !handler || found->second->node.action.empty()) return;
        const ui::Action action = found->second->node.action;
        handler({action, std::move(value)});
    }

    void render(const ui::Node& tree) {
        seen.clear();
        NSView* root = reconcile(tree);
        if (host.arrangedSubviews.count != 1 || host.arrangedSubviews.firstObject != root) {
            for (NSView* view in [host.arrangedSubviews copy]) {
                [host removeArrangedSubview:view];
                [view removeFromSuperview];
            }
            [host addArrangedSubview:root];
        }
        for (auto it = entries.begin(); it != entries.end();) {
            it = seen.count(it->first) ? std::next(it) : entries.erase(it);
        }
    }

    NSView* reconcile(const ui::Node& node) {
        auto found = entries.find(node.key);
        if (found != entries.end() && found->second->node.kind != node.kind) {
            entries.erase(found);
            found = entries.end();
        }
        Entry* entry = nullptr;
        bool isNew = false;
        if (found == entries.end()) {
            auto created = std::make_unique<Entry>();
            entry = created.get();
            entries[node.key] = std::move(created);
            create(*entry, node);
            isNew = true;
        } else {
            entry = found->second.get();
        }
        seen.insert(node.key);
        update(*entry, node, isNew);
        if (ui::isContainer(node.kind)) updateChildren(*entry, node);
        return entry->view;
    }

    BMNodeTarget* targetFor(const std::string& key) {
        BMNodeTarget* target = [[BMNodeTarget alloc] init];
        target->onAction = [this, key](id sender) { actionFrom(key, sender); };
        target->onMenu = [this, key](bool isOpen) {
            const auto found = entries.find(key);
            if (found != entries.end()) found->second->isMenuOpen = isOpen;
        };
        return target;
    }

    // What a control sends, by the kind of its node.
    void actionFrom(const std::string& key, id sender) {
        const auto found = entries.find(key);
        if (found == entries.end()) return;
        Entry& entry = *found->second;
        switch (entry.node.kind) {
        case ui::NodeKind::toggle:
            send(key, entry.toggle.state == NSControlStateValueOn ? "true" : "false");
            break;
        case ui::NodeKind::slider: {
            const NSEventType type = NSApp.currentEvent.type;
            entry.isTracking =
                type == NSEventTypeLeftMouseDown || type == NSEventTypeLeftMouseDragged;
            send(key, ui::formatNumber(entry.slider.doubleValue));
            break;
        }
        case ui::NodeKind::picker: {
            const NSInteger index = entry.popUp.indexOfSelectedItem;
            if (index >= 0 && static_cast<std::size_t>(index) < entry.node.options.size())
                send(key, entry.node.options[static_cast<std::size_t>(index)].value);
            break;
        }
        case ui::NodeKind::menu: {
            NSString* itemKey =
                [sender isKindOfClass:[NSMenuItem class]]
                    ? static_cast<NSString*>([(NSMenuItem*)sender representedObject])
                    : nil;
            const ui::MenuEntry* item =
                itemKey ? findEntry(entry.node.entries, stdString(itemKey)) : nullptr;
            if (!item || item->action.empty() || !handler) break;
            std::optional<std::string> value;
            if (item->isChecked) value = *item->isChecked ? "false" : "true";
            const ui::Action action = item->action;
            handler({action, value});
            break;
        }
        case ui::NodeKind::textField:
            send(key, stdString(entry.field.stringValue));
            break;
        case ui::NodeKind::button:
        case ui::NodeKind::callout:
            send(key, std::nullopt);
            break;
        default:
            break;
        }
    }

    void create(Entry& entry, const ui::Node& node) {
        entry.node.kind = node.kind;
        entry.target = targetFor(node.key);
        switch (node.kind) {
        case ui::NodeKind::window:
        case ui::NodeKind::panel:
        case ui::NodeKind::stack: {
            entry.stack = makeStack(NSUserInterfaceLayoutOrientationVertical, 8);
            if (node.kind != ui::NodeKind::stack)
                entry.stack.edgeInsets = NSEdgeInsetsMake(14, 16, 14, 16);
            entry.view = entry.stack;
            break;
        }
        case ui::NodeKind::section: {
            NSStackView* outer = makeStack(NSUserInterfaceLayoutOrientationVertical, 6);
            entry.label = makeLabel(false);
            styleText(entry.label, ui::TextRole::headline);
            [outer addArrangedSubview:entry.label];
            entry.stack = makeStack(NSUserInterfaceLayoutOrientationVertical, 6);
            [outer addArrangedSubview:entry.stack];
            entry.view = outer;
            break;
        }
        case ui::NodeKind::row:
            entry.stack = makeStack(NSUserInterfaceLayoutOrientationHorizontal, 8);
            entry.view = entry.stack;
            break;
        case ui::NodeKind::list: {
            NSStackView* outer = makeStack(NSUserInterfaceLayoutOrientationVertical, 4);
            entry.rows = [[BMListSource alloc] init];
            entry.table = [[NSTableView alloc] init];
            NSTableColumn* column = [[NSTableColumn alloc] initWithIdentifier:@"row"];
            [entry.table addTableColumn:column];
            entry.table.headerView = nil;
            entry.table.usesAutomaticRowHeights = YES;
            entry.table.style = NSTableViewStyleInset;
            entry.table.dataSource = entry.rows;
            entry.table.delegate = entry.rows;
            entry.scroll = [[NSScrollView alloc] init];
            entry.scroll.documentView = entry.table;
            entry.scroll.hasVerticalScroller = YES;
            entry.scroll.translatesAutoresizingMaskIntoConstraints = NO;
            [entry.scroll.heightAnchor constraintGreaterThanOrEqualToConstant:60].active = YES;
            [entry.scroll.heightAnchor constraintLessThanOrEqualToConstant:260].active = YES;
            [entry.scroll.widthAnchor constraintGreaterThanOrEqualToConstant:420].active = YES;
            entry.label = makeLabel(true);
            styleText(entry.label, ui::TextRole::help);
            [outer addArrangedSubview:entry.scroll];
            [outer addArrangedSubview:entry.label];
            entry.view = outer;
            break;
        }
        case ui::NodeKind::text:
            entry.label = makeLabel(node.textRole != ui::TextRole::title &&
                                    node.textRole != ui::TextRole::monospaced);
            entry.view = entry.label;
            break;
        case ui::NodeKind::toggle: {
            NSStackView* row = makeStack(NSUserInterfaceLayoutOrientationHorizontal, 8);
            entry.label = makeLabel(false);
            entry.toggle = [[NSSwitch alloc] init];
            entry.toggle.target = entry.target;
            entry.toggle.action = @selector(perform:);
            [row addArrangedSubview:entry.label];
            [row addArrangedSubview:entry.toggle];
            entry.view = row;
            break;
        }
        case ui::NodeKind::slider: {
            NSStackView* row = makeStack(NSUserInterfaceLayoutOrientationHorizontal, 8);
            entry.label = makeLabel(false);
            entry.slider = [NSSlider sliderWithValue:0
                                            minValue:0
                                            maxValue:1
                                              target:entry.target
                                              action:@selector(perform:)];
            entry.slider.continuous = YES;
            [entry.slider.widthAnchor constraintGreaterThanOrEqualToConstant:160].active = YES;
            entry.valueLabel = makeLabel(false);
            entry.valueLabel.font =
                [NSFont monospacedDigitSystemFontOfSize:[NSFont smallSystemFontSize]
                                                 weight:NSFontWeightRegular];
            [row addArrangedSubview:entry.label];
            [row addArrangedSubview:entry.slider];
            [row addArrangedSubview:entry.valueLabel];
            entry.view = row;
            break;
        }
        case ui::NodeKind::picker: {
            NSStackView* row = makeStack(NSUserInterfaceLayoutOrientationHorizontal, 8);
            entry.label = makeLabel(false);
            entry.popUp = [[NSPopUpButton alloc] initWithFrame:NSZeroRect pullsDown:NO];
            entry.popUp.autoenablesItems = NO;
            entry.popUp.target = entry.target;
            entry.popUp.action = @selector(perform:);
            entry.popUp.menu.delegate = entry.target;
            [row addArrangedSubview:entry.label];
            [row addArrangedSubview:entry.popUp];
            entry.view = row;
            break;
        }
        case ui::NodeKind::button:
            entry.button = [NSButton buttonWithTitle:@""
                                              target:entry.target
                                              action:@selector(perform:)];
            entry.view = entry.button;
            break;
        case ui::NodeKind::menu:
            entry.popUp = [[NSPopUpButton alloc] initWithFrame:NSZeroRect pullsDown:YES];
            entry.popUp.autoenablesItems = NO;
            entry.popUp.menu.delegate = entry.target;
            entry.view = entry.popUp;
            break;
        case ui::NodeKind::callout: {
            NSStackView* row = makeStack(NSUserInterfaceLayoutOrientationHorizontal, 8);
            entry.image = [NSImageView imageViewWithImage:[[NSImage alloc] init]];
            entry.image.contentTintColor = NSColor.systemOrangeColor;
            entry.label = makeLabel(true);
            entry.button = [NSButton buttonWithTitle:@""
                                              target:entry.target
                                              action:@selector(perform:)];
            entry.button.controlSize = NSControlSizeSmall;
            [row addArrangedSubview:entry.image];
            [row addArrangedSubview:entry.label];
            [row addArrangedSubview:entry.button];
            entry.view = row;
            break;
        }
        case ui::NodeKind::textField: {
            entry.field =
                node.hasClearButton ? [[NSSearchField alloc] init] : [[NSTextField alloc] init];
            entry.field.delegate = entry.target;
            entry.field.translatesAutoresizingMaskIntoConstraints = NO;
            [entry.field.widthAnchor constraintGreaterThanOrEqualToConstant:180].active = YES;
            entry.view = entry.field;
            break;
        }
        case ui::NodeKind::levelMeter: {
            NSStackView* row = makeStack(NSUserInterfaceLayoutOrientationHorizontal, 8);
            entry.label = makeLabel(false);
            entry.meter = [[NSLevelIndicator alloc] init];
            entry.meter.levelIndicatorStyle = NSLevelIndicatorStyleContinuousCapacity;
            entry.meter.editable = NO;
            [entry.meter.widthAnchor constraintGreaterThanOrEqualToConstant:120].active = YES;
            entry.valueLabel = makeLabel(false);
            entry.valueLabel.font =
                [NSFont monospacedDigitSystemFontOfSize:[NSFont smallSystemFontSize]
                                                 weight:NSFontWeightRegular];
            [row addArrangedSubview:entry.label];
            [row addArrangedSubview:entry.meter];
            [row addArrangedSubview:entry.valueLabel];
            entry.view = row;
            break;
        }
        case ui::NodeKind::image:
            entry.image = [NSImageView imageViewWithImage:[[NSImage alloc] init]];
            entry.view = entry.image;
            break;
        case ui::NodeKind::confirmation: {
            // The alert is its own window; an empty view holds its place in the tree.
            entry.view = [[NSView alloc] initWithFrame:NSZeroRect];
            entry.view.hidden = YES;
            presentConfirmation(node);
            break;
        }
        case ui::NodeKind::spacer:
            entry.view = [[NSView alloc] initWithFrame:NSZeroRect];
            [entry.view setContentHuggingPriority:NSLayoutPriorityDefaultLow - 1
                                   forOrientation:NSLayoutConstraintOrientationHorizontal];
            [entry.view setContentHuggingPriority:NSLayoutPriorityDefaultLow - 1
                                   forOrientation:NSLayoutConstraintOrientationVertical];
            break;
        }
    }

    void presentConfirmation(const ui::Node& node) {
        NSAlert* alert = [[NSAlert alloc] init];
        alert.alertStyle = NSAlertStyleWarning;
        alert.messageText = nsString(node.title);
        alert.informativeText = nsString(node.text);
        NSButton* confirm = [alert addButtonWithTitle:nsString(node.buttonTitle)];
        confirm.hasDestructiveAction = node.buttonRole == ui::ButtonRole::destructive;
        [alert addButtonWithTitle:nsString(node.cancelTitle)];
        const std::string key = node.key;
        // Shown once the current render is over: the window it belongs to may only now appear.
        dispatch_async(dispatch_get_main_queue(), ^{
          const auto found = entries.find(key);
          if (found == entries.end()) return; // withdrawn before it was shown
          found->second->alert = alert;
          auto answer = ^(NSModalResponse response) {
            runCatching("a confirmation", [&] {
                send(key, response == NSAlertFirstButtonReturn ? "confirm" : "cancel");
            });
          };
          NSWindow* window = found->second->view.window;
          if (window) {
              [alert beginSheetModalForWindow:window completionHandler:answer];
          } else {
              [NSApp activate];
              answer([alert runModal]);
          }
        });
    }

    template <typename Member>
    bool changed(const Entry& entry, const ui::Node& node, Member member, bool isNew) {
        return isNew || !(entry.node.*member == node.*member);
    }

    void update(Entry& entry, const ui::Node& node, bool isNew) {
        auto changedField = [&](auto member) { return changed(entry, node, member, isNew); };
        NSView* view = entry.view;
        if (changedField(&ui::Node::help))
            view.toolTip = node.help.empty() ? nil : nsString(node.help);
        if (changedField(&ui::Node::accessibilityLabel) || changedField(&ui::Node::title)) {
            const std::string& label =
                node.accessibilityLabel.empty() ? node.title : node.accessibilityLabel;
            if (!label.empty()) view.accessibilityLabel = nsString(label);
        }
        if ([view isKindOfClass:[NSControl class]] && changedField(&ui::Node::isEnabled))
            static_cast<NSControl*>(view).enabled = node.isEnabled;

        switch (node.kind) {
        case ui::NodeKind::window:
        case ui::NodeKind::panel:
        case ui::NodeKind::stack:
        case ui::NodeKind::row:
        case ui::NodeKind::spacer:
        case ui::NodeKind::confirmation:
            break;
        case ui::NodeKind::section:
            if (changedField(&ui::Node::title)) {
                entry.label.stringValue = nsString(node.title);
                entry.label.hidden = node.title.empty();
            }
            break;
        case ui::NodeKind::list:
            if (changedField(&ui::Node::text)) entry.label.stringValue = nsString(node.text);
            entry.label.hidden = !node.children.empty() || node.text.empty();
            entry.scroll.hidden = node.children.empty();
            break;
        case ui::NodeKind::text:
            if (changedField(&ui::Node::text)) entry.label.stringValue = nsString(node.text);
            if (changedField(&ui::Node::textRole)) styleText(entry.label, node.textRole);
            break;
        case ui::NodeKind::toggle:
            if (changedField(&ui::Node::title)) entry.label.stringValue = nsString(node.title);
            entry.toggle.state = node.isOn ? NSControlStateValueOn : NSControlStateValueOff;
            entry.toggle.enabled = node.isEnabled;
            entry.toggle.accessibilityLabel = nsString(node.title);
            break;
        case ui::NodeKind::slider:
            if (changedField(&ui::Node::title)) {
                entry.label.stringValue = nsString(node.title);
                entry.label.hidden = node.title.empty();
            }
            if (([NSEvent pressedMouseButtons] & 1) == 0) entry.isTracking = false;
            // Never move a slider under the user's hand.
            if (!entry.isTracking) {
                entry.slider.minValue = node.minimum;
                entry.slider.maxValue = node.maximum;
                entry.slider.doubleValue = node.value;
            }
            entry.slider.enabled = node.isEnabled;
            if (changedField(&ui::Node::valueText))
                entry.valueLabel.stringValue = nsString(node.valueText);
            break;
        case ui::NodeKind::picker: {
            if (changedField(&ui::Node::title)) {
                entry.label.stringValue = nsString(node.title);
                entry.label.hidden = node.title.empty();
            }
            entry.popUp.enabled = node.isEnabled;
            if (entry.isMenuOpen) break; // an open pop-up keeps its list until it closes
            if (changedField(&ui::Node::options)) {
                [entry.popUp removeAllItems];
                for (const ui::Option& option : node.options) {
                    NSMenuItem* item = [[NSMenuItem alloc] initWithTitle:nsString(option.title)
                                                                  action:nil
                                                           keyEquivalent:@""];
                    item.enabled = option.isEnabled;
                    [entry.popUp.menu addItem:item];
                }
            }
            NSInteger index = -1;
            for (std::size_t i = 0; i < node.options.size(); ++i) {
                if (node.options[i].value == node.selection) index = static_cast<NSInteger>(i);
            }
            if (entry.popUp.indexOfSelectedItem != index) [entry.popUp selectItemAtIndex:index];
            break;
        }
        case ui::NodeKind::button: {
            const bool isIconOnly =
                node.buttonRole == ui::ButtonRole::plain && !node.symbol.empty();
            if (changedField(&ui::Node::title) || changedField(&ui::Node::buttonRole)) {
                entry.button.title = isIconOnly ? @"" : nsString(node.title);
                if (isIconOnly && node.help.empty()) entry.button.toolTip = nsString(node.title);
                entry.button.accessibilityLabel = nsString(node.title);
            }
            if (changedField(&ui::Node::symbol)) {
                entry.button.image = symbolImage(node.symbol, node.title);
                entry.button.imagePosition = isIconOnly ? NSImageOnly : NSImageLeading;
            }
            if (changedField(&ui::Node::buttonRole)) {
                entry.button.keyEquivalent = node.buttonRole == ui::ButtonRole::primary  ? @"\r"
                                             : node.buttonRole == ui::ButtonRole::cancel ? @"\033"
                                                                                         : @"";
                entry.button.hasDestructiveAction = node.buttonRole == ui::ButtonRole::destructive;
                const bool isBorderless = node.buttonRole == ui::ButtonRole::link ||
                                          node.buttonRole == ui::ButtonRole::plain;
                entry.button.bordered = !isBorderless;
                entry.button.contentTintColor =
                    node.buttonRole == ui::ButtonRole::link ? NSColor.linkColor : nil;
            }
            break;
        }
        case ui::NodeKind::menu:
            entry.popUp.enabled = node.isEnabled;
            if (entry.isMenuOpen) break;
            if (changedField(&ui::Node::entries) || changedField(&ui::Node::title) ||
                changedField(&ui::Node::symbol)) {
                [entry.popUp removeAllItems];
                // A pull-down shows its first item as its face.
                NSMenuItem* face = [[NSMenuItem alloc] initWithTitle:nsString(node.title)
                                                              action:nil
                                                       keyEquivalent:@""];
                face.image = symbolImage(node.symbol, node.title);
                [entry.popUp.menu addItem:face];
                fillMenu(entry.popUp.menu, node.entries, entry.target);
            }
            break;
        case ui::NodeKind::callout:
            if (changedField(&ui::Node::symbol))
                entry.image.image = symbolImage(node.symbol, node.text);
            if (changedField(&ui::Node::text)) entry.label.stringValue = nsString(node.text);
            if (changedField(&ui::Node::buttonTitle))
                entry.button.title = nsString(node.buttonTitle);
            entry.button.hidden = node.buttonTitle.empty() || node.action.empty();
            break;
        case ui::NodeKind::textField:
            if (changedField(&ui::Node::placeholder))
                entry.field.placeholderString = nsString(node.placeholder);
            // A field being typed in keeps what the user typed.
            if (!entry.field.currentEditor && stdString(entry.field.stringValue) != node.text)
                entry.field.stringValue = nsString(node.text);
            break;
        case ui::NodeKind::levelMeter:
            if (changedField(&ui::Node::title)) {
                entry.label.stringValue = nsString(node.title);
                entry.label.hidden = node.title.empty();
            }
            entry.meter.minValue = node.minimum;
            entry.meter.maxValue = node.maximum;
            entry.meter.doubleValue = node.value;
            if (changedField(&ui::Node::valueText))
                entry.valueLabel.stringValue = nsString(node.valueText);
            break;
        case ui::NodeKind::image:
            if (changedField(&ui::Node::symbol))
                entry.image.image = symbolImage(node.symbol, node.accessibilityLabel);
            break;
        }
        ui::Node kept = node;
        kept.children.clear();
        entry.node = std::move(kept);
    }

    void fillMenu(NSMenu* menu, const std::vector<ui::MenuEntry>& items, BMNodeTarget* target) {
        for (const ui::MenuEntry& item : items) {
            if (item.isSeparator) {
                [menu addItem:[NSMenuItem separatorItem]];
                continue;
            }
            NSMenuItem* menuItem = [[NSMenuItem alloc] initWithTitle:nsString(item.title)
                                                              action:@selector(perform:)
                                                       keyEquivalent:@""];
            menuItem.target = target;
            menuItem.representedObject = nsString(item.key);
            menuItem.enabled = item.isEnabled;
            menuItem.image = symbolImage(item.symbol, item.title);
            if (!item.help.empty()) menuItem.toolTip = nsString(item.help);
            if (item.isChecked)
                menuItem.state = *item.isChecked ? NSControlStateValueOn : NSControlStateValueOff;
            if (!item.children.empty()) {
                NSMenu* submenu = [[NSMenu alloc] initWithTitle:nsString(item.title)];
                submenu.autoenablesItems = NO;
                fillMenu(submenu, item.children, target);
                menuItem.submenu = submenu;
                menuItem.action = nil;
            }
            [menu addItem:menuItem];
        }
    }

    void updateChildren(Entry& entry, const ui::Node& node) {
        std::vector<NSView*> children;
        children.reserve(node.children.size());
        for (const ui::Node& child : node.children)
            children.push_back(reconcile(child));
        if (children == entry.children) return;
        entry.children = children;
        if (node.kind == ui::NodeKind::list) {
            [entry.rows->rows removeAllObjects];
            for (NSView* child : children)
                [entry.rows->rows addObject:child];
            [entry.table reloadData];
            return;
        }
        for (NSView* view in [entry.stack.arrangedSubviews copy]) {
            [entry.stack removeArrangedSubview:view];
            [view removeFromSuperview];
        }
        for (NSView* child : children) {
            [child removeFromSuperview];
            [entry.stack addArrangedSubview:child];
        }
    }
};

AppKitViewRenderer::AppKitViewRenderer(ActionHandler handler) : impl_(std::make_unique<Impl>()) {
    impl_->handler = std::move(handler);
    impl_->host = makeStack(NSUserInterfaceLayoutOrientationVertical, 0);
}

AppKitViewRenderer::~AppKitViewRenderer() = default;

void AppKitViewRenderer::render(const ui::Node& tree) {
    impl_->render(tree);
}

NSView* AppKitViewRenderer::view() const {
    return impl_->host;
}

} // namespace brightmix
