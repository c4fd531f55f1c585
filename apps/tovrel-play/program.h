// The player program: takes entries from the queue, plays them, shows what goes on, and does what
// it is asked to.
#pragma once

#include <atomic>
#include <chrono>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "control.h"
#include "file_info.h"
#include "json_lines.h"
#include "meters.h"
#include "mpris.h"
#include "options.h"
#include "recorder.h"
#include "screen.h"
#include "settings.h"
#include "signals.h"
#include "status.h"
#include "terminal.h"
#include "tovrel_audio_player.h"

// What the PCM tap has seen of the current entry, on the player's worker.
struct Progress
{
    std::atomic<bool> bStarted{false};
    std::atomic<double> endSeconds{0.0}; // of the last block

    void Reset()
    {
        bStarted = false;
        endSeconds = 0.0;
    }
};

// One report of the player's on a radio stream.
struct StreamReport
{
    TovrelAudioPlayer::StreamState state = TovrelAudioPlayer::StreamState::Idle;
    TovrelAudioPlayer::StreamInfo info;
    std::string text;
};

// Takes the reports from the player's worker to the main thread.
class StreamInbox
{
public:
    // Where nobody takes them, the oldest go.
    void Put(StreamReport report);
    std::deque<StreamReport> Take();

private:
    std::mutex m_mutex; // guards m_reports
    std::deque<StreamReport> m_reports;
};

class Program final : private Control
{
public:
    // `bUtf8`: whether the terminal shows more than ASCII.
    Program(Options options, bool bUtf8);
    ~Program();
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    // Plays everything; returns the exit status.
    int Run();

private:
    using Clock = std::chrono::steady_clock;

    // What comes after the current entry.
    enum class Request
    {
        ByItself, // what the queue says
        Current,  // where the way through the queue has been moved to
        Halt,
    };

    // What may be asked, from keys and the bus.
    void Quit() override;
    void Play() override;
    void Pause(bool bPause) override;
    void TogglePause() override;
    void Halt() override;
    void Next() override;
    void Previous() override;
    void Choose(size_t index) override;
    void Open(const std::string& name) override;
    void SeekBy(double seconds) override;
    void SeekTo(double seconds) override;
    void SetVolume(double volume) override;
    void AdjustVolume(double delta) override;
    void AdjustPan(double delta) override;
    void ToggleEqualizer() override;
    void SetGain(size_t band, double dB) override;
    void UsePreset(const Preset& preset) override;
    void KeepPreset(const std::string& name) override;
    void ForgetPreset(const std::string& name) override;
    void SetShuffle(bool bShuffle) override;
    void SetRepeat(Repeat repeat) override;

    void Close();

    // The way through the queue.
    void Gather();
    size_t Following();
    void Leave(Request request);
    void PlayEntry(size_t index);
    bool Expand(size_t index);
    bool Idle();

    // One entry.
    void PlayFile(const std::string& file);
    void PlayInput();
    void PlayStream(const std::string& address);
    void Hear(const FileInfo& info);
    bool IsOpening() const;
    void SeekToStart();
    void AnnounceOnce(const FileInfo& info);
    void Conclude(const FileInfo& info);
    void TakeReports(const std::string& address);
    void StopPlayer();

    // Waiting, and what comes in meanwhile.
    void WaitForEvents(int input = -1);
    bool IsOver() const;
    void TakeSignals();
    void OnSignal(int signal);
    void OnKey(Key key);
    void Suspend();
    template <class Predicate>
    void AwaitOrExit(Predicate bDone);

    // Showing.
    void OnBlock(const float* samples, int frames, int rate, int channels, long microseconds);
    void ShowFile(const std::string& word);
    void ShowStream(const std::string& address);
    void Show(const std::string& word, Activity activity);
    void ListPresets();
    void Fail(const std::string& name, const std::string& text);
    void Complain(const std::string& name, const std::string& text);
    void Print(int descriptor, const std::string& text);
    void Write(int descriptor, const std::string& text);
    bool IsPlain() const { return !m_screen && !m_options.bJson && !m_terminal.IsActive(); }

    const Options m_options;
    const bool m_bUtf8;
    Signals m_signals; // before the player, and so before any thread
    Terminal m_terminal;
    Settings m_settings;
    Queue m_queue;
    Status m_status;
    JsonLines m_json;
    Progress m_progress;
    Meters m_meters;
    StreamInbox m_inbox;
    std::unique_ptr<Recorder> m_recorder;
    TovrelAudioPlayer m_player;
    std::unique_ptr<Screen> m_screen;
    std::unique_ptr<Mpris> m_mpris;
    std::vector<std::string> m_complaints; // of a whole terminal, for when it is given back

    StreamReport m_stream;               // the last report
    std::string m_shownTitle;            // of the stream
    Clock::time_point m_drawnAt;         // its line, for the last time
    Clock::time_point m_started;         // the current entry
    Clock::time_point m_begun;           // the program
    std::atomic<bool> m_bLive{false};    // a stream plays
    std::atomic<bool> m_bMetered{false}; // there is a screen that shows what is heard
    bool m_bAnnounced = false;
    bool m_bStartPending = false; // --start waits for the length of the file
    bool m_bInputRead = false;    // all that standard input has given
    bool m_bRecordingLost = false;
    bool m_bLeave = false; // the current entry
    Request m_request = Request::ByItself;
    size_t m_failures = 0; // of the last entries, one after the other
    bool m_bQuit = false;
    int m_exitStatus = 0;
};
