// Who is measured: the player and mpv, which stay in memory and are told what to do, and programs
// that are started for one file. And what they play.
#pragma once

#include "process.h"
#include "tovrel_audio_player.h"

#include <map>
#include <memory>
#include <string>

// A player that stays in memory.
class ResidentPlayer
{
public:
    virtual ~ResidentPlayer() = default;
    virtual void PlayFile(const std::string& path) = 0;
    virtual void PlayRadio(const std::string& url) = 0;
    virtual void Seek(double seconds) = 0;
    virtual void SetPaused(bool bPaused) = 0;
    virtual void Stop() = 0;
};

class ResidentTovrel : public ResidentPlayer
{
public:
    void PlayFile(const std::string& path) override { m_player.PlayFile(path); }
    void PlayRadio(const std::string& url) override { m_player.PlayStream(url); }
    void Seek(double seconds) override { m_player.SeekToSeconds(seconds); }
    void SetPaused(bool bPaused) override { m_player.SetPaused(bPaused); }
    void Stop() override { m_player.Stop(); }

private:
    TovrelAudioPlayer m_player;
};

// mpv, idle until it is told over its JSON protocol what to do.
class ResidentMpv : public ResidentPlayer
{
public:
    ResidentMpv(); // returns when mpv takes commands
    ~ResidentMpv() override;
    ResidentMpv(const ResidentMpv&) = delete;
    ResidentMpv& operator=(const ResidentMpv&) = delete;

    void PlayFile(const std::string& path) override;
    void PlayRadio(const std::string& url) override { PlayFile(url); }
    void Seek(double seconds) override;
    void SetPaused(bool bPaused) override;
    void Stop() override;

private:
    void Tell(const std::string& command);
    void DropAnswers();

    int m_socket = -1;
    std::unique_ptr<ChildProcess> m_process;
};

// The command that plays one file with the program of this name: tovrel-play, mpv, ffplay,
// gstreamer, pw-cat or bare, which plays a tone of its own.
Arguments CommandOf(const std::string& program, const std::string& path);

// --- What they play -----------------------------------------------------------------------------

constexpr double kMediaSeconds = 240.0; // the first half on the left, the second one on the right
constexpr double kRadioSeconds = 60.0;  // on the left

// A tone of 1 kHz in noise (without which FLAC would be a tenth of its usual size) in files that
// are made when they are asked for, with the ffmpeg program, and removed in the end.
class Media
{
public:
    // A file of the format wav, flac, mp3 or opus. The last two begin with the few milliseconds of
    // silence that their encoders add.
    std::string FilePath(const std::string& format);

    // What a radio sends in the format mp3, aac or opus, 128 kbit/s.
    const std::string& Radio(const std::string& format);

private:
    TemporaryDirectory m_directory;
    std::map<std::string, std::string> m_radio;
};
