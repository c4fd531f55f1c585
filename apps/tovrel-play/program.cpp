#include "program.h"

#include "playlist.h"
#include "text.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <poll.h>
#include <stdexcept>
#include <thread>
#include <unistd.h>
#include <utility>

namespace
{

constexpr int kTickMs = 50;               // between two looks at the player: 20 lines a second
constexpr int kScreenTickMs = 33;         // 30 pictures a second
constexpr double kCutShortSeconds = 1.0;  // what headers may promise too much without being wrong
constexpr double kBeginAnewSeconds = 3.0; // after which "previous" is the same one again
constexpr std::chrono::seconds kLengthWait{1};      // for a length, before --start gives up silence
constexpr std::chrono::milliseconds kStopWait{500}; // for a thread that somebody keeps waiting
constexpr std::chrono::milliseconds kPauseTime{50}; // until the sound graph knows of a pause
constexpr double kUsualLagSeconds = 0.33;           // from the tap to the ear, where nothing tells
constexpr double kMostLagSeconds = 1.0;
constexpr int kMaxPlaylistDepth = 8; // of playlists that name playlists
constexpr int kOneStream = -1;       // instead: a playlist that is to be played as it is
constexpr size_t kMostTitles = 200;
constexpr size_t kMostComplaints = 200;
constexpr size_t kMostEntries = 100000; // of which playlists may make a queue
constexpr std::string_view kInput = "-";

constexpr int kSomeFailed = 1;
constexpr int kSignalStatus = 128; // and the signal's number

using StreamState = TovrelAudioPlayer::StreamState;

bool IsFolder(const std::string& name)
{
    std::error_code error;
    return !IsAddress(name) && std::filesystem::is_directory(name, error);
}

// What names others and can be read at once.
bool IsLocalList(const std::string& name)
{
    std::error_code error;
    return IsFolder(name) ||
           (!IsAddress(name) && IsPlaylist(name) && std::filesystem::is_regular_file(name, error));
}

std::string Label(const std::string& name)
{
    if (name == kInput)
        return "standard input";
    std::filesystem::path path = name;
    if (!path.has_filename()) // "music/"
        path = path.parent_path();
    return Printable(IsAddress(name) || !path.has_filename() ? name : path.filename().string());
}

Entry EntryOf(const std::string& name, int depth = 0)
{
    return {name, depth, Label(name)};
}

} // namespace

void StreamInbox::Put(StreamReport report)
{
    constexpr size_t kMostReports = 1000;
    const std::lock_guard lock(m_mutex);
    if (m_reports.size() == kMostReports)
        m_reports.pop_front();
    m_reports.push_back(std::move(report));
}

std::deque<StreamReport> StreamInbox::Take()
{
    const std::lock_guard lock(m_mutex);
    return std::exchange(m_reports, {});
}

// ------------------------------------------------------------------------------------------------
// The way through the queue

Program::Program(Options options, bool bUtf8) :
    m_options(std::move(options)), m_bUtf8(bUtf8), m_terminal(!m_options.bJson, m_options.bKeys),
    m_begun(Clock::now())
{
    m_settings = LoadSettings();
    const bool bScreen = !m_options.bLine && !m_options.bJson && m_options.bKeys;
    m_player.SetPan(m_options.pan);
    m_player.SetEqualizerBands(true, m_options.gainsDb);
    m_status.gainsDb = m_options.gainsDb;
    m_queue.SetRepeat(m_options.bRepeat ? Repeat::All : Repeat::Off);
    for (const std::string& name : m_options.names)
        for (const std::string& match : MatchingFiles(LocalName(name)))
            m_queue.Add(EntryOf(match));
    ListPresets();
    m_player.SetAudioPCMCallback([this](auto... block) { OnBlock(block...); });
    if (bScreen)
        m_screen = Screen::Open(*this, bUtf8);
    m_bMetered = m_screen != nullptr;
    // What somebody has set by ear is theirs; a program's call gets what it asks for.
    m_player.SetVolume(m_options.volume.value_or(m_screen ? m_settings.volume.value_or(1.0) : 1.0));
    m_mpris = Mpris::Connect(*this, m_status, m_queue);
}

Program::~Program()
{
    m_player.Stop(); // before what its tap uses
}

int Program::Run()
{
    Gather();
    if (m_options.bShuffle)
        m_queue.SetShuffle(true);
    if (!m_options.recording.empty() && !m_bQuit)
    {
        std::error_code error;
        for (const Entry& entry : m_queue.Entries())
            if (std::filesystem::equivalent(entry.name, m_options.recording, error))
                throw RecordingError("It is to be played, and would be lost.");
        m_recorder = std::make_unique<Recorder>(m_options.recording);
    }
    while (!m_bQuit)
    {
        const size_t index = Following();
        m_bLeave = false;
        if (index != Queue::kNone)
            PlayEntry(index);
        else if (m_options.bOnce || !Idle())
            break;
    }
    m_player.Stop();
    Close();
    return m_exitStatus;
}

// Gives the terminal back, and tells and keeps what is left to be.
void Program::Close()
{
    m_terminal.Leave();
    if (m_screen && !m_options.volume)
    {
        m_settings = LoadSettings(); // another player may have kept presets meanwhile
        m_settings.volume = std::round(m_player.Volume() * 100.0) / 100.0; // as it is shown
        if (const std::string error = SaveSettings(m_settings); !error.empty())
            Complain("settings", error);
    }
    m_screen.reset();
    for (const std::string& complaint : std::exchange(m_complaints, {}))
        Print(STDERR_FILENO, complaint);
    if (m_recorder)
    {
        const std::string error = m_recorder->Close();
        const uint64_t dropped = m_recorder->DroppedBlocks();
        if (!error.empty())
            Fail(m_options.recording, error);
        else if (dropped > 0)
            Fail(m_options.recording, std::to_string(dropped) + " blocks are missing.");
    }
}

// Puts what stands in folders and in playlists on this machine in their places, before anything
// plays, so that all of it can be seen and mixed. Those of servers wait until it is their turn.
void Program::Gather()
{
    for (size_t index = 0; index < m_queue.Entries().size() && !m_bQuit;)
    {
        const Entry entry = m_queue.Entries()[index];
        if (entry.depth == kOneStream || !IsLocalList(entry.name))
            ++index;
        else if (!Expand(index))
            m_queue.Replace(index, {}); // it has been complained about
        if (m_bLeave)
            break;
    }
    m_failures = 0;
}

// The entry to play next; kNone where there is none.
size_t Program::Following()
{
    switch (std::exchange(m_request, Request::ByItself))
    {
    case Request::Current:
        m_failures = 0;
        return m_queue.Current();
    case Request::Halt:
        return Queue::kNone;
    case Request::ByItself:
        break;
    }
    // Where nothing can be played, repeating it would never end.
    if (m_failures >= m_queue.Entries().size())
        return Queue::kNone;
    return m_queue.Next(m_failures == 0);
}

void Program::Leave(Request request)
{
    m_request = request;
    m_bLeave = true;
}

void Program::PlayEntry(size_t index)
{
    const Entry entry = m_queue.Entries()[index];
    m_queue.At(index).bFailed = false; // it may be there by now
    m_status.name = entry.name;
    ++m_status.plays;
    m_status.bStream = false;
    m_status.title.clear();
    m_status.artist.clear();
    m_status.album.clear();
    m_status.stream = {};
    m_status.titles.clear();
    m_status.live.position = 0.0;
    m_status.live.duration = -1.0;
    const size_t failures = m_failures;
    if (entry.depth != kOneStream && (IsPlaylist(entry.name) || IsFolder(entry.name)))
        Expand(index);
    else if (entry.name == kInput)
        PlayInput();
    else if (IsAddress(entry.name))
        PlayStream(entry.name);
    else
        PlayFile(entry.name);
    if (m_failures == failures)
        m_failures = 0;
}

// Puts what stands in a playlist or a folder in its place, or plays a playlist that is one stream.
// False where it can do neither, and has said so.
bool Program::Expand(size_t index)
{
    const Entry entry = m_queue.Entries()[index];
    m_status.name = entry.name;
    const auto fail = [&](const std::string& text)
    {
        Fail(entry.name, text);
        return false;
    };
    if (entry.depth >= kMaxPlaylistDepth)
        return fail("Too many playlists that name playlists.");
    std::atomic<bool> bCancel{false};
    std::atomic<bool> bDone{false};
    Playlist playlist;
    // The main thread stays free for Ctrl-C.
    std::thread reader(
        [&]
        {
            playlist = IsFolder(entry.name) ? ReadFolder(entry.name, bCancel)
                                            : ReadPlaylist(entry.name, bCancel);
            bDone = true;
        });
    m_status.live.title = entry.label;
    m_status.live.bEndless = true;
    m_status.live.position = 0.0;
    while (!m_bLeave && !bDone)
    {
        Show("opening", Activity::Opening);
        WaitForEvents();
    }
    bCancel = true;
    AwaitOrExit([&] { return bDone.load(); });
    reader.join();
    if (m_bLeave)
        return true;
    if (!playlist.error.empty())
        return fail(playlist.error);
    if (m_queue.Entries().size() + playlist.entries.size() > kMostEntries)
        return fail("Too much to play.");
    std::vector<Entry> entries;
    for (const std::string& name : playlist.entries)
        entries.push_back(EntryOf(name, entry.depth + 1));
    if (playlist.bOneStream)
        entries.push_back(EntryOf(entry.name, kOneStream));
    const bool bCurrent = m_queue.Current() == index;
    m_queue.Replace(index, std::move(entries));
    if (bCurrent)
        m_request = Request::Current;
    return true;
}

// Waits for something to do, at the end of the queue. False where nobody can tell what.
bool Program::Idle()
{
    m_status.live.position = 0.0;
    m_status.bPaused = false;
    while (!m_bLeave && m_screen && m_screen->HasKeys())
    {
        Show("stopped", Activity::Stopped);
        WaitForEvents();
    }
    return m_bLeave;
}

// ------------------------------------------------------------------------------------------------
// One entry

void Program::PlayFile(const std::string& file)
{
    m_progress.Reset();
    m_bLive = false;
    m_started = Clock::now();
    // What is no address is a file, also where it looks like FFmpeg's names for other things
    // ("concat:..."): "./" keeps them apart.
    m_player.PlayFile(file.rfind('/', 0) == 0 ? file : "./" + file);
    m_bStartPending = m_options.startSeconds > 0.0;
    if (m_bStartPending || m_status.bPaused)
        m_player.SetPaused(true); // so that nothing is heard before the seek
    const FileInfo info = ReadFileInfo(file);
    m_status.title = Printable(info.title);
    m_status.artist = Printable(info.artist);
    m_status.album = Printable(info.album);
    m_status.live.title = info.title.empty() ? Label(file) : Printable(TitleLine(info));
    if (m_queue.Current() != Queue::kNone)
        m_queue.At(m_queue.Current()).label = m_status.live.title;
    Hear(info);
}

// What a file or a buffer of samples has in common, once it plays.
void Program::Hear(const FileInfo& info)
{
    m_status.live.bEndless = false;
    m_bAnnounced = false;
    while (!m_bLeave && !m_player.HasFinished())
    {
        SeekToStart();
        if (m_progress.bStarted)
            AnnounceOnce(info);
        ShowFile(IsOpening() ? "opening" : m_player.IsPaused() ? "paused" : "playing");
        WaitForEvents();
    }
    if (m_bLeave)
        ShowFile("stopped");
    else if (m_progress.bStarted || m_player.LastError().empty()) // also what was over at once
        AnnounceOnce(info);
    StopPlayer();
    m_bStartPending = false;
    if (!m_bLeave)
        Conclude(info);
}

// All of standard input as it comes, and then its sound: a buffer is played as a whole.
void Program::PlayInput()
{
    std::vector<float> samples;
    size_t bytes = 0;
    if (std::exchange(m_bInputRead, true))
        return Fail(m_status.name, "Standard input can be read only once.");
    m_status.live.title = Label(m_status.name);
    m_status.live.bEndless = true;
    for (bool bEnd = false; !m_bLeave && !bEnd;)
    {
        Show("reading", Activity::Opening);
        WaitForEvents(STDIN_FILENO);
        // Some at a time: whoever writes may never let it run dry.
        constexpr int kBlocksAtOnce = 64;
        pollfd in{STDIN_FILENO, POLLIN, 0};
        for (int block = 0; block < kBlocksAtOnce && !bEnd && poll(&in, 1, 0) == 1; ++block)
        {
            constexpr size_t kMostBytes = 1 << 16;
            samples.resize((bytes + kMostBytes) / sizeof(float) + 1);
            const ssize_t count =
                read(STDIN_FILENO, reinterpret_cast<char*>(samples.data()) + bytes, kMostBytes);
            bEnd = count == 0 || (count < 0 && errno != EINTR && errno != EAGAIN);
            bytes += count > 0 ? static_cast<size_t>(count) : 0;
        }
    }
    if (m_bLeave)
        return;
    const auto channels = static_cast<size_t>(m_options.channels);
    samples.resize(bytes / (sizeof(float) * channels) * channels);
    m_progress.Reset();
    m_bLive = false;
    std::string error;
    if (!m_player.PlayPcm(std::move(samples), m_options.rateHz, m_options.channels,
                          m_options.startSeconds, &error))
        return Fail(m_status.name, error);
    if (m_status.bPaused)
        m_player.SetPaused(true);
    Hear({});
}

void Program::PlayStream(const std::string& address)
{
    m_stream = {};
    m_shownTitle.clear();
    m_drawnAt = Clock::now();
    m_bLive = true;
    m_status.live.bEndless = true;
    m_status.bStream = true;
    m_player.PlayStream(address,
                        [this](StreamState state, const auto& info, const auto& text) {
                            m_inbox.Put({state, info, text});
                        });
    if (m_status.bPaused)
        m_player.SetPaused(true);
    while (!m_bLeave && !m_player.HasFinished())
    {
        if (!m_screen)
            m_terminal.Update();
        TakeReports(address);
        ShowStream(address);
        WaitForEvents();
    }
    if (m_bLeave)
        ShowStream(address);
    StopPlayer();
    if (m_bLeave)
    {
        m_inbox.Take();
        return;
    }
    TakeReports(address);
    // A decoder's error ends a stream without a word in the report; only the player knows.
    Fail(address, m_stream.text.empty() ? m_player.LastError() : m_stream.text);
}

void Program::SeekToStart()
{
    if (!m_bStartPending)
        return;
    const bool bKnown = m_player.DurationSeconds() > 0.0;
    if (bKnown)
        m_player.SeekToSeconds(m_options.startSeconds);
    // Without a length the worker, which waits in the pause, cannot be told from one that has yet
    // to open the file: after a while it is let go, and shows which it is.
    if ((bKnown || Clock::now() - m_started > kLengthWait) && !m_status.bPaused)
        m_player.SetPaused(false);
    if (!bKnown && m_progress.bStarted)
        Complain(m_status.name, "The length is unknown: played from its beginning.");
    m_bStartPending = !bKnown && !m_progress.bStarted;
}

// Where there is no live line, one line when a file starts.
void Program::AnnounceOnce(const FileInfo& info)
{
    if (std::exchange(m_bAnnounced, true) || !IsPlain())
        return;
    const double duration = m_player.DurationSeconds();
    const std::string title = TitleLine(info);
    Print(STDOUT_FILENO, "Playing " + m_status.name + (title.empty() ? "" : ": " + title) + " (" +
                             (duration > 0.0 ? ClockText(duration) : "length unknown") + ")");
}

// The last line of a file that has ended by itself, or what was wrong with it.
void Program::Conclude(const FileInfo& info)
{
    const std::string error = m_player.LastError();
    if (!error.empty())
        return Fail(m_status.name, error);
    ShowFile("done");
    m_terminal.KeepLine();
    // A seek in the last moments moves the one of these that is wrong then.
    const double end = std::max(m_player.CurrentSeconds(), m_progress.endSeconds.load());
    const double duration = m_player.DurationSeconds();
    if (info.bStatesLength && end < duration - kCutShortSeconds)
        Fail(m_status.name, "The file is cut short: it ended at " + ClockText(end) + " of " +
                                ClockText(duration) + ".");
}

// Tells of what has changed since the last call.
void Program::TakeReports(const std::string& address)
{
    const bool bPlain = IsPlain();
    const auto print = [this](const std::string& line)
    {
        if (m_screen || m_options.bJson)
            return;
        m_terminal.ClearLine();
        Print(STDOUT_FILENO, line);
    };
    for (StreamReport& report : m_inbox.Take())
    {
        const StreamReport last = std::exchange(m_stream, std::move(report));
        const TovrelAudioPlayer::StreamInfo& info = m_stream.info;
        m_status.stream = info;
        if (bPlain && m_stream.state == StreamState::Connecting)
            print("Connecting to " + address);
        // Each attempt is reported with its number and the reason, and once more when it begins.
        if (info.ReconnectAttempt != last.info.ReconnectAttempt)
        {
            if (bPlain)
                print("Reconnecting: " + m_stream.text);
            m_status.error = Printable(address + ": " + m_stream.text);
            if (m_options.bJson)
                Write(STDOUT_FILENO, JsonLines::Error(address, m_stream.text) + "\n");
        }
        if (m_stream.state != StreamState::Playing)
            continue;
        if (bPlain && last.state != StreamState::Playing)
            print("Playing " + address + (info.IcyName.empty() ? "" : ": " + info.IcyName));
        if (info.NowPlaying != m_shownTitle)
        {
            print(info.LastMetadataTime + " " + info.NowPlaying);
            m_status.titles.push_front({info.LastMetadataTime, info.NowPlaying});
            if (m_status.titles.size() > kMostTitles)
                m_status.titles.pop_back();
        }
        m_shownTitle = info.NowPlaying;
    }
}

// Silences the player at once. Its worker may not end as soon: one that reads from a pipe may stay
// there as long as nobody writes, one that looks up a host as long as nobody answers.
void Program::StopPlayer()
{
    m_player.RequestStop();
    AwaitOrExit([this] { return m_player.HasFinished(); });
    m_player.Stop();
}

// ------------------------------------------------------------------------------------------------
// What may be asked

void Program::Quit()
{
    m_bQuit = true;
    m_bLeave = true;
}

void Program::Play()
{
    // While an entry is left the next one is chosen already.
    const bool bIdle = !m_bLeave && m_status.activity == Activity::Stopped;
    if (bIdle && !m_queue.Entries().empty())
        Choose(m_queue.Current() == Queue::kNone ? 0 : m_queue.Current());
    else
        Pause(false);
}

void Program::Pause(bool bPause)
{
    m_status.bPaused = bPause;
    if (!m_bStartPending) // else the player's pause is not the user's
        m_player.SetPaused(bPause);
}

void Program::TogglePause()
{
    if (m_status.bPaused || m_status.activity == Activity::Stopped)
        Play();
    else
        Pause(true);
}

void Program::Halt()
{
    // Off the full screen this is the end: there is no key that could make it go on.
    Leave(Request::Halt);
}

void Program::Next()
{
    if (!m_queue.HasNext())
        return;
    m_queue.Next(false); // at once: the key may be pressed again before this entry is left
    Leave(Request::Current);
}

void Program::Previous()
{
    const bool bBegun = !m_bLeave && m_player.DurationSeconds() > 0.0 && !m_status.live.bEndless &&
                        m_status.live.position > kBeginAnewSeconds;
    if (bBegun || !m_queue.HasPrevious())
        return SeekTo(0.0);
    m_queue.Previous();
    Leave(Request::Current);
}

void Program::Choose(size_t index)
{
    m_queue.Choose(index);
    m_status.bPaused = false;
    Leave(Request::Current);
}

void Program::Open(const std::string& name)
{
    m_queue.Add(EntryOf(IsAddress(name) ? LocalName(name) : FileName(name)));
    Choose(m_queue.Entries().size() - 1);
}

void Program::SeekBy(double seconds)
{
    SeekTo(m_player.CurrentSeconds() + seconds);
}

void Program::SeekTo(double seconds)
{
    if (!m_bStartPending)
        m_player.SeekToSeconds(seconds);
}

void Program::SetVolume(double volume)
{
    m_player.SetVolume(volume);
}

void Program::AdjustVolume(double delta)
{
    m_player.AdjustVolume(delta);
}

void Program::AdjustPan(double delta)
{
    m_player.AdjustPan(delta);
}

void Program::ToggleEqualizer()
{
    m_status.live.bEqualizer = !m_status.live.bEqualizer;
    m_player.SetEqualizerEnabled(m_status.live.bEqualizer);
}

void Program::SetGain(size_t band, double dB)
{
    m_status.gainsDb[band] = dB;
    m_player.SetEqualizerBandGain(band, dB);
}

void Program::UsePreset(const Preset& preset)
{
    m_status.gainsDb = preset.gainsDb;
    m_player.SetEqualizerBands(m_status.live.bEqualizer, preset.gainsDb);
}

void Program::KeepPreset(const std::string& name)
{
    m_settings = LoadSettings(); // another player may have kept some meanwhile
    std::erase_if(m_settings.presets, [&](const Preset& preset) { return preset.name == name; });
    m_settings.presets.push_back({name, m_status.gainsDb});
    if (const std::string error = SaveSettings(m_settings); !error.empty())
        Complain(name, error);
    else
        m_settings = LoadSettings(); // in the order that they will have the next time
    ListPresets();
}

void Program::ForgetPreset(const std::string& name)
{
    m_settings = LoadSettings();
    std::erase_if(m_settings.presets, [&](const Preset& preset) { return preset.name == name; });
    if (const std::string error = SaveSettings(m_settings); !error.empty())
        Complain(name, error);
    ListPresets();
}

void Program::SetShuffle(bool bShuffle)
{
    m_queue.SetShuffle(bShuffle);
}

void Program::SetRepeat(Repeat repeat)
{
    m_queue.SetRepeat(repeat);
}

// ------------------------------------------------------------------------------------------------
// Waiting, and what comes in meanwhile

void Program::WaitForEvents(int input)
{
    const int keys = m_screen ? m_screen->KeyDescriptor() : m_terminal.KeyDescriptor();
    std::array<pollfd, 4> descriptors{pollfd{m_signals.Descriptor(), POLLIN, 0},
                                      pollfd{keys, POLLIN, 0}, pollfd{input, POLLIN, 0},
                                      pollfd{m_mpris ? m_mpris->Descriptor() : -1, POLLIN, 0}};
    poll(descriptors.data(), descriptors.size(), m_screen ? kScreenTickMs : kTickMs);
    TakeSignals();
    const bool bLost = descriptors[1].revents & (POLLHUP | POLLERR | POLLNVAL);
    const bool bKey = descriptors[1].revents & POLLIN;
    if (m_screen)
    {
        if (bLost)
            m_screen->LoseKeys();
        else
            m_screen->ReadKeys(m_status, m_queue); // also the change of the size
    }
    else if (bLost)
        m_terminal.LoseKeys();
    else if (bKey)
        for (const Key key : m_terminal.ReadKeys())
            OnKey(key);
    else
        m_terminal.ForgetEscape();
    if (m_mpris && !m_mpris->Process())
        m_mpris.reset();
    if (IsOver())
        Quit();
}

// Whether the time of --duration has passed.
bool Program::IsOver() const
{
    const auto passed = std::chrono::duration<double>(Clock::now() - m_begun).count();
    return m_options.durationSeconds && passed >= *m_options.durationSeconds;
}

void Program::TakeSignals()
{
    while (const int signal = m_signals.Next())
        OnSignal(signal);
}

void Program::OnSignal(int signal)
{
    if (signal == SIGTSTP)
        return Suspend();
    if (signal == SIGCONT)
    {
        if (m_screen)
            m_screen->Retake();
        else
            m_terminal.Retake();
        return;
    }
    Quit();
    m_exitStatus = kSignalStatus + signal;
}

void Program::OnKey(Key key)
{
    switch (key)
    {
    case Key::Pause:
        return TogglePause();
    case Key::Back:
        return SeekBy(-kSeekStepSeconds);
    case Key::Forward:
        return SeekBy(kSeekStepSeconds);
    case Key::Louder:
        return AdjustVolume(kVolumeStep);
    case Key::Softer:
        return AdjustVolume(-kVolumeStep);
    case Key::PanLeft:
        return AdjustPan(-kPanStep);
    case Key::PanRight:
        return AdjustPan(kPanStep);
    case Key::Equalizer:
        return ToggleEqualizer();
    case Key::Next:
        return Next();
    case Key::Previous:
        return Previous();
    case Key::Quit:
        return Quit();
    }
}

// A stopped process makes no sound, but the player's clock would go on without the pause.
void Program::Suspend()
{
    const bool bPaused = m_player.IsPaused();
    m_player.SetPaused(true);
    std::this_thread::sleep_for(kPauseTime);
    m_terminal.Leave();
    if (m_screen)
        m_screen->Leave();
    Signals::StopProcess();
    m_drawnAt = Clock::now(); // a stream was not heard meanwhile
    if (!bPaused)
        m_player.SetPaused(false);
}

// Waits for a thread that has been told to end. It may take its time: who wants another entry waits
// for it, with the keys at hand, who wants to quit does not wait for long.
template <class Predicate>
void Program::AwaitOrExit(Predicate bDone)
{
    auto begin = Clock::now();
    while (!bDone())
    {
        if (!m_bQuit)
        {
            Show(m_status.live.state, m_status.activity);
            WaitForEvents();
            begin = Clock::now();
            continue;
        }
        if (Clock::now() - begin > kStopWait)
        {
            Close();
            std::_Exit(m_exitStatus);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

// ------------------------------------------------------------------------------------------------
// Showing

// On the player's worker.
void Program::OnBlock(const float* samples, int frames, int rate, int channels, long microseconds)
{
    const double begin = static_cast<double>(microseconds) / 1e6;
    m_progress.endSeconds = begin + static_cast<double>(frames) / rate;
    m_progress.bStarted = true;
    if (m_recorder)
        m_recorder->Put(samples, frames, rate, channels);
    if (m_bMetered)
    {
        // How long the block is under way to the ear.
        const bool bTold = !m_bLive && m_player.DurationSeconds() > 0.0;
        const std::chrono::duration<double> lag(
            bTold ? std::clamp(begin - m_player.CurrentSeconds(), 0.0, kMostLagSeconds)
                  : kUsualLagSeconds);
        m_meters.Put(samples, frames, rate, channels,
                     Clock::now() + std::chrono::duration_cast<Clock::duration>(lag));
    }
}

void Program::ShowFile(const std::string& word)
{
    const double duration = m_player.DurationSeconds();
    LiveState& live = m_status.live;
    live.duration = duration > 0.0 ? duration : -1.0;
    // Without a length the player has no position either; the worker's is half a second ahead.
    live.position = duration > 0.0 ? m_player.CurrentSeconds() : m_progress.endSeconds.load();
    Show(word, IsOpening()           ? Activity::Opening
               : m_player.IsPaused() ? Activity::Paused
                                     : Activity::Playing);
}

// Whether the file or buffer is not there yet. One that is paused from its beginning makes no sound
// before it goes on.
bool Program::IsOpening() const
{
    const bool bHeldBack = m_status.bPaused && !m_bStartPending && m_player.DurationSeconds() > 0.0;
    return !m_progress.bStarted && !bHeldBack;
}

void Program::ShowStream(const std::string& address)
{
    const TovrelAudioPlayer::StreamInfo& info = m_stream.info;
    const bool bReconnecting = m_stream.state == StreamState::Reconnecting;
    const std::string attempt =
        std::to_string(info.ReconnectAttempt) + "/" + std::to_string(info.MaxReconnectAttempts);
    std::string news = bReconnecting ? m_stream.text : info.NowPlaying;
    if (const std::string start = "retry " + attempt + ": "; news.rfind(start, 0) == 0)
        news.erase(0, start.size()); // the state tells this
    m_status.live.title = Printable((info.IcyName.empty() ? address : info.IcyName) +
                                    (news.empty() ? "" : ": " + news));
    // How long it has been heard: the player's own position starts anew with every connection.
    const auto now = Clock::now();
    const bool bPlaying = m_stream.state == StreamState::Playing;
    if (bPlaying && !m_player.IsPaused())
        m_status.live.position += std::chrono::duration<double>(now - m_drawnAt).count();
    m_drawnAt = now;
    if (m_bLeave)
        Show("stopped", Activity::Stopped);
    else if (bReconnecting)
        Show("reconnecting " + attempt, Activity::Opening);
    else if (m_player.IsPaused())
        Show("paused", Activity::Paused);
    else if (bPlaying)
        Show("playing", Activity::Playing);
    else
        Show(m_stream.state == StreamState::Buffering ? "buffering" : "connecting",
             Activity::Opening);
}

void Program::Show(const std::string& word, Activity activity)
{
    LiveState& live = m_status.live;
    live.volume = m_player.Volume();
    live.pan = m_player.Pan();
    live.bFlat = std::all_of(m_status.gainsDb.begin(), m_status.gainsDb.end(),
                             [](double dB) { return dB == 0.0; });
    live.state = word;
    m_status.activity = activity;
    m_status.bRecording = m_recorder && !m_recorder->HasFailed();
    if (m_recorder && m_recorder->HasFailed() && !std::exchange(m_bRecordingLost, true))
        Complain(m_options.recording, "The recording has ended: it cannot be written.");
    m_status.droppedBlocks = m_recorder ? m_recorder->DroppedBlocks() : 0;
    if (m_mpris)
        m_mpris->Update();
    if (m_options.bJson)
        for (const std::string& line : m_json.Update(m_status))
            Write(STDOUT_FILENO, line + "\n");
    if (m_screen)
    {
        if (m_screen->SpectrumBands() > 0 && m_meters.HasNewBlock())
            m_meters.PutSpectrum(m_player.CopySpectrumSamples(), m_screen->SpectrumBands());
        m_meters.Update(Clock::now());
        m_screen->Draw(m_status, m_queue, m_meters);
        return;
    }
    m_terminal.Update();
    if (m_terminal.IsActive())
    {
        const std::string line = LiveLine(live, m_terminal.Columns());
        m_terminal.Draw(m_bUtf8 ? line : Ascii(line));
    }
}

void Program::ListPresets()
{
    m_status.presets = BuiltInPresets();
    m_status.builtInPresets = m_status.presets.size();
    m_status.presets.insert(m_status.presets.end(), m_settings.presets.begin(),
                            m_settings.presets.end());
}

void Program::Fail(const std::string& name, const std::string& text)
{
    m_exitStatus = m_exitStatus ? m_exitStatus : kSomeFailed;
    ++m_failures;
    if (m_queue.Current() != Queue::kNone && m_queue.Entries()[m_queue.Current()].name == name)
        m_queue.At(m_queue.Current()).bFailed = true;
    Complain(name, text);
}

void Program::Complain(const std::string& name, const std::string& text)
{
    const std::string line = "tovrel-play: " + name + ": " + text;
    m_status.error = Printable(Label(name) + ": " + text);
    if (m_options.bJson)
        Write(STDOUT_FILENO, JsonLines::Error(name, text) + "\n");
    if (m_screen)
    {
        if (m_complaints.size() < kMostComplaints)
            m_complaints.push_back(line);
        return;
    }
    m_terminal.ClearLine();
    Print(STDERR_FILENO, line);
}

void Program::Print(int descriptor, const std::string& text)
{
    Write(descriptor, Printable(text) + "\n");
}

// Writes when there is room for it. Where nobody reads, a signal or --duration still ends the wait.
void Program::Write(int descriptor, const std::string& text)
{
    for (size_t written = 0; written < text.size();)
    {
        const bool bHurry = m_exitStatus >= kSignalStatus || IsOver();
        std::array<pollfd, 2> descriptors{pollfd{m_signals.Descriptor(), POLLIN, 0},
                                          pollfd{descriptor, POLLOUT, 0}};
        poll(descriptors.data(), descriptors.size(),
             bHurry                      ? 0
             : m_options.durationSeconds ? kTickMs
                                         : -1);
        TakeSignals();
        if (descriptors[1].revents == 0)
        {
            if (bHurry)
                return;
            continue;
        }
        // A pipe that is ready has room for this much.
        const ssize_t count = write(descriptor, text.data() + written,
                                    std::min<size_t>(text.size() - written, PIPE_BUF));
        if (count < 0 && errno == EPIPE && m_exitStatus < kSignalStatus)
            OnSignal(SIGPIPE); // as it ends those who do not look
        if (count < 0 && errno != EINTR && errno != EAGAIN)
            return;
        written += count > 0 ? static_cast<size_t>(count) : 0;
    }
}
