// Helpers for the tests that run against the private PipeWire session: connecting the
// backend, playing a known tone from another process, capturing what a speaker receives
// (its monitor), and measuring levels and single frequencies in what was captured.
//
// Thread: the test's own thread; captures run on their own PipeWire thread.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/linux/pipewire/PipeWireAudioHardware.h"

namespace brightmix::testing {

// The backend connected to the session the environment names, or null (the tests then
// skip: no session was started for them).
std::unique_ptr<pipewire::PipeWireAudioHardware>
connectToSession(pipewire::PipeWireAudioHardware::Options options = {});

// A folder for files the tests make, inside the session's folder.
std::string scratchDirectory();

// The watchdog executable this build made.
std::string watchdogExecutable();

// Runs scripts/pipewire-session.sh on the tests' own session with a verb and its options:
// "kill" ends the server and its session manager at once, as a crash would; "restart" (with
// "--mute NODE": that sink comes back muted) stops what still runs and starts the session
// again. Only this session's processes are touched, by the process IDs it recorded. False,
// with a test failure that shows the script's output, when the script failed.
bool controlSession(const std::string& verbAndOptions);

// Writes a stereo 32-bit float WAV file of `seconds` of a sine at `hz` with peak
// `amplitude` on both channels (amplitude 0 writes silence).
void writeToneFile(const std::string& path, double hz, double amplitude, double seconds);

struct Tone {
    double hz = 1000;
    double amplitude = 0.5;
};
// The same with several sines summed.
void writeToneFile(const std::string& path, const std::vector<Tone>& tones, double seconds);

// Another process that plays a file to a sink (pw-cat), stopped on destruction. With an
// application ID the player goes through the PulseAudio API (paplay on pipewire-pulse),
// which reports that ID as the client's application.id.
class TonePlayer {
public:
    TonePlayer(const std::string& file, const std::string& target,
               const std::string& applicationID = {});
    ~TonePlayer();
    TonePlayer(const TonePlayer&) = delete;
    TonePlayer& operator=(const TonePlayer&) = delete;
    std::int32_t processID() const { return pid_; }

private:
    std::int32_t pid_ = 0;
};

// Records what a sink plays by capturing its monitor, in the sink's own channel layout.
class MonitorCapture {
public:
    MonitorCapture(const std::string& sink, std::uint32_t channels);
    ~MonitorCapture();
    MonitorCapture(const MonitorCapture&) = delete;
    MonitorCapture& operator=(const MonitorCapture&) = delete;

    // Forgets what was captured so far.
    void clear();
    // Waits until `seconds` of audio have been captured since the last clear; false when
    // that does not happen within a generous timeout.
    bool waitFor(double seconds);
    // One channel of what was captured since the last clear, at most `frames` of it.
    std::vector<float> channel(std::uint32_t index, std::size_t frames = SIZE_MAX) const;
    // Clears, waits for half a second of audio (after `settleSeconds` to let a change
    // reach the speaker) and answers one channel of exactly half a second; empty when no
    // audio came.
    std::vector<float> listen(std::uint32_t index, double settleSeconds = 0.25);

    class Stream;

private:
    std::unique_ptr<Stream> stream_;
};

// Puts the multi_output sink back at full volume when it goes out of scope. Brightmix puts
// its level on that sink's own volume (the desktop's channel); the tests after one that does
// want the direct path at full level again, whatever happened.
struct FullSinkVolumeAfterwards {
    ~FullSinkVolumeAfterwards();
};

// Level of a signal as dB full scale (peak and RMS); -200 for silence.
double peakDb(const std::vector<float>& samples);
double rmsDb(const std::vector<float>& samples);
// Amplitude of one frequency in the signal (Goertzel), as dB full scale of a sine peak.
double toneDb(const std::vector<float>& samples, double hz, double rate = 48000.0);

} // namespace brightmix::testing
