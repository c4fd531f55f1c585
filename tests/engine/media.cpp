#include "media.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <stdexcept>

namespace
{

// Removes the directory when the process ends.
struct TemporaryDirectory
{
    std::filesystem::path path;

    TemporaryDirectory()
    {
        std::string name = (std::filesystem::temp_directory_path() / "tovrel-XXXXXX").string();
        if (!mkdtemp(name.data()))
            throw std::runtime_error("no temporary directory");
        path = name;
    }
    ~TemporaryDirectory()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
};

void RunFfmpeg(const std::string& arguments, const std::string& output)
{
    const std::string command = "ffmpeg -nostdin -v error -y " + arguments + " '" + output + "'";
    if (std::system(command.c_str()) != 0)
        throw std::runtime_error("failed: " + command);
}

// The same, once for all the processes of this build: every test is one, and they make the same few
// files. `key` is all that the output depends on, but for ffmpeg itself.
void RunFfmpegOnce(const std::string& arguments, const std::string& key,
                   const std::filesystem::path& output)
{
    std::error_code missing;
    const auto ffmpegTime = std::filesystem::last_write_time("/usr/bin/ffmpeg", missing);
    const std::string name = std::to_string(std::hash<std::string>()(key)) + '-' +
                             std::to_string(ffmpegTime.time_since_epoch().count()) +
                             output.extension().string();
    const std::filesystem::path kept = std::filesystem::path(TOVREL_MEDIA) / name;
    if (std::filesystem::copy_file(kept, output, std::filesystem::copy_options::overwrite_existing,
                                   missing))
        return;
    RunFfmpeg(arguments, output.string());
    std::filesystem::create_directories(TOVREL_MEDIA);
    // Another process may be doing the same: what stands there under its name is whole.
    const std::string whole = kept.string() + '.' + std::to_string(getpid());
    std::filesystem::copy_file(output, whole);
    std::filesystem::rename(whole, kept);
}

} // namespace

namespace Media
{

const std::filesystem::path& Directory()
{
    static const TemporaryDirectory directory;
    return directory.path;
}

std::string Make(const std::string& arguments, const std::string& name)
{
    const std::filesystem::path path = Directory() / name;
    if (arguments.find(Directory().string()) == arguments.npos)
        RunFfmpegOnce(arguments, arguments, path);
    else // from a file of this process's own
        RunFfmpeg(arguments, path.string());
    return path.string();
}

void MakeSeveral(const std::string& arguments, const std::string& name)
{
    RunFfmpeg(arguments, (Directory() / name).string());
}

std::string Write(const std::string& name, const std::string& bytes)
{
    const std::string path = (Directory() / name).string();
    std::ofstream(path, std::ios::binary) << bytes;
    return path;
}

std::string Read(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

std::string WriteSparse(const std::string& name, const std::string& start, uint64_t size)
{
    const std::string path = Write(name, start);
    std::filesystem::resize_file(path, size);
    return path;
}

std::string MakePipe(const std::string& name)
{
    const std::string path = (Directory() / name).string();
    std::filesystem::remove(path);
    if (mkfifo(path.c_str(), 0600) != 0)
        throw std::runtime_error("no pipe: " + path);
    return path;
}

std::string Wav(const std::vector<float>& samples, int rate, int channels, uint16_t format)
{
    std::string bytes;
    const auto put = [&](uint32_t value, int size)
    {
        for (int i = 0; i < size; ++i)
            bytes += static_cast<char>(value >> (8 * i) & 0xff);
    };
    const auto frameBytes = static_cast<uint32_t>(channels) * 4;
    const auto dataBytes = static_cast<uint32_t>(samples.size() * sizeof(float));
    bytes += "RIFF";
    put(36 + dataBytes, 4);
    bytes += "WAVEfmt ";
    put(16, 4);
    put(format, 2);
    put(static_cast<uint32_t>(channels), 2);
    put(static_cast<uint32_t>(rate), 4);
    put(static_cast<uint32_t>(rate) * frameBytes, 4);
    put(frameBytes, 2);
    put(32, 2);
    bytes += "data";
    put(dataBytes, 4);
    return bytes.append(reinterpret_cast<const char*>(samples.data()), dataBytes);
}

std::string WriteWav(const std::string& name, const std::vector<float>& samples, int rate,
                     int channels)
{
    return Write(name, Wav(samples, rate, channels));
}

std::vector<float> Convert(const std::string& path)
{
    const std::string raw = (Directory() / "converted.raw").string();
    const std::string conversion = "-map 0:a:0 -ar 48000 -ac 2 -c:a pcm_f32le -f f32le";
    RunFfmpegOnce("-i '" + path + "' " + conversion,
                  conversion + std::filesystem::path(path).extension().string() + Read(path), raw);
    const std::string bytes = Read(raw);
    std::vector<float> samples(bytes.size() / sizeof(float));
    std::memcpy(samples.data(), bytes.data(), samples.size() * sizeof(float));
    return samples;
}

std::vector<float> Played(std::vector<float> samples, double gain)
{
    const double quarter = 3.141592653589793 * 0.25;
    const double g = static_cast<float>(gain);
    const float sides[] = {static_cast<float>(g * std::cos(quarter) * 1.4142135623730951),
                           static_cast<float>(g * std::sin(quarter) * 1.4142135623730951)};
    for (size_t i = 0; i < samples.size(); ++i)
        samples[i] *= sides[i % 2];
    return samples;
}

std::filesystem::path Recordings()
{
    return "/usr/share/sounds/freedesktop/stereo";
}

std::string Recording(const std::string& name)
{
    return Recordings() / name;
}

} // namespace Media
