// tovrel-play: plays files and internet radio, with one live line and keys on a terminal.
#include "file_info.h"
#include "options.h"
#include "playlist.h"
#include "signals.h"
#include "terminal.h"
#include "text.h"
#include "tovrel_audio_player.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <mutex>
#include <optional>
#include <poll.h>
#include <string>
#include <thread>
#include <unistd.h>
#include <utility>

namespace
{

using Clock = std::chrono::steady_clock;

constexpr int kTickMs = 50; // between two looks at the player: 20 lines a second
constexpr double kSeekStepSeconds = 5.0;
constexpr double kVolumeStep = 0.05;
constexpr double kPanStep = 0.1;
constexpr double kCutShortSeconds = 1.0; // what headers may promise too much without being wrong
constexpr std::chrono::seconds kLengthWait{1};      // for a length, before --start gives up silence
constexpr std::chrono::milliseconds kStopWait{500}; // for a thread that somebody keeps waiting
constexpr int kMaxPlaylistDepth = 8;                // of playlists that name playlists
constexpr std::chrono::milliseconds kPauseTime{50}; // until the sound graph knows of a pause

constexpr int kAllPlayed = 0;
constexpr int kSomeFailed = 1;
constexpr int kSignalStatus = 128; // and the signal's number

// What the PCM tap has seen of the current file, on the player's worker.
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

using StreamState = TovrelAudioPlayer::StreamState;

// One report of the player's on a radio stream.
struct StreamReport
{
    StreamState state = StreamState::Idle;
    TovrelAudioPlayer::StreamInfo info;
    std::string text;
};

// Takes the reports from the player's worker to the main thread.
class StreamInbox
{
public:
    // Where nobody takes them, the oldest go.
    void Put(StreamReport report)
    {
        constexpr size_t kMostReports = 1000;
        const std::lock_guard lock(m_mutex);
        if (m_reports.size() == kMostReports)
            m_reports.pop_front();
        m_reports.push_back(std::move(report));
    }

    std::deque<StreamReport> Take()
    {
        const std::lock_guard lock(m_mutex);
        return std::exchange(m_reports, {});
    }

private:
    std::mutex m_mutex; // guards m_reports
    std::deque<StreamReport> m_reports;
};

// Something to play: a file, an address or a playlist of them.
struct Item
{
    std::string name;
    int depth = 0; // how many playlists it came through
};

class Program
{
public:
    explicit Program(Options options);

    // Plays everything; returns the exit status.
    int Run();

private:
    void Play(const Item& item);
    void Expand(const Item& item);
    void PlayOne(const std::string& name);
    void PlayFile(const std::string& file);
    void PlayStream(const std::string& address);
    void WaitForEvents();
    void TakeSignals();
    void OnSignal(int signal);
    void OnKey(Key key);
    void Suspend();
    void SeekToStart(const std::string& file);
    void AnnounceOnce(const std::string& file, const FileInfo& info);
    void Conclude(const std::string& file, const FileInfo& info);
    void TakeReports(const std::string& address);
    void DrawFile(const std::string& word);
    void DrawStream(const std::string& address);
    void Draw(const std::string& word);
    void Fail(const std::string& name, const std::string& text);
    void Complain(const std::string& name, const std::string& text);
    void Print(int descriptor, const std::string& text);
    void StopPlayer();
    template <class Predicate>
    void AwaitOrExit(Predicate bDone);

    const Options m_options;
    Signals m_signals; // before the player, and so before any thread
    Terminal m_terminal;
    Progress m_progress;
    StreamInbox m_inbox;
    TovrelAudioPlayer m_player;
    LiveState m_live;
    std::deque<Item> m_queue;    // what is to be played yet
    StreamReport m_stream;       // the last report
    std::string m_shownTitle;    // of the stream
    Clock::time_point m_drawnAt; // its line, for the last time
    bool m_bAnnounced = false;
    bool m_bStartPending = false; // --start waits for the length of the file
    Clock::time_point m_started;
    bool m_bQuit = false;
    int m_status = kAllPlayed;
};

Program::Program(Options options) : m_options(std::move(options))
{
    for (const std::string& name : m_options.names)
        m_queue.push_back({LocalName(name)});
    m_player.SetVolume(m_options.volume);
    m_player.SetPan(m_options.pan);
    m_player.SetEqualizerBands(true, m_options.gainsDb);
    m_live.bFlat = std::all_of(m_options.gainsDb.begin(), m_options.gainsDb.end(),
                               [](double dB) { return dB == 0.0; });
    m_player.SetAudioPCMCallback(
        [this](const float*, int frames, int sampleRate, int, long microseconds)
        {
            m_progress.endSeconds =
                static_cast<double>(microseconds) / 1e6 + static_cast<double>(frames) / sampleRate;
            m_progress.bStarted = true;
        });
}

int Program::Run()
{
    while (!m_bQuit && !m_queue.empty())
    {
        const Item item = std::move(m_queue.front());
        m_queue.pop_front();
        Play(item);
    }
    return m_status;
}

void Program::Play(const Item& item)
{
    if (IsPlaylist(item.name))
        Expand(item);
    else
        PlayOne(item.name);
}

void Program::PlayOne(const std::string& name)
{
    if (IsAddress(name))
        PlayStream(name);
    else
        PlayFile(name);
}

// Puts what stands in a playlist in its place.
void Program::Expand(const Item& item)
{
    if (item.depth >= kMaxPlaylistDepth)
        return Fail(item.name, "Too many playlists that name playlists.");
    std::atomic<bool> bCancel{false};
    std::atomic<bool> bDone{false};
    Playlist playlist;
    // The main thread stays free for Ctrl-C.
    std::thread reader(
        [&]
        {
            playlist = ReadPlaylist(item.name, bCancel);
            bDone = true;
        });
    m_live.title = Printable(item.name);
    m_live.bEndless = true;
    m_live.position = 0.0;
    while (!m_bQuit && !bDone)
    {
        m_terminal.Update();
        Draw("opening");
        WaitForEvents();
    }
    bCancel = true;
    AwaitOrExit([&] { return bDone.load(); });
    reader.join();
    if (m_bQuit)
        return;
    if (!playlist.error.empty())
        return Fail(item.name, playlist.error);
    if (playlist.bOneStream)
        return PlayOne(item.name);
    for (auto entry = playlist.entries.rbegin(); entry != playlist.entries.rend(); ++entry)
        m_queue.push_front({*entry, item.depth + 1});
}

void Program::PlayFile(const std::string& file)
{
    m_progress.Reset();
    m_live.bEndless = false;
    m_bAnnounced = false;
    m_started = Clock::now();
    // What is no address is a file, also where it looks like FFmpeg's names for other things
    // ("concat:..."): "./" keeps them apart.
    m_player.PlayFile(file.rfind('/', 0) == 0 ? file : "./" + file);
    m_bStartPending = m_options.startSeconds > 0.0;
    if (m_bStartPending)
        m_player.SetPaused(true); // so that nothing is heard before the seek
    const FileInfo info = ReadFileInfo(file);
    m_live.title = Printable(info.title.empty() ? std::filesystem::path(file).filename().string()
                                                : info.title);

    while (!m_bQuit && !m_player.HasFinished())
    {
        m_terminal.Update();
        SeekToStart(file);
        if (m_progress.bStarted)
            AnnounceOnce(file, info);
        DrawFile(!m_progress.bStarted ? "opening" : m_player.IsPaused() ? "paused" : "playing");
        WaitForEvents();
    }
    if (m_bQuit)
        DrawFile("stopped");
    else if (m_progress.bStarted || m_player.LastError().empty()) // also what was over at once
        AnnounceOnce(file, info);
    StopPlayer();
    m_bStartPending = false;
    if (!m_bQuit)
        Conclude(file, info);
}

void Program::PlayStream(const std::string& address)
{
    m_stream = {};
    m_shownTitle.clear();
    m_drawnAt = Clock::now();
    m_live.bEndless = true;
    m_live.position = 0.0;
    m_player.PlayStream(address,
                        [this](StreamState state, const auto& info, const auto& text) {
                            m_inbox.Put({state, info, text});
                        });
    while (!m_bQuit && !m_player.HasFinished())
    {
        m_terminal.Update();
        TakeReports(address);
        DrawStream(address);
        WaitForEvents();
    }
    if (m_bQuit)
        DrawStream(address);
    StopPlayer();
    if (m_bQuit)
        return;
    TakeReports(address);
    // A decoder's error ends a stream without a word in the report; only the player knows.
    Fail(address, m_stream.text.empty() ? m_player.LastError() : m_stream.text);
}

void Program::WaitForEvents()
{
    std::array<pollfd, 2> descriptors{pollfd{m_signals.Descriptor(), POLLIN, 0},
                                      pollfd{m_terminal.KeyDescriptor(), POLLIN, 0}};
    poll(descriptors.data(), descriptors.size(), kTickMs);
    TakeSignals();
    if (descriptors[1].revents & (POLLHUP | POLLERR | POLLNVAL))
        m_terminal.LoseKeys();
    else if (descriptors[1].revents & POLLIN)
        for (const Key key : m_terminal.ReadKeys())
            OnKey(key);
    else
        m_terminal.ForgetEscape();
}

void Program::OnSignal(int signal)
{
    if (signal == SIGTSTP)
        return Suspend();
    if (signal == SIGCONT)
        return m_terminal.Retake();
    m_bQuit = true;
    m_status = kSignalStatus + signal;
}

void Program::OnKey(Key key)
{
    if (key == Key::Quit)
        m_bQuit = true;
    if (m_bStartPending)
        return; // the pause is not the user's yet
    switch (key)
    {
    case Key::Pause:
        return m_player.TogglePaused();
    case Key::Back:
        return m_player.SeekToSeconds(m_player.CurrentSeconds() - kSeekStepSeconds);
    case Key::Forward:
        return m_player.SeekToSeconds(m_player.CurrentSeconds() + kSeekStepSeconds);
    case Key::Louder:
        return m_player.AdjustVolume(kVolumeStep);
    case Key::Softer:
        return m_player.AdjustVolume(-kVolumeStep);
    case Key::PanLeft:
        return m_player.AdjustPan(-kPanStep);
    case Key::PanRight:
        return m_player.AdjustPan(kPanStep);
    case Key::Equalizer:
        m_live.bEqualizer = !m_live.bEqualizer;
        return m_player.SetEqualizerEnabled(m_live.bEqualizer);
    case Key::Quit:
        return;
    }
}

// A stopped process makes no sound, but the player's clock would go on without the pause.
void Program::Suspend()
{
    const bool bPaused = m_player.IsPaused();
    m_player.SetPaused(true);
    std::this_thread::sleep_for(kPauseTime);
    m_terminal.Leave();
    Signals::StopProcess();
    if (!bPaused)
        m_player.SetPaused(false);
}

void Program::SeekToStart(const std::string& file)
{
    if (!m_bStartPending)
        return;
    const bool bKnown = m_player.DurationSeconds() > 0.0;
    if (bKnown)
        m_player.SeekToSeconds(m_options.startSeconds);
    // Without a length the worker, which waits in the pause, cannot be told from one that has yet
    // to open the file: after a while it is let go, and shows which it is.
    if (bKnown || Clock::now() - m_started > kLengthWait)
        m_player.SetPaused(false);
    if (!bKnown && m_progress.bStarted)
        Complain(file, "The length is unknown: played from its beginning.");
    m_bStartPending = !bKnown && !m_progress.bStarted;
}

// Where there is no live line, one line when a file starts.
void Program::AnnounceOnce(const std::string& file, const FileInfo& info)
{
    if (m_bAnnounced)
        return;
    m_bAnnounced = true;
    if (m_terminal.IsActive())
        return;
    const double duration = m_player.DurationSeconds();
    Print(STDOUT_FILENO, "Playing " + file + (info.title.empty() ? "" : ": " + info.title) + " (" +
                             (duration > 0.0 ? ClockText(duration) : "length unknown") + ")");
}

void Program::DrawFile(const std::string& word)
{
    const double duration = m_player.DurationSeconds();
    m_live.duration = duration > 0.0 ? duration : -1.0;
    // Without a length the player has no position either; the worker's is half a second ahead.
    m_live.position = duration > 0.0 ? m_player.CurrentSeconds() : m_progress.endSeconds.load();
    Draw(word);
}

void Program::Draw(const std::string& word)
{
    if (!m_terminal.IsActive())
        return;
    m_live.volume = m_player.Volume();
    m_live.pan = m_player.Pan();
    m_live.state = word;
    m_terminal.Draw(LiveLine(m_live, m_terminal.Columns()));
}

// The last line of a file that has ended by itself, or what was wrong with it.
void Program::Conclude(const std::string& file, const FileInfo& info)
{
    const std::string error = m_player.LastError();
    if (!error.empty())
        return Fail(file, error);
    DrawFile("done");
    m_terminal.KeepLine();
    // A seek in the last moments moves the one of these that is wrong then.
    const double end = std::max(m_player.CurrentSeconds(), m_progress.endSeconds.load());
    const double duration = m_player.DurationSeconds();
    if (info.bStatesLength && end < duration - kCutShortSeconds)
        Fail(file, "The file is cut short: it ended at " + ClockText(end) + " of " +
                       ClockText(duration) + ".");
}

// Tells of what has changed since the last call.
void Program::TakeReports(const std::string& address)
{
    const bool bPlain = !m_terminal.IsActive();
    const auto print = [this](const std::string& line)
    {
        m_terminal.ClearLine();
        Print(STDOUT_FILENO, line);
    };
    for (StreamReport& report : m_inbox.Take())
    {
        const StreamReport last = std::exchange(m_stream, std::move(report));
        const TovrelAudioPlayer::StreamInfo& info = m_stream.info;
        if (bPlain && m_stream.state == StreamState::Connecting)
            print("Connecting to " + address);
        // Each attempt is reported with its number and the reason, and once more when it begins.
        if (bPlain && info.ReconnectAttempt != last.info.ReconnectAttempt)
            print("Reconnecting: " + m_stream.text);
        if (m_stream.state != StreamState::Playing)
            continue;
        if (bPlain && last.state != StreamState::Playing)
            print("Playing " + address + (info.IcyName.empty() ? "" : ": " + info.IcyName));
        if (info.NowPlaying != m_shownTitle)
            print(info.LastMetadataTime + " " + info.NowPlaying);
        m_shownTitle = info.NowPlaying;
    }
}

void Program::DrawStream(const std::string& address)
{
    const TovrelAudioPlayer::StreamInfo& info = m_stream.info;
    const bool bReconnecting = m_stream.state == StreamState::Reconnecting;
    const std::string attempt =
        std::to_string(info.ReconnectAttempt) + "/" + std::to_string(info.MaxReconnectAttempts);
    std::string news = bReconnecting ? m_stream.text : info.NowPlaying;
    if (const std::string start = "retry " + attempt + ": "; news.rfind(start, 0) == 0)
        news.erase(0, start.size()); // the state tells this
    m_live.title = Printable((info.IcyName.empty() ? address : info.IcyName) +
                             (news.empty() ? "" : ": " + news));
    // How long it has been heard: the player's own position starts anew with every connection.
    const auto now = Clock::now();
    if (m_stream.state == StreamState::Playing && !m_player.IsPaused())
        m_live.position += std::chrono::duration<double>(now - m_drawnAt).count();
    m_drawnAt = now;
    if (m_bQuit)
        Draw("stopped");
    else if (bReconnecting)
        Draw("reconnecting " + attempt);
    else if (m_player.IsPaused())
        Draw("paused");
    else if (m_stream.state == StreamState::Playing)
        Draw("playing");
    else
        Draw(m_stream.state == StreamState::Buffering ? "buffering" : "connecting");
}

void Program::Fail(const std::string& name, const std::string& text)
{
    m_status = kSomeFailed;
    Complain(name, text);
}

void Program::Complain(const std::string& name, const std::string& text)
{
    m_terminal.ClearLine();
    Print(STDERR_FILENO, "tovrel-play: " + name + ": " + text);
}

// Writes a line when there is room for it. Where nobody reads, signals still end the wait.
void Program::Print(int descriptor, const std::string& text)
{
    const std::string line = Printable(text) + "\n";
    for (size_t written = 0; written < line.size() && !m_bQuit;)
    {
        std::array<pollfd, 2> descriptors{pollfd{m_signals.Descriptor(), POLLIN, 0},
                                          pollfd{descriptor, POLLOUT, 0}};
        poll(descriptors.data(), descriptors.size(), -1);
        TakeSignals();
        if (descriptors[1].revents == 0)
            continue;
        // A pipe that is ready has room for this much.
        const ssize_t count = write(descriptor, line.data() + written,
                                    std::min<size_t>(line.size() - written, PIPE_BUF));
        if (count < 0 && errno != EINTR && errno != EAGAIN)
            return;
        written += count > 0 ? static_cast<size_t>(count) : 0;
    }
}

void Program::TakeSignals()
{
    while (const int signal = m_signals.Next())
        OnSignal(signal);
}

// Silences the player at once. Its worker may not end as soon: one that reads from a pipe may stay
// there as long as nobody writes, one that looks up a host as long as nobody answers.
void Program::StopPlayer()
{
    m_player.RequestStop();
    AwaitOrExit([this] { return m_player.HasFinished(); });
    m_player.Stop();
}

// Waits for a thread that has been told to end, but not for long.
template <class Predicate>
void Program::AwaitOrExit(Predicate bDone)
{
    for (const auto begin = Clock::now(); !bDone();)
    {
        if (Clock::now() - begin > kStopWait)
        {
            m_terminal.Leave();
            std::_Exit(m_status);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

} // namespace

int main(int argc, char** argv)
{
    // Names are taken as UTF-8 wherever the program runs. Numbers keep their points.
    std::setlocale(LC_CTYPE, "C.UTF-8");
    int status = kAllPlayed;
    std::optional<Options> options = ParseOptions(argc, argv, status);
    if (!options)
        return status;
    SilenceDecoderLog();
    return Program(std::move(*options)).Run();
}
