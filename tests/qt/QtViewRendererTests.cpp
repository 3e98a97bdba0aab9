// The Qt renderer: every node kind becomes a native widget whose control sends its action
// back; a new tree updates the drawn one in place by key (a dragged slider, a focused field
// keep their state); an unchanged tree changes nothing; vanished keys lose their widgets.
// Runs on Qt's offscreen platform, so no display is needed.
#include <QAction>
#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QCoreApplication>
#include <QGroupBox>
#include <QLabel>
#include <QLayout>
#include <QLineEdit>
#include <QMenu>
#include <QProgressBar>
#include <QPushButton>
#include <QSlider>
#include <QToolButton>
#include <cstdlib>
#include <gtest/gtest.h>
#include <memory>
#include <vector>

#include "platform/linux/qt/QtViewRenderer.h"
#include "tests/qt/QtTestApplication.h"

namespace brightmix {
namespace {

QApplication& application() {
    return testing::qtTestApplication();
}

ui::Node everyKind(double volume, const std::string& fieldText, bool isOn = true) {
    return ui::panel(
        "panel",
        {ui::section("section", "Outputs",
                     {ui::text("text", "Hello", ui::TextRole::headline),
                      ui::toggle("toggle", "Enabled", isOn, {"setEnabled", {}}),
                      ui::slider("slider", "Volume", volume, 0, 1, "50", {"setVolume", {}}),
                      ui::picker("picker", "Role", {{"a", "Alpha"}, {"b", "Beta"}}, "b",
                                 {"setRole", {"X"}})}),
         ui::row("row", {ui::button("button", "Mute", "speaker.wave.2.fill", {"toggleMute", {}}),
                         ui::image("image", "speaker.fill"), ui::spacer("spacer")}),
         ui::menu("menu", "Options", "ellipsis.circle",
                  {ui::menuItem("item", "About", {"about", {}}),
                   ui::menuToggle("check", "Labels", true, {"setLabels", {}})}),
         ui::callout("callout", "keyboard", "Careful", "Fix", {"fix", {}}),
         ui::list("list", {}, "Nothing here"),
         ui::textField("field", fieldText, "Custom label", {"setLabel", {"uid"}}, true),
         ui::levelMeter("meter", "Output level", -30, -60, 0, "-30 dBFS")});
}

class RendererTest : public ::testing::Test {
protected:
    RendererTest() {
        application();
        host = std::make_unique<QWidget>();
        renderer = std::make_unique<QtViewRenderer>(
            host.get(), [this](const ui::ActionEvent& event) { events.push_back(event); });
    }
    template <typename T> T* find(const std::string& key) {
        QWidget* widget = renderer->widget(key);
        EXPECT_TRUE(widget) << key;
        if (!widget) return nullptr;
        if (auto* direct = qobject_cast<T*>(widget)) return direct;
        return widget->findChild<T*>();
    }
    std::unique_ptr<QWidget> host;
    std::unique_ptr<QtViewRenderer> renderer;
    std::vector<ui::ActionEvent> events;
};

TEST_F(RendererTest, EveryKindIsANativeWidgetWhoseActionComesBack) {
    renderer->render(everyKind(0.5, ""));
    EXPECT_EQ(find<QLabel>("text")->text(), "Hello");
    EXPECT_EQ(find<QGroupBox>("section")->title(), "Outputs");
    EXPECT_EQ(find<QLabel>("list")->text(), "Nothing here");
    EXPECT_EQ(find<QProgressBar>("meter")->format(), "-30 dBFS");
    EXPECT_EQ(find<QProgressBar>("meter")->value(), 500);
    EXPECT_EQ(find<QLineEdit>("field")->placeholderText(), "Custom label");
    EXPECT_TRUE(find<QLineEdit>("field")->isClearButtonEnabled());
    EXPECT_EQ(find<QComboBox>("picker")->currentText(), "Beta");

    find<QCheckBox>("toggle")->click();
    find<QSlider>("slider")->setValue(250);
    emit find<QComboBox>("picker")->activated(0);
    find<QPushButton>("button")->click();
    find<QPushButton>("callout")->click();
    emit find<QLineEdit>("field")->textEdited("Desk");
    const auto actions = find<QToolButton>("menu")->menu()->actions();
    ASSERT_EQ(actions.size(), 2);
    actions[0]->trigger();
    actions[1]->trigger();

    const std::vector<ui::ActionEvent> expected = {
        {{"setEnabled", {}}, "false"}, {{"setVolume", {}}, "0.25"},
        {{"setRole", {"X"}}, "a"},     {{"toggleMute", {}}, std::nullopt},
        {{"fix", {}}, std::nullopt},   {{"setLabel", {"uid"}}, "Desk"},
        {{"about", {}}, std::nullopt}, {{"setLabels", {}}, "false"}};
    EXPECT_EQ(events, expected);
}

TEST_F(RendererTest, AnUnchangedTreeChangesNoWidget) {
    renderer->render(everyKind(0.5, "Desk"));
    const std::size_t created = renderer->createdWidgets();
    const std::size_t changes = renderer->propertyChanges();
    renderer->render(everyKind(0.5, "Desk"));
    EXPECT_EQ(renderer->createdWidgets(), created);
    EXPECT_EQ(renderer->propertyChanges(), changes);
}

TEST_F(RendererTest, UpdatesInPlaceAndKeepsWhatTheUserHolds) {
    renderer->render(everyKind(0.5, ""));
    QSlider* slider = find<QSlider>("slider");
    QLineEdit* field = find<QLineEdit>("field");
    const std::size_t created = renderer->createdWidgets();

    renderer->render(everyKind(0.75, "Echo", false));
    EXPECT_EQ(find<QSlider>("slider"), slider) << "the same widget, updated";
    EXPECT_EQ(slider->value(), 750);
    EXPECT_EQ(field->text(), "Echo");
    EXPECT_FALSE(find<QCheckBox>("toggle")->isChecked());
    EXPECT_EQ(renderer->createdWidgets(), created);
    EXPECT_TRUE(events.empty()) << "updates send no actions";

    slider->setSliderDown(true); // the user is dragging
    renderer->render(everyKind(0.1, "Echo"));
    EXPECT_EQ(slider->value(), 750);
    slider->setSliderDown(false);

    host->show();
    QApplication::setActiveWindow(host.get());
    field->setFocus();
    QCoreApplication::processEvents();
    if (field->hasFocus()) { // the offscreen platform gives focus to an active window
        field->setText("Typing");
        renderer->render(everyKind(0.1, "Model's echo"));
        EXPECT_EQ(field->text(), "Typing");
    }
}

TEST_F(RendererTest, VanishedKeysLoseTheirWidgetsAndReorderedOnesAreKept) {
    renderer->render(ui::panel("p", {ui::text("a", "A"), ui::text("b", "B"), ui::text("c", "C")}));
    QPointer<QWidget> a = renderer->widget("a");
    QPointer<QWidget> b = renderer->widget("b");
    renderer->render(ui::panel("p", {ui::text("b", "B"), ui::text("a", "A")}));
    EXPECT_EQ(renderer->widget("a"), a.data());
    EXPECT_EQ(renderer->widget("b"), b.data());
    EXPECT_EQ(renderer->widget("c"), nullptr);
    auto* layout = renderer->widget("p")->layout();
    EXPECT_EQ(layout->itemAt(0)->widget(), b.data());
    EXPECT_EQ(layout->itemAt(1)->widget(), a.data());

    // Same key, another kind: a new widget of the right type.
    renderer->render(ui::panel("p", {ui::button("a", "A", "", {"go", {}})}));
    EXPECT_TRUE(qobject_cast<QPushButton*>(renderer->widget("a")));
}

TEST_F(RendererTest, ARebuildFromInsideAnActionIsSafe) {
    QWidget own;
    std::unique_ptr<QtViewRenderer> self;
    int clicks = 0;
    self = std::make_unique<QtViewRenderer>(&own, [&](const ui::ActionEvent&) {
        ++clicks;
        self->render(ui::panel("p", {ui::text("done", "Removed")}));
    });
    self->render(ui::panel("p", {ui::button("remove", "Remove", "minus.circle", {"remove", {}})}));
    qobject_cast<QPushButton*>(self->widget("remove"))->click();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    EXPECT_EQ(clicks, 1);
    EXPECT_EQ(self->widget("remove"), nullptr);
    EXPECT_TRUE(self->widget("done"));
}

TEST(RendererSymbols, MappedToFreedesktopNamesWithAFallback) {
    application();
    EXPECT_EQ(QtViewRenderer::themeIconName("speaker.wave.2.fill"), "audio-volume-high");
    EXPECT_EQ(QtViewRenderer::themeIconName("speaker.slash.fill"), "audio-volume-muted");
    EXPECT_EQ(QtViewRenderer::themeIconName("no.such.symbol"), "");
    EXPECT_FALSE(QtViewRenderer::icon("no.such.symbol").isNull());
}

} // namespace
} // namespace brightmix
