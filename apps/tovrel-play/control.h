// What may be asked of the player program, by keys, the mouse and the desktop alike.
#pragma once

#include <cstddef>
#include <string>

#include "queue.h"
#include "response.h"

// How far one key, or one turn of the mouse's wheel, goes.
constexpr double kSeekStepSeconds = 5.0;
constexpr double kLongSeekStepSeconds = 60.0;
constexpr double kVolumeStep = 0.05;
constexpr double kPanStep = 0.1;
constexpr double kMaxVolume = 1.5; // linear

class Control
{
public:
    virtual void Quit() = 0;

    virtual void Play() = 0; // ends a pause; where nothing plays: plays the current entry
    virtual void Pause(bool bPause) = 0;
    virtual void TogglePause() = 0;
    virtual void Halt() = 0;     // ends the current entry, and plays no other
    virtual void Next() = 0;     // a pause goes on in the other entry
    virtual void Previous() = 0; // likewise; one that has played for a while begins anew
    virtual void Choose(size_t index) = 0;
    virtual void Open(const std::string& name) = 0; // adds it and plays it

    virtual void SeekBy(double seconds) = 0;
    virtual void SeekTo(double seconds) = 0;

    virtual void SetVolume(double volume) = 0; // linear, 0 to 1.5
    virtual void AdjustVolume(double delta) = 0;
    virtual void AdjustPan(double delta) = 0; // the range is -1 to 1
    virtual void ToggleEqualizer() = 0;
    virtual void SetGain(size_t band, double dB) = 0;
    virtual void UsePreset(const Preset& preset) = 0;
    virtual void KeepPreset(const std::string& name) = 0; // the gains as they are
    virtual void ForgetPreset(const std::string& name) = 0;

    virtual void SetShuffle(bool bShuffle) = 0;
    virtual void SetRepeat(Repeat repeat) = 0;

protected:
    ~Control() = default;
};
