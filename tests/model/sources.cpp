#include "sources.h"

#include "media.h"

#include <cmath>
#include <stdexcept>

namespace
{

constexpr int kRate = 48000;

Source Pcm(size_t frames, int rate, int channels, size_t extraSamples = 0)
{
    Source source;
    source.name = "PCM buffer of " + std::to_string(frames) + " frames, " + std::to_string(rate) +
                  " Hz, " + std::to_string(channels) + " channels";
    source.rate = rate;
    source.channels = channels;
    source.sound = Coded(frames, channels);
    source.input = source.sound;
    source.input.insert(source.input.end(), extraSamples, 0.25f);
    source.duration = static_cast<double>(frames) / rate;
    return source;
}

Source RejectedPcm(size_t samples, int rate, int channels)
{
    Source source;
    source.name = "PCM buffer of " + std::to_string(samples) + " samples, " + std::to_string(rate) +
                  " Hz, " + std::to_string(channels) + " channels";
    source.rate = rate;
    source.channels = channels;
    source.input.assign(samples, 0.5f);
    source.reject = "No PCM audio available for playback.";
    return source;
}

Source File(const std::string& path, Source::Seeking seeking)
{
    Source source;
    source.name = path.substr(path.rfind('/') + 1);
    source.kind = Source::Kind::File;
    source.path = path;
    source.seeking = seeking;
    source.sound = Media::Convert(path);
    source.duration = static_cast<double>(source.Frames()) / kRate;
    return source;
}

Source BrokenFile(const std::string& path, const std::string& error)
{
    Source source;
    source.name = path.substr(path.rfind('/') + 1);
    source.kind = Source::Kind::File;
    source.path = path;
    source.error = "Failed to open audio file: " + error;
    return source;
}

Source Stream(const std::string& path)
{
    Source source;
    source.name = path.empty() ? "no URL" : "stream " + path;
    source.kind = Source::Kind::Stream;
    source.path = path;
    return source;
}

// Longer than any sequence takes.
constexpr size_t kStreamFrames = size_t{60} * kRate;

// The same bytes for every server: there are many of them.
const std::string& StreamBytes()
{
    static const std::string bytes = Media::Wav(Coded(kStreamFrames, 2), kRate, 2);
    return bytes;
}

Script Answer(const std::string& request)
{
    if (request.find(" /stream ") == std::string::npos)
        return NotFound();
    return {Reply("200 OK", {"Content-Type: audio/wav",
                             "Content-Length: " + std::to_string(StreamBytes().size())}),
            [](Connection& connection)
            {
                connection.Send(StreamBytes());
            }};
}

} // namespace

std::vector<float> Coded(size_t frames, int channels)
{
    constexpr size_t kValues = size_t{1} << 23; // exact in a float, and in 24 bits
    constexpr size_t kStep = 7919;              // odd: every value comes once
    std::vector<float> samples(frames * static_cast<size_t>(channels));
    for (size_t i = 0; i < samples.size(); ++i)
        samples[i] =
            static_cast<float>((i + 1) * kStep % kValues) / static_cast<float>(kValues) - 0.5f;
    return samples;
}

Sources::Sources()
{
    using enum Source::Seeking;
    const std::string wav = Media::WriteWav("coded.wav", Coded(52800, 2));
    const std::string tone = "-f lavfi -i sine=d=1:r=44100 -ac 2 ";
    constexpr size_t kBlock = 4608; // of a FLAC frame

    m_sources.push_back(Pcm(72000, kRate, 2));
    m_sources.push_back(File(wav, ToTheFrame));
    m_sources.push_back(Pcm(22050, 44100, 1));
    m_sources.push_back(Pcm(15000, 22050, 6));
    m_sources.push_back(Pcm(48000, 96000, 2, 1));
    m_sources.push_back(Pcm(5, 8000, 1));
    m_sources.push_back(Pcm(1000, 8000, 1));
    m_sources.push_back(Pcm(30000, kRate, 2));

    Source flac = File(Media::Make("-i '" + wav +
                                       "' -sample_fmt s32 -frame_size 4608 -metadata "
                                       "REPLAYGAIN_TRACK_GAIN=-6.0",
                                   "tagged.flac"),
                       ToABlock);
    flac.gain = std::pow(10.0, -6.0 / 20.0);
    flac.blockFrames = kBlock;
    m_sources.push_back(flac);

    // Half of the resampler's filter: 16 frames of the slower rate.
    constexpr size_t kKept = 18;
    Source slowFlac = File(Media::Make(tone, "tone.flac"), Anywhere);
    slowFlac.kept = kKept;
    m_sources.push_back(slowFlac);
    Source mp3 = File(Media::Make(tone + "-c:a libmp3lame -b:a 128k", "tone.mp3"), Anywhere);
    mp3.kept = kKept;
    mp3.durationSlack = 0.1; // padded to whole frames
    m_sources.push_back(mp3);
    Source endless = File(Media::Make("-i '" + wav +
                                          "' -sample_fmt s32 -c:a flac -frame_size 4608 "
                                          "-f matroska -live 1",
                                      "endless.mkv"),
                          ToTheFrame);
    endless.duration = 0.0;
    endless.blockFrames = kBlock;
    m_sources.push_back(endless);

    const std::string invalid = "Invalid data found when processing input";
    m_sources.push_back(
        BrokenFile((Media::Directory() / "missing.wav").string(), "No such file or directory"));
    m_sources.push_back(BrokenFile(Media::Write("empty.wav", ""), invalid));
    m_sources.push_back(
        BrokenFile(Media::Write("garbage.wav", std::string(100000, '\x5a')), invalid));

    m_sources.push_back(RejectedPcm(0, kRate, 2));
    m_sources.push_back(RejectedPcm(2, 0, 2));
    m_sources.push_back(RejectedPcm(2, kRate, 0));
    m_sources.push_back(RejectedPcm(2, -1, -1));

    Source nowhere = Stream("");
    nowhere.reject = "No radio stream URL entered.";
    m_sources.push_back(nowhere);
    Source stream = Stream("/stream");
    stream.sound = Coded(kStreamFrames, 2);
    m_sources.push_back(stream);
    Source gone = Stream("/gone");
    gone.error = "Failed to open radio stream: Server returned 404 Not Found";
    m_sources.push_back(gone);
    if (m_sources.size() != kCount)
        throw std::logic_error("the sources are not as many as they are said to be");
}

const Source& Sources::At(int index)
{
    Source& source = m_sources[static_cast<size_t>(index)];
    if (source.kind == Source::Kind::Stream && source.reject.empty())
    {
        if (!m_server)
            m_server = std::make_unique<ScriptedServer>(Answer);
        source.path = m_server->Url(source.name.substr(source.name.rfind('/')));
    }
    return source;
}
