// What the user sees on Linux: the panel and the two windows of a fixed scene, drawn by the Qt
// renderer and compared with reference images in tests/golden/screenshots/ within a small
// tolerance (fonts and anti-aliasing may differ by a shade between machines; a moved,
// missing or restyled control does not pass). BRIGHTMIX_UPDATE_GOLDEN=1 rewrites the images.
#include <QImage>
#include <QWidget>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <memory>

#include "Brightmix/AppModel.h"
#include "Brightmix/BrightmixApp.h"
#include "platform/linux/audiofile/LinuxAudioFileWriter.h"
#include "platform/linux/qt/QtDesktopServices.h"
#include "platform/linux/qt/QtViewRenderer.h"
#include "platform/sim/InMemoryDefaults.h"
#include "platform/sim/SimulatedAudioHardware.h"
#include "platform/sim/VirtualMainLoop.h"
#include "tests/qt/QtTestApplication.h"
#include "tests/support/Golden.h"
#include "tests/support/ScriptedServices.h"

namespace brightmix {
namespace {

struct Difference {
    double meanPerChannel = 0;  // 0...255
    double changedFraction = 0; // pixels off by more than a shade
    bool isSameSize = false;
};

Difference compare(const QImage& actual, const QImage& expected) {
    Difference difference;
    difference.isSameSize = actual.size() == expected.size();
    if (!difference.isSameSize) return difference;
    const QImage a = actual.convertToFormat(QImage::Format_RGB32);
    const QImage b = expected.convertToFormat(QImage::Format_RGB32);
    double total = 0;
    std::size_t changed = 0;
    for (int y = 0; y < a.height(); ++y) {
        const auto* rowA = reinterpret_cast<const QRgb*>(a.constScanLine(y));
        const auto* rowB = reinterpret_cast<const QRgb*>(b.constScanLine(y));
        for (int x = 0; x < a.width(); ++x) {
            const int dr = std::abs(qRed(rowA[x]) - qRed(rowB[x]));
            const int dg = std::abs(qGreen(rowA[x]) - qGreen(rowB[x]));
            const int db = std::abs(qBlue(rowA[x]) - qBlue(rowB[x]));
            total += dr + dg + db;
            if (std::max({dr, dg, db}) > 48) ++changed;
        }
    }
    const double pixels = double(a.width()) * a.height();
    difference.meanPerChannel = total / (3 * pixels);
    difference.changedFraction = double(changed) / pixels;
    return difference;
}

class Screenshots : public ::testing::Test {
protected:
    Screenshots() {
        testing::qtTestApplication();
        sim.addDevice({"desk", "Desk Speakers", {2}});
        sim.addDevice({"sub", "Subwoofer", {1}});
        sim.setDefaultOutput(
            sim.addMultiOutputDevice("multi", "Multi-Output Device", {"sub", "desk"}, "desk"));
        sim.addDevice({"mic", "USB Microphone", {}, {1}});
        model = std::make_unique<AppModel>(system.services(sim, loop, defaults, writer));
        app = std::make_unique<BrightmixApp>(*model, updater, BrightmixApp::Host{},
                                             PlatformProfile::linuxDesktop(""));
        model->setEnabled(true);
        model->setVolume(0.5);
        model->setPreset(OutputPreset::subwoofer, "sub");
        model->setPreset(OutputPreset::satellite, "desk");
        model->setEqualizer(EqualizerPreset::bassBooster, "sub");
        model->setDeviceLabel("Living Room", model->devices().device("multi").value(),
                              DeviceDirection::output);
        model->setAppOutputRules({{"rhythmbox", "Rhythmbox", "multi", "Living Room"}});
    }

    void expectLooksLike(const ui::Node& tree, const std::string& name, int width) {
        QWidget host;
        host.setFixedWidth(width);
        QtViewRenderer renderer(&host, nullptr);
        renderer.render(tree);
        host.adjustSize();
        const QImage actual = host.grab().toImage();
        const std::string reference =
            std::string(BRIGHTMIX_SOURCE_DIR) + "/tests/golden/screenshots/" + name + ".png";
        if (testing::isUpdatingGoldenFiles()) {
            std::filesystem::create_directories(std::filesystem::path(reference).parent_path());
            ASSERT_TRUE(actual.save(QString::fromStdString(reference)));
            return;
        }
        const QImage expected(QString::fromStdString(reference));
        ASSERT_FALSE(expected.isNull())
            << "missing " << reference << "; run with BRIGHTMIX_UPDATE_GOLDEN=1";
        const Difference difference = compare(actual, expected);
        const std::string seen = std::filesystem::temp_directory_path() / (name + "-actual.png");
        if (!difference.isSameSize || difference.meanPerChannel > 2.0 ||
            difference.changedFraction > 0.01) {
            actual.save(QString::fromStdString(seen));
        }
        EXPECT_TRUE(difference.isSameSize)
            << name << ": " << actual.width() << "×" << actual.height() << " instead of "
            << expected.width() << "×" << expected.height() << " (drawn: " << seen << ")";
        EXPECT_LE(difference.meanPerChannel, 2.0) << name << " (drawn: " << seen << ")";
        EXPECT_LE(difference.changedFraction, 0.01) << name << " (drawn: " << seen << ")";
    }

    SimulatedAudioHardware sim;
    VirtualMainLoop loop;
    InMemoryDefaults defaults;
    LinuxAudioFileWriter writer;
    testing::ScriptedServices system;
    NoUpdater updater;
    std::unique_ptr<AppModel> model;
    std::unique_ptr<BrightmixApp> app;
};

TEST_F(Screenshots, ThePanelSwitchedOnWithASubwoofer) {
    ASSERT_TRUE(model->state().isEnabled);
    expectLooksLike(app->panel(), "panel", 400);
}

TEST_F(Screenshots, TheAppOutputsWindow) {
    app->openWindow(BrightmixApp::kAppOutputsWindow);
    expectLooksLike(*app->window(BrightmixApp::kAppOutputsWindow), "app-outputs", 560);
}

TEST_F(Screenshots, TheDeviceLabelsWindow) {
    app->openWindow(BrightmixApp::kDeviceLabelsWindow);
    expectLooksLike(*app->window(BrightmixApp::kDeviceLabelsWindow), "device-labels", 560);
}

} // namespace
} // namespace brightmix
