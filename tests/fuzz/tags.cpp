// Tags of any names and values: look-up, loudness gain and a stream's description, against a model.
#include "check.h"
#include "internals.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <locale.h>
#include <sanitizer/lsan_interface.h>
#include <strings.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <tuple>
#include <utility>

namespace
{

using Tags = std::vector<std::pair<std::string, std::string>>;

constexpr const char* kKeys[] = {
    "REPLAYGAIN_TRACK_GAIN",
    "replaygain_album_gain",
    "R128_TRACK_GAIN",
    "R128_ALBUM_GAIN",
    "replaygain_track_peak",
    "icy-name",
    "icy_name",
    "icy-genre",
    "icy_genre",
    "icy-br",
    "icy-bitrate",
    "icy_bitrate",
    "icy-sr",
    "icy-samplerate",
    "icy_samplerate",
    "icy-url",
    "icy_url",
    "icy-pub",
    "icy_public",
    "icy-notice1",
    "icy_notice1",
    "icy-notice2",
    "icy_notice2",
    "content-type",
    "mime-type",
    "StreamTitle",
    "streamtitle2",
    "R128_TRACK_GAIN_2",
};

std::string ConsumeText(FuzzedDataProvider& input)
{
    return input.ConsumeRandomLengthString(40).c_str(); // a tag has no zero bytes
}

Tags ConsumeTags(FuzzedDataProvider& input)
{
    Tags tags(input.ConsumeIntegralInRange<size_t>(0, 8));
    for (auto& [key, value] : tags)
    {
        key = input.ConsumeBool() ? input.PickValueInArray(kKeys) : ConsumeText(input);
        value = input.ConsumeBool() ? std::to_string(input.ConsumeIntegral<int16_t>() / 256.0)
                                    : ConsumeText(input);
    }
    return tags;
}

void Set(AVDictionary** dictionary, const Tags& tags)
{
    av_dict_free(dictionary);
    for (const auto& [key, value] : tags)
        av_dict_set(dictionary, key.c_str(), value.c_str(), AV_DICT_MULTIKEY);
}

// The model

std::optional<std::string> Find(const Tags& tags, const std::string& key)
{
    const auto found =
        std::find_if(tags.begin(), tags.end(),
                     [&](const auto& tag)
                     { return strncasecmp(tag.first.c_str(), key.c_str(), key.size()) == 0; });
    return found == tags.end() ? std::nullopt : std::optional(found->second);
}

std::string FindAny(const Tags& tags, std::initializer_list<const char*> keys)
{
    for (const char* key : keys)
    {
        if (const auto value = Find(tags, key); value && !value->empty())
            return *value;
    }
    return "";
}

std::optional<double> Number(const Tags& tags, const char* key)
{
    const std::string text = Find(tags, key).value_or("");
    char* end = nullptr;
    const double number = std::strtod(text.c_str(), &end); // here in the locale "C"
    return end == text.c_str() || !std::isfinite(number) ? std::nullopt : std::optional(number);
}

std::optional<double> GainDb(const Tags& tags)
{
    for (const char* key : {"REPLAYGAIN_TRACK_GAIN", "REPLAYGAIN_ALBUM_GAIN"})
    {
        if (const auto dB = Number(tags, key))
            return dB;
    }
    for (const char* key : {"R128_TRACK_GAIN", "R128_ALBUM_GAIN"})
    {
        if (const auto steps = Number(tags, key))
            return *steps / 256.0;
    }
    return {};
}

double Gain(const Tags& stream, const Tags& container)
{
    auto dB = GainDb(stream);
    if (!dB)
        dB = GainDb(container);
    return dB ? std::pow(10.0, std::clamp(*dB, -24.0, 12.0) / 20.0) : 1.0;
}

// A locale with a decimal comma, if this system can make one.
locale_t Comma()
{
    const __lsan::ScopedDisabler disabler; // newlocale never lets go of LOCPATH
    std::string directory = (std::filesystem::temp_directory_path() / "tovrel-XXXXXX").string();
    if (!mkdtemp(directory.data()))
        return nullptr;
    std::ignore = std::system(
        ("localedef -i de_DE -f UTF-8 --no-archive '" + directory + "/de_DE.UTF-8' 2>/dev/null")
            .c_str());
    setenv("LOCPATH", directory.c_str(), 1);
    const locale_t locale = newlocale(LC_ALL_MASK, "de_DE.UTF-8", nullptr);
    unsetenv("LOCPATH");
    std::filesystem::remove_all(directory);
    return locale;
}

struct Source
{
    AVFormatContext* format = avformat_alloc_context();
    AVCodecContext* codec = avcodec_alloc_context3(nullptr);

    Source() { avformat_new_stream(format, nullptr); }
    ~Source()
    {
        avformat_free_context(format);
        avcodec_free_context(&codec);
    }
    Source(const Source&) = delete;
    Source& operator=(const Source&) = delete;
};

void CompareGain(const Source& source, const Tags& stream, const Tags& container)
{
    static const locale_t comma = Comma();
    const double gain = Internals::MetadataGainLinear(source.format, 0);
    if (comma)
    {
        const locale_t before = uselocale(comma);
        const double gainThere = Internals::MetadataGainLinear(source.format, 0);
        uselocale(before);
        Check(gain == gainThere, "the gain is the same in every locale");
    }
    Check(gain == Gain(stream, container), "the gain");
    Check(gain >= std::pow(10.0, -24 / 20.0) && gain <= std::pow(10.0, 12 / 20.0),
          "the gain's limits");
}

void CompareNumbers(const Source& source, const Tags& container, const char* key)
{
    double dB = 0.0;
    const bool bFound = Internals::ReadMetadataGainDb(source.format->metadata, key, dB);
    Check((bFound ? std::optional(dB) : std::nullopt) == Number(container, key), "a tag's number");
    double r128 = 0.0;
    Check(Internals::ReadR128GainDb(source.format->metadata, key, r128) == bFound, "a tag's steps");
    Check(r128 == dB / 256.0, "a tag's steps in dB");
}

void CompareInfo(const Source& source, const Tags& tags, TovrelAudioPlayer::StreamInfo& info)
{
    const std::string titleBefore = info.NowPlaying;
    const std::string timeBefore = info.LastMetadataTime;
    Internals::FillStreamInfo(info, source.format, source.codec);
    Check(info.IcyName == FindAny(tags, {"icy-name", "icy_name"}), "IcyName");
    Check(info.IcyGenre == FindAny(tags, {"icy-genre", "icy_genre"}), "IcyGenre");
    Check(info.IcyBitrate == FindAny(tags, {"icy-br", "icy-bitrate", "icy_bitrate"}), "IcyBitrate");
    Check(info.IcySampleRate == FindAny(tags, {"icy-sr", "icy-samplerate", "icy_samplerate"}),
          "IcySampleRate");
    Check(info.IcyUrl == FindAny(tags, {"icy-url", "icy_url"}), "IcyUrl");
    Check(info.IcyPublic == FindAny(tags, {"icy-pub", "icy_public"}), "IcyPublic");
    Check(info.IcyNotice1 == FindAny(tags, {"icy-notice1", "icy_notice1"}), "IcyNotice1");
    Check(info.IcyNotice2 == FindAny(tags, {"icy-notice2", "icy_notice2"}), "IcyNotice2");
    Check(info.ContentType == FindAny(tags, {"content-type", "mime-type"}), "ContentType");
    const std::string title = Find(tags, "StreamTitle").value_or("");
    Check(info.NowPlaying == (title.empty() ? titleBefore : title), "NowPlaying");
    Check(info.LastMetadataTime.size() == (info.NowPlaying.empty() ? 0 : 8), "LastMetadataTime");
    Check(!title.empty() || info.LastMetadataTime == timeBefore, "a title's time stays with it");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider input(data, size);
    const Source source;
    TovrelAudioPlayer::StreamInfo info;
    while (input.remaining_bytes() > 0)
    {
        const Tags stream = ConsumeTags(input);
        const Tags container = ConsumeTags(input);
        Set(&source.format->streams[0]->metadata, stream);
        Set(&source.format->metadata, container);
        source.codec->bit_rate = input.ConsumeIntegral<int64_t>();
        const std::string key =
            input.ConsumeBool() ? input.PickValueInArray(kKeys) : ConsumeText(input);
        const std::string value = Internals::MetadataValue(source.format->metadata, key.c_str());
        Check(value == Find(container, key).value_or(""), "a tag's value");
        Check(Internals::MetadataValueAny(source.format->metadata, {key.c_str(), "icy-name"}) ==
                  FindAny(container, {key.c_str(), "icy-name"}),
              "the first value of several keys");
        CompareNumbers(source, container, key.c_str());
        CompareGain(source, stream, container);
        CompareInfo(source, container, info);
    }
    return 0;
}
