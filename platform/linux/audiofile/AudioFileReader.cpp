#include "platform/linux/audiofile/AudioFileReader.h"

#include <sndfile.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/samplefmt.h>
}

namespace brightmix {

namespace {

bool fail(std::string* error, std::string text) {
    if (error) *error = std::move(text);
    return false;
}

bool readWithSndfile(const std::string& path, DecodedAudio* out) {
    SF_INFO info{};
    SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
    if (!file) return false;
    if ((info.format & SF_FORMAT_TYPEMASK) != SF_FORMAT_WAV) {
        sf_close(file);
        return false;
    }
    out->sampleRate = info.samplerate;
    out->channels = std::uint32_t(info.channels);
    out->codec = (info.format & SF_FORMAT_SUBMASK) == SF_FORMAT_FLOAT ? "pcm_f32le" : "pcm";
    out->samples.resize(std::size_t(info.frames) * std::size_t(info.channels));
    sf_count_t read = sf_readf_float(file, out->samples.data(), info.frames);
    out->samples.resize(std::size_t(read) * std::size_t(info.channels));
    out->containerDuration = info.samplerate > 0 ? double(info.frames) / info.samplerate : 0;
    sf_close(file);
    return true;
}

struct FfmpegReader {
    AVFormatContext* format = nullptr;
    AVCodecContext* decoder = nullptr;
    AVPacket* packet = nullptr;
    AVFrame* frame = nullptr;

    ~FfmpegReader() {
        av_frame_free(&frame);
        av_packet_free(&packet);
        avcodec_free_context(&decoder);
        avformat_close_input(&format);
    }

    void takeFrames(DecodedAudio* out) {
        while (avcodec_receive_frame(decoder, frame) >= 0) {
            int channels = frame->ch_layout.nb_channels;
            auto sampleFormat = AVSampleFormat(frame->format);
            for (int f = 0; f < frame->nb_samples; ++f) {
                for (int c = 0; c < channels; ++c) {
                    float value = 0;
                    if (sampleFormat == AV_SAMPLE_FMT_FLTP)
                        value = reinterpret_cast<const float*>(frame->extended_data[c])[f];
                    else if (sampleFormat == AV_SAMPLE_FMT_FLT)
                        value = reinterpret_cast<const float*>(frame->data[0])[f * channels + c];
                    else if (sampleFormat == AV_SAMPLE_FMT_S16)
                        value = float(reinterpret_cast<const int16_t*>(
                                    frame->data[0])[f * channels + c]) /
                                32768.0f;
                    else if (sampleFormat == AV_SAMPLE_FMT_S16P)
                        value =
                            float(reinterpret_cast<const int16_t*>(frame->extended_data[c])[f]) /
                            32768.0f;
                    out->samples.push_back(value);
                }
            }
            av_frame_unref(frame);
        }
    }
};

bool readWithFfmpeg(const std::string& path, DecodedAudio* out, std::string* error) {
    FfmpegReader reader;
    if (avformat_open_input(&reader.format, path.c_str(), nullptr, nullptr) < 0)
        return fail(error, "cannot open " + path);
    if (avformat_find_stream_info(reader.format, nullptr) < 0)
        return fail(error, "no stream information in " + path);
    int index = av_find_best_stream(reader.format, AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0);
    if (index < 0) return fail(error, "no audio stream in " + path);
    AVStream* stream = reader.format->streams[index];
    const AVCodec* codec = avcodec_find_decoder(stream->codecpar->codec_id);
    if (!codec) return fail(error, "no decoder for the audio of " + path);
    reader.decoder = avcodec_alloc_context3(codec);
    reader.packet = av_packet_alloc();
    reader.frame = av_frame_alloc();
    if (!reader.decoder || !reader.packet || !reader.frame) return fail(error, "out of memory");
    if (avcodec_parameters_to_context(reader.decoder, stream->codecpar) < 0 ||
        avcodec_open2(reader.decoder, codec, nullptr) < 0)
        return fail(error, "cannot open the decoder for " + path);
    out->sampleRate = reader.decoder->sample_rate;
    out->channels = std::uint32_t(reader.decoder->ch_layout.nb_channels);
    out->codec = codec->name;
    if (reader.format->duration > 0)
        out->containerDuration = double(reader.format->duration) / AV_TIME_BASE;
    while (av_read_frame(reader.format, reader.packet) >= 0) {
        if (reader.packet->stream_index == index &&
            avcodec_send_packet(reader.decoder, reader.packet) >= 0)
            reader.takeFrames(out);
        av_packet_unref(reader.packet);
    }
    avcodec_send_packet(reader.decoder, nullptr);
    reader.takeFrames(out);
    return true;
}

} // namespace

std::optional<DecodedAudio> readAudioFile(const std::string& path, std::string* error) {
    DecodedAudio decoded;
    if (readWithSndfile(path, &decoded)) return decoded;
    decoded = DecodedAudio{};
    if (readWithFfmpeg(path, &decoded, error)) return decoded;
    return std::nullopt;
}

} // namespace brightmix
