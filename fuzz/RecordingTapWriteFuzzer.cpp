// Fuzzes the recording tap with arbitrary input buffer lists, write errors and attach and
// detach sequences. Every chunk handed to the file must be well formed, finite and at most
// 1024 frames, and the frame count must match what the file accepted.
#include <cmath>
#include <cstdlib>

#include "fuzz/RealtimeFuzzInput.h"
#include "realtime/RecordingTap.h"

namespace {

struct CheckingFile {
    RecordingFile file{&CheckingFile::write, this};
    FuzzedDataProvider* data = nullptr;
    uint64_t accepted = 0;

    static int32_t write(const RecordingFile* f, uint32_t frames, const AudioBufferList* list) {
        auto* self = static_cast<CheckingFile*>(f->context);
        if (list == nullptr || list->mNumberBuffers != 1 || frames == 0 || frames > 1024 ||
            list->mBuffers[0].mNumberChannels != 2 ||
            list->mBuffers[0].mDataByteSize != frames * 8U)
            std::abort();
        const auto* samples = static_cast<const float*>(list->mBuffers[0].mData);
        for (uint32_t i = 0; i < 2 * frames; ++i)
            if (!std::isfinite(samples[i])) std::abort();
        const int32_t status = self->data->ConsumeIntegralInRange<int>(0, 15) == 0
                                   ? self->data->ConsumeIntegral<int32_t>()
                                   : 0;
        if (status == 0) self->accepted += frames;
        return status;
    }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    FuzzedDataProvider data(bytes, size);
    RecordingTap* tap = RecordingTapCreate();
    CheckingFile files[2];
    for (CheckingFile& f : files)
        f.data = &data;
    int attached = -1;
    while (data.remaining_bytes() > 0) {
        switch (data.ConsumeIntegralInRange<int>(0, 5)) {
        case 0: {
            const int which = data.ConsumeIntegralInRange<int>(0, 1);
            const bool ok = RecordingTapAttach(tap, &files[which].file);
            if (ok != (attached < 0)) std::abort();
            if (ok) {
                attached = which;
                files[which].accepted = 0;
            }
            break;
        }
        case 1:
            RecordingTapDetach(tap);
            attached = -1;
            break;
        default: {
            brightmix::fuzzing::FuzzBufferList input(data, 4, 10, 16384);
            RecordingTapWrite(tap, data.ConsumeIntegralInRange<int>(0, 15) == 0 ? nullptr
                                                                                : input.list());
            break;
        }
        }
        if (attached >= 0 && RecordingTapFramesWritten(tap) != files[attached].accepted)
            std::abort();
    }
    RecordingTapDestroy(tap);
    return 0;
}
