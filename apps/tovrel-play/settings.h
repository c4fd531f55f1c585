// What the player program remembers from one time to the next: the volume and the user's settings
// of the equalizer, as JSON in $XDG_STATE_HOME/tovrel-play/state.json (without that variable in
// ~/.local/state).
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "response.h"

struct Settings
{
    std::optional<double> volume; // linear, 0 to 1.5
    std::vector<Preset> presets;  // as they are loaded: in the order of their names
};

// Empty where there is no such file. What cannot be understood of it is left out.
Settings LoadSettings();

// Replaces the file as a whole. Empty where that has succeeded, else what went wrong.
std::string SaveSettings(const Settings& settings);
