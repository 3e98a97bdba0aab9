#include "platform/linux/qt/QtViewRenderer.h"

#include <QAbstractItemView>
#include <QBoxLayout>
#include <QCheckBox>
#include <QComboBox>
#include <QFont>
#include <QFrame>
#include <QGroupBox>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QMessageBox>
#include <QPainter>
#include <QPixmap>
#include <QProgressBar>
#include <QPushButton>
#include <QSlider>
#include <QStandardItemModel>
#include <QStandardPaths>
#include <QToolButton>
#include <algorithm>
#include <cmath>
#include <unordered_map>

namespace brightmix {

namespace {

constexpr int kSliderSteps = 1000;

QString qt(const std::string& text) {
    return QString::fromStdString(text);
}

QIcon fallbackIcon() {
    static const QIcon icon = [] {
        QPixmap pixmap(32, 32);
        pixmap.fill(Qt::transparent);
        QPainter painter(&pixmap);
        painter.setRenderHint(QPainter::Antialiasing);
        painter.setPen(QPen(QColor(0x4a, 0x4f, 0x5a), 3));
        painter.drawEllipse(QRectF(5, 5, 22, 22));
        painter.setBrush(QColor(0x4a, 0x4f, 0x5a));
        painter.drawEllipse(QRectF(13, 13, 6, 6));
        return QIcon(pixmap);
    }();
    return icon;
}

void styleText(QLabel* label, ui::TextRole role) {
    QFont font = label->font();
    QString style;
    switch (role) {
    case ui::TextRole::title:
        font.setBold(true);
        font.setPointSizeF(font.pointSizeF() * 1.3);
        break;
    case ui::TextRole::headline:
        font.setBold(true);
        break;
    case ui::TextRole::status:
        break;
    case ui::TextRole::help:
    case ui::TextRole::caption:
        font.setPointSizeF(font.pointSizeF() * 0.9);
        style = "color: palette(mid);";
        break;
    case ui::TextRole::error:
        style = "color: #c62828;";
        break;
    case ui::TextRole::monospaced:
        font.setFamily("monospace");
        break;
    case ui::TextRole::body:
        break;
    }
    label->setFont(font);
    label->setStyleSheet(style);
    label->setWordWrap(role != ui::TextRole::title && role != ui::TextRole::monospaced);
}

int sliderPosition(double value, double minimum, double maximum) {
    if (!(maximum > minimum) || !std::isfinite(value)) return 0;
    const double fraction = std::clamp((value - minimum) / (maximum - minimum), 0.0, 1.0);
    return static_cast<int>(std::lround(fraction * kSliderSteps));
}

} // namespace

struct QtViewRenderer::Entry {
    ui::NodeKind kind = ui::NodeKind::stack;
    QPointer<QWidget> widget;
    ui::Node node; // the last node drawn, without children
    QBoxLayout* layout = nullptr;
    std::vector<std::string> childKeys;
    QLabel* label = nullptr;      // text, titles, callout message, empty list text
    QLabel* valueLabel = nullptr; // slider, picker title
    QLabel* iconLabel = nullptr;
    QSlider* slider = nullptr;
    QComboBox* combo = nullptr;
    QCheckBox* check = nullptr;
    QPushButton* button = nullptr;
    QToolButton* tool = nullptr;
    QMenu* menu = nullptr;
    QLineEdit* field = nullptr;
    QProgressBar* bar = nullptr;
    QPointer<QMessageBox> box;
};

std::string QtViewRenderer::themeIconName(const std::string& symbol) {
    static const std::unordered_map<std::string, std::string> kNames = {
        {"speaker.wave.2.fill", "audio-volume-high"},
        {"speaker.wave.3.fill", "audio-volume-high"},
        {"speaker.fill", "audio-volume-low"},
        {"speaker.slash.fill", "audio-volume-muted"},
        {"hifispeaker.fill", "audio-speakers"},
        {"hifispeaker.2.fill", "audio-speakers"},
        {"record.circle", "media-record"},
        {"stop.circle.fill", "media-playback-stop"},
        {"folder", "folder"},
        {"exclamationmark.circle.fill", "dialog-error"},
        {"exclamationmark.triangle.fill", "dialog-warning"},
        {"keyboard", "input-keyboard"},
        {"record.circle.fill", "media-record"},
        {"rectangle.on.rectangle", "preferences-desktop-display"},
        {"arrow.down.circle", "system-software-update"},
        {"person.crop.circle.badge.clock", "preferences-system-login"},
        {"ellipsis.circle", "open-menu"},
        {"plus", "list-add"},
        {"minus.circle", "list-remove"},
        {"arrow.right", "go-next"},
        {"xmark.circle.fill", "edit-clear"},
        {"checkmark.circle.fill", "emblem-ok"},
        {"hand.point.right", "go-next"},
        {"arrow.clockwise", "view-refresh"},
        {"arrow.clockwise.circle.fill", "view-refresh"},
        {"gearshape", "preferences-system"},
        {"app", "application-x-executable"},
        {"app.icon", "brightmix"},
    };
    const auto found = kNames.find(symbol);
    return found == kNames.end() ? std::string() : found->second;
}

QIcon QtViewRenderer::icon(const std::string& symbol) {
    const std::string name = themeIconName(symbol);
    if (name.empty()) return fallbackIcon();
    // Many themes carry some of these names only in their symbolic style.
    QIcon themed = QIcon::fromTheme(qt(name));
    if (themed.isNull()) themed = QIcon::fromTheme(qt(name + "-symbolic"));
    return themed.isNull() ? fallbackIcon() : themed;
}

void QtViewRenderer::useInstalledIconTheme() {
    QStringList paths = QIcon::themeSearchPaths();
    for (const QString& data :
         QStandardPaths::standardLocations(QStandardPaths::GenericDataLocation)) {
        if (!paths.contains(data + "/icons")) paths.append(data + "/icons");
    }
    QIcon::setThemeSearchPaths(paths);
    if (QIcon::themeName().isEmpty() || QIcon::themeName() == "hicolor") {
        QIcon::setThemeName("breeze");
    }
}

QtViewRenderer::QtViewRenderer(QWidget* host, ActionHandler handler)
    : host_(host), hostLayout_(new QVBoxLayout(host)), handler_(std::move(handler)) {
    hostLayout_->setContentsMargins(0, 0, 0, 0);
}

QtViewRenderer::~QtViewRenderer() = default;

QWidget* QtViewRenderer::widget(const std::string& key) const {
    const auto found = entries_.find(key);
    return found == entries_.end() ? nullptr : found->second->widget.data();
}

void QtViewRenderer::send(const std::string& key, std::optional<std::string> value) {
    const auto found = entries_.find(key);
    if (found == entries_.end() || !handler_) return;
    // A copy: the handler may rebuild the tree and replace the entry.
    const ui::Action action = found->second->node.action;
    handler_({action, std::move(value)});
}

void QtViewRenderer::render(const ui::Node& tree) {
    seen_.clear();
    QWidget* top = reconcile(tree, host_);
    if (root_ != top) {
        if (root_) hostLayout_->removeWidget(root_);
        hostLayout_->addWidget(top);
        root_ = top;
    }
    sweep();
}

void QtViewRenderer::sweep() {
    for (auto it = entries_.begin(); it != entries_.end();) {
        if (seen_.count(it->first) != 0) {
            ++it;
            continue;
        }
        Entry& entry = *it->second;
        if (entry.box) {
            entry.box->hide();
            entry.box->deleteLater();
        }
        if (entry.widget) {
            // Later: the widget may be the one whose signal started this rebuild.
            entry.widget->hide();
            entry.widget->setParent(nullptr);
            entry.widget->deleteLater();
        }
        it = entries_.erase(it);
    }
}

QWidget* QtViewRenderer::reconcile(const ui::Node& node, QWidget* parent) {
    seen_.insert(node.key);
    auto found = entries_.find(node.key);
    if (found != entries_.end() && (found->second->kind != node.kind || !found->second->widget)) {
        // Same key, another kind: the old widget goes and a new one is made.
        Entry& old = *found->second;
        if (old.widget) {
            old.widget->hide();
            old.widget->setParent(nullptr);
            old.widget->deleteLater();
        }
        if (old.box) old.box->deleteLater();
        entries_.erase(found);
        found = entries_.end();
    }
    if (found == entries_.end()) {
        auto entry = std::make_unique<Entry>();
        entry->kind = node.kind;
        Entry& created = *entry;
        entries_.emplace(node.key, std::move(entry));
        created.widget = create(node, parent, created);
        ++created_;
        update(created, node);
        created.node = node;
        created.node.children.clear();
        // The first update's changes are part of creating.
        return created.widget;
    }
    Entry& entry = *found->second;
    update(entry, node);
    entry.node = node;
    entry.node.children.clear();
    return entry.widget;
}

QWidget* QtViewRenderer::create(const ui::Node& node, QWidget* parent, Entry& entry) {
    const std::string key = node.key;
    switch (node.kind) {
    case ui::NodeKind::window:
    case ui::NodeKind::panel:
    case ui::NodeKind::stack:
    case ui::NodeKind::list: {
        auto* widget = new QWidget(parent);
        entry.layout = new QVBoxLayout(widget);
        if (node.kind == ui::NodeKind::stack) entry.layout->setContentsMargins(0, 0, 0, 0);
        if (node.kind == ui::NodeKind::list) {
            entry.label = new QLabel(widget);
            styleText(entry.label, ui::TextRole::caption);
            entry.layout->addWidget(entry.label);
        }
        return widget;
    }
    case ui::NodeKind::section: {
        auto* box = new QGroupBox(parent);
        entry.layout = new QVBoxLayout(box);
        return box;
    }
    case ui::NodeKind::row: {
        auto* widget = new QWidget(parent);
        entry.layout = new QHBoxLayout(widget);
        entry.layout->setContentsMargins(0, 0, 0, 0);
        return widget;
    }
    case ui::NodeKind::text: {
        entry.label = new QLabel(parent);
        entry.label->setTextInteractionFlags(Qt::TextSelectableByMouse);
        return entry.label;
    }
    case ui::NodeKind::toggle: {
        entry.check = new QCheckBox(parent);
        QObject::connect(entry.check, &QCheckBox::toggled, entry.check,
                         [this, key](bool isOn) { send(key, isOn ? "true" : "false"); });
        return entry.check;
    }
    case ui::NodeKind::slider: {
        auto* widget = new QWidget(parent);
        auto* layout = new QHBoxLayout(widget);
        layout->setContentsMargins(0, 0, 0, 0);
        entry.slider = new QSlider(Qt::Horizontal, widget);
        entry.slider->setRange(0, kSliderSteps);
        entry.valueLabel = new QLabel(widget);
        entry.valueLabel->setMinimumWidth(
            entry.valueLabel->fontMetrics().horizontalAdvance("100 "));
        entry.valueLabel->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
        layout->addWidget(entry.slider, 1);
        layout->addWidget(entry.valueLabel);
        QObject::connect(entry.slider, &QSlider::valueChanged, entry.slider,
                         [this, key](int position) {
                             const auto found = entries_.find(key);
                             if (found == entries_.end()) return;
                             const ui::Node& last = found->second->node;
                             const double value = last.minimum + (last.maximum - last.minimum) *
                                                                     position / kSliderSteps;
                             send(key, ui::formatNumber(value));
                         });
        return widget;
    }
    case ui::NodeKind::picker: {
        auto* widget = new QWidget(parent);
        auto* layout = new QHBoxLayout(widget);
        layout->setContentsMargins(0, 0, 0, 0);
        entry.valueLabel = new QLabel(widget);
        entry.combo = new QComboBox(widget);
        entry.combo->setModel(new QStandardItemModel(entry.combo));
        layout->addWidget(entry.valueLabel);
        layout->addWidget(entry.combo, 1);
        QObject::connect(entry.combo, qOverload<int>(&QComboBox::activated), entry.combo,
                         [this, key](int index) {
                             const auto found = entries_.find(key);
                             if (found == entries_.end()) return;
                             const auto& options = found->second->node.options;
                             if (index < 0 || std::size_t(index) >= options.size()) return;
                             send(key, options[std::size_t(index)].value);
                         });
        return widget;
    }
    case ui::NodeKind::button: {
        entry.button = new QPushButton(parent);
        QObject::connect(entry.button, &QPushButton::clicked, entry.button,
                         [this, key] { send(key, std::nullopt); });
        return entry.button;
    }
    case ui::NodeKind::menu: {
        entry.tool = new QToolButton(parent);
        entry.tool->setPopupMode(QToolButton::InstantPopup);
        entry.tool->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
        entry.menu = new QMenu(entry.tool);
        entry.tool->setMenu(entry.menu);
        return entry.tool;
    }
    case ui::NodeKind::callout: {
        auto* frame = new QFrame(parent);
        frame->setFrameShape(QFrame::StyledPanel);
        auto* layout = new QHBoxLayout(frame);
        entry.iconLabel = new QLabel(frame);
        entry.label = new QLabel(frame);
        entry.label->setWordWrap(true);
        entry.button = new QPushButton(frame);
        layout->addWidget(entry.iconLabel);
        layout->addWidget(entry.label, 1);
        layout->addWidget(entry.button);
        QObject::connect(entry.button, &QPushButton::clicked, entry.button,
                         [this, key] { send(key, std::nullopt); });
        return frame;
    }
    case ui::NodeKind::textField: {
        entry.field = new QLineEdit(parent);
        QObject::connect(entry.field, &QLineEdit::textEdited, entry.field,
                         [this, key](const QString& text) { send(key, text.toStdString()); });
        return entry.field;
    }
    case ui::NodeKind::levelMeter: {
        entry.bar = new QProgressBar(parent);
        entry.bar->setRange(0, kSliderSteps);
        entry.bar->setTextVisible(true);
        return entry.bar;
    }
    case ui::NodeKind::image: {
        entry.iconLabel = new QLabel(parent);
        return entry.iconLabel;
    }
    case ui::NodeKind::confirmation: {
        // The dialog is its own window; a hidden placeholder holds its place in the tree.
        auto* placeholder = new QWidget(parent);
        placeholder->setFixedSize(0, 0);
        entry.box = new QMessageBox(QMessageBox::Warning, qt(node.title), qt(node.title),
                                    QMessageBox::NoButton, host_->window());
        entry.box->setWindowModality(Qt::WindowModal);
        QPushButton* cancel = entry.box->addButton(qt(node.cancelTitle), QMessageBox::RejectRole);
        QPushButton* confirm =
            entry.box->addButton(qt(node.buttonTitle), QMessageBox::DestructiveRole);
        QObject::connect(cancel, &QPushButton::clicked, placeholder,
                         [this, key] { send(key, "cancel"); });
        QObject::connect(confirm, &QPushButton::clicked, placeholder,
                         [this, key] { send(key, "confirm"); });
        entry.box->open();
        return placeholder;
    }
    case ui::NodeKind::spacer: {
        auto* widget = new QWidget(parent);
        widget->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Preferred);
        return widget;
    }
    }
    return new QWidget(parent);
}

void QtViewRenderer::update(Entry& entry, const ui::Node& node) {
    QWidget* widget = entry.widget;
    const ui::Node& last = entry.node;
    const bool isFirst = last.key.empty();
    auto changed = [&](auto member) { return isFirst || last.*member != node.*member; };

    if (changed(&ui::Node::isEnabled)) {
        widget->setEnabled(node.isEnabled);
        ++changes_;
    }
    if (changed(&ui::Node::help)) {
        widget->setToolTip(qt(node.help));
        ++changes_;
    }
    if (changed(&ui::Node::accessibilityLabel) || changed(&ui::Node::title)) {
        widget->setAccessibleName(
            qt(node.accessibilityLabel.empty() ? node.title : node.accessibilityLabel));
        ++changes_;
    }

    switch (node.kind) {
    case ui::NodeKind::window:
    case ui::NodeKind::panel:
        if (changed(&ui::Node::title)) {
            widget->setWindowTitle(qt(node.title));
            ++changes_;
        }
        break;
    case ui::NodeKind::section:
        if (changed(&ui::Node::title)) {
            auto* box = static_cast<QGroupBox*>(widget);
            box->setTitle(qt(node.title));
            box->setFlat(node.title.empty());
            ++changes_;
        }
        break;
    case ui::NodeKind::list:
        if (changed(&ui::Node::text)) {
            entry.label->setText(qt(node.text));
            ++changes_;
        }
        if (entry.label->isVisibleTo(widget) != node.children.empty()) {
            entry.label->setVisible(node.children.empty() && !node.text.empty());
        }
        break;
    case ui::NodeKind::text:
        if (changed(&ui::Node::text)) {
            entry.label->setText(qt(node.text));
            ++changes_;
        }
        if (changed(&ui::Node::textRole)) {
            styleText(entry.label, node.textRole);
            ++changes_;
        }
        break;
    case ui::NodeKind::toggle:
        if (changed(&ui::Node::title)) {
            entry.check->setText(qt(node.title));
            ++changes_;
        }
        if (entry.check->isChecked() != node.isOn) {
            const QSignalBlocker blocker(entry.check);
            entry.check->setChecked(node.isOn);
            ++changes_;
        }
        break;
    case ui::NodeKind::slider: {
        // Never move a slider under the user's hand.
        if (!entry.slider->isSliderDown()) {
            const int position = sliderPosition(node.value, node.minimum, node.maximum);
            if (entry.slider->value() != position) {
                const QSignalBlocker blocker(entry.slider);
                entry.slider->setValue(position);
                ++changes_;
            }
        }
        if (changed(&ui::Node::valueText)) {
            entry.valueLabel->setText(qt(node.valueText));
            ++changes_;
        }
        break;
    }
    case ui::NodeKind::picker: {
        if (changed(&ui::Node::title)) {
            entry.valueLabel->setText(qt(node.title));
            entry.valueLabel->setVisible(!node.title.empty());
            ++changes_;
        }
        const bool isOpen = entry.combo->view() != nullptr && entry.combo->view()->isVisible();
        if (isOpen) break; // an open picker keeps its list until it closes
        if (changed(&ui::Node::options)) {
            const QSignalBlocker blocker(entry.combo);
            auto* model = static_cast<QStandardItemModel*>(entry.combo->model());
            model->clear();
            for (const ui::Option& option : node.options) {
                auto* item = new QStandardItem(qt(option.title));
                item->setEnabled(option.isEnabled);
                model->appendRow(item);
            }
            ++changes_;
        }
        int index = -1;
        for (std::size_t i = 0; i < node.options.size(); ++i) {
            if (node.options[i].value == node.selection) index = static_cast<int>(i);
        }
        if (entry.combo->currentIndex() != index) {
            const QSignalBlocker blocker(entry.combo);
            entry.combo->setCurrentIndex(index);
            ++changes_;
        }
        break;
    }
    case ui::NodeKind::button:
        if (changed(&ui::Node::title) || changed(&ui::Node::buttonRole)) {
            // A plain button with a symbol is drawn as its icon alone; its title is what a
            // screen reader says and what the tool tip shows.
            const bool isIconOnly =
                node.buttonRole == ui::ButtonRole::plain && !node.symbol.empty();
            entry.button->setText(isIconOnly ? QString() : qt(node.title));
            if (isIconOnly && node.help.empty()) entry.button->setToolTip(qt(node.title));
            ++changes_;
        }
        if (changed(&ui::Node::symbol)) {
            entry.button->setIcon(node.symbol.empty() ? QIcon() : icon(node.symbol));
            ++changes_;
        }
        if (changed(&ui::Node::buttonRole)) {
            entry.button->setDefault(node.buttonRole == ui::ButtonRole::primary);
            entry.button->setFlat(node.buttonRole == ui::ButtonRole::link ||
                                  node.buttonRole == ui::ButtonRole::plain);
            entry.button->setStyleSheet(
                node.buttonRole == ui::ButtonRole::destructive ? "color: #c62828;" : "");
            ++changes_;
        }
        break;
    case ui::NodeKind::menu: {
        if (changed(&ui::Node::title)) {
            entry.tool->setText(qt(node.title));
            ++changes_;
        }
        if (changed(&ui::Node::symbol)) {
            entry.tool->setIcon(icon(node.symbol));
            ++changes_;
        }
        if (entry.menu->isVisible() || !changed(&ui::Node::entries)) break;
        entry.menu->clear();
        const std::function<void(QMenu*, const std::vector<ui::MenuEntry>&)> fill =
            [&](QMenu* menu, const std::vector<ui::MenuEntry>& entries) {
                for (const ui::MenuEntry& item : entries) {
                    if (item.isSeparator) {
                        menu->addSeparator();
                        continue;
                    }
                    if (!item.children.empty()) {
                        fill(menu->addMenu(qt(item.title)), item.children);
                        continue;
                    }
                    QAction* action = menu->addAction(qt(item.title));
                    action->setEnabled(item.isEnabled);
                    action->setToolTip(qt(item.help));
                    if (item.isChecked) {
                        action->setCheckable(true);
                        action->setChecked(*item.isChecked);
                    }
                    const ui::Action sent = item.action;
                    const std::optional<bool> wasChecked = item.isChecked;
                    QObject::connect(action, &QAction::triggered, entry.menu,
                                     [this, sent, wasChecked] {
                                         if (!handler_) return;
                                         std::optional<std::string> value;
                                         if (wasChecked) value = *wasChecked ? "false" : "true";
                                         handler_({sent, value});
                                     });
                }
            };
        fill(entry.menu, node.entries);
        ++changes_;
        break;
    }
    case ui::NodeKind::callout:
        if (changed(&ui::Node::symbol)) {
            entry.iconLabel->setPixmap(icon(node.symbol).pixmap(20, 20));
            ++changes_;
        }
        if (changed(&ui::Node::text)) {
            entry.label->setText(qt(node.text));
            ++changes_;
        }
        if (changed(&ui::Node::buttonTitle)) {
            entry.button->setText(qt(node.buttonTitle));
            entry.button->setVisible(!node.buttonTitle.empty());
            ++changes_;
        }
        break;
    case ui::NodeKind::textField:
        if (changed(&ui::Node::placeholder)) {
            entry.field->setPlaceholderText(qt(node.placeholder));
            ++changes_;
        }
        if (changed(&ui::Node::hasClearButton)) {
            entry.field->setClearButtonEnabled(node.hasClearButton);
            ++changes_;
        }
        // The text the user is typing wins over the model's echo of it.
        if (!entry.field->hasFocus() && entry.field->text() != qt(node.text)) {
            entry.field->setText(qt(node.text));
            ++changes_;
        }
        break;
    case ui::NodeKind::levelMeter: {
        const int position = sliderPosition(node.value, node.minimum, node.maximum);
        if (entry.bar->value() != position) {
            entry.bar->setValue(position);
            ++changes_;
        }
        if (changed(&ui::Node::valueText)) {
            entry.bar->setFormat(qt(node.valueText));
            ++changes_;
        }
        break;
    }
    case ui::NodeKind::image:
        if (changed(&ui::Node::symbol)) {
            entry.iconLabel->setPixmap(icon(node.symbol).pixmap(18, 18));
            ++changes_;
        }
        break;
    case ui::NodeKind::confirmation:
        if (entry.box && (changed(&ui::Node::text) || changed(&ui::Node::title))) {
            entry.box->setText(qt(node.title));
            entry.box->setInformativeText(qt(node.text));
            ++changes_;
        }
        break;
    case ui::NodeKind::row:
    case ui::NodeKind::stack:
    case ui::NodeKind::spacer:
        break;
    }

    if (ui::isContainer(node.kind)) updateChildren(entry, node);
}

void QtViewRenderer::updateChildren(Entry& entry, const ui::Node& node) {
    std::vector<QWidget*> widgets;
    std::vector<std::string> keys;
    for (const ui::Node& child : node.children) {
        widgets.push_back(reconcile(child, entry.widget));
        keys.push_back(child.key);
    }
    if (keys == entry.childKeys) return;
    // The order or the set of children changed: lay them out again (widgets that stay are
    // moved, not recreated).
    const int first = node.kind == ui::NodeKind::list ? 1 : 0; // the empty-list text
    while (entry.layout->count() > first) {
        QLayoutItem* item = entry.layout->takeAt(first);
        delete item;
    }
    // In a row, controls that hold a value take the room; without one, a trailing stretch
    // keeps the controls together at the leading edge.
    const auto expands = [](const ui::Node& child) {
        switch (child.kind) {
        case ui::NodeKind::slider:
        case ui::NodeKind::picker:
        case ui::NodeKind::textField:
        case ui::NodeKind::levelMeter:
        case ui::NodeKind::spacer:
        case ui::NodeKind::stack:
            return true;
        case ui::NodeKind::text:
            return child.textRole != ui::TextRole::title;
        default:
            return false;
        }
    };
    bool hasExpanding = false;
    for (std::size_t i = 0; i < widgets.size(); ++i) {
        QWidget* child = widgets[i];
        if (child->parentWidget() != entry.widget) child->setParent(entry.widget);
        const bool isExpanding = node.kind == ui::NodeKind::row && expands(node.children[i]);
        hasExpanding |= isExpanding;
        entry.layout->addWidget(child, isExpanding ? 1 : 0);
        child->show();
    }
    if (node.kind == ui::NodeKind::row && !hasExpanding) entry.layout->addStretch();
    entry.childKeys = std::move(keys);
    ++changes_;
}

} // namespace brightmix
