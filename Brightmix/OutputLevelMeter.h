// The menu panel's output meter: twenty times a second it turns the render's overall output
// peak into a smoothed dBFS level that rises at once and falls at 72 dB per second down to a
// floor of -60 dBFS, and publishes the level only when it changes.
//
// Thread: control (the main thread); its timer runs there too. Realtime-safe: no.
#pragma once

#include <functional>
#include <string>
#include <utility>

#include "platform/MainLoop.h"

struct ProcessingState;

namespace brightmix {

struct OutputLevelEnvelope {
    double decibels = -60;

    friend bool operator==(const OutputLevelEnvelope&, const OutputLevelEnvelope&) = default;
};

class OutputLevelMeter {
public:
    // A linear peak (absolute sample value) since the last call.
    using PeakProvider = std::function<float()>;
    // Called with the new envelope whenever it changes.
    using Observer = std::function<void(const OutputLevelEnvelope&)>;

    static constexpr double kFloorDecibels = -60;
    static constexpr double kFallDecibelsPerSecond = 72;
    static constexpr double kTickSeconds = 0.05;

    // `state` is the processing state whose output peak is cleared at start; it may be null.
    OutputLevelMeter(MainLoop& loop, ProcessingState* state);
    ~OutputLevelMeter();
    OutputLevelMeter(const OutputLevelMeter&) = delete;
    OutputLevelMeter& operator=(const OutputLevelMeter&) = delete;

    // Restarts the meter from the floor with a fresh peak and a 0.05-s repeating timer.
    void start(PeakProvider provider);
    // Stops the timer and drops to the floor.
    void stop();
    bool isRunning() const { return timer_ != 0; }

    // Drops to the floor at once and discards the pending output peak (mute or volume 0),
    // publishing if that is a change.
    void resetToFloor();

    const OutputLevelEnvelope& envelope() const { return envelope_; }
    void setObserver(Observer observer) { observer_ = std::move(observer); }

    // One timer firing: read the peak and move the envelope.
    void tick();

    // "Silent" at or below the floor, else the rounded level and " dBFS".
    static std::string displayText(double decibels);
    static constexpr const char* kAccessibilityLabel = "Output level";

private:
    void publish(double decibels);

    MainLoop& loop_;
    ProcessingState* state_;
    PeakProvider provider_;
    Observer observer_;
    OutputLevelEnvelope envelope_;
    MainLoop::TimerID timer_ = 0;
    double lastTick_ = 0;
};

} // namespace brightmix
