// The app model over the real Linux settings file: what the user changes is in the file at
// once and comes back after a restart, and a broken settings folder is reported, not fatal.
#include <fstream>
#include <gtest/gtest.h>

#include "Brightmix/AppModel.h"
#include "platform/linux/audiofile/LinuxAudioFileWriter.h"
#include "platform/linux/settings/PropertyListFileDefaults.h"
#include "platform/sim/SimulatedAudioHardware.h"
#include "platform/sim/VirtualMainLoop.h"
#include "tests/support/ScriptedServices.h"
#include "tests/support/TemporaryFolder.h"

namespace brightmix {
namespace {

class ModelOnFile : public ::testing::Test {
protected:
    ModelOnFile() {
        sim.addDevice({"A", "Desk Left", {2}});
        sim.addDevice({"B", "Sub", {1}});
        sim.setDefaultOutput(sim.addMultiOutputDevice("M", "Desk", {"A", "B"}, "A"));
    }
    std::unique_ptr<AppModel> launch(Defaults& defaults) {
        return std::make_unique<AppModel>(system.services(sim, loop, defaults, writer));
    }
    testing::TemporaryFolder folder;
    SimulatedAudioHardware sim;
    VirtualMainLoop loop;
    LinuxAudioFileWriter writer;
    testing::ScriptedServices system;
};

TEST_F(ModelOnFile, ChangesAreInTheFileAtOnceAndComeBackAfterARestart) {
    const auto file = folder / "config/brightmix/com.corvale.brightmix.plist";
    {
        PropertyListFileDefaults defaults(file);
        auto model = launch(defaults);
        model->setVolume(0.3);
        model->setPreset(OutputPreset::subwoofer, "B");
        model->setDeviceLabel("Living Room", model->devices().device("M").value(),
                              DeviceDirection::output);
        model->setAppOutputRules({{"player", "Player", "M", "Living Room"}});
        model->setEnabled(true);
        ASSERT_TRUE(model->state().isEnabled);
        // Already on disk, before any orderly quit.
        EXPECT_EQ(PropertyListFileDefaults(file).get("volume"), PropertyList::real(0.3));
        EXPECT_EQ(PropertyListFileDefaults(file).get("resumeEnabled"), PropertyList::boolean(true));
    }
    PropertyListFileDefaults defaults(file);
    auto model = launch(defaults);
    loop.runPending();
    EXPECT_EQ(model->state().volume, 0.3);
    EXPECT_EQ(model->preset("B"), OutputPreset::subwoofer);
    EXPECT_EQ(model->displayName(model->devices().device("M").value(), DeviceDirection::output),
              "Living Room");
    EXPECT_EQ(model->state().appOutputRules.size(), 1u);
    EXPECT_TRUE(model->state().isEnabled) << "on again, as it was when the app last ran";
}

TEST_F(ModelOnFile, ABrokenSettingsFolderIsReportedOnceAndTheAppKeepsWorking) {
    std::ofstream(folder / "config") << "not a folder";
    PropertyListFileDefaults defaults(folder / "config/brightmix/domain.plist");
    std::vector<std::string> reports;
    defaults.setWriteErrorHandler([&](const std::string& message) { reports.push_back(message); });
    auto model = launch(defaults);
    model->setVolume(0.2);
    model->setVolume(0.4);
    model->setEnabled(true);
    EXPECT_TRUE(model->state().isEnabled);
    EXPECT_EQ(model->state().volume, 0.4);
    EXPECT_EQ(reports.size(), 1u);
}

} // namespace
} // namespace brightmix
