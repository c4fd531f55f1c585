#include "options.h"

#include "control.h"
#include "recorder.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <limits>
#include <memory>
#include <string_view>

namespace
{

constexpr int kUsageError = 2; // the exit status

constexpr int kMaxRateHz = 768000;
constexpr int kMaxChannels = 64;

constexpr const char* kFooter =
    "Exit status: 0 all played, 1 not all, 2 arguments, 128 + n signal n. Keys: ?";

// What stands in the usage alone needs no list of its own.
struct Formatter : CLI::Formatter
{
    std::string make_usage(const CLI::App* /*app*/, std::string /*name*/) const override
    {
        return "Usage: tovrel-play [OPTIONS] SOURCE...\n";
    }
};

// The whole of `text` as a number in [low, high]. Points are points in every locale, and what is
// not a number ("nan") lies in no range.
template <class Number>
bool ParseNumber(std::string_view text, Number low, Number high, Number& number)
{
    if (text.size() > 1 && text.front() == '+' && text[1] != '-')
        text.remove_prefix(1);
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && stop == end && number >= low && number <= high;
}

template <class Number>
CLI::Option* AddNumber(CLI::App& app, const std::string& name, const std::string& type, Number low,
                       Number high, Number& target, const std::string& description)
{
    const auto parse = [=, &target](const std::string& text)
    {
        if (ParseNumber(text, low, high, target))
            return;
        std::string range = "from " + CLI::detail::to_string(low);
        if (high < std::numeric_limits<Number>::max())
            range += " to " + CLI::detail::to_string(high);
        throw CLI::ValidationError(name, "'" + text + "' is not a number " + range);
    };
    return app.add_option_function<std::string>(name, parse, description)
        ->type_name(type)
        ->take_last();
}

void ParseGains(const std::string& text, Options& options)
{
    const std::vector<std::string> words = CLI::detail::split(text, ',');
    bool bGood = words.size() == options.gainsDb.size();
    for (size_t band = 0; bGood && band < words.size(); ++band)
        bGood = ParseNumber(words[band], -kMaxGainDb, kMaxGainDb, options.gainsDb[band]);
    if (!bGood)
        throw CLI::ValidationError(
            "--eq", "'" + text + "' is not ten numbers from -18 to 18 with commas between them");
}

} // namespace

std::optional<Options> ParseOptions(int argc, char** argv, int& exitStatus)
{
    Options options;
    CLI::App app{"Plays files, folders, playlists (.m3u, .pls, .xspf) and radio through PipeWire.\n"
                 "The source - is standard input, raw 32-bit floats.",
                 "tovrel-play"};
    app.formatter(std::make_shared<Formatter>());
    app.get_formatter()->column_width(22);
    app.add_option("SOURCE", options.names)->group("");
    double volume = 1.0;
    double duration = 0.0;
    const double most = std::numeric_limits<double>::max();
    CLI::Option* volumeOption =
        AddNumber(app, "--volume", "V", 0.0, kMaxVolume, volume, "Linear volume, 0 to 1.5");
    AddNumber(app, "--pan", "P", -1.0, 1.0, options.pan, "Pan, -1 (left) to 1 (right)");
    app.add_option_function<std::string>(
           "--eq", [&](const std::string& text) { ParseGains(text, options); },
           "dB (-18 to 18) at 31 62 125 250 500 1k 2k 4k 8k 16k Hz")
        ->type_name("G0,..,G9")
        ->take_last();
    AddNumber(app, "--start", "SECONDS", 0.0, most, options.startSeconds,
              "Start every file at this position");
    CLI::Option* durationOption =
        AddNumber(app, "--duration", "SECONDS", 0.0, most, duration, "End after this time");
    app.add_flag("--shuffle", options.bShuffle, "Play in random order");
    app.add_flag("--repeat", options.bRepeat, "Begin anew after the last one");
    app.add_flag("--once", options.bOnce, "End after the last one, also in full screen");
    app.add_flag("--line", options.bLine, "One line instead of the full screen");
    app.add_flag("--json", options.bJson, "Tell what happens in lines of JSON");
    app.add_flag(
        "--no-input", [&](auto) { options.bKeys = false; }, "Read no keys");
    app.add_option("--record", options.recording, "Write what is played (.wav, .flac)")
        ->type_name("FILE")
        ->take_last();
    AddNumber(app, "--rate", "HZ", 1, kMaxRateHz, options.rateHz, "Of standard input");
    AddNumber(app, "--channels", "N", 1, kMaxChannels, options.channels, "Of standard input");
    app.set_version_flag("--version", "tovrel-play " TOVREL_VERSION, "Print the version");
    app.set_help_flag("-h,--help", "Print this help");
    app.footer(kFooter);
    try
    {
        app.parse(argc, argv);
        if (*volumeOption)
            options.volume = volume;
        if (*durationOption)
            options.durationSeconds = duration;
        if (options.names.empty())
            throw CLI::RequiredError("SOURCE");
        if (!options.recording.empty() && !Recorder::Knows(options.recording))
            throw CLI::ValidationError("--record", "'" + options.recording +
                                                       "' ends in neither .wav nor .flac");
        if (std::count(options.names.begin(), options.names.end(), "-") > 1)
            throw CLI::ValidationError("-", "standard input can be read only once");
        return options;
    }
    catch (const CLI::Success& answer) // --help, --version
    {
        exitStatus = app.exit(answer);
    }
    catch (const CLI::ParseError& error)
    {
        std::fprintf(stderr, "tovrel-play: %s\nTry 'tovrel-play --help'.\n", error.what());
        exitStatus = kUsageError;
    }
    return std::nullopt;
}
