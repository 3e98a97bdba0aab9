// The real-time half of recording: chunking, stereo conversion, write errors, attach rules.
#include <atomic>
#include <chrono>
#include <cmath>
#include <gtest/gtest.h>
#include <memory>
#include <thread>
#include <vector>

#include "realtime/RecordingTap.h"
#include "tests/realtime/TestBufferList.h"

namespace {

using brightmix::testing::TestBufferList;

struct TapDeleter {
    void operator()(RecordingTap* tap) const { RecordingTapDestroy(tap); }
};
using TapPointer = std::unique_ptr<RecordingTap, TapDeleter>;

// A file that keeps what it is given and can be told to fail from a given call on.
struct CapturingFile {
    RecordingFile file{&CapturingFile::write, this};
    std::vector<uint32_t> chunks;
    std::vector<float> samples;
    int32_t failWith = 0;
    size_t failFromCall = SIZE_MAX;

    static int32_t write(const RecordingFile* file, uint32_t frames, const AudioBufferList* data) {
        auto* self = static_cast<CapturingFile*>(file->context);
        if (self->chunks.size() >= self->failFromCall) return self->failWith;
        EXPECT_EQ(data->mNumberBuffers, 1U);
        EXPECT_EQ(data->mBuffers[0].mNumberChannels, 2U);
        EXPECT_EQ(data->mBuffers[0].mDataByteSize, frames * 8U);
        self->chunks.push_back(frames);
        const auto* samples = static_cast<const float*>(data->mBuffers[0].mData);
        self->samples.insert(self->samples.end(), samples, samples + 2 * frames);
        return 0;
    }
};

TEST(RecordingTap, WritesLongInputInChunksOf1024Frames) {
    TapPointer tap(RecordingTapCreate());
    CapturingFile file;
    ASSERT_TRUE(RecordingTapAttach(tap.get(), &file.file));
    TestBufferList input{{2, 3000}};
    for (uint32_t f = 0; f < 3000; ++f) {
        input.at(0, f, 0) = static_cast<float>(f);
        input.at(0, f, 1) = -static_cast<float>(f);
    }
    RecordingTapWrite(tap.get(), input.list());
    EXPECT_EQ(file.chunks, (std::vector<uint32_t>{1024, 1024, 952}));
    EXPECT_EQ(RecordingTapFramesWritten(tap.get()), 3000U);
    ASSERT_EQ(file.samples.size(), 6000U);
    EXPECT_EQ(file.samples[2 * 2999], 2999.0F);
    EXPECT_EQ(file.samples[2 * 2999 + 1], -2999.0F);
    EXPECT_EQ(RecordingTapStatus(tap.get()), 0);
}

TEST(RecordingTap, ConvertsEveryInputShapeToStereo) {
    struct Case {
        const char* name;
        TestBufferList input;
        float left;
        float right;
    };
    std::vector<Case> cases;
    {
        TestBufferList mono{{1, 8}};
        mono.fill(0.3F);
        cases.push_back({"mono is duplicated", std::move(mono), 0.3F, 0.3F});
    }
    {
        TestBufferList split{{1, 8}, {1, 8}};
        split.fill(0.3F);
        std::fill(split.samples(1).begin(), split.samples(1).end(), -0.6F);
        cases.push_back({"split", std::move(split), 0.3F, -0.6F});
    }
    {
        TestBufferList wide{{4, 8}};
        for (uint32_t f = 0; f < 8; ++f)
            for (uint32_t c = 0; c < 4; ++c)
                wide.at(0, f, c) = static_cast<float>(c);
        cases.push_back({"first two of four", std::move(wide), 0.0F, 1.0F});
    }
    {
        TestBufferList bad{{2, 8}};
        bad.fill(std::nanf(""));
        for (uint32_t f = 0; f < 8; ++f)
            bad.at(0, f, 1) = INFINITY;
        cases.push_back({"non-finite becomes 0", std::move(bad), 0.0F, 0.0F});
    }
    {
        TestBufferList shortSecond{{1, 8}, {1, 4}};
        shortSecond.fill(0.5F);
        cases.push_back({"short second buffer", std::move(shortSecond), 0.5F, 0.5F});
    }
    for (auto& c : cases) {
        TapPointer tap(RecordingTapCreate());
        CapturingFile file;
        RecordingTapAttach(tap.get(), &file.file);
        RecordingTapWrite(tap.get(), c.input.list());
        ASSERT_EQ(file.samples.size(), 16U) << c.name;
        for (uint32_t f = 0; f < 8; ++f) {
            EXPECT_EQ(file.samples[2 * f], c.left) << c.name;
            // Past the end of a shorter buffer the sample is 0.
            const float right =
                std::string(c.name) == "short second buffer" && f >= 4 ? 0.0F : c.right;
            EXPECT_EQ(file.samples[2 * f + 1], right) << c.name << " frame " << f;
        }
    }
}

TEST(RecordingTap, AWriteErrorStopsWritingUntilTheNextAttach) {
    TapPointer tap(RecordingTapCreate());
    CapturingFile file;
    file.failWith = -36;
    file.failFromCall = 1;
    RecordingTapAttach(tap.get(), &file.file);
    TestBufferList input{{2, 2048}};
    RecordingTapWrite(tap.get(), input.list());
    EXPECT_EQ(RecordingTapStatus(tap.get()), -36);
    EXPECT_EQ(RecordingTapFramesWritten(tap.get()), 1024U);
    file.failFromCall = SIZE_MAX; // the file would work again, but the tap has stopped
    RecordingTapWrite(tap.get(), input.list());
    EXPECT_EQ(RecordingTapFramesWritten(tap.get()), 1024U);
    EXPECT_EQ(file.chunks.size(), 1U);

    RecordingTapDetach(tap.get());
    CapturingFile next;
    ASSERT_TRUE(RecordingTapAttach(tap.get(), &next.file));
    EXPECT_EQ(RecordingTapStatus(tap.get()), 0);
    EXPECT_EQ(RecordingTapFramesWritten(tap.get()), 0U);
    RecordingTapWrite(tap.get(), input.list());
    EXPECT_EQ(RecordingTapFramesWritten(tap.get()), 2048U);
}

TEST(RecordingTap, AttachFailsWhileAFileIsAttachedAndLeavesItRunning) {
    TapPointer tap(RecordingTapCreate());
    CapturingFile first;
    CapturingFile second;
    EXPECT_FALSE(RecordingTapAttach(nullptr, &first.file));
    EXPECT_FALSE(RecordingTapAttach(tap.get(), nullptr));
    ASSERT_TRUE(RecordingTapAttach(tap.get(), &first.file));
    TestBufferList input{{2, 100}};
    RecordingTapWrite(tap.get(), input.list());
    EXPECT_FALSE(RecordingTapAttach(tap.get(), &second.file));
    EXPECT_EQ(RecordingTapFramesWritten(tap.get()), 100U); // not cleared by the refused attach
    RecordingTapWrite(tap.get(), input.list());
    EXPECT_EQ(first.chunks.size(), 2U);
    EXPECT_TRUE(second.chunks.empty());
}

TEST(RecordingTap, NothingIsWrittenWithoutAFileOrUsableInput) {
    TapPointer tap(RecordingTapCreate());
    CapturingFile file;
    TestBufferList input{{2, 16}};
    RecordingTapWrite(tap.get(), input.list()); // no file yet
    RecordingTapAttach(tap.get(), &file.file);
    TestBufferList empty{};
    TestBufferList zeroChannels{{2, 16}};
    zeroChannels.buffer(0).mNumberChannels = 0;
    TestBufferList lessThanAFrame{{2, 16}};
    lessThanAFrame.buffer(0).mDataByteSize = 7;
    RecordingTapWrite(tap.get(), nullptr);
    RecordingTapWrite(tap.get(), empty.list());
    RecordingTapWrite(tap.get(), zeroChannels.list());
    RecordingTapWrite(tap.get(), lessThanAFrame.list());
    RecordingTapWrite(nullptr, input.list());
    EXPECT_TRUE(file.chunks.empty());
    RecordingTapDetach(tap.get());
    RecordingTapWrite(tap.get(), input.list());
    EXPECT_TRUE(file.chunks.empty());
    EXPECT_EQ(RecordingTapFramesWritten(nullptr), 0U);
    EXPECT_EQ(RecordingTapStatus(nullptr), 0);
    RecordingTapDetach(nullptr);
    RecordingTapDestroy(nullptr);
}

TEST(RecordingTap, DetachWaitsForAWriteInProgress) {
    TapPointer tap(RecordingTapCreate());
    std::atomic<bool> isInsideWrite{false};
    std::atomic<bool> mayLeave{false};
    std::atomic<bool> hasDetached{false};
    struct Context {
        std::atomic<bool>* isInside;
        std::atomic<bool>* mayLeave;
    } context{&isInsideWrite, &mayLeave};
    RecordingFile file{[](const RecordingFile* f, uint32_t, const AudioBufferList*) -> int32_t {
                           auto* c = static_cast<Context*>(f->context);
                           c->isInside->store(true);
                           while (!c->mayLeave->load())
                               std::this_thread::yield();
                           return 0;
                       },
                       &context};
    RecordingTapAttach(tap.get(), &file);
    TestBufferList input{{2, 8}};
    std::thread io([&] { RecordingTapWrite(tap.get(), input.list()); });
    while (!isInsideWrite.load())
        std::this_thread::yield();
    std::thread control([&] {
        RecordingTapDetach(tap.get());
        hasDetached.store(true);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(hasDetached.load());
    mayLeave.store(true);
    io.join();
    control.join();
    EXPECT_TRUE(hasDetached.load());
    EXPECT_EQ(RecordingTapFramesWritten(tap.get()), 8U);
}

} // namespace
