// The app model fixture with the application's windows on top: the panel and windows as
// text, actions pressed as a renderer would send them, and golden files under
// tests/golden/ui/.
#pragma once

#include <regex>

#include "Brightmix/BrightmixApp.h"
#include "tests/model/AppModelFixture.h"
#include "tests/support/Golden.h"
#include "ui/TextRenderer.h"

namespace brightmix::testing {

class UIFixture : public AppModelFixture {
protected:
    UIFixture() {
        setenv("TZ", "UTC", 1);
        tzset();
    }
    ~UIFixture() override { app.reset(); }

    void start() {
        launch();
        app = std::make_unique<BrightmixApp>(
            *model, updater,
            BrightmixApp::Host{[this](const std::string& id) { shown.push_back(id); },
                               [this](const std::string& id) { hidden.push_back(id); },
                               [this] { ++aboutShown; }, [this] { ++rebuilds; }});
    }

    // The text of a tree with the random part of recording names made stable.
    static std::string stable(const ui::Node& node) {
        static const std::regex uuid(R"( [0-9A-F]{8}\.(m4a|wav))");
        return std::regex_replace(ui::renderText(node), uuid, " XXXXXXXX.$1");
    }
    void expectPanel(const std::string& name) {
        expectMatchesGolden("ui/" + name + ".txt", stable(app->panel()));
    }
    void expectWindow(const std::string& id, const std::string& name) {
        const std::optional<ui::Node> tree = app->window(id);
        ASSERT_TRUE(tree) << id << " is not open";
        expectMatchesGolden("ui/" + name + ".txt", stable(*tree));
    }

    // Finds a control by key in the panel or an open window and sends its action with a value.
    bool press(const std::string& key, std::optional<std::string> value = std::nullopt) {
        std::vector<ui::Node> trees{app->panel()};
        for (const std::string& id : {BrightmixApp::kSetupWindow, BrightmixApp::kAppOutputsWindow,
                                      BrightmixApp::kDeviceLabelsWindow}) {
            if (auto tree = app->window(id)) trees.push_back(std::move(*tree));
        }
        for (const ui::Node& tree : trees) {
            if (const ui::Node* node = ui::findNode(tree, key)) {
                EXPECT_FALSE(node->action.empty()) << key << " has no action";
                EXPECT_TRUE(node->isEnabled) << key << " is disabled";
                return app->perform({node->action, std::move(value)});
            }
            if (const ui::MenuEntry* entry = ui::findMenuEntry(tree, key)) {
                EXPECT_TRUE(entry->isEnabled) << key << " is disabled";
                return app->perform({entry->action, std::move(value)});
            }
        }
        ADD_FAILURE() << "no control " << key;
        return false;
    }

    ScriptedUpdater updater;
    std::unique_ptr<BrightmixApp> app;
    std::vector<std::string> shown;
    std::vector<std::string> hidden;
    int aboutShown = 0;
    int rebuilds = 0;
};

} // namespace brightmix::testing
