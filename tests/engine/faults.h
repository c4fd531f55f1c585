// What the tests of failing calls share: short sound that never repeats, what an undisturbed
// playback of it calls and delivers, and what is left of that where one call fails.
#pragma once

#include "media.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

// Noise at the output's own rate: every frame is one push, and none depends on what the resampler
// was given before.
namespace Noise
{

inline std::string Make(int seed, double seconds, const std::string& options,
                        const std::string& name)
{
    return Media::Make("-f lavfi -i anoisesrc=r=48000:a=0.5:seed=" + std::to_string(seed) +
                           ":d=" + std::to_string(seconds) + " " + options,
                       name);
}

inline std::string Lossless(double seconds, int frameSize)
{
    return Make(1, seconds, "-ac 2 -c:a flac -frame_size " + std::to_string(frameSize),
                "lossless.flac");
}

// Each packet needs the one before it.
inline std::string Overlapping(double seconds, const std::string& tags = "")
{
    return Make(2, seconds, "-ac 2 -c:a libvorbis " + tags, "overlapping.ogg");
}

// The bytes of an MP3 stream with one channel, then two, then one. A second channel that came twice
// would remember what it was when it went.
inline std::string Changing()
{
    const auto mp3 = [](int seed, int channels, const char* name)
    {
        return Media::Read(Make(seed, 0.12,
                                "-ac " + std::to_string(channels) +
                                    " -c:a libmp3lame -b:a 128k -reservoir 0 -write_xing 0 -f mp3",
                                name));
    };
    const std::string mono = mp3(4, 1, "mono.mp3");
    return mono + mp3(3, 2, "stereo.mp3") + mono;
}

} // namespace Noise

// What an undisturbed playback does and gives.
struct Undisturbed
{
    std::vector<std::string> calls; // with each push as "Push"
    std::vector<float> sound;
    std::vector<size_t> frames; // of each push

    size_t CountBefore(size_t call, std::string_view name) const
    {
        return static_cast<size_t>(
            std::count(calls.begin(), calls.begin() + static_cast<ptrdiff_t>(call), name));
    }

    // The sound of some of its pushes.
    std::vector<float> Sound(size_t from, size_t to) const
    {
        std::vector<float> part;
        auto at = sound.begin();
        for (size_t i = 0; i < std::min(to, frames.size()); ++i)
        {
            const auto end = at + static_cast<ptrdiff_t>(frames[i] * 2);
            if (i >= from)
                part.insert(part.end(), at, end);
            at = end;
        }
        return part;
    }

    // Without one push, of this call or after it.
    std::vector<float> SoundWithoutPushAt(size_t call) const
    {
        const size_t before = CountBefore(call, "Push");
        std::vector<float> rest = Sound(0, before);
        const std::vector<float> after = Sound(before + 1, frames.size());
        rest.insert(rest.end(), after.begin(), after.end());
        return rest;
    }
};

// That all of it was delivered but for the packet of this call, and that what came within
// `settling` pushes after it need not be as it would have been.
inline void ExpectAllButAPacket(const std::vector<float>& pushed, const Undisturbed& reference,
                                size_t call, size_t settling)
{
    const size_t before = reference.CountBefore(call, "Push");
    const std::vector<float> start = reference.Sound(0, before);
    const std::vector<float> rest = reference.Sound(before + 1 + settling, reference.frames.size());
    ASSERT_GE(pushed.size(), start.size() + rest.size());
    EXPECT_LE(pushed.size(), reference.sound.size());
    EXPECT_TRUE(std::equal(start.begin(), start.end(), pushed.begin()));
    EXPECT_TRUE(std::equal(rest.rbegin(), rest.rend(), pushed.rbegin()));
}

// The functions of a table whose rows stand together by their functions.
template <class Table>
std::vector<const char*> FunctionsOf(const Table& faults)
{
    std::vector<const char*> functions;
    for (const auto& fault : faults)
        if (functions.empty() || functions.back() != fault.function)
            functions.push_back(fault.function.data());
    return functions;
}

// Whether FFmpeg's own text follows this one.
inline bool EndsInFFmpegsText(std::string_view text)
{
    return text.ends_with(": ");
}
