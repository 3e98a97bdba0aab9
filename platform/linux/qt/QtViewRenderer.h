// Draws ui:: view trees with native Qt Widgets and sends the actions of their controls back.
// A new tree for the same window updates the drawn one in place, by node key: widgets whose
// key stays are updated (only what changed), new keys get new widgets, vanished keys lose
// theirs. A slider being dragged, a field being typed in and an open picker or menu are not
// reset by a rebuild.
//
// Symbols are mapped to freedesktop icon names of the current icon theme
// ("speaker.wave.2.fill" -> audio-volume-high), with a drawn fallback icon.
//
// Thread: the GUI thread. Realtime-safe: no.
#pragma once

#include <QIcon>
#include <QPointer>
#include <QWidget>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "ui/View.h"

class QBoxLayout;
class QMessageBox;

namespace brightmix {

class QtViewRenderer {
public:
    using ActionHandler = std::function<void(const ui::ActionEvent&)>;

    // Draws into `host` (which gets a vertical layout); actions go to `handler`.
    QtViewRenderer(QWidget* host, ActionHandler handler);
    ~QtViewRenderer();
    QtViewRenderer(const QtViewRenderer&) = delete;
    QtViewRenderer& operator=(const QtViewRenderer&) = delete;

    void render(const ui::Node& tree);

    // The widget drawn for a key, if any.
    QWidget* widget(const std::string& key) const;
    // Widgets created so far, and property changes made by updates (a rebuild of an
    // unchanged tree makes none).
    std::size_t createdWidgets() const { return created_; }
    std::size_t propertyChanges() const { return changes_; }

    // The icon for a symbol name: the theme's icon, else the fallback.
    static QIcon icon(const std::string& symbol);
    // Outside a desktop session Qt knows no icon theme and no place to look for one: look in
    // the XDG data folders and use the Breeze theme that the install script brings.
    static void useInstalledIconTheme();
    // The freedesktop icon name a symbol maps to (empty: none).
    static std::string themeIconName(const std::string& symbol);

private:
    struct Entry;

    QWidget* reconcile(const ui::Node& node, QWidget* parent);
    QWidget* create(const ui::Node& node, QWidget* parent, Entry& entry);
    void update(Entry& entry, const ui::Node& node);
    void updateChildren(Entry& entry, const ui::Node& node);
    void send(const std::string& key, std::optional<std::string> value);
    void sweep();

    template <typename Value, typename Setter>
    void change(const Value& current, const Value& wanted, Setter setter) {
        if (current == wanted) return;
        setter(wanted);
        ++changes_;
    }

    QWidget* host_;
    QBoxLayout* hostLayout_;
    ActionHandler handler_;
    std::map<std::string, std::unique_ptr<Entry>> entries_;
    std::set<std::string> seen_;
    QPointer<QWidget> root_;
    std::size_t created_ = 0;
    std::size_t changes_ = 0;
};

} // namespace brightmix
