// Recording from the model: the folder (saved bookmark, chooser, refusals), the file name,
// the running duration, the tick finishing a recording whose output changed its rate, and
// termination leaving a valid file behind.
#include <cstdlib>
#include <ctime>
#include <regex>

#include "platform/linux/audiofile/AudioFileReader.h"
#include "tests/model/AppModelFixture.h"

namespace brightmix::testing {
namespace {

using Sim = SimulatedAudioHardware;

class RecordingTest : public AppModelFixture {
protected:
    RecordingTest() {
        setenv("TZ", "UTC", 1);
        tzset();
        sim.addProcess({501, "com.example.player", true, {multiID}});
        sim.setProcessAudio(
            501, [](std::uint64_t frame, UInt32) { return frame % 100 < 50 ? 0.25f : -0.25f; });
    }
    // Half a second of IO on the router.
    void play() { sim.runCycles(model->engine().aggregateID(), 480, 50); }
    std::string savedBookmark() {
        const std::optional<PropertyList> stored = defaults.get("recordingFolderBookmark");
        if (!stored || stored->asData() == nullptr) return "";
        return std::string(stored->asData()->begin(), stored->asData()->end());
    }
};

TEST(RecordingNames, FixedFormWhateverTheLocaleWithTheUUIDsFirstEightCharacters) {
    setenv("TZ", "UTC", 1);
    tzset();
    // 2025-03-09 07:05:02 UTC
    EXPECT_EQ(AppModel::recordingFileName(1741503902, "1A2B3C4D-0000-4000-8000-000000000000",
                                          RecordingFormat::m4a),
              "Brightmix 2025-03-09 07.05.02 1A2B3C4D.m4a");
    EXPECT_EQ(AppModel::recordingFileName(1741503902.9, "ABCDEFGH", RecordingFormat::wav),
              "Brightmix 2025-03-09 07.05.02 ABCDEFGH.wav");
}

TEST(RecordingNames, DurationText) {
    EXPECT_EQ(AppModel::recordingTimeText(3725.9), "01:02:05");
    EXPECT_EQ(AppModel::recordingTimeText(0), "00:00:00");
    EXPECT_EQ(AppModel::recordingTimeText(-3), "00:00:00");
    EXPECT_EQ(AppModel::recordingTimeText(360000), "100:00:00");
}

TEST_F(RecordingTest, ARecordingIsNamedTimedAndSavedAsAValidFile) {
    launch();
    switchOnDesk();
    model->setRecordingFormat(RecordingFormat::wav);
    model->toggleRecording();
    ASSERT_TRUE(state().isRecording) << state().recordingMessage.value_or("");
    EXPECT_FALSE(state().isPreparingRecording);
    EXPECT_EQ(folders.choicesShown.size(), 1u);
    EXPECT_EQ(folders.choicesShown[0].title, "Recording folder");
    EXPECT_EQ(folders.choicesShown[0].prompt, "Use Folder");
    EXPECT_EQ(folders.choicesShown[0].startFolder, folders.desktop);
    EXPECT_EQ(savedBookmark(), "bookmark:" + recordings.path().string());
    play();
    play();
    tick();
    EXPECT_DOUBLE_EQ(state().recordingDuration, 1.0);
    EXPECT_EQ(model->recordingTimeText(), "00:00:01");
    model->toggleRecording();
    EXPECT_FALSE(state().isRecording);
    ASSERT_TRUE(state().lastRecordingURL);
    const std::filesystem::path file = *state().lastRecordingURL;
    EXPECT_EQ(file.parent_path(), recordings.path());
    EXPECT_TRUE(std::regex_match(
        file.filename().string(),
        std::regex(R"(Brightmix \d{4}-\d\d-\d\d \d\d\.\d\d\.\d\d [0-9A-F]{8}\.wav)")))
        << file;
    EXPECT_EQ(state().recordingMessage, "Saved " + file.filename().string());
    const auto audio = readAudioFile(file.string());
    ASSERT_TRUE(audio);
    EXPECT_EQ(audio->channels, 2u);
    EXPECT_DOUBLE_EQ(audio->duration(), 1.0);
    EXPECT_TRUE(folders.accessing.empty()) << "the folder is released";
    model->revealLastRecording();
    EXPECT_EQ(workspace.actions().back(), "reveal " + file.string());
}

TEST_F(RecordingTest, RecordingWhileOffSwitchesOnFirst) {
    launch();
    model->selectOutput("M", false);
    model->toggleRecording();
    EXPECT_TRUE(state().isEnabled);
    EXPECT_TRUE(state().isRecording);
    model->toggleRecording();
}

TEST_F(RecordingTest, TwoRecordingsInTheSameSecondGetDifferentNames) {
    launch();
    switchOnDesk();
    model->toggleRecording();
    play();
    model->toggleRecording();
    const std::string first = *state().lastRecordingURL;
    model->toggleRecording();
    play();
    model->toggleRecording();
    EXPECT_NE(*state().lastRecordingURL, first);
    EXPECT_EQ(std::filesystem::path(first).extension(), ".m4a");
    EXPECT_TRUE(readAudioFile(first));
}

TEST_F(RecordingTest, ARateChangeFinishesTheRecordingAtTheNextTick) {
    launch();
    switchOnDesk();
    model->toggleRecording();
    play();
    sim.setNominalSampleRate(multiID, 44100);
    tick();
    EXPECT_FALSE(state().isRecording);
    EXPECT_EQ(state().recordingMessage->rfind("Saved Brightmix ", 0), 0u);
    EXPECT_TRUE(readAudioFile(*state().lastRecordingURL));
}

TEST_F(RecordingTest, TerminationFinishesARunningRecordingIntoAValidFile) {
    launch();
    switchOnDesk();
    model->setRecordingFormat(RecordingFormat::wav);
    model->toggleRecording();
    play();
    workspace.terminate();
    EXPECT_FALSE(state().isRecording);
    const auto audio = readAudioFile(*state().lastRecordingURL);
    ASSERT_TRUE(audio);
    EXPECT_DOUBLE_EQ(audio->duration(), 0.5);
}

TEST_F(RecordingTest, TheSavedFolderIsUsedAndAStaleBookmarkIsReplaced) {
    const std::string bookmark = "bookmark:" + recordings.path().string();
    defaults.set("recordingFolderBookmark",
                 PropertyList::data(PropertyList::Data(bookmark.begin(), bookmark.end())));
    folders.bookmarksAreStale = true;
    launch();
    switchOnDesk();
    model->toggleRecording();
    EXPECT_TRUE(state().isRecording);
    EXPECT_TRUE(folders.choicesShown.empty()) << "no chooser for a saved folder";
    EXPECT_EQ(folders.bookmarksCreated, 1) << "the stale bookmark was replaced";
    model->toggleRecording();
}

TEST_F(RecordingTest, AnUnresolvableOrRefusedFolderAsksAgainAndCancelChangesNothing) {
    defaults.set("recordingFolderBookmark", PropertyList::data({1, 2, 3}));
    folders.chooserAnswer.reset();
    launch();
    switchOnDesk();
    const int before = changes;
    model->toggleRecording();
    EXPECT_EQ(folders.choicesShown.size(), 1u);
    EXPECT_FALSE(state().isRecording);
    EXPECT_FALSE(state().isPreparingRecording);
    EXPECT_FALSE(state().recordingMessage);
    EXPECT_EQ(*defaults.get("recordingFolderBookmark"), PropertyList::data({1, 2, 3}));
    EXPECT_EQ(changes, before) << "nothing to show after a cancel";

    folders.chooserAnswer = recordings.path().string();
    folders.refusedFolders = {recordings.path().string()};
    model->toggleRecording();
    EXPECT_FALSE(state().isRecording) << "a folder whose access is refused is not kept";
    EXPECT_EQ(*defaults.get("recordingFolderBookmark"), PropertyList::data({1, 2, 3}));
}

TEST_F(RecordingTest, TheOutputChangingWhileTheChooserIsOpenStopsTheStart) {
    folders.isAnswerDeferred = true;
    launch();
    switchOnDesk();
    model->toggleRecording();
    EXPECT_TRUE(state().isPreparingRecording);
    model->toggleRecording();
    EXPECT_EQ(folders.choicesShown.size(), 1u) << "a second press while preparing does nothing";
    model->selectOutput("S", false);
    folders.answer(recordings.path().string());
    EXPECT_FALSE(state().isRecording);
    EXPECT_FALSE(state().isPreparingRecording);
    EXPECT_EQ(state().recordingMessage, "Output changed. Press Record to record the new output.");
    EXPECT_TRUE(folders.accessing.empty());
}

TEST_F(RecordingTest, AFileThatCannotBeCreatedIsReportedAndTheFolderReleased) {
    folders.chooserAnswer = (recordings.path() / "missing" / "deeper").string();
    launch();
    switchOnDesk();
    model->toggleRecording();
    EXPECT_FALSE(state().isRecording);
    ASSERT_TRUE(state().recordingMessage);
    EXPECT_EQ(state().recordingMessage->rfind("Recording could not start. ", 0), 0u)
        << *state().recordingMessage;
    EXPECT_TRUE(folders.accessing.empty());
    EXPECT_TRUE(state().isEnabled) << "the router keeps running";
}

TEST_F(RecordingTest, ChoosingTheFolderSaysWhereRecordingsGo) {
    launch();
    model->chooseRecordingFolder();
    EXPECT_EQ(state().recordingMessage,
              "Recordings will save to " + recordings.path().filename().string());
    EXPECT_EQ(savedBookmark(), "bookmark:" + recordings.path().string());
}

TEST_F(RecordingTest, AutomaticSwitchingHoldsWhileRecording) {
    launch();
    switchOnDesk();
    model->setAppOutputRules({{"com.example.player", "Player", "S", "Speakers"}});
    model->setAutomaticallySwitchApps(true);
    model->toggleRecording();
    tick();
    EXPECT_EQ(state().appOutputStatus, "Recording — keeping the current output.");
    model->toggleRecording();
}

} // namespace
} // namespace brightmix::testing
