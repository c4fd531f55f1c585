// tovrel-play: plays audio files, with one live line and keys on a terminal.
#include "file_info.h"
#include "options.h"
#include "terminal.h"
#include "text.h"
#include "tovrel_audio_player.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <poll.h>
#include <sys/signalfd.h>
#include <thread>
#include <unistd.h>

namespace
{

using Clock = std::chrono::steady_clock;

constexpr int kTickMs = 50; // between two looks at the player: 20 lines a second
constexpr double kSeekStepSeconds = 5.0;
constexpr double kVolumeStep = 0.05;
constexpr double kPanStep = 0.1;
constexpr double kCutShortSeconds = 1.0; // what headers may promise too much without being wrong
constexpr std::chrono::seconds kLengthWait{1};      // for a length, before --start gives up silence
constexpr std::chrono::milliseconds kStopWait{500}; // for a worker that waits for its file
constexpr std::chrono::milliseconds kPauseTime{50}; // until the sound graph knows of a pause

constexpr int kAllPlayed = 0;
constexpr int kSomeFailed = 1;
constexpr int kSignalStatus = 128; // and the signal's number

// Signals as something to poll. They are blocked in every thread that is started later.
class Signals
{
public:
    Signals()
    {
        sigemptyset(&m_set);
        for (const int signal : {SIGINT, SIGTERM, SIGQUIT, SIGTSTP, SIGCONT})
            sigaddset(&m_set, signal);
        struct sigaction hangup;
        sigaction(SIGHUP, nullptr, &hangup);
        if (hangup.sa_handler != SIG_IGN) // as nohup leaves it
            sigaddset(&m_set, SIGHUP);
        pthread_sigmask(SIG_BLOCK, &m_set, nullptr);
        m_descriptor = signalfd(-1, &m_set, SFD_CLOEXEC | SFD_NONBLOCK);
    }
    ~Signals() { close(m_descriptor); }
    Signals(const Signals&) = delete;
    Signals& operator=(const Signals&) = delete;

    int Descriptor() const { return m_descriptor; }

    // 0 when there is none.
    int Next()
    {
        signalfd_siginfo info{};
        return read(m_descriptor, &info, sizeof info) == sizeof info
                   ? static_cast<int>(info.ssi_signo)
                   : 0;
    }

    // Stops this process as Ctrl-Z does where nobody catches it: not at all where nobody could
    // make it go on. Returns when it goes on.
    static void StopProcess()
    {
        sigset_t stop;
        sigemptyset(&stop);
        sigaddset(&stop, SIGTSTP);
        std::raise(SIGTSTP);
        pthread_sigmask(SIG_UNBLOCK, &stop, nullptr);
        pthread_sigmask(SIG_BLOCK, &stop, nullptr);
    }

private:
    sigset_t m_set{};
    int m_descriptor = -1;
};

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

class Program
{
public:
    explicit Program(Options options);

    // Plays everything; returns the exit status.
    int Run();

private:
    // False when nothing more is to be played.
    bool PlayOne(const std::string& file);
    void WaitForEvents();
    void OnSignal(int signal);
    void OnKey(Key key);
    void Suspend();
    void SeekToStart(const std::string& file);
    void AnnounceOnce(const std::string& file, const FileInfo& info);
    void Draw(const char* word);
    void Conclude(const std::string& file, const FileInfo& info);
    void Complain(const std::string& file, const std::string& text);
    void StopPlayer();

    const Options m_options;
    Signals m_signals; // before the player, and so before any thread
    Terminal m_terminal;
    Progress m_progress;
    TovrelAudioPlayer m_player;
    LiveState m_live;
    bool m_bAnnounced = false;
    bool m_bStartPending = false; // --start waits for the length of the file
    Clock::time_point m_started;
    bool m_bQuit = false;
    int m_status = kAllPlayed;
};

Program::Program(Options options) : m_options(std::move(options))
{
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
    for (const std::string& file : m_options.files)
        if (!PlayOne(file))
            break;
    return m_status;
}

bool Program::PlayOne(const std::string& file)
{
    m_progress.Reset();
    m_bAnnounced = false;
    m_started = Clock::now();
    // Names are names of files, also when they look like an address ("http://..."): "./" keeps
    // them apart.
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
        Draw(!m_progress.bStarted ? "opening" : m_player.IsPaused() ? "paused" : "playing");
        WaitForEvents();
    }
    if (m_bQuit)
        Draw("stopped");
    else if (m_progress.bStarted || m_player.LastError().empty()) // also what was over at once
        AnnounceOnce(file, info);
    StopPlayer();
    if (m_bQuit)
        return false;
    Conclude(file, info);
    return true;
}

void Program::WaitForEvents()
{
    std::array<pollfd, 2> descriptors{pollfd{m_signals.Descriptor(), POLLIN, 0},
                                      pollfd{m_terminal.KeyDescriptor(), POLLIN, 0}};
    poll(descriptors.data(), descriptors.size(), kTickMs);
    while (const int signal = m_signals.Next())
        OnSignal(signal);
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
    std::printf("Playing %s%s%s (%s)\n", Printable(file).c_str(), info.title.empty() ? "" : ": ",
                Printable(info.title).c_str(),
                duration > 0.0 ? ClockText(duration).c_str() : "length unknown");
    std::fflush(stdout);
}

void Program::Draw(const char* word)
{
    if (!m_terminal.IsActive())
        return;
    const double duration = m_player.DurationSeconds();
    m_live.duration = duration > 0.0 ? duration : -1.0;
    // Without a length the player has no position either; the worker's is half a second ahead.
    m_live.position = duration > 0.0 ? m_player.CurrentSeconds() : m_progress.endSeconds.load();
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
    {
        m_status = kSomeFailed;
        m_terminal.ClearLine();
        return Complain(file, error);
    }
    Draw("done");
    m_terminal.KeepLine();
    // A seek in the last moments moves the one of these that is wrong then.
    const double end = std::max(m_player.CurrentSeconds(), m_progress.endSeconds.load());
    const double duration = m_player.DurationSeconds();
    if (info.bStatesLength && end < duration - kCutShortSeconds)
    {
        m_status = kSomeFailed;
        Complain(file, "The file is cut short: it ended at " + ClockText(end) + " of " +
                           ClockText(duration) + ".");
    }
}

void Program::Complain(const std::string& file, const std::string& text)
{
    m_terminal.ClearLine();
    std::fprintf(stderr, "tovrel-play: %s: %s\n", Printable(file).c_str(), text.c_str());
}

// Silences the player at once and waits for its worker, but not for long: one that reads from a
// pipe may stay there as long as nobody writes.
void Program::StopPlayer()
{
    m_player.RequestStop();
    for (const auto begin = Clock::now(); !m_player.HasFinished();)
    {
        if (Clock::now() - begin > kStopWait)
        {
            m_terminal.Leave();
            std::_Exit(m_status);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    m_player.Stop();
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
