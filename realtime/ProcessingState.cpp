// The shared processing block, its control-side setters and the real-time render.
//
// Setters run on the control thread, ProcessingRender on the router's IO thread; how each
// value crosses between them is written down in docs/REALTIME.md. The render neither
// allocates, locks, logs nor calls the system.
#include "realtime/ProcessingState.h"

#include <array>
#include <atomic>
#include <cfloat>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "realtime/FilterDesign.h"

namespace {

constexpr uint32_t kSlots = kProcessingSlotCount;
constexpr uint32_t kBands = kProcessingEqualizerBands;
constexpr uint32_t kFilteredChannels = kProcessingFilteredChannels;
constexpr uint32_t kCrossoverSections = 2;
constexpr float kMaxBandGainDb = 24.0F;
constexpr float kDefaultCrossoverHz = 80.0F;
constexpr double kDefaultSampleRate = 48000.0;
// An input sample above this magnitude means the cycle carried signal.
constexpr float kSignalThreshold = 1e-6F;
// Filter state below this magnitude is flushed to zero at the end of every block. After loud
// signal turns to silence the states of the recursive filters decay towards the subnormal
// range, where arithmetic is many times slower; a value this small is some 600 dB below any
// audible sample, so flushing it cannot change what is heard.
constexpr double kStateFlushThreshold = 1e-30;
// Frames processed per block: the block's samples live in small stack arrays while every
// filter stage passes over them with its state in registers.
constexpr uint32_t kBlockFrames = 256;

// Designed crossover of one slot; touched by the render only.
struct CrossoverRecord {
    int32_t mode;
    float hz;
    double sampleRate;
    BiquadCoefficients coefficients; // one section, run twice in series
    double state[kFilteredChannels][kCrossoverSections][2];
};

// Designed equaliser of one slot; touched by the render only.
struct EqualizerRecord {
    uint8_t active;
    float gainDb[kBands];
    float preGainDb;
    double sampleRate;
    float preGainLinear;
    BiquadCoefficients bands[kBands];
    double state[kFilteredChannels][kBands][2]; // channel-major
};

} // namespace

// Field order follows the documented layout. Every value the control thread writes while the
// render may read it is an atomic: relaxed for single scalars (a plain move on the targets we
// build for, but not a data race), release/acquire for the generation counters and the
// crossover mode that publish other values.
struct ProcessingState {
    std::atomic<float> masterGain;
    std::atomic<float> slotGain[kSlots];
    std::atomic<uint32_t> sourceChannel[kSlots];
    std::atomic<uint32_t> crossoverMode[kSlots];
    std::atomic<float> crossoverHz[kSlots];
    std::atomic<uint8_t> monoSum[kSlots];
    std::atomic<float> eqGainDb[kSlots][kBands];
    std::atomic<float> eqPreGainDb[kSlots];
    std::atomic<uint32_t> eqGeneration[kSlots];
    std::atomic<double> sampleRate;
    std::atomic<uint32_t> resetGeneration;
    std::atomic<uint64_t> renderCycles;
    std::atomic<uint64_t> signalCycles;
    std::atomic<float> inputPeak;
    std::atomic<uint32_t> lastInputBuffers;
    std::atomic<uint32_t> lastInputChannels;
    std::atomic<uint32_t> lastInputBytes;
    std::atomic<float> slotPeak[kSlots];
    std::atomic<float> outputPeak;
    uint32_t seenResetGeneration;
    CrossoverRecord crossover[kSlots];
    EqualizerRecord equalizer[kSlots];
};

static_assert(std::atomic<float>::is_always_lock_free);
static_assert(std::atomic<double>::is_always_lock_free);
static_assert(std::atomic<uint8_t>::is_always_lock_free);
static_assert(std::atomic<uint32_t>::is_always_lock_free);
static_assert(std::atomic<uint64_t>::is_always_lock_free);

namespace {

constexpr auto kRelaxed = std::memory_order_relaxed;

bool isValidSlot(const ProcessingState* state, uint32_t slot) {
    return state != nullptr && slot < kSlots;
}

float takePeak(std::atomic<float>& peak) {
    return peak.exchange(0.0F, kRelaxed);
}

// --- Render: record upkeep ---------------------------------------------------------------

void updateCrossover(ProcessingState& state, uint32_t slot, bool reset) {
    CrossoverRecord& record = state.crossover[slot];
    const auto mode =
        static_cast<int32_t>(state.crossoverMode[slot].load(std::memory_order_acquire));
    const float hz = state.crossoverHz[slot].load(kRelaxed);
    const double rate = state.sampleRate.load(kRelaxed);
    if (reset || mode != record.mode) std::memset(record.state, 0, sizeof record.state);
    if (mode != 0 && (mode != record.mode || hz != record.hz || rate != record.sampleRate))
        record.coefficients = FilterDesignCrossoverSection(mode, static_cast<double>(hz), rate);
    record.mode = mode;
    record.hz = hz;
    record.sampleRate = rate;
}

void updateEqualizer(ProcessingState& state, uint32_t slot, bool reset) {
    EqualizerRecord& record = state.equalizer[slot];
    const double rate = state.sampleRate.load(kRelaxed);
    bool changed = reset || rate != record.sampleRate;
    // Orders the gain reads below after the publisher's writes; the value itself is not
    // needed because the gains are compared, not the generations.
    (void)state.eqGeneration[slot].load(std::memory_order_acquire);
    float gains[kBands];
    for (uint32_t band = 0; band < kBands; ++band) {
        gains[band] = state.eqGainDb[slot][band].load(kRelaxed);
        changed = changed || gains[band] != record.gainDb[band];
    }
    const float preGainDb = state.eqPreGainDb[slot].load(kRelaxed);
    if (preGainDb == record.preGainDb && !changed) return;

    const bool wasActive = record.active != 0;
    bool active = preGainDb != 0.0F;
    for (uint32_t band = 0; band < kBands; ++band) {
        if (record.gainDb[band] == 0.0F && gains[band] != 0.0F) {
            for (auto& channel : record.state)
                channel[band][0] = channel[band][1] = 0.0;
        }
        record.gainDb[band] = gains[band];
        active = active || gains[band] != 0.0F;
        record.bands[band] = FilterDesignPeakingBand(band, static_cast<double>(gains[band]), rate);
    }
    record.preGainDb = preGainDb;
    record.preGainLinear =
        static_cast<float>(std::pow(10.0, static_cast<double>(preGainDb) / 20.0));
    record.sampleRate = rate;
    if (reset || !wasActive) std::memset(record.state, 0, sizeof record.state);
    record.active = active ? 1 : 0;
}

// --- Render: one stream of samples -------------------------------------------------------

// Where one input channel's samples are: data[f * stride] for f < frames, silence elsewhere.
struct InputChannel {
    const float* data;
    uint64_t stride;
    uint64_t frames;

    float at(uint64_t frame) const {
        return data != nullptr && frame < frames ? data[frame * stride] : 0.0F;
    }
};

// Resolves the input channel the render reads as channel `channel`: interleaved in the first
// buffer when it has two or more channels, else one buffer per channel, else a mono buffer
// that feeds every channel alike. A buffer shorter than the first reads as silence past its
// end instead of beyond it.
InputChannel resolveInput(const AudioBufferList* input, uint64_t inputFrames, uint32_t channel) {
    if (input == nullptr || input->mNumberBuffers == 0) return {nullptr, 0, 0};
    const AudioBuffer& first = input->mBuffers[0];
    if (first.mNumberChannels >= 2) {
        const auto* data = static_cast<const float*>(first.mData);
        if (data == nullptr) return {nullptr, 0, 0};
        return {data + channel % first.mNumberChannels, first.mNumberChannels, inputFrames};
    }
    if (input->mNumberBuffers > 1) {
        const AudioBuffer& buffer = input->mBuffers[channel % input->mNumberBuffers];
        return {static_cast<const float*>(buffer.mData), 1, buffer.mDataByteSize / 4U};
    }
    if (first.mNumberChannels == 0) return {nullptr, 0, 0};
    return {static_cast<const float*>(first.mData), 1, inputFrames};
}

// One biquad stage as one stream sees it: its coefficients and its (s1, s2) state.
struct StageLane {
    const BiquadCoefficients* coefficients;
    double* state;
};

constexpr BiquadCoefficients kIdentityStage = {1.0, 0.0, 0.0, 0.0, 0.0};

// Everything the render needs to produce one output channel of one slot.
struct Lane {
    InputChannel source; // the channel read when there is no mono sum
    InputChannel left;   // the two channels of the mono sum
    InputChannel right;
    float* output;
    uint64_t outputStride;
    StageLane crossover[kCrossoverSections];
    StageLane bands[kBands]; // the bands whose gain is not 0, in band order
    float gain;
    float master;
    float preGain;
    uint32_t crossoverStages; // 0 or 2
    uint32_t bandStages;
    // Results of the cycle.
    float inputPeak;
    float outputPeak;
    bool isMonoSum;
    bool hasPreGain;
    bool isHeard;
};

// Two streams side by side in one SSE2 register: the baseline x86-64 instruction set does
// two double operations at once, so two channels cost about as much as one.
typedef double Double2 __attribute__((vector_size(16)));
typedef float Float2 __attribute__((vector_size(8)));
// Four single-precision samples at once, for the work around the filters: checking the
// input, converting to and from the double lanes, and the gains.
typedef float Float4 __attribute__((vector_size(16)));
typedef int32_t Int4 __attribute__((vector_size(16)));
typedef double Double4 __attribute__((vector_size(32)));

Float4 load4(const float* from) {
    Float4 v;
    std::memcpy(&v, from, sizeof v);
    return v;
}

void store4(float* to, Float4 v) {
    std::memcpy(to, &v, sizeof v);
}

Float4 splat4(float value) {
    return Float4{value, value, value, value};
}

// Clears the sign bits, as fabs does.
Float4 magnitude4(Float4 v) {
    return reinterpret_cast<Float4>(reinterpret_cast<Int4>(v) & 0x7FFFFFFF);
}

// Keeps the lanes whose mask is set, and +0 in the others.
Float4 select4(Int4 mask, Float4 v) {
    return reinterpret_cast<Float4>(reinterpret_cast<Int4>(v) & mask);
}

Float4 max4(Float4 a, Float4 b) {
    return a > b ? a : b;
}

float largestOf(Float4 v, float initial) {
    float result = initial;
    for (uint32_t i = 0; i < 4; ++i)
        result = v[i] > result ? v[i] : result;
    return result;
}

// Reads a block of the lane's input: mono sum or source channel, counted as heard before
// non-finite samples are replaced by 0, and measured for the input peak.
float readSample(const Lane& lane, uint64_t frame) {
    return lane.isMonoSum ? (lane.left.at(frame) + lane.right.at(frame)) * 0.5F
                          : lane.source.at(frame);
}

void gather(Lane& lane, uint64_t start, uint32_t count, float* x) {
    // The common case, a source that covers the whole block, reads without per-sample checks.
    const InputChannel& source = lane.source;
    const bool isDirect =
        !lane.isMonoSum && source.data != nullptr && start + count <= source.frames;
    if (isDirect && source.stride == 2) {
        // One channel of an interleaved stereo buffer, the usual input: four frames are
        // two loads and one shuffle. The second load reaches one float past the fourth
        // frame's sample, so the last frames are read one by one to stay inside the buffer.
        const float* in = source.data + start * 2;
        std::size_t i = 0;
        for (; i + 4 < count; i += 4)
            store4(x + i,
                   __builtin_shufflevector(load4(in + 2 * i), load4(in + 2 * i + 4), 0, 2, 4, 6));
        for (; i < count; ++i)
            x[i] = in[2 * i];
    } else if (isDirect) {
        const float* in = source.data + start * source.stride;
        for (uint32_t i = 0; i < count; ++i)
            x[i] = in[i * source.stride];
    } else {
        for (uint32_t i = 0; i < count; ++i)
            x[i] = readSample(lane, start + i);
    }
    // Four samples at a time, then the rest one by one. The peak is a maximum, so the order
    // in which it is taken cannot change it.
    Float4 peaks = splat4(lane.inputPeak);
    Int4 loud = {};
    std::size_t i = 0;
    for (; i + 4 <= count; i += 4) {
        const Float4 v = load4(x + i);
        const Float4 magnitude = magnitude4(v);
        loud |= magnitude > splat4(kSignalThreshold);
        const Int4 isFinite = magnitude <= splat4(FLT_MAX); // false for NaN and infinity
        store4(x + i, select4(isFinite, v));
        peaks = max4(select4(isFinite, magnitude), peaks);
    }
    float peak = largestOf(peaks, lane.inputPeak);
    bool heard = lane.isHeard || (loud[0] | loud[1] | loud[2] | loud[3]) != 0;
    for (; i < count; ++i) {
        const float magnitude = std::fabs(x[i]);
        heard = heard || magnitude > kSignalThreshold;
        const bool isFinite = std::isfinite(x[i]);
        x[i] = isFinite ? x[i] : 0.0F;
        peak = isFinite && magnitude > peak ? magnitude : peak;
    }
    lane.inputPeak = peak;
    lane.isHeard = heard;
}

// Applies the gains in single precision, in the documented order, and writes the block.
void scatter(Lane& lane, uint64_t start, uint32_t count, const float* x) {
    float* out = lane.output + start * lane.outputStride;
    const uint64_t stride = lane.outputStride;
    std::size_t i = 0;
    Float4 peaks = splat4(lane.outputPeak);
    if (stride == 1) {
        for (; i + 4 <= count; i += 4) {
            const Float4 y = splat4(lane.gain) * (splat4(lane.master) * load4(x + i));
            peaks = max4(magnitude4(y), peaks);
            store4(out + i, y);
        }
    }
    float peak = largestOf(peaks, lane.outputPeak);
    for (; i < count; ++i) {
        const float y = lane.gain * (lane.master * x[i]);
        const float magnitude = std::fabs(y);
        peak = magnitude > peak ? magnitude : peak;
        out[i * stride] = y;
    }
    lane.outputPeak = peak;
}

// Rounds both lanes to single precision. Written with whole-vector conversions on purpose:
// GCC 12 folds the element-wise form, Double2{(double)(float)v[0], ...}, into nothing at -O2,
// which silently skips the rounding.
Double2 roundToFloat(Double2 v) {
    return __builtin_convertvector(__builtin_convertvector(v, Float2), Double2);
}

double flushed(double value) {
    return std::fabs(value) < kStateFlushThreshold ? 0.0 : value;
}

// One stage's coefficients and state for both streams, held in registers during a pass.
struct StagePair {
    Double2 b0, b1, b2, a1, a2, s1, s2;

    StagePair() = default;
    explicit StagePair(const StageLane* lanes) {
        const BiquadCoefficients& l = *lanes[0].coefficients;
        const BiquadCoefficients& r = *lanes[1].coefficients;
        b0 = Double2{l.b0, r.b0};
        b1 = Double2{l.b1, r.b1};
        b2 = Double2{l.b2, r.b2};
        a1 = Double2{l.a1, r.a1};
        a2 = Double2{l.a2, r.a2};
        s1 = Double2{lanes[0].state[0], lanes[1].state[0]};
        s2 = Double2{lanes[0].state[1], lanes[1].state[1]};
    }

    // Transposed direct form II, in the documented operation order.
    Double2 run(Double2 x) {
        const Double2 y = b0 * x + s1;
        s1 = s2 + b1 * x - a1 * y;
        s2 = b2 * x - a2 * y;
        return y;
    }

    void store(const StageLane* lanes) const {
        for (uint32_t side = 0; side < 2; ++side) {
            lanes[side].state[0] = flushed(s1[side]);
            lanes[side].state[1] = flushed(s2[side]);
        }
    }
};

template <std::size_t... K, typename F> void forEachStage(std::index_sequence<K...>, F&& f) {
    (f(K), ...);
}

// One pass over a block: `Crossover` crossover sections (0 or 2) and the rounding after
// them, the pre-gain and its rounding (first pass only), then `Bands` equaliser bands. Doing
// up to six stages per pass lets their recursions overlap, since each waits only on its own
// previous sample, while their state still fits in registers.
template <uint32_t Crossover, uint32_t Bands, bool IsFirst>
void runPass(Double2* block, uint32_t frames, const StageLane (*stages)[2], Double2 preGain) {
    constexpr uint32_t kCount = Crossover + Bands;
    StagePair pairs[kCount > 0 ? kCount : 1];
    forEachStage(std::make_index_sequence<kCount>{},
                 [&](std::size_t k) { pairs[k] = StagePair(stages[k]); });
    if constexpr (Crossover == 2) {
        // The crossover is one biquad run twice (an identity stage for a lane without it,
        // twice as well): sharing the coefficients lets them stay in registers.
        pairs[1].b0 = pairs[0].b0;
        pairs[1].b1 = pairs[0].b1;
        pairs[1].b2 = pairs[0].b2;
        pairs[1].a1 = pairs[0].a1;
        pairs[1].a2 = pairs[0].a2;
    }
    for (uint32_t i = 0; i < frames; ++i) {
        Double2 x = block[i];
        forEachStage(std::make_index_sequence<Crossover>{},
                     [&](std::size_t k) { x = pairs[k].run(x); });
        if constexpr (IsFirst) {
            // A product of two floats is exact in double, so multiplying here and rounding
            // once gives the single-precision product bit for bit.
            x = roundToFloat(roundToFloat(x) * preGain);
        }
        forEachStage(std::make_index_sequence<Bands>{},
                     [&](std::size_t k) { x = pairs[Crossover + k].run(x); });
        block[i] = x;
    }
    forEachStage(std::make_index_sequence<kCount>{},
                 [&](std::size_t k) { pairs[k].store(stages[k]); });
}

using PassFunction = void (*)(Double2*, uint32_t, const StageLane (*)[2], Double2);

constexpr uint32_t kMaxStagesPerPass = 3;

template <uint32_t Crossover, std::size_t... B>
constexpr std::array<PassFunction, sizeof...(B)> firstPasses(std::index_sequence<B...>) {
    return {&runPass<Crossover, static_cast<uint32_t>(B), true>...};
}

template <std::size_t... B>
constexpr std::array<PassFunction, sizeof...(B)> laterPasses(std::index_sequence<B...>) {
    return {&runPass<0, static_cast<uint32_t>(B), false>...};
}

// Indexed by the number of bands the pass takes.
constexpr auto kFirstPassPlain = firstPasses<0>(std::make_index_sequence<kMaxStagesPerPass + 1>{});
constexpr auto kFirstPassCrossover =
    firstPasses<kCrossoverSections>(std::make_index_sequence<kMaxStagesPerPass - 1>{});
constexpr auto kLaterPass = laterPasses(std::make_index_sequence<kMaxStagesPerPass + 1>{});

// Runs the whole chain over a block in as few passes as the register budget allows, with
// the bands spread evenly so that no pass is left with a lone stage, which its own
// recursion would slow down.
void runChain(Double2* block, uint32_t frames, const StageLane (*stages)[2],
              uint32_t crossoverStages, uint32_t bandStages, Double2 preGain) {
    const uint32_t total = crossoverStages + bandStages;
    const uint32_t passes = total == 0 ? 1 : (total + kMaxStagesPerPass - 1) / kMaxStagesPerPass;
    uint32_t firstBands = (total + passes - 1) / passes - crossoverStages;
    if (firstBands > bandStages) firstBands = bandStages;
    if (crossoverStages > 0) {
        kFirstPassCrossover[firstBands](block, frames, stages, preGain);
    } else {
        kFirstPassPlain[firstBands](block, frames, stages, preGain);
    }
    stages += crossoverStages + firstBands;
    uint32_t remaining = bandStages - firstBands;
    for (uint32_t left = passes - 1; left > 0; --left) {
        const uint32_t take = (remaining + left - 1) / left;
        kLaterPass[take](block, frames, stages, preGain);
        stages += take;
        remaining -= take;
    }
}

// Interleaves two streams' samples into the double lanes, four frames at a time.
void toLanes(const float* first, const float* second, uint32_t count, Double2* block) {
    std::size_t i = 0;
    for (; i + 4 <= count; i += 4) {
        const Float4 a = load4(first + i);
        const Float4 b = load4(second + i);
        const Double4 low =
            __builtin_convertvector(__builtin_shufflevector(a, b, 0, 4, 1, 5), Double4);
        const Double4 high =
            __builtin_convertvector(__builtin_shufflevector(a, b, 2, 6, 3, 7), Double4);
        block[i] = __builtin_shufflevector(low, low, 0, 1);
        block[i + 1] = __builtin_shufflevector(low, low, 2, 3);
        block[i + 2] = __builtin_shufflevector(high, high, 0, 1);
        block[i + 3] = __builtin_shufflevector(high, high, 2, 3);
    }
    for (; i < count; ++i)
        block[i] = Double2{static_cast<double>(first[i]), static_cast<double>(second[i])};
}

// Rounds the double lanes to single precision and separates the two streams again.
void fromLanes(const Double2* block, uint32_t count, float* first, float* second) {
    std::size_t i = 0;
    for (; i + 4 <= count; i += 4) {
        const Float4 low = __builtin_convertvector(
            __builtin_shufflevector(block[i], block[i + 1], 0, 1, 2, 3), Float4);
        const Float4 high = __builtin_convertvector(
            __builtin_shufflevector(block[i + 2], block[i + 3], 0, 1, 2, 3), Float4);
        store4(first + i, __builtin_shufflevector(low, high, 0, 2, 4, 6));
        store4(second + i, __builtin_shufflevector(low, high, 1, 3, 5, 7));
    }
    for (; i < count; ++i) {
        first[i] = static_cast<float>(block[i][0]);
        second[i] = static_cast<float>(block[i][1]);
    }
}

// Filters up to two lanes over `frames` frames. A missing second lane, and the stages one
// lane has and the other lacks, run as identity stages on zero state: y = 1·x + 0 leaves the
// sample exactly as it was, so pairing never changes a result.
void renderLanes(Lane* first, Lane* second, uint64_t frames) {
    Lane* lanes[2] = {first, second};
    double spareState[kCrossoverSections + kBands][2][2] = {};

    uint32_t crossoverStages = 0;
    uint32_t bandStages = 0;
    bool hasPreGain = false;
    for (Lane* lane : lanes) {
        if (lane == nullptr) continue;
        if (lane->crossoverStages > crossoverStages) crossoverStages = lane->crossoverStages;
        if (lane->bandStages > bandStages) bandStages = lane->bandStages;
        hasPreGain = hasPreGain || lane->hasPreGain;
    }
    StageLane stages[kCrossoverSections + kBands][2];
    for (uint32_t k = 0; k < crossoverStages + bandStages; ++k) {
        for (uint32_t side = 0; side < 2; ++side) {
            const Lane* lane = lanes[side];
            StageLane stage{&kIdentityStage, spareState[k][side]};
            if (lane != nullptr) {
                if (k < crossoverStages && k < lane->crossoverStages) stage = lane->crossover[k];
                if (k >= crossoverStages && k - crossoverStages < lane->bandStages)
                    stage = lane->bands[k - crossoverStages];
            }
            stages[k][side] = stage;
        }
    }
    const bool isFiltered = crossoverStages + bandStages > 0 || hasPreGain;
    const Double2 preGain = {
        first->hasPreGain ? static_cast<double>(first->preGain) : 1.0,
        second != nullptr && second->hasPreGain ? static_cast<double>(second->preGain) : 1.0};

    float x[2][kBlockFrames];
    Double2 block[kBlockFrames];
    for (uint64_t start = 0; start < frames; start += kBlockFrames) {
        const auto count =
            static_cast<uint32_t>(frames - start < kBlockFrames ? frames - start : kBlockFrames);
        gather(*first, start, count, x[0]);
        if (second != nullptr) {
            gather(*second, start, count, x[1]);
        } else {
            std::memset(x[1], 0, sizeof x[1]);
        }
        if (isFiltered) {
            toLanes(x[0], x[1], count, block);
            runChain(block, count, stages, crossoverStages, bandStages, preGain);
            fromLanes(block, count, x[0], x[1]);
        }
        scatter(*first, start, count, x[0]);
        if (second != nullptr) scatter(*second, start, count, x[1]);
    }
}

// --- Render: slots ------------------------------------------------------------------------

// A slot's settings for this cycle, after its records have been brought up to date.
struct SlotSetup {
    bool isBypassed;
    float gain;
    float master;
    bool isMonoSum;
    uint32_t sourceChannel;     // for a one-channel buffer
    CrossoverRecord* crossover; // null when there is no crossover
    EqualizerRecord* equalizer; // null when the equaliser is inactive
};

SlotSetup prepareSlot(ProcessingState* state, uint32_t slot, bool reset, float master) {
    SlotSetup setup{};
    setup.master = master;
    setup.isBypassed = state == nullptr || slot >= kSlots;
    if (setup.isBypassed) {
        setup.gain = 1.0F;
        setup.sourceChannel = slot & 1U;
        return setup;
    }
    setup.gain = state->slotGain[slot].load(kRelaxed);
    setup.sourceChannel = state->sourceChannel[slot].load(kRelaxed);
    updateCrossover(*state, slot, reset);
    updateEqualizer(*state, slot, reset);
    setup.isMonoSum = state->monoSum[slot].load(kRelaxed) != 0;
    if (state->crossover[slot].mode != 0) setup.crossover = &state->crossover[slot];
    if (state->equalizer[slot].active != 0) setup.equalizer = &state->equalizer[slot];
    return setup;
}

Lane makeLane(const SlotSetup& setup, const AudioBuffer& buffer, uint32_t channel,
              const AudioBufferList* input, uint64_t inputFrames) {
    Lane lane{};
    const uint32_t channels = buffer.mNumberChannels;
    const uint32_t source = channels > 1 ? channel : setup.sourceChannel;
    lane.source = resolveInput(input, inputFrames, source);
    lane.isMonoSum = setup.isMonoSum;
    if (lane.isMonoSum) {
        lane.left = resolveInput(input, inputFrames, 0);
        lane.right = resolveInput(input, inputFrames, 1);
    }
    lane.output = static_cast<float*>(buffer.mData) + channel;
    lane.outputStride = channels;
    lane.gain = setup.gain;
    lane.master = setup.master;
    const bool isFilteredChannel = channel < kFilteredChannels;
    if (setup.crossover != nullptr && isFilteredChannel) {
        lane.crossoverStages = kCrossoverSections;
        for (uint32_t section = 0; section < kCrossoverSections; ++section)
            lane.crossover[section] = {&setup.crossover->coefficients,
                                       setup.crossover->state[channel][section]};
    }
    if (setup.equalizer != nullptr) {
        lane.hasPreGain = true;
        lane.preGain = setup.equalizer->preGainLinear;
        if (isFilteredChannel) {
            for (uint32_t band = 0; band < kBands; ++band) {
                if (setup.equalizer->gainDb[band] == 0.0F) continue;
                lane.bands[lane.bandStages++] = {&setup.equalizer->bands[band],
                                                 setup.equalizer->state[channel][band]};
            }
        }
    }
    return lane;
}

uint64_t outputFrames(const AudioBuffer& buffer, uint64_t inputFrames) {
    const uint64_t frames = buffer.mDataByteSize / (uint64_t{buffer.mNumberChannels} * 4U);
    return frames < inputFrames ? frames : inputFrames;
}

bool isRenderable(const AudioBuffer& buffer) {
    return buffer.mData != nullptr && buffer.mNumberChannels != 0;
}

// Results of one cycle across all slots.
struct CycleTotals {
    float peak;
    bool isHeard;
};

// Clears what the input did not fill and hands the slot's peaks on.
void finishSlot(ProcessingState* state, uint32_t slot, const SlotSetup& setup,
                const AudioBuffer& buffer, uint64_t frames, const Lane* lanes, uint32_t count,
                CycleTotals& totals) {
    const uint64_t written = frames * buffer.mNumberChannels * 4U;
    if (buffer.mDataByteSize > written) {
        std::memset(static_cast<char*>(buffer.mData) + written, 0, buffer.mDataByteSize - written);
    }
    float inputPeak = 0.0F;
    float outputPeak = 0.0F;
    for (uint32_t i = 0; i < count; ++i) {
        if (lanes[i].inputPeak > inputPeak) inputPeak = lanes[i].inputPeak;
        if (lanes[i].outputPeak > outputPeak) outputPeak = lanes[i].outputPeak;
        totals.isHeard = totals.isHeard || lanes[i].isHeard;
    }
    if (!setup.isBypassed && state != nullptr) {
        // Only the render raises these, so a load and a store suffice.
        if (inputPeak > state->inputPeak.load(kRelaxed))
            state->inputPeak.store(inputPeak, kRelaxed);
        if (outputPeak > state->slotPeak[slot].load(kRelaxed))
            state->slotPeak[slot].store(outputPeak, kRelaxed);
    }
    if (outputPeak > totals.peak) totals.peak = outputPeak;
}

// Renders a slot of two or more channels: its channels in pairs.
void renderWideSlot(ProcessingState* state, uint32_t slot, const SlotSetup& setup,
                    const AudioBuffer& buffer, const AudioBufferList* input, uint64_t inputFrames,
                    CycleTotals& totals) {
    const uint64_t frames = outputFrames(buffer, inputFrames);
    // Peaks and the heard flag are reduced per pair so that any channel count fits here.
    Lane pair[2];
    uint32_t count = 0;
    Lane summary{};
    for (uint32_t channel = 0; frames > 0 && channel < buffer.mNumberChannels; channel += 2) {
        pair[0] = makeLane(setup, buffer, channel, input, inputFrames);
        count = 1;
        if (channel + 1 < buffer.mNumberChannels) {
            pair[1] = makeLane(setup, buffer, channel + 1, input, inputFrames);
            count = 2;
        }
        renderLanes(&pair[0], count == 2 ? &pair[1] : nullptr, frames);
        for (uint32_t i = 0; i < count; ++i) {
            if (pair[i].inputPeak > summary.inputPeak) summary.inputPeak = pair[i].inputPeak;
            if (pair[i].outputPeak > summary.outputPeak) summary.outputPeak = pair[i].outputPeak;
            summary.isHeard = summary.isHeard || pair[i].isHeard;
        }
    }
    finishSlot(state, slot, setup, buffer, frames, &summary, 1, totals);
}

} // namespace

// --- Control side -------------------------------------------------------------------------

extern "C" ProcessingState* ProcessingCreate(float masterGain) {
    // NOLINTNEXTLINE(cppcoreguidelines-no-malloc,hicpp-no-malloc): the one allocation
    void* memory = std::calloc(1, sizeof(ProcessingState));
    if (memory == nullptr) return nullptr;
    auto* state = new (memory) ProcessingState{};
    state->masterGain.store(masterGain, kRelaxed);
    for (uint32_t slot = 0; slot < kSlots; ++slot) {
        state->slotGain[slot].store(1.0F, kRelaxed);
        state->sourceChannel[slot].store(slot & 1U, kRelaxed);
        state->crossoverHz[slot].store(kDefaultCrossoverHz, kRelaxed);
    }
    state->sampleRate.store(kDefaultSampleRate, kRelaxed);
    return state;
}

extern "C" void ProcessingDestroy(ProcessingState* state) {
    if (state == nullptr) return;
    state->~ProcessingState();
    std::free(state); // NOLINT(cppcoreguidelines-no-malloc,hicpp-no-malloc)
}

extern "C" void ProcessingSetMasterGain(ProcessingState* state, float gain) {
    if (state != nullptr) state->masterGain.store(gain, kRelaxed);
}

extern "C" float ProcessingGetMasterGain(const ProcessingState* state) {
    return state != nullptr ? state->masterGain.load(kRelaxed) : 1.0F;
}

extern "C" void ProcessingResetSlots(ProcessingState* state) {
    if (state == nullptr) return;
    for (uint32_t slot = 0; slot < kSlots; ++slot) {
        state->slotGain[slot].store(1.0F, kRelaxed);
        state->sourceChannel[slot].store(slot & 1U, kRelaxed);
        state->crossoverMode[slot].store(0, kRelaxed);
        state->monoSum[slot].store(0, kRelaxed);
        for (auto& gain : state->eqGainDb[slot])
            gain.store(0.0F, kRelaxed);
        state->eqPreGainDb[slot].store(0.0F, kRelaxed);
        state->eqGeneration[slot].fetch_add(1, std::memory_order_release);
    }
    state->resetGeneration.fetch_add(1, std::memory_order_release);
}

extern "C" void ProcessingSetEqualizer(ProcessingState* state, uint32_t slot, const float* gains,
                                       uint32_t count, float preGainDb) {
    if (!isValidSlot(state, slot)) return;
    for (uint32_t band = 0; band < kBands; ++band) {
        float value = gains != nullptr && band < count ? gains[band] : 0.0F;
        if (!std::isfinite(value)) value = 0.0F;
        if (value < -kMaxBandGainDb) value = -kMaxBandGainDb;
        if (value > kMaxBandGainDb) value = kMaxBandGainDb;
        state->eqGainDb[slot][band].store(value, kRelaxed);
    }
    state->eqPreGainDb[slot].store(std::isfinite(preGainDb) ? preGainDb : 0.0F, kRelaxed);
    state->eqGeneration[slot].fetch_add(1, std::memory_order_release);
}

extern "C" void ProcessingSetSampleRate(ProcessingState* state, double sampleRate) {
    if (state != nullptr && std::isfinite(sampleRate) && sampleRate > 0.0)
        state->sampleRate.store(sampleRate, kRelaxed);
}

extern "C" void ProcessingSetCrossover(ProcessingState* state, uint32_t slot, int32_t mode,
                                       float hz) {
    if (!isValidSlot(state, slot)) return;
    // `hz > 0` is false for a NaN, so a NaN corner also turns the crossover off.
    const bool isValid = mode >= 1 && mode <= 2 && hz > 0.0F && !std::isinf(hz);
    state->crossoverHz[slot].store(hz, kRelaxed);
    state->crossoverMode[slot].store(isValid ? static_cast<uint32_t>(mode) : 0U,
                                     std::memory_order_release);
}

extern "C" void ProcessingSetMonoSum(ProcessingState* state, uint32_t slot, int32_t flag) {
    if (isValidSlot(state, slot))
        state->monoSum[slot].store(static_cast<uint8_t>(flag & 0xFF), kRelaxed);
}

extern "C" void ProcessingSetSlotGain(ProcessingState* state, uint32_t slot, float gain) {
    if (!isValidSlot(state, slot)) return;
    if (gain < 0.0F) gain = 0.0F;
    if (gain > 1.0F) gain = 1.0F;
    state->slotGain[slot].store(gain, kRelaxed);
}

extern "C" float ProcessingGetSlotGain(const ProcessingState* state, uint32_t slot) {
    return isValidSlot(state, slot) ? state->slotGain[slot].load(kRelaxed) : 1.0F;
}

extern "C" void ProcessingSetSourceChannel(ProcessingState* state, uint32_t slot,
                                           uint32_t channel) {
    if (isValidSlot(state, slot)) state->sourceChannel[slot].store(channel, kRelaxed);
}

extern "C" uint64_t ProcessingRenderCycles(const ProcessingState* state) {
    return state != nullptr ? state->renderCycles.load(kRelaxed) : 0;
}

extern "C" uint64_t ProcessingSignalCycles(const ProcessingState* state) {
    return state != nullptr ? state->signalCycles.load(kRelaxed) : 0;
}

extern "C" void ProcessingLastInputFormat(const ProcessingState* state, uint32_t* buffers,
                                          uint32_t* channels, uint32_t* bytes) {
    if (state == nullptr) return;
    if (buffers != nullptr) *buffers = state->lastInputBuffers.load(kRelaxed);
    if (channels != nullptr) *channels = state->lastInputChannels.load(kRelaxed);
    if (bytes != nullptr) *bytes = state->lastInputBytes.load(kRelaxed);
}

extern "C" float ProcessingTakeInputPeak(ProcessingState* state) {
    return state != nullptr ? takePeak(state->inputPeak) : 0.0F;
}

extern "C" float ProcessingTakeSlotPeak(ProcessingState* state, uint32_t slot) {
    return isValidSlot(state, slot) ? takePeak(state->slotPeak[slot]) : 0.0F;
}

extern "C" float ProcessingTakeOutputPeak(ProcessingState* state) {
    return state != nullptr ? takePeak(state->outputPeak) : 0.0F;
}

// --- Render -------------------------------------------------------------------------------

extern "C" void ProcessingRender(const AudioBufferList* input, AudioBufferList* output,
                                 ProcessingState* state) {
    if (output == nullptr) return;

    uint64_t inputFrames = 0;
    if (input != nullptr && input->mNumberBuffers > 0) {
        const AudioBuffer& first = input->mBuffers[0];
        const uint64_t channels = first.mNumberChannels == 0 ? 1 : first.mNumberChannels;
        inputFrames = first.mDataByteSize / (channels * 4U);
    }
    float master = 1.0F;
    bool reset = false;
    if (state != nullptr) {
        state->lastInputBuffers.store(input != nullptr ? input->mNumberBuffers : 0, kRelaxed);
        if (input != nullptr && input->mNumberBuffers > 0) {
            state->lastInputChannels.store(input->mBuffers[0].mNumberChannels, kRelaxed);
            state->lastInputBytes.store(input->mBuffers[0].mDataByteSize, kRelaxed);
        }
        master = state->masterGain.load(kRelaxed);
        const uint32_t generation = state->resetGeneration.load(std::memory_order_acquire);
        reset = generation != state->seenResetGeneration;
        state->seenResetGeneration = generation;
    }

    CycleTotals totals{0.0F, false};
    for (uint32_t slot = 0; slot < output->mNumberBuffers; ++slot) {
        const AudioBuffer& buffer = output->mBuffers[slot];
        if (!isRenderable(buffer)) continue;
        const SlotSetup setup = prepareSlot(state, slot, reset, master);
        if (buffer.mNumberChannels > 1) {
            renderWideSlot(state, slot, setup, buffer, input, inputFrames, totals);
            continue;
        }
        const uint64_t frames = outputFrames(buffer, inputFrames);
        Lane lanes[2];
        lanes[0] = makeLane(setup, buffer, 0, input, inputFrames);
        // One-channel slots are the common shape of multi-speaker outputs; two neighbours
        // of the same length share one pass.
        const uint32_t next = slot + 1;
        if (frames > 0 && next < output->mNumberBuffers) {
            const AudioBuffer& neighbour = output->mBuffers[next];
            if (isRenderable(neighbour) && neighbour.mNumberChannels == 1 &&
                outputFrames(neighbour, inputFrames) == frames) {
                const SlotSetup nextSetup = prepareSlot(state, next, reset, master);
                lanes[1] = makeLane(nextSetup, neighbour, 0, input, inputFrames);
                renderLanes(&lanes[0], &lanes[1], frames);
                finishSlot(state, slot, setup, buffer, frames, &lanes[0], 1, totals);
                finishSlot(state, next, nextSetup, neighbour, frames, &lanes[1], 1, totals);
                slot = next;
                continue;
            }
        }
        if (frames > 0) renderLanes(&lanes[0], nullptr, frames);
        finishSlot(state, slot, setup, buffer, frames, &lanes[0], 1, totals);
    }

    if (state == nullptr) return;
    float stored = state->outputPeak.load(kRelaxed);
    while (stored < totals.peak &&
           !state->outputPeak.compare_exchange_weak(stored, totals.peak, kRelaxed, kRelaxed)) {
    }
    state->renderCycles.fetch_add(1, kRelaxed);
    if (totals.isHeard) state->signalCycles.fetch_add(1, kRelaxed);
}

// --- Equaliser headroom -------------------------------------------------------------------

extern "C" float EqualizerPeakBoost(const float* gains, double sampleRate) {
    if (gains == nullptr || !(sampleRate > 0.0) || !std::isfinite(sampleRate)) return 0.0F;
    BiquadCoefficients bands[kBands];
    uint32_t count = 0;
    for (uint32_t band = 0; band < kBands; ++band) {
        if (gains[band] != 0.0F)
            bands[count++] =
                FilterDesignPeakingBand(band, static_cast<double>(gains[band]), sampleRate);
    }
    const double upper = std::fmin(0.45 * sampleRate, 20000.0);
    if (upper < 20.0) return 0.0F;
    constexpr double kTwoPi = 6.28318530717958647692;
    // One twentieth of an octave per step.
    constexpr double kStep = 1.0353;
    double best = 0.0;
    // Repeated multiplication, not a power per step: the grid is defined that way.
    double f = 20.0;
    while (f <= upper) {
        const double w = kTwoPi * f / sampleRate;
        const double c1 = std::cos(w);
        const double s1 = std::sin(w);
        const double c2 = std::cos(2.0 * w);
        const double s2 = std::sin(2.0 * w);
        double sum = 0.0;
        for (uint32_t i = 0; i < count; ++i) {
            const BiquadCoefficients& c = bands[i];
            const double denReal = 1.0 + c.a1 * c1 + c.a2 * c2;
            const double denImag = c.a1 * s1 + c.a2 * s2;
            const double den2 = denReal * denReal + denImag * denImag;
            if (den2 == 0.0) continue;
            const double numReal = c.b0 + c.b1 * c1 + c.b2 * c2;
            const double numImag = c.b1 * s1 + c.b2 * s2;
            const double num2 = numReal * numReal + numImag * numImag;
            const double ratio = std::sqrt(num2) / std::sqrt(den2);
            sum += ratio > 0.0 ? 20.0 * std::log10(ratio) : -200.0;
        }
        if (sum > best) best = sum;
        f *= kStep;
    }
    return static_cast<float>(best);
}
