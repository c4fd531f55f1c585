#include "library.h"

#include "harness.h"

#include <array>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <utility>

namespace
{

constexpr double kIndexUnit = 1.0 / static_cast<double>(kIndexEnd + 1);

std::string ReadBytes(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

std::string WriteBytes(const std::string& name, const std::string& bytes)
{
    const std::string path = RuntimePath(name);
    std::ofstream(path, std::ios::binary) << bytes;
    return path;
}

std::vector<std::string> RawInput(const std::string& path)
{
    return {"-f", "f32le", "-ar", std::to_string(kSinkRate), "-ac", std::to_string(kSinkChannels),
            "-i", path};
}

// The stretch as a file, in the codec that its name and these arguments ask for.
std::string MakeCoded(Lane lane, Stretch stretch, const std::string& name,
                      const std::vector<std::string>& codec)
{
    const std::string raw = RuntimePath("raw.f32");
    WriteFloats(raw, CodedFrames(lane, stretch));
    std::vector<std::string> arguments = RawInput(raw);
    arguments.insert(arguments.end(), codec.begin(), codec.end());
    arguments.push_back(RuntimePath(name));
    RunFfmpeg(arguments);
    std::filesystem::remove(raw);
    return RuntimePath(name);
}

CodedMaterial MakeLane(Lane lane)
{
    const std::string name = "lane" + std::to_string(static_cast<size_t>(lane));
    const std::vector<std::string> wav = {"-c:a", "pcm_f32le", "-bitexact"};
    CodedMaterial material;
    material.wav = MakeCoded(lane, kWavStretch, name + ".wav", wav);
    material.flac = MakeCoded(lane, kFlacStretch, name + ".flac",
                              {"-sample_fmt", "s32", "-bits_per_raw_sample", "24"});
    std::string bytes = ReadBytes(MakeCoded(lane, kRadioStretch, name + "-radio.wav", wav));
    // A station knows of no length: as long as the format can tell.
    const size_t length = bytes.find("data") + 4;
    bytes.replace(length, 4, "\xff\xff\xff\x7f");
    material.radio = std::move(bytes);
    return material;
}

std::string MakeSine(const std::string& name, std::vector<std::string> codec)
{
    codec.insert(codec.begin(), {"-f", "lavfi", "-i", "sine=d=3:r=44100", "-ac", "2"});
    codec.push_back(RuntimePath(name));
    RunFfmpeg(codec);
    return RuntimePath(name);
}

} // namespace

std::vector<float> CodedFrames(Lane lane, Stretch stretch)
{
    std::vector<float> samples(stretch.count * kSinkChannels);
    for (size_t i = 0; i < stretch.count; ++i)
        samples[i * kSinkChannels + static_cast<size_t>(lane)] =
            static_cast<float>(static_cast<double>(stretch.first + i + 1) * kIndexUnit);
    return samples;
}

size_t IndexOf(float sample)
{
    const double scaled = static_cast<double>(sample) / kIndexUnit;
    if (scaled < 1.0 || scaled > static_cast<double>(kIndexEnd) || scaled != std::floor(scaled))
        return kNoIndex;
    return static_cast<size_t>(scaled) - 1;
}

Library::Library() : coded{MakeLane(Lane::Left), MakeLane(Lane::Right)}
{
    const std::array<File, 5> sound = {{
        {"mp3", MakeSine("sine.mp3", {"-c:a", "libmp3lame", "-b:a", "128k"}), ""},
        {"aac", MakeSine("sine.aac", {"-c:a", "aac", "-b:a", "96k"}), ""},
        {"vorbis", MakeSine("sine.ogg", {"-c:a", "libvorbis"}), ""},
        {"opus", MakeSine("sine.opus", {"-c:a", "libopus", "-b:a", "64k"}), ""},
        {"m4a", MakeSine("sine.m4a", {"-c:a", "aac"}), ""},
    }};
    files.assign(sound.begin(), sound.end());
    for (const File& file : sound)
        if (file.kind != "m4a") // it has its head at the end
            streams[file.kind] = ReadBytes(file.path);
    streams["flac"] = ReadBytes(MakeSine("sine.flac", {}));

    // Broken ones.
    const std::string mp3 = streams["mp3"];
    std::string damaged = mp3;
    damaged.replace(damaged.size() / 2, 3000, std::string(3000, 'x'));
    const std::string flac = streams["flac"];
    std::filesystem::create_directory(RuntimePath("directory"));
    RunFfmpeg({"-f", "lavfi", "-i", "color=s=16x16", "-frames:v", "1", RuntimePath("image.png")});
    for (const File& file : {
             File{"missing file", RuntimePath("missing.wav"),
                  "Failed to open audio file: No such file or directory"},
             File{"directory", RuntimePath("directory"),
                  "Failed to open audio file: Is a directory"},
             File{"empty file", WriteBytes("empty.mp3", ""),
                  "Failed to open audio file: Invalid argument"},
             File{"text file", WriteBytes("text.flac", std::string(5000, 'a')),
                  "No audio stream found."},
             File{"picture", RuntimePath("image.png"), "No audio stream found."},
             File{"torn file", WriteBytes("torn.flac", flac.substr(0, flac.size() / 2)), ""},
             File{"torn head", WriteBytes("head.flac", flac.substr(0, 20)),
                  "Failed to open audio file: Input/output error"},
             File{"damaged file", WriteBytes("damaged.mp3", damaged), ""},
         })
        files.push_back(file);
}
