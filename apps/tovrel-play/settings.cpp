#include "settings.h"

#include "control.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <unistd.h>

namespace
{

namespace fs = std::filesystem;
using nlohmann::json;

// Empty where there is no place for it.
fs::path File()
{
    const auto directory = [](const char* variable) -> fs::path
    {
        const char* value = std::getenv(variable);
        return value && *value == '/' ? value : ""; // what is relative is to be ignored
    };
    fs::path state = directory("XDG_STATE_HOME");
    if (state.empty())
        if (const fs::path home = directory("HOME"); !home.empty())
            state = home / ".local/state";
    return state.empty() ? state : state / "tovrel-play/state.json";
}

std::optional<double> NumberWithin(const json& value, double low, double high)
{
    if (!value.is_number())
        return {};
    const double number = value.get<double>();
    return number >= low && number <= high ? std::optional(number) : std::nullopt;
}

std::optional<Gains> GainsOf(const json& value)
{
    Gains gains{};
    if (!value.is_array() || value.size() != gains.size())
        return {};
    for (size_t band = 0; band < gains.size(); ++band)
    {
        const auto gain = NumberWithin(value[band], -kMaxGainDb, kMaxGainDb);
        if (!gain)
            return {};
        gains[band] = *gain;
    }
    return gains;
}

} // namespace

Settings LoadSettings()
{
    std::ifstream file(File());
    const json state = json::parse(file, nullptr, false);
    Settings settings;
    if (!state.is_object())
        return settings;
    settings.volume = NumberWithin(state.value("volume", json()), 0.0, kMaxVolume);
    const json presets = state.value("presets", json());
    if (!presets.is_object())
        return settings;
    for (const auto& [name, value] : presets.items())
        if (const auto gains = GainsOf(value); gains && !name.empty())
            settings.presets.push_back({name, *gains});
    return settings;
}

std::string SaveSettings(const Settings& settings)
{
    const fs::path path = File();
    if (path.empty())
        return "There is no home directory to keep the settings in.";
    json state = {{"presets", json::object()}};
    if (settings.volume)
        state["volume"] = *settings.volume;
    for (const Preset& preset : settings.presets)
        state["presets"][preset.name] = preset.gainsDb;

    std::error_code error;
    fs::create_directories(path.parent_path(), error);
    // Two players may end at the same time: each leaves a whole file.
    const fs::path whole = path.string() + "." + std::to_string(getpid());
    errno = 0;
    std::ofstream file(whole);
    file << state.dump(1, ' ', false, json::error_handler_t::replace) << '\n';
    file.close();
    if (!file)
        return "Failed to keep the settings: " + std::string(std::strerror(errno ? errno : EIO));
    fs::rename(whole, path, error);
    return error ? "Failed to keep the settings: " + error.message() : "";
}
