#include "options.h"

#include <CLI/CLI.hpp>

#include <charconv>
#include <cstdio>
#include <limits>
#include <string_view>

namespace
{

constexpr int kUsageError = 2; // the exit status
constexpr double kMaxGainDb = 18.0;

constexpr const char* kFooter = R"(Keys, on a terminal:
  space         pause, go on           up, down   volume
  left, right   seek 5 seconds         [, ]       pan to the left, to the right
  e             equalizer off, on      q          quit

Exit status:
  0   everything was played           2        the arguments make no sense
  1   something could not be played   128 + n  stopped by signal n (Ctrl-C 130))";

// The whole of `text` as a number in [low, high]. Points are points in every locale, and what is
// not a number ("nan") lies in no range.
bool ParseNumber(std::string_view text, double low, double high, double& number)
{
    if (text.size() > 1 && text.front() == '+' && text[1] != '-')
        text.remove_prefix(1);
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && stop == end && number >= low && number <= high;
}

void AddNumber(CLI::App& app, const std::string& name, const std::string& type, double low,
               double high, double& target, const std::string& description)
{
    const auto parse = [=, &target](const std::string& text)
    {
        if (ParseNumber(text, low, high, target))
            return;
        std::string range = "from " + CLI::detail::to_string(low);
        if (high < std::numeric_limits<double>::max())
            range += " to " + CLI::detail::to_string(high);
        throw CLI::ValidationError(name, "'" + text + "' is not a number " + range);
    };
    app.add_option_function<std::string>(name, parse, description)->type_name(type)->take_last();
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
    CLI::App app{"Plays files and internet radio through PipeWire, one after the other.",
                 "tovrel-play"};
    app.get_formatter()->column_width(20);
    app.get_formatter()->label("REQUIRED", "");
    app.add_option("FILE|URL", options.names, "Files, streams, and playlists (.m3u, .pls) of them")
        ->required()
        ->type_name("");
    AddNumber(app, "--volume", "V", 0.0, 1.5, options.volume, "Linear volume, 0 to 1.5");
    AddNumber(app, "--pan", "P", -1.0, 1.0, options.pan, "Pan, -1 (left) to 1 (right)");
    app.add_option_function<std::string>(
           "--eq", [&](const std::string& text) { ParseGains(text, options); },
           "dB (-18 to 18) at 31 62 125 250 500 1k 2k 4k 8k 16k Hz")
        ->type_name("G0,..,G9")
        ->take_last();
    AddNumber(app, "--start", "SECONDS", 0.0, std::numeric_limits<double>::max(),
              options.startSeconds, "Start every file at this position");
    app.set_version_flag("--version", "tovrel-play " TOVREL_VERSION, "Print the version");
    app.set_help_flag("-h,--help", "Print this help");
    app.footer(kFooter);
    try
    {
        app.parse(argc, argv);
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
