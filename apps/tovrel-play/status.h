// Everything that the player program shows, whoever shows it.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "queue.h"
#include "response.h"
#include "text.h"
#include "tovrel_audio_player.h"

enum class Activity
{
    Stopped,
    Opening, // or connecting, buffering, reconnecting: it makes no sound yet
    Playing,
    Paused,
};

struct TitleAtTime
{
    std::string time; // local, HH:MM:SS
    std::string title;
};

struct Status
{
    LiveState live; // what the line tells as well
    Activity activity = Activity::Stopped;
    bool bPaused = false; // as somebody wants it, also while nothing is there yet to be paused
    bool bStream = false; // radio
    std::string name;     // of the file or address; empty where nothing has been played
    uint64_t plays = 0;   // how many entries have had their turn
    std::string title;
    std::string artist;
    std::string album;
    Gains gainsDb{};
    std::vector<Preset> presets; // built-in ones first
    size_t builtInPresets = 0;
    TovrelAudioPlayer::StreamInfo stream; // of a stream
    std::deque<TitleAtTime> titles;       // of this stream so far, the latest first
    std::string error;                    // the last one, with what it is about
    bool bRecording = false;
    uint64_t droppedBlocks = 0; // of the recording
};
