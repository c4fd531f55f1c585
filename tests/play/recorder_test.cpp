// Recordings against what was put into them.
#include "recorder.h"

#include "media.h"

#include <gtest/gtest.h>
#include <sndfile.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <stdexcept>

namespace
{

// Interleaved samples that are all different, within [-0.5, 0.5).
std::vector<float> Ramp(size_t frames, size_t channels)
{
    std::vector<float> samples(frames * channels);
    for (size_t i = 0; i < samples.size(); ++i)
        samples[i] = static_cast<float>((i * 7919) % 65536) / 65536.0f - 0.5f;
    return samples;
}

struct SoundFile
{
    SF_INFO info{};
    std::vector<float> samples;

    explicit SoundFile(const std::string& path)
    {
        SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
        if (!file)
            throw std::runtime_error(sf_strerror(nullptr));
        samples.resize(static_cast<size_t>(info.frames * info.channels));
        sf_read_float(file, samples.data(), info.frames * info.channels);
        sf_close(file);
    }
};

std::string Path(const char* name)
{
    return (Media::Directory() / name).string();
}

// In blocks of `frames`.
void PutAll(Recorder& recorder, const std::vector<float>& samples, int rate, int channels,
            int frames)
{
    const auto step = static_cast<size_t>(frames * channels);
    for (size_t at = 0; at < samples.size(); at += step)
        recorder.Put(&samples[at], static_cast<int>(std::min(step, samples.size() - at)) / channels,
                     rate, channels);
}

} // namespace

TEST(Recording, WavHoldsEverySample)
{
    const std::vector<float> samples = Ramp(100000, 2);
    Recorder recorder(Path("a.wav"));
    PutAll(recorder, samples, 48000, 2, 1152);
    EXPECT_EQ(recorder.Close(), "");
    EXPECT_EQ(recorder.DroppedBlocks(), 0u);
    const SoundFile file(Path("a.wav"));
    EXPECT_EQ(file.info.samplerate, 48000);
    EXPECT_EQ(file.info.channels, 2);
    EXPECT_EQ(file.info.format & SF_FORMAT_SUBMASK, SF_FORMAT_FLOAT);
    EXPECT_EQ(Media::Read(Path("a.wav")).substr(0, 4), "RIFF"); // so short it needs no RF64
    EXPECT_EQ(file.samples, samples);
}

TEST(Recording, WavIsNotClipped)
{
    const std::vector<float> samples = {2.0f, -3.0f, 0.5f, 1.5f};
    Recorder recorder(Path("loud.wav"));
    PutAll(recorder, samples, 44100, 2, 2);
    EXPECT_EQ(recorder.Close(), "");
    EXPECT_EQ(SoundFile(Path("loud.wav")).samples, samples);
}

TEST(Recording, FlacHoldsTwentyFourBitsAndIsClipped)
{
    std::vector<float> samples = Ramp(20000, 2);
    samples[10] = 2.0f;
    samples[11] = -2.0f;
    Recorder recorder(Path("a.flac"));
    PutAll(recorder, samples, 48000, 2, 4096);
    EXPECT_EQ(recorder.Close(), "");
    const SoundFile file(Path("a.flac"));
    EXPECT_EQ(file.info.format, SF_FORMAT_FLAC | SF_FORMAT_PCM_24);
    ASSERT_EQ(file.samples.size(), samples.size());
    constexpr float kStep = 1.0f / (1 << 23);
    for (size_t i = 0; i < samples.size(); ++i)
        ASSERT_NEAR(file.samples[i], std::clamp(samples[i], -1.0f, 1.0f), kStep) << i;
}

TEST(Recording, HasTheFormatOfItsFirstBlock)
{
    Recorder recorder(Path("mono.wav"));
    PutAll(recorder, Ramp(1000, 1), 22050, 1, 100);
    PutAll(recorder, Ramp(1000, 2), 22050, 2, 1000);
    PutAll(recorder, Ramp(1000, 1), 48000, 1, 1000);
    EXPECT_EQ(recorder.Close(), "");
    EXPECT_EQ(recorder.DroppedBlocks(), 2u);
    const SoundFile file(Path("mono.wav"));
    EXPECT_EQ(file.info.samplerate, 22050);
    EXPECT_EQ(file.samples, Ramp(1000, 1));
}

TEST(Recording, OfNothingIsAnEmptyFile)
{
    Recorder recorder(Path("empty.wav"));
    EXPECT_EQ(recorder.Close(), "");
    EXPECT_EQ(SoundFile(Path("empty.wav")).info.frames, 0);
}

TEST(Recording, BlockThatFitsNowhereIsDroppedAndCounted)
{
    Recorder recorder(Path("long.wav"));
    const std::vector<float> samples = Ramp(48000 * 11, 2); // more than ten seconds
    recorder.Put(samples.data(), 48000 * 11, 48000, 2);
    EXPECT_EQ(recorder.DroppedBlocks(), 1u);
    EXPECT_EQ(recorder.Close(), "");
}

TEST(Recording, TellsWhereItCannotBegin)
{
    EXPECT_THROW(Recorder("/nowhere/a.wav"), std::runtime_error);
}

TEST(Recording, TellsOfAFullDisk)
{
    if (!std::filesystem::exists("/dev/full"))
        GTEST_SKIP();
    std::filesystem::create_symlink("/dev/full", Path("full.wav"));
    Recorder recorder(Path("full.wav"));
    PutAll(recorder, Ramp(100000, 2), 48000, 2, 1024);
    EXPECT_NE(recorder.Close(), "");
}

TEST(Recording, KnowsItsFormatsByTheirEndings)
{
    for (const char* good : {"a.wav", "b.flac", "/x/y.z.wav"})
        EXPECT_TRUE(Recorder::Knows(good)) << good;
    for (const char* bad : {"", "wav", "a.mp3", "a.wav.mp3", "a.WAV"})
        EXPECT_FALSE(Recorder::Knows(bad)) << bad;
}
