// TovrelAudioPlayer: plays local files, internet radio and PCM buffers through PipeWire.
//
// A complete program:
//
//     #include "tovrel_audio_player.h"
//     #include <chrono>
//     #include <cstdio>
//     #include <thread>
//
//     int main(int argc, char** argv)
//     {
//         if (argc < 2) return std::puts("usage: play FILE"), 2;
//         TovrelAudioPlayer player;
//         player.PlayFile(argv[1]);
//         while (!player.HasFinished())
//             std::this_thread::sleep_for(std::chrono::milliseconds(50));
//         std::puts(player.LastError().c_str());
//         return player.LastError().empty() ? 0 : 1;
//     }
//
// Build: c++ -std=c++20 play.cpp $(pkg-config --cflags --libs tovrel-audio)
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

struct AVCodecContext;
struct AVFormatContext;
struct AVIOContext;
struct SwrContext;
class PipeWirePlayer;

// A file in memory and the FFmpeg I/O context that reads it. Internal to the player; declared here
// because two of its operations name it. It stays where it was made: FFmpeg knows its address.
struct TovrelAudioCachedFileInput
{
    std::vector<uint8_t> Bytes;    // the whole file
    size_t Position = 0;           // of the next read, 0 to Bytes.size()
    uint8_t* AvioBuffer = nullptr; // from av_malloc, on its way into `Avio`
    AVIOContext* Avio = nullptr;   // read-only

    TovrelAudioCachedFileInput() = default;
    TovrelAudioCachedFileInput(const TovrelAudioCachedFileInput&) = delete;
    TovrelAudioCachedFileInput& operator=(const TovrelAudioCachedFileInput&) = delete;
    ~TovrelAudioCachedFileInput();
};

// One player, one playback at a time.
//
// Every playback runs on a worker thread of its own; the operations here store values, take short
// locks and return. Unless an operation says otherwise it belongs to one control thread (the one
// that owns the player), returns within microseconds, and cannot fail. Reading operations (those
// that are const) may be called from any thread.
//
// Errors: operations that can fail return false and assign one English sentence to `ErrorMessage`
// where that is not null. What fails later, on the worker, is told by LastError. The player throws
// nothing of its own; the standard library's exceptions come through where a mutex cannot be
// locked, a thread cannot be started or memory for a copy runs out.
//
// The sound: files and radio are converted to 48000 Hz stereo, PCM buffers are played at their own
// rate and channel count. Every block passes the equalizer, then loudness gain, volume and pan,
// then the spectrum capture and the PCM tap, and goes to PipeWire. Nothing is clipped or limited on
// the way.
class TovrelAudioPlayer
{
public:
    static constexpr size_t EqualizerBandCount = 10;

    // The PCM tap: (samples, frames, sample rate in Hz, channels, position in microseconds).
    // `samples` holds frames x channels interleaved floats as they go to the output.
    using PCMCallback = std::function<void(const float*, int, int, int, long)>;

    // What a radio playback is doing.
    enum class StreamState : int
    {
        Idle = 0,         // nothing yet; never reported
        Connecting = 1,   // opening the URL for the first time
        Buffering = 2,    // connected; silent until 0.7 s of sound is queued
        Playing = 3,      // sound is being delivered
        Reconnecting = 4, // the connection failed or broke off; waiting, or opening it again
        Error = 5,        // gave up, with the reason; always the last report
        Stopped = 6,      // ended on request, or by a decoding error; always the last report
    };

    // What is known about a radio stream. Texts are as the server sent them, in whatever encoding,
    // and empty where it sent none.
    struct StreamInfo
    {
        std::string Codec;       // FFmpeg's short name ("mp3")
        std::string Format;      // the container's long name
        std::string ContentType; // of the HTTP response ("audio/mpeg")
        std::string IcyName;     // the station
        std::string IcyGenre;
        std::string IcyBitrate;
        std::string IcySampleRate;
        std::string IcyUrl;    // the station's home page
        std::string IcyPublic; // "1" where it wants to be listed in directories
        std::string IcyNotice1;
        std::string IcyNotice2;
        std::string NowPlaying;       // the current title; stays through gaps and reconnections
        std::string LastMetadataTime; // local time at which it changed, HH:MM:SS
        int BitRate = 0;              // bits per second, 0 where unknown
        int SampleRate = 0;           // Hz, before conversion
        int Channels = 0;             // before conversion
        int ReconnectAttempt = 0;     // failures so far in this playback
        int MaxReconnectAttempts = 0; // one more failure than this ends it
    };

    // Told on the worker thread whenever the state or the title changes and about once a second
    // while packets arrive; the text is the reason of a Reconnecting or Error report. The end of
    // buffering is reported as Playing twice. The references are valid during the call only. It may
    // take its time within the 2 s that are queued, and may throw (which is dropped), but must not
    // call Stop or a Play operation: it would wait for itself.
    using StreamStatusCallback =
        std::function<void(StreamState, const StreamInfo&, const std::string&)>;

    // Nothing is opened and nothing is started. Volume 1, pan 0, equalizer on with all gains 0 dB.
    TovrelAudioPlayer();

    // Stops as Stop does.
    ~TovrelAudioPlayer();

    TovrelAudioPlayer(const TovrelAudioPlayer&) = delete;
    TovrelAudioPlayer& operator=(const TovrelAudioPlayer&) = delete;

    // Playing.
    // Each of these first stops the current playback as Stop does, even when it then rejects its
    // own arguments, and so blocks as long as Stop does.

    // Plays a local file from its start, in any format that FFmpeg reads, and honours its
    // ReplayGain or R128 tags. Always true: the file is opened on the worker, and whatever is wrong
    // with it is found in LastError once HasFinished. Files up to 512 MiB are read into memory
    // first; larger ones play from disk.
    bool PlayFile(const std::string& Path, std::string* ErrorMessage = nullptr);

    // Plays an internet radio stream (HTTP or HTTPS, with ICY titles) in any format that FFmpeg
    // reads. A stream that cannot be opened or breaks off is tried again after 2 s, up to 300 times
    // per playback. `Callback`, which may be empty, is told how it goes. A stream has no duration
    // and no end, its position reads 0 and it cannot be sought in; a pause holds what is queued.
    // False, with "No radio stream URL entered.", for an empty URL; LastError is left alone then.
    bool PlayStream(const std::string& Url, StreamStatusCallback Callback = {},
                    std::string* ErrorMessage = nullptr);

    // Plays interleaved float samples at `SampleRate` (Hz, up to 768000) with `Channels` channels
    // (up to 64), without conversion, from `StartSeconds` (clamped to the buffer). Samples past
    // the last whole frame are not played. False, with "No PCM audio available for playback.", when
    // there are no samples or the rate or channel count is not positive; LastError is left alone
    // then.
    bool PlayPcm(std::vector<float> Frames, int SampleRate, int Channels, double StartSeconds = 0.0,
                 std::string* ErrorMessage = nullptr);

    // Silences the output within one cycle of PipeWire's graph and leaves the worker to end by
    // itself, soon. May be called from any thread, also from the callbacks.
    void RequestStop();

    // RequestStop, then waits for the worker and closes the output. Blocks for a few milliseconds
    // (one poll of the worker), for radio up to 0.1 s, longer where the worker is inside a call
    // that cannot be cut short: reading a file into memory, one FFmpeg call, the look-up of a
    // host's name, up to 2 s for a PipeWire daemon that hangs, the opening of a named pipe that
    // nobody writes to. Once it has returned no callback of this playback runs any more. Never call
    // it from the PCM tap or the stream's callback, which run on the worker: it would wait for
    // itself.
    void Stop();

    // Pause, position, seeking.

    // Pauses or resumes; does nothing while nothing plays. The output falls silent within one
    // cycle of PipeWire's graph and goes on where it stood, no frame lost or repeated.
    void SetPaused(bool paused);
    void TogglePaused();

    // Seeks to a position in seconds, clamped to [0, duration]. The position reads the target at
    // once, also while paused; the worker follows at its next step. In compressed files sound
    // resumes at the nearest point before the target from which decoding is possible. Does nothing
    // where the duration is unknown or `seconds` is not a number, and comes too late once the last
    // block is queued, which is half a second before the end of a file, a third before a buffer's.
    void SeekToSeconds(double seconds);

    // The same with a fraction of the duration, clamped to [0, 1].
    void SeekToFraction(double fraction);

    // The position in seconds. While playing it lies within [0, duration], runs with the wall clock
    // from the last start, seek or resume, and is 0 where the duration is unknown; afterwards it
    // is where the playback ended (of radio: what its last connection has decoded).
    double CurrentSeconds() const;

    // The length of the material in seconds; 0 where it is unknown, as it is until the worker has
    // opened a file.
    double DurationSeconds() const { return DurationSec; }

    // Volume, pan, equalizer.
    // All take effect at the next block and last from one playback to the next.

    // Linear volume, clamped to [0, 1.5]; above 1 the samples may exceed [-1, 1].
    void SetVolume(double v);
    double Volume() const { return VolumeValue; }

    // Adds to the volume: a read and a store, not one atomic step.
    void AdjustVolume(double delta);

    // Constant-power pan, clamped to [-1 (left), +1 (right)]. The centre is unity gain and a hard
    // pan raises its side by 3 dB. Mono material is not panned, channels past the second neither.
    void SetPan(double p);
    double Pan() const { return PanValue; }

    // Adds to the pan: a read and a store, not one atomic step.
    void AdjustPan(double delta);

    // Ten peaking bands at 31, 62, 125, 250, 500, 1000, 2000, 4000, 8000 and 16000 Hz, Q 1.15.
    // May be called from any thread.
    void SetEqualizerEnabled(bool enabled);

    // The gain of one band in dB, clamped to [-18, +18]. A band above 9 is ignored.
    void SetEqualizerBandGain(size_t band, double dB);

    // The switch and all ten gains; the gains are kept also when `enabled` is false.
    void SetEqualizerBands(bool enabled, const std::array<double, EqualizerBandCount>& dB);

    // State.

    // True from a successful Play until the worker has ended or Stop has returned; a worker that
    // fails at once may leave it true until the next Stop. To wait for the end ask HasFinished.
    bool IsPlaying() const { return Playing; }
    bool IsPaused() const { return Paused; }

    // True once the worker has ended, by itself or because it was asked to; false again from the
    // next Play on. Callbacks are let go of only by Stop or the next Play.
    bool HasFinished() const { return Finished; }

    // True from RequestStop, Stop or an error of the decoder until the next Play.
    bool IsStopRequestedForInterrupt() const { return StopRequested; }

    // What went wrong in the last playback, empty where nothing did. Of radio it keeps the last
    // failure to connect, also when a later attempt has succeeded or when it was a stop that cut it
    // short; that a connection broke off is told by the stream's callback alone.
    std::string LastError() const;

    // Looking at the sound.

    // What a spectrum display transforms: the last block mixed to mono (of a longer one the last
    // 2048 frames). Empty before the first block, kept after the end.
    std::vector<float> CopySpectrumSamples() const;

    // Installs the PCM tap; an empty callable removes it. May be called from any thread, also from
    // the tap itself. The tap is called on the worker thread with each processed block just before
    // it is queued: it must not take long (the queue holds a third of a second), throw, call Stop
    // or a Play operation, or read the samples after it has returned. The position is the time of
    // the block's first sample, for radio of the block's end, counted from the start of the
    // connection or the last pause in it. The previous tap is destroyed before this returns, under
    // the tap's lock, unless a call of it is still running, so its destructor must not call back
    // into this.
    void SetAudioPCMCallback(PCMCallback cb);

private:
    friend struct TovrelAudioPlayerTestAccess;

    // Everything that is handed to the sink from files and radio has this rate and channel count.
    static constexpr int kOutputSampleRate = 48000;
    static constexpr int kOutputChannels = 2;

    // Start and stop.
    void ResetForStart(double Duration, double StartSec);
    void InstallOutput(std::unique_ptr<PipeWirePlayer> Output, bool bHeld = false);
    void ReleaseOutput();
    void CloseOutput();

    // The clock.
    double PresentedSeconds();
    void AnchorClock(double SourceSec, double PresentedSec);
    double SeekTarget() const;

    // Processing, in place, one block of interleaved floats; `SampleCount` is in frames.
    void ApplyEqualizer(float* Samples, int SampleCount, int Channels, int SampleRate);
    void ApplyGainAndPan(float* Samples, int SampleCount, int Channels, double MetadataGain);
    void ApplyGainAndPan(float* Samples, int SampleCount, int Channels);
    void CaptureSpectrumSamples(const float* Samples, int SampleCount, int Channels);
    void TapAndPush(const float* Samples, int SampleCount, int Channels, int SampleRate,
                    double Seconds);
    void SetLastError(const std::string& Text);

    // Files.
    bool LoadFileIntoCache(const std::string& Path, TovrelAudioCachedFileInput& Cache,
                           std::string* ErrorMessage) const;
    bool OpenDecoder(const std::string& Path, TovrelAudioCachedFileInput* Cache,
                     AVFormatContext** OutFormat, AVCodecContext** OutCodec, int* OutStreamIndex,
                     std::string* ErrorMessage);
    bool ConfigureResampler(AVCodecContext* CodecContext, SwrContext** OutSwr, int* OutSampleRate,
                            int* OutChannels, std::string* ErrorMessage);
    void DecodeThreadMain(std::string Path);

    // Radio.
    bool OpenStreamDecoder(const std::string& Url, AVFormatContext** OutFormat,
                           AVCodecContext** OutCodec, int* OutStreamIndex,
                           std::string* ErrorMessage);
    void ReportStreamState(const StreamStatusCallback& Callback, StreamState State,
                           const StreamInfo& Info, const std::string& Text);
    void StreamThreadMain(std::string Url, StreamStatusCallback Callback);

    // PCM buffers.
    void PcmThreadMain(std::vector<float> Frames, int SampleRate, int Channels,
                       double StartSeconds);

    // Five mutexes, each taken alone.

    // Made by the worker, destroyed by Stop, or for radio by the worker when its connection ends.
    std::unique_ptr<PipeWirePlayer> AudioOutput;
    std::mutex AudioOutputMutex; // guards AudioOutput and bOutputHeld
    std::thread DecodeThread;    // the one worker
    std::atomic<bool> StopRequested{false};
    std::atomic<bool> Playing{false};
    std::atomic<bool> Paused{false};
    std::atomic<bool> Finished{false};
    std::atomic<double> VolumeValue{1.0};
    std::atomic<double> PanValue{0.0};

    // The clock: source positions in seconds, an anchor on the host's monotonic clock in
    // milliseconds (0: no anchor), and the seek that waits for the worker.
    std::atomic<double> DurationSec{0.0};
    std::atomic<double> CurrentSec{0.0};
    mutable std::atomic<double> PausedPresentationSec{0.0};
    std::atomic<double> PlaybackClockSourceSec{0.0};
    std::atomic<double> PlaybackClockPresentedSec{0.0};
    std::atomic<uint64_t> PlaybackClockHostMs{0};
    std::atomic<double> QueuedSourceEndSec{0.0};
    std::atomic<bool> SeekRequested{false};
    std::atomic<double> SeekTargetSec{0.0};

    std::atomic<bool> EqualizerEnabled{true};
    mutable std::mutex ErrorMutex; // guards ErrorText
    std::string ErrorText;
    std::mutex EqualizerMutex; // guards EqualizerGainsDb
    std::array<double, EqualizerBandCount> EqualizerGainsDb{};
    std::mutex AudioPCMCallbackMutex; // guards AudioPCMCallback, never held while it runs
    PCMCallback AudioPCMCallback;
    mutable std::mutex SpectrumMutex; // guards SpectrumSamples
    std::vector<float> SpectrumSamples;
    std::vector<float> ResampleBuffer; // the worker's own; only grows
    bool bOutputHeld = false;          // inactive until its start buffer is full; AudioOutputMutex
};
