// The plain reference of the processing path; see ReferenceRender.h.
#include "tests/support/ReferenceRender.h"

#include <cmath>
#include <cstring>

namespace brightmix::testing {

namespace {

// One transposed-direct-form-II step with its state (s1, s2).
double biquad(const BiquadCoefficients& c, double* s, double x) {
    const double y = c.b0 * x + s[0];
    s[0] = s[1] + c.b1 * x - c.a1 * y;
    s[1] = c.b2 * x - c.a2 * y;
    return y;
}

float inputSample(const AudioBufferList* input, std::uint64_t frame, std::uint32_t channel) {
    if (input == nullptr || input->mNumberBuffers == 0) return 0.0F;
    const AudioBuffer& first = input->mBuffers[0];
    if (first.mNumberChannels >= 2) {
        if (first.mData == nullptr) return 0.0F;
        const std::uint64_t index =
            channel % first.mNumberChannels + std::uint64_t{first.mNumberChannels} * frame;
        return static_cast<const float*>(first.mData)[index];
    }
    if (input->mNumberBuffers > 1) {
        const AudioBuffer& buffer = input->mBuffers[channel % input->mNumberBuffers];
        // A buffer shorter than the first reads as silence past its end.
        if (buffer.mData == nullptr || frame >= buffer.mDataByteSize / 4U) return 0.0F;
        return static_cast<const float*>(buffer.mData)[frame];
    }
    if (first.mNumberChannels == 0 || first.mData == nullptr) return 0.0F;
    return static_cast<const float*>(first.mData)[frame];
}

} // namespace

ReferenceParameters::ReferenceParameters() {
    for (std::uint32_t slot = 0; slot < slots.size(); ++slot)
        slots[slot].sourceChannel = slot & 1U;
}

ReferenceRender::ReferenceRender() : crossover_(64), equalizer_(64) {}

void ReferenceRender::resetSlots() {
    for (std::uint32_t slot = 0; slot < 64; ++slot) {
        ReferenceSlot& settings = parameters.slots[slot];
        const float hz = settings.crossoverHz;
        settings = ReferenceSlot{};
        settings.sourceChannel = slot & 1U;
        settings.crossoverHz = hz;
    }
    isResetPending_ = true;
}

void ReferenceRender::updateCrossover(std::uint32_t slot, bool reset) {
    Crossover& record = crossover_[slot];
    const ReferenceSlot& settings = parameters.slots[slot];
    if (reset || settings.crossoverMode != record.mode)
        std::memset(record.state, 0, sizeof record.state);
    if (settings.crossoverMode != 0 &&
        (settings.crossoverMode != record.mode || settings.crossoverHz != record.hz ||
         parameters.sampleRate != record.sampleRate)) {
        record.coefficients = FilterDesignCrossoverSection(
            settings.crossoverMode, static_cast<double>(settings.crossoverHz),
            parameters.sampleRate);
    }
    record.mode = settings.crossoverMode;
    record.hz = settings.crossoverHz;
    record.sampleRate = parameters.sampleRate;
}

void ReferenceRender::updateEqualizer(std::uint32_t slot, bool reset) {
    Equalizer& record = equalizer_[slot];
    const ReferenceSlot& settings = parameters.slots[slot];
    bool changed = reset || parameters.sampleRate != record.sampleRate;
    for (std::size_t band = 0; band < 10; ++band)
        changed = changed || settings.eqGainDb[band] != record.gainDb[band];
    if (settings.eqPreGainDb == record.preGainDb && !changed) return;
    const bool wasActive = record.isActive;
    bool active = settings.eqPreGainDb != 0.0F;
    for (std::uint32_t band = 0; band < 10; ++band) {
        if (record.gainDb[band] == 0.0F && settings.eqGainDb[band] != 0.0F) {
            for (auto& channel : record.state)
                channel[band][0] = channel[band][1] = 0.0;
        }
        record.gainDb[band] = settings.eqGainDb[band];
        active = active || record.gainDb[band] != 0.0F;
        record.bands[band] = FilterDesignPeakingBand(band, static_cast<double>(record.gainDb[band]),
                                                     parameters.sampleRate);
    }
    record.preGainDb = settings.eqPreGainDb;
    record.preGainLinear =
        static_cast<float>(std::pow(10.0, static_cast<double>(record.preGainDb) / 20.0));
    record.sampleRate = parameters.sampleRate;
    if (reset || !wasActive) std::memset(record.state, 0, sizeof record.state);
    record.isActive = active;
}

void ReferenceRender::render(const AudioBufferList* input, AudioBufferList* output) {
    if (output == nullptr) return;
    std::uint64_t inputFrames = 0;
    if (input != nullptr && input->mNumberBuffers > 0) {
        const std::uint64_t channels =
            input->mBuffers[0].mNumberChannels == 0 ? 1 : input->mBuffers[0].mNumberChannels;
        inputFrames = input->mBuffers[0].mDataByteSize / (channels * 4U);
    }
    const float master = parameters.masterGain;
    const bool reset = isResetPending_;
    isResetPending_ = false;

    float cyclePeak = 0.0F;
    bool anyHeard = false;
    for (std::uint32_t s = 0; s < output->mNumberBuffers; ++s) {
        AudioBuffer& buffer = output->mBuffers[s];
        if (buffer.mData == nullptr || buffer.mNumberChannels == 0) continue;
        const std::uint32_t channels = buffer.mNumberChannels;
        std::uint64_t frames = buffer.mDataByteSize / (std::uint64_t{channels} * 4U);
        if (inputFrames < frames) frames = inputFrames;
        const bool bypassSlot = s >= 64;
        const float g = bypassSlot ? 1.0F : parameters.slots[s].gain;
        bool monoSum = false;
        if (!bypassSlot) {
            updateCrossover(s, reset);
            updateEqualizer(s, reset);
            monoSum = parameters.slots[s].isMonoSum;
        }
        float inPeak = 0.0F;
        float outPeak = 0.0F;
        auto* data = static_cast<float*>(buffer.mData);
        for (std::uint64_t f = 0; f < frames; ++f) {
            float m = 0.0F;
            if (monoSum) m = (inputSample(input, f, 0) + inputSample(input, f, 1)) * 0.5F;
            for (std::uint32_t c = 0; c < channels; ++c) {
                float x = m;
                if (!monoSum) {
                    std::uint32_t src = c;
                    if (channels == 1)
                        src = bypassSlot ? (s & 1U) : parameters.slots[s].sourceChannel;
                    x = inputSample(input, f, src);
                }
                const bool heard = std::fabs(x) > 1e-6F;
                if (std::isinf(x) || std::isnan(x)) {
                    x = 0.0F;
                } else if (std::fabs(x) > inPeak) {
                    inPeak = std::fabs(x);
                }
                if (!bypassSlot && crossover_[s].mode != 0 && c < 8) {
                    double v = static_cast<double>(x);
                    v = biquad(crossover_[s].coefficients, crossover_[s].state[c][0], v);
                    v = biquad(crossover_[s].coefficients, crossover_[s].state[c][1], v);
                    x = static_cast<float>(v);
                }
                if (!bypassSlot && equalizer_[s].isActive) {
                    Equalizer& eq = equalizer_[s];
                    x = x * eq.preGainLinear;
                    if (c < 8) {
                        double v = static_cast<double>(x);
                        for (std::uint32_t b = 0; b < 10; ++b) {
                            if (eq.gainDb[b] != 0.0F) v = biquad(eq.bands[b], eq.state[c][b], v);
                        }
                        x = static_cast<float>(v);
                    }
                }
                anyHeard = anyHeard || heard;
                const float y = g * (master * x);
                if (std::fabs(y) > outPeak) outPeak = std::fabs(y);
                data[f * channels + c] = y;
            }
        }
        const std::uint64_t written = frames * channels * 4U;
        if (buffer.mDataByteSize > written)
            std::memset(reinterpret_cast<char*>(data) + written, 0, buffer.mDataByteSize - written);
        if (!bypassSlot) {
            if (inPeak > inputPeak) inputPeak = inPeak;
            if (outPeak > slotPeak[s]) slotPeak[s] = outPeak;
        }
        if (outPeak > cyclePeak) cyclePeak = outPeak;
    }
    if (cyclePeak > outputPeak) outputPeak = cyclePeak;
    ++renderCycles;
    if (anyHeard) ++signalCycles;
}

} // namespace brightmix::testing
