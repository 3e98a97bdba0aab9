// Test helpers against the private PipeWire session: tone files and players, monitor
// captures and level measurements.
#include "tests/linux/PipeWireTestSupport.h"

#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <pipewire/pipewire.h>
#include <spa/param/audio/format-utils.h>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

extern char** environ;

namespace brightmix::testing {

namespace {

// The tests only ever talk to the session made for them, never to the user's own: the
// session folder comes from BRIGHTMIX_TEST_SESSION and everything else is derived from it.
std::optional<std::string> sessionDirectory() {
    const char* session = std::getenv("BRIGHTMIX_TEST_SESSION");
    if (session == nullptr || session[0] == '\0') {
        return std::nullopt;
    }
    std::string dir = session;
    if (!std::filesystem::exists(dir + "/run/pipewire-0")) {
        return std::nullopt;
    }
    setenv("XDG_RUNTIME_DIR", (dir + "/run").c_str(), 1);
    setenv("PIPEWIRE_RUNTIME_DIR", (dir + "/run").c_str(), 1);
    setenv("PULSE_RUNTIME_PATH", (dir + "/run/pulse").c_str(), 1);
    setenv("XDG_CONFIG_HOME", (dir + "/config").c_str(), 1);
    setenv("XDG_STATE_HOME", (dir + "/state").c_str(), 1);
    setenv("XDG_DATA_HOME", (dir + "/data").c_str(), 1);
    unsetenv("PIPEWIRE_REMOTE");
    unsetenv("PULSE_SERVER");
    return dir;
}

} // namespace

std::unique_ptr<pipewire::PipeWireAudioHardware>
connectToSession(pipewire::PipeWireAudioHardware::Options options) {
    if (!sessionDirectory()) {
        // Without a session the tests skip, unless one was promised (as CTest does).
        const char* promised = std::getenv("BRIGHTMIX_TEST_SESSION");
        if (promised != nullptr && promised[0] != '\0') {
            // A fatal failure, so that the test body does not run without its hardware.
            [&] { FAIL() << "no PipeWire session runs under " << promised; }();
        }
        return nullptr;
    }
    options.clientName = "Brightmix tests";
    std::string error;
    auto hardware = pipewire::PipeWireAudioHardware::connect(options, &error);
    if (!hardware) {
        // A session was promised: failing to reach it must fail the test, not skip it.
        [&] { FAIL() << "connecting to the test session failed: " << error; }();
    }
    return hardware;
}

FullSinkVolumeAfterwards::~FullSinkVolumeAfterwards() {
    [[maybe_unused]] const int ignored = std::system("pactl set-sink-volume multi_output 100%");
}

std::string scratchDirectory() {
    auto session = sessionDirectory();
    std::string dir =
        session ? *session + "/scratch" : "/tmp/brightmix-tests-" + std::to_string(::getpid());
    std::filesystem::create_directories(dir);
    return dir;
}

bool controlSession(const std::string& verbAndOptions) {
#ifdef BRIGHTMIX_SOURCE_DIR
    auto session = sessionDirectory();
    if (!session) {
        ADD_FAILURE() << "no session to " << verbAndOptions;
        return false;
    }
    const std::string log = *session + "/logs/control.log";
    const auto space = verbAndOptions.find(' ');
    const std::string verb = verbAndOptions.substr(0, space);
    const std::string options = space == std::string::npos ? "" : verbAndOptions.substr(space);
    const std::string command = std::string("'") + BRIGHTMIX_SOURCE_DIR +
                                "/scripts/pipewire-session.sh' " + verb + " '" + *session + "'" +
                                options + " >'" + log + "' 2>&1";
    if (std::system(command.c_str()) != 0) {
        std::ifstream in(log);
        std::string output((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        ADD_FAILURE() << command << " failed:\n" << output;
        return false;
    }
    return true;
#else
    ADD_FAILURE() << "the session script's location is unknown to this build";
    (void)verbAndOptions;
    return false;
#endif
}

std::string watchdogExecutable() {
#ifdef BRIGHTMIX_WATCHDOG_EXECUTABLE
    return BRIGHTMIX_WATCHDOG_EXECUTABLE;
#else
    return {};
#endif
}

void writeToneFile(const std::string& path, double hz, double amplitude, double seconds) {
    writeToneFile(path, std::vector<Tone>{{hz, amplitude}}, seconds);
}

void writeToneFile(const std::string& path, const std::vector<Tone>& tones, double seconds) {
    const std::uint32_t rate = 48000;
    const std::uint16_t channels = 2;
    const auto frames = static_cast<std::uint32_t>(seconds * rate);
    const std::uint32_t dataBytes = frames * channels * 4;
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    auto u32 = [&](std::uint32_t v) { out.write(reinterpret_cast<const char*>(&v), 4); };
    auto u16 = [&](std::uint16_t v) { out.write(reinterpret_cast<const char*>(&v), 2); };
    out.write("RIFF", 4);
    u32(36 + dataBytes);
    out.write("WAVEfmt ", 8);
    u32(16);
    u16(3); // IEEE float
    u16(channels);
    u32(rate);
    u32(rate * channels * 4);
    u16(static_cast<std::uint16_t>(channels * 4));
    u16(32);
    out.write("data", 4);
    u32(dataBytes);
    for (std::uint32_t f = 0; f < frames; ++f) {
        double value = 0;
        for (const Tone& tone : tones) {
            value += tone.amplitude * std::sin(2.0 * M_PI * tone.hz * f / rate);
        }
        auto sample = static_cast<float>(value);
        out.write(reinterpret_cast<const char*>(&sample), 4);
        out.write(reinterpret_cast<const char*>(&sample), 4);
    }
}

TonePlayer::TonePlayer(const std::string& file, const std::string& target,
                       const std::string& applicationID) {
    std::vector<std::string> words = {"pw-cat", "--playback", "--target", target, file};
    if (!applicationID.empty()) {
        words = {"paplay", "--device=" + target, file};
    }
    std::vector<char*> arguments;
    for (std::string& word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    std::vector<std::string> environment;
    for (char** variable = environ; *variable != nullptr; ++variable) {
        environment.emplace_back(*variable);
    }
    if (!applicationID.empty()) {
        environment.push_back("PULSE_PROP=application.id=" + applicationID);
    }
    std::vector<char*> environmentPointers;
    for (std::string& variable : environment) {
        environmentPointers.push_back(variable.data());
    }
    environmentPointers.push_back(nullptr);
    pid_t pid = 0;
    if (posix_spawnp(&pid, words[0].c_str(), nullptr, nullptr, arguments.data(),
                     environmentPointers.data()) == 0) {
        pid_ = pid;
    }
}

TonePlayer::~TonePlayer() {
    if (pid_ > 0) {
        ::kill(pid_, SIGTERM);
        int status = 0;
        ::waitpid(pid_, &status, 0);
    }
}

class MonitorCapture::Stream {
public:
    Stream(const std::string& sink, std::uint32_t channels) : channels_(channels) {
        pw_init(nullptr, nullptr);
        loop_ = pw_thread_loop_new("brightmix-test-capture", nullptr);
        pw_properties* props = pw_properties_new(
            PW_KEY_MEDIA_TYPE, "Audio", PW_KEY_MEDIA_CATEGORY, "Capture", PW_KEY_MEDIA_ROLE,
            "Music", PW_KEY_TARGET_OBJECT, sink.c_str(), PW_KEY_STREAM_CAPTURE_SINK, "true",
            PW_KEY_NODE_NAME, ("brightmix-test-capture-" + sink).c_str(), nullptr);
        static const pw_stream_events events = [] {
            pw_stream_events e{};
            e.version = PW_VERSION_STREAM_EVENTS;
            e.process = &Stream::onProcess;
            return e;
        }();
        pw_thread_loop_lock(loop_);
        stream_ = pw_stream_new_simple(pw_thread_loop_get_loop(loop_), "Brightmix test capture",
                                       props, &events, this);
        std::uint8_t buffer[1024];
        spa_pod_builder builder = SPA_POD_BUILDER_INIT(buffer, sizeof(buffer));
        spa_audio_info_raw info{};
        info.format = SPA_AUDIO_FORMAT_F32;
        info.rate = 48000;
        info.channels = channels;
        if (channels == 1) {
            info.position[0] = SPA_AUDIO_CHANNEL_MONO;
        } else {
            info.position[0] = SPA_AUDIO_CHANNEL_FL;
            info.position[1] = SPA_AUDIO_CHANNEL_FR;
        }
        const spa_pod* params[1] = {
            spa_format_audio_raw_build(&builder, SPA_PARAM_EnumFormat, &info)};
        pw_stream_connect(stream_, PW_DIRECTION_INPUT, PW_ID_ANY,
                          static_cast<pw_stream_flags>(PW_STREAM_FLAG_AUTOCONNECT |
                                                       PW_STREAM_FLAG_MAP_BUFFERS |
                                                       PW_STREAM_FLAG_RT_PROCESS),
                          params, 1);
        pw_thread_loop_unlock(loop_);
        pw_thread_loop_start(loop_);
    }

    ~Stream() {
        pw_thread_loop_stop(loop_);
        pw_stream_destroy(stream_);
        pw_thread_loop_destroy(loop_);
        pw_deinit();
    }

    static void onProcess(void* data) {
        auto* self = static_cast<Stream*>(data);
        pw_buffer* buffer = pw_stream_dequeue_buffer(self->stream_);
        if (buffer == nullptr) {
            return;
        }
        spa_data& d = buffer->buffer->datas[0];
        if (d.data != nullptr && d.chunk != nullptr) {
            const auto* samples = reinterpret_cast<const float*>(
                static_cast<const std::uint8_t*>(d.data) + d.chunk->offset);
            std::size_t count = d.chunk->size / sizeof(float);
            std::lock_guard lock(self->mutex_);
            self->samples_.insert(self->samples_.end(), samples, samples + count);
        }
        pw_stream_queue_buffer(self->stream_, buffer);
    }

    std::uint32_t channels_;
    pw_thread_loop* loop_ = nullptr;
    pw_stream* stream_ = nullptr;
    mutable std::mutex mutex_;
    std::vector<float> samples_;
};

MonitorCapture::MonitorCapture(const std::string& sink, std::uint32_t channels)
    : stream_(std::make_unique<Stream>(sink, channels)) {}

MonitorCapture::~MonitorCapture() = default;

void MonitorCapture::clear() {
    std::lock_guard lock(stream_->mutex_);
    stream_->samples_.clear();
}

bool MonitorCapture::waitFor(double seconds) {
    const auto wanted = static_cast<std::size_t>(seconds * 48000.0) * stream_->channels_;
    for (int i = 0; i < 1000; ++i) {
        {
            std::lock_guard lock(stream_->mutex_);
            if (stream_->samples_.size() >= wanted) {
                return true;
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

std::vector<float> MonitorCapture::channel(std::uint32_t index, std::size_t frames) const {
    std::lock_guard lock(stream_->mutex_);
    std::vector<float> result;
    for (std::size_t i = index; i < stream_->samples_.size() && result.size() < frames;
         i += stream_->channels_) {
        result.push_back(stream_->samples_[i]);
    }
    return result;
}

std::vector<float> MonitorCapture::listen(std::uint32_t index, double settleSeconds) {
    std::this_thread::sleep_for(std::chrono::duration<double>(settleSeconds));
    clear();
    if (!waitFor(0.5)) {
        // An empty capture would read as silence and pass a silence check.
        ADD_FAILURE() << "the monitor capture received no audio";
        return {};
    }
    return channel(index, 24000);
}

double peakDb(const std::vector<float>& samples) {
    float peak = 0;
    for (float sample : samples) {
        peak = std::max(peak, std::fabs(sample));
    }
    return peak > 0 ? 20.0 * std::log10(peak) : -200.0;
}

double rmsDb(const std::vector<float>& samples) {
    double sum = 0;
    for (float sample : samples) {
        sum += double(sample) * sample;
    }
    double rms = samples.empty() ? 0 : std::sqrt(sum / samples.size());
    return rms > 0 ? 20.0 * std::log10(rms) : -200.0;
}

double toneDb(const std::vector<float>& samples, double hz, double rate) {
    if (samples.empty()) {
        return -200.0;
    }
    double coefficient = 2.0 * std::cos(2.0 * M_PI * hz / rate);
    double s1 = 0, s2 = 0;
    for (float sample : samples) {
        double s0 = sample + coefficient * s1 - s2;
        s2 = s1;
        s1 = s0;
    }
    double power = s1 * s1 + s2 * s2 - coefficient * s1 * s2;
    double amplitude = 2.0 * std::sqrt(std::max(power, 0.0)) / samples.size();
    return amplitude > 0 ? 20.0 * std::log10(amplitude) : -200.0;
}

} // namespace brightmix::testing
