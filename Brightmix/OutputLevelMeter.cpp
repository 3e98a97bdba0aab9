#include "Brightmix/OutputLevelMeter.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "realtime/ProcessingState.h"

namespace brightmix {

OutputLevelMeter::OutputLevelMeter(MainLoop& loop, ProcessingState* state)
    : loop_(loop), state_(state) {}

OutputLevelMeter::~OutputLevelMeter() {
    if (timer_ != 0) loop_.cancel(timer_);
}

void OutputLevelMeter::start(PeakProvider provider) {
    if (timer_ != 0) {
        loop_.cancel(timer_);
        timer_ = 0;
    }
    publish(kFloorDecibels);
    // A peak left over from before would flash up as the first reading.
    ProcessingTakeOutputPeak(state_);
    provider_ = std::move(provider);
    lastTick_ = loop_.uptime();
    timer_ = loop_.scheduleRepeating(kTickSeconds, [this] { tick(); });
}

void OutputLevelMeter::stop() {
    if (timer_ != 0) {
        loop_.cancel(timer_);
        timer_ = 0;
    }
    publish(kFloorDecibels);
}

void OutputLevelMeter::resetToFloor() {
    // The last loud peak would otherwise come back at the next tick.
    ProcessingTakeOutputPeak(state_);
    publish(kFloorDecibels);
}

void OutputLevelMeter::tick() {
    double now = loop_.uptime();
    double current = envelope_.decibels;
    float peak = provider_ ? provider_() : 0.0f;

    double level = kFloorDecibels;
    if (std::isfinite(peak) && peak > 0) level = 20 * std::log10(double(peak));
    level = std::clamp(level, kFloorDecibels, 0.0);

    // A clock that steps back must not count as time passed.
    double elapsed = std::max(0.0, now - lastTick_);
    double decayed = current - kFallDecibelsPerSecond * elapsed;
    lastTick_ = now;
    publish(std::max(level, decayed));
}

void OutputLevelMeter::publish(double decibels) {
    if (decibels == envelope_.decibels) return;
    envelope_.decibels = decibels;
    if (observer_) observer_(envelope_);
}

std::string OutputLevelMeter::displayText(double decibels) {
    if (!(decibels > kFloorDecibels)) return "Silent";
    return std::to_string(long(std::lround(decibels))) + " dBFS";
}

} // namespace brightmix
