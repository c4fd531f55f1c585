// Reads like a playback: from the controls to the start, past the clock that tells its position,
// along the stations of a block of sound, to the workers that fetch that sound from files, radio
// and buffers.
#include "tovrel_audio_player.h"

#include "pipewire_player.h"

#include <algorithm>
#include <bit>
#include <chrono>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <limits>
#include <locale.h>
#include <new>
#include <sys/mman.h>
#include <unistd.h>
#include <utility>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

extern "C"
{
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/dict.h>
#include <libavutil/error.h>
#include <libavutil/frame.h>
#include <libavutil/mathematics.h>
#include <libavutil/mem.h>
#include <libavutil/opt.h>
#include <libswresample/swresample.h>
}

// Helpers

namespace
{

constexpr double kPi = 3.141592653589793;

constexpr double kMaxVolume = 1.5; // deliberately past unity
constexpr double kMaxPan = 1.0;
constexpr double kMaxEqualizerGainDb = 18.0;
constexpr double kMaxMetadataGain = 4.0; // linear, +12 dB

constexpr std::chrono::milliseconds kQueuePoll{8}; // while the sink holds its limit
constexpr std::chrono::milliseconds kRadioQueuePoll{10};
constexpr std::chrono::milliseconds kPausePoll{20}; // while paused
constexpr std::chrono::milliseconds kDrainPoll{20}; // while the last frames play

constexpr double kPcmQueueLimitSeconds = 0.35;
constexpr double kFileQueueLimitSeconds = 0.5;
constexpr double kRadioQueueLimitSeconds = 2.0;
constexpr double kDrainedSeconds = 0.02; // what counts as played out

constexpr int kMaxReconnectAttempts = 300;
constexpr double kStartBufferSeconds = 0.7; // queued before a connection is heard
constexpr int kReconnectWaitSteps = 20;
constexpr std::chrono::milliseconds kReconnectWaitStep{100};
constexpr std::chrono::seconds kHeartbeat{1}; // between reports that say nothing new

constexpr int kPcmChunksPerSecond = 100;
constexpr int kMinPcmChunkFrames = 256;

constexpr double kLatestSeconds = 9e12; // of what a file claims: 64 bits of microseconds tell it

constexpr uint64_t kMaxPreloadBytes = 536870912; // 512 MiB
constexpr int kPreloadIoBufferBytes = 65536;

// Raises `value` to `low`, then lowers it to `high`. A NaN passes: every bound here is a limit of
// range, not a filter of bad numbers.
double Clamped(double value, double low, double high)
{
    if (value < low)
        value = low;
    if (value > high)
        value = high;
    return value;
}

// What FFmpeg says of one of its error codes.
std::string AvErrorText(int code)
{
    char buffer[64] = {};
    av_strerror(code, buffer, sizeof buffer); // an unknown code leaves a generic text
    return buffer;
}

void AssignMessage(std::string* ErrorMessage, const std::string& text)
{
    if (ErrorMessage)
        *ErrorMessage = text;
}

uint64_t AudioClockMs()
{
    const auto sinceStart = std::chrono::steady_clock::now().time_since_epoch();
    const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(sinceStart).count();
    return static_cast<uint64_t>(ns / 1000000);
}

} // namespace

// Object and controls

TovrelAudioPlayer::TovrelAudioPlayer() = default;

TovrelAudioPlayer::~TovrelAudioPlayer()
{
    Stop();
}

void TovrelAudioPlayer::SetVolume(double v)
{
    VolumeValue = Clamped(v, 0.0, kMaxVolume);
}

void TovrelAudioPlayer::AdjustVolume(double delta)
{
    SetVolume(VolumeValue + delta);
}

void TovrelAudioPlayer::SetPan(double p)
{
    PanValue = Clamped(p, -kMaxPan, kMaxPan);
}

void TovrelAudioPlayer::AdjustPan(double delta)
{
    SetPan(PanValue + delta);
}

void TovrelAudioPlayer::SetEqualizerEnabled(bool enabled)
{
    EqualizerEnabled = enabled;
}

void TovrelAudioPlayer::SetEqualizerBandGain(size_t band, double dB)
{
    if (band >= EqualizerBandCount)
        return;
    const std::lock_guard lock(EqualizerMutex);
    EqualizerGainsDb[band] = Clamped(dB, -kMaxEqualizerGainDb, kMaxEqualizerGainDb);
}

void TovrelAudioPlayer::SetEqualizerBands(bool enabled,
                                          const std::array<double, EqualizerBandCount>& dB)
{
    EqualizerEnabled = enabled;
    const std::lock_guard lock(EqualizerMutex);
    for (size_t band = 0; band < EqualizerBandCount; ++band)
        EqualizerGainsDb[band] = Clamped(dB[band], -kMaxEqualizerGainDb, kMaxEqualizerGainDb);
}

std::string TovrelAudioPlayer::LastError() const
{
    const std::lock_guard lock(ErrorMutex);
    return ErrorText;
}

void TovrelAudioPlayer::SetLastError(const std::string& Text)
{
    const std::lock_guard lock(ErrorMutex);
    ErrorText = Text;
}

void TovrelAudioPlayer::SetAudioPCMCallback(PCMCallback cb)
{
    const std::lock_guard lock(AudioPCMCallbackMutex);
    AudioPCMCallback.swap(cb);
    // The parameter would outlive the lock: the old callable goes here, so that the tap's captures
    // are gone, or held by a running call alone, before anybody else can install the next one.
    cb = nullptr;
}

// Start and stop

// What every Play does once its arguments are accepted: the flags, the clock and the error text of
// a playback that begins at `StartSec`. A duration of 0 is one that the worker has yet to find.
void TovrelAudioPlayer::ResetForStart(double Duration, double StartSec)
{
    StopRequested = false;
    Paused = false;
    Finished = false;
    DurationSec = Duration;
    CurrentSec = StartSec;
    PausedPresentationSec = StartSec;
    AnchorClock(StartSec, 0.0);
    QueuedSourceEndSec = StartSec;
    SeekRequested = false;
    SetLastError("");
}

bool TovrelAudioPlayer::PlayFile(const std::string& Path, std::string* ErrorMessage)
{
    Stop();
    ResetForStart(0.0, 0.0);
    DecodeThread = std::thread(&TovrelAudioPlayer::DecodeThreadMain, this, Path);
    // Deliberately after the thread: a worker that fails at once may have stored its final false
    // already, and this hides it until the next Stop. Finished tells the truth then.
    Playing = true;
    AssignMessage(ErrorMessage, "");
    return true;
}

bool TovrelAudioPlayer::PlayStream(const std::string& Url, StreamStatusCallback Callback,
                                   std::string* ErrorMessage)
{
    Stop();
    if (Url.empty())
    {
        AssignMessage(ErrorMessage, "No radio stream URL entered.");
        return false;
    }
    ResetForStart(0.0, 0.0);
    DecodeThread =
        std::thread(&TovrelAudioPlayer::StreamThreadMain, this, Url, std::move(Callback));
    Playing = true; // after the thread, as in PlayFile
    AssignMessage(ErrorMessage, "");
    return true;
}

bool TovrelAudioPlayer::PlayPcm(std::vector<float> Frames, int SampleRate, int Channels,
                                double StartSeconds, std::string* ErrorMessage)
{
    // Before the arguments are looked at: a rejected Play still ends what was playing.
    Stop();
    if (Channels <= 0 || SampleRate <= 0 || Frames.empty())
    {
        AssignMessage(ErrorMessage, "No PCM audio available for playback.");
        return false;
    }

    const size_t totalFrames = Frames.size() / static_cast<size_t>(Channels);
    const double duration = static_cast<double>(totalFrames) / SampleRate;
    const double start = std::isnan(StartSeconds) ? 0.0 : Clamped(StartSeconds, 0.0, duration);
    SeekTargetSec = start;
    ResetForStart(duration, start);
    DecodeThread = std::thread(&TovrelAudioPlayer::PcmThreadMain, this, std::move(Frames),
                               SampleRate, Channels, start);
    Playing = true; // after the thread, as in PlayFile
    AssignMessage(ErrorMessage, "");
    return true;
}

void TovrelAudioPlayer::RequestStop()
{
    StopRequested = true;
    if (Paused)
        AnchorClock(PausedPresentationSec, 0.0); // or the time that was paused would count
    Paused = false;                              // or the worker would sleep through its stop
    const std::lock_guard lock(AudioOutputMutex);
    if (AudioOutput)
        AudioOutput->SetActive(false);
}

void TovrelAudioPlayer::Stop()
{
    RequestStop();
    if (DecodeThread.joinable())
        DecodeThread.join();
    {
        const std::lock_guard lock(AudioOutputMutex);
        if (AudioOutput)
            CloseOutput();
    }
    // StopRequested and Finished stay as they are, so that a host can still tell how it ended; the
    // next Play resets them.
    Playing = false;
    Paused = false;
}

// Under AudioOutputMutex, with a sink there.
void TovrelAudioPlayer::CloseOutput()
{
    AudioOutput->Clear();
    AudioOutput->Destroy();
    AudioOutput.reset();
}

// Hands a worker's new sink to the player. An older one, if there is any, goes without ceremony. A
// held one stays inactive, whoever resumes, until its worker releases it.
void TovrelAudioPlayer::InstallOutput(std::unique_ptr<PipeWirePlayer> Output, bool bHeld)
{
    const std::lock_guard lock(AudioOutputMutex);
    AudioOutput = std::move(Output);
    bOutputHeld = bHeld;
}

// In a pause it is the resume that activates it.
void TovrelAudioPlayer::ReleaseOutput()
{
    const std::lock_guard lock(AudioOutputMutex);
    bOutputHeld = false;
    if (AudioOutput && !Paused && !StopRequested)
        AudioOutput->SetActive(true);
}

// Clock, pause and seeking

double TovrelAudioPlayer::CurrentSeconds() const
{
    if (!Playing)
        return CurrentSec;
    if (Paused)
        return PausedPresentationSec;

    const double source = PlaybackClockSourceSec;
    const double duration = DurationSec;
    const uint64_t hostMs = PlaybackClockHostMs;
    const uint64_t nowMs = AudioClockMs();
    double elapsed = 0.0;
    if (hostMs - 1 < nowMs) // unsigned: false without an anchor (0) and before it
        elapsed = static_cast<double>(nowMs - hostMs) / 1000.0;
    // An unknown duration deliberately reads as position 0 throughout: a live stream has no
    // position.
    const double upper = duration > 0.0 ? duration : 0.0;
    const double position = Clamped(source + elapsed, 0.0, upper);
    PausedPresentationSec = position;
    return position;
}

void TovrelAudioPlayer::SetPaused(bool paused)
{
    if (!Playing)
        return;
    const double position = CurrentSeconds(); // of a pause, the frozen one
    PausedPresentationSec = position;
    CurrentSec = position;
    PlaybackClockSourceSec = position;
    PlaybackClockHostMs = AudioClockMs();
    PlaybackClockPresentedSec = PresentedSeconds();
    Paused = paused;
    const std::lock_guard lock(AudioOutputMutex);
    if (AudioOutput)
        AudioOutput->SetActive(!paused && !bOutputHeld && !StopRequested);
}

void TovrelAudioPlayer::TogglePaused()
{
    SetPaused(!Paused);
}

void TovrelAudioPlayer::SeekToSeconds(double seconds)
{
    // Not a number is nowhere to go, and would stay in the clock.
    if (DurationSec <= 0.0 || std::isnan(seconds))
        return;
    const double target = Clamped(seconds, 0.0, DurationSec);
    SeekTargetSec = target;
    CurrentSec = target;
    PausedPresentationSec = target;
    AnchorClock(target, 0.0);
    QueuedSourceEndSec = target;
    SeekRequested = true; // last: a worker that sees it finds the target stored
}

void TovrelAudioPlayer::SeekToFraction(double fraction)
{
    if (DurationSec <= 0.0)
        return;
    SeekToSeconds(Clamped(fraction, 0.0, 1.0) * DurationSec);
}

// The sink's presented time, 0 where there is none.
double TovrelAudioPlayer::PresentedSeconds()
{
    double presented = 0.0;
    const std::lock_guard lock(AudioOutputMutex);
    if (AudioOutput)
        AudioOutput->GetStreamTime(&presented, nullptr);
    return presented;
}

// From now on the position runs from `SourceSec`.
void TovrelAudioPlayer::AnchorClock(double SourceSec, double PresentedSec)
{
    PlaybackClockSourceSec = SourceSec;
    PlaybackClockPresentedSec = PresentedSec;
    PlaybackClockHostMs = AudioClockMs();
}

// Where a worker that has taken a seek goes. With an unknown duration that is deliberately 0.
double TovrelAudioPlayer::SeekTarget() const
{
    const double duration = DurationSec;
    return Clamped(SeekTargetSec, 0.0, duration > 0.0 ? duration : 0.0);
}

// Processing

namespace
{

constexpr std::array<double, TovrelAudioPlayer::EqualizerBandCount> kEqualizerFrequenciesHz = {
    31.0, 62.0, 125.0, 250.0, 500.0, 1000.0, 2000.0, 4000.0, 8000.0, 16000.0};
constexpr double kEqualizerBandQ = 1.15;
constexpr int kEqualizerChannels = 2;          // for which a filter keeps history
constexpr double kEqualizerFlatDb = 0.01;      // gains within it count as flat
constexpr double kEqualizerOutputLimit = 4.0;  // of each band's output, +12 dB over full scale
constexpr double kEqualizerNyquistPart = 0.94; // no band lies above this part of Nyquist

// One peaking band: the peaking-EQ biquad of Robert Bristow-Johnson's "Cookbook formulae for audio
// EQ biquad filter coefficients", as a transposed direct form II, in double precision.
struct PeakingBiquad
{
    double B0 = 1.0, B1 = 0.0, B2 = 0.0, A1 = 0.0, A2 = 0.0; // divided by a0 already
    std::array<double, kEqualizerChannels> Z1{};
    std::array<double, kEqualizerChannels> Z2{};

    void Configure(double SampleRate, double FrequencyHz, double GainDb)
    {
        const double nyquist = std::max(SampleRate * 0.5, 1.0);
        const double freq = std::min(std::max(FrequencyHz, 1.0), nyquist * kEqualizerNyquistPart);
        const double a = std::pow(10.0, GainDb / 40.0);
        const double omega = freq * (2.0 * kPi) / SampleRate;
        double sinW = 0.0;
        double cosW = 0.0;
        sincos(omega, &sinW, &cosW);
        const double alpha = sinW / (2.0 * kEqualizerBandQ);
        const double a0 = 1.0 + alpha / a;
        B0 = (1.0 + alpha * a) / a0;
        B1 = (-2.0 * cosW) / a0;
        B2 = (1.0 - alpha * a) / a0;
        A1 = (-2.0 * cosW) / a0;
        A2 = (1.0 - alpha / a) / a0;
        Reset();
    }

    float Process(float Sample, int Channel)
    {
        // Channels past the second share, and disturb, the second one's history: deliberate, as
        // the engine's own output is stereo.
        const auto ch = static_cast<size_t>(std::clamp(Channel, 0, kEqualizerChannels - 1));
        const double x = Sample;
        const double out = B0 * x + Z1[ch];
        Z1[ch] = B1 * x - A1 * out + Z2[ch];
        Z2[ch] = B2 * x - A2 * out;
        // Only the output is limited: the history keeps the filter linear.
        return static_cast<float>(Clamped(out, -kEqualizerOutputLimit, kEqualizerOutputLimit));
    }

    void Reset()
    {
        Z1.fill(0.0);
        Z2.fill(0.0);
    }
};

using PeakingCascade = std::array<PeakingBiquad, TovrelAudioPlayer::EqualizerBandCount>;

// What the equalizer is defined to be: each sample passes through all bands, one after the other.
void RunInTurn(PeakingCascade& Filters, float* Samples, int SampleCount, int Channels)
{
    for (int i = 0; i < SampleCount; ++i)
    {
        for (int ch = 0; ch < Channels; ++ch, ++Samples)
        {
            for (PeakingBiquad& filter : Filters)
                *Samples = filter.Process(*Samples, ch);
        }
    }
}

#if defined(__x86_64__)

// The same for stereo, to the bit, in a fraction of the time. All that a band needs for a frame is
// its own history and what the band before it has made of that frame. So the bands can work side by
// side, in the lanes of vectors, if each is one frame behind the band before it:
//
//     step 9:   frame 9 in band 0,   frame 8 in band 1,  ...  frame 0 in band 9
//     step 10:  frame 10 in band 0,  frame 9 in band 1,  ...  frame 1 in band 9
//
// What a lane calculates is what the band does in turn, operation by operation. The corners that no
// such step covers, the first frames of a block in the first bands and its last frames in the last
// bands, are run in turn; between these and the steps a frame on its way stands in its place in the
// block, as far as it has come. So nothing is delayed: after each block every band has seen all of
// it.
constexpr size_t kBands = TovrelAudioPlayer::EqualizerBandCount;
constexpr size_t kLanesPerVector = 4; // left and right of band k, left and right of band k + 5
constexpr size_t kVectors = kBands * kEqualizerChannels / kLanesPerVector;
constexpr int kHistoryFrames = 512; // of blocks that are not stereo, at once

constexpr size_t LaneOf(size_t band, size_t ch)
{
    return band % kVectors * kLanesPerVector + band / kVectors * kEqualizerChannels + ch;
}

struct CascadeLanes
{
    using Lanes = double[kVectors * kLanesPerVector];
    alignas(32) Lanes B0, B1, B2, A1, A2, Z1, Z2;
    alignas(32) Lanes Input; // of the next step

    // `Next` is the first frame that has not been in any band yet.
    CascadeLanes(const PeakingCascade& Filters, const float* Next)
    {
        for (size_t band = 0; band < kBands; ++band)
        {
            const PeakingBiquad& filter = Filters[band];
            for (size_t ch = 0; ch < kEqualizerChannels; ++ch)
            {
                const size_t lane = LaneOf(band, ch);
                B0[lane] = filter.B0;
                B1[lane] = filter.B1;
                B2[lane] = filter.B2;
                A1[lane] = filter.A1;
                A2[lane] = filter.A2;
                Z1[lane] = filter.Z1[ch];
                Z2[lane] = filter.Z2[ch];
                Input[lane] = *(Next - band * kEqualizerChannels + ch);
            }
        }
    }

    // `End` is the end of the block, and of the steps.
    void Store(PeakingCascade& Filters, float* End) const
    {
        for (size_t band = 0; band < kBands; ++band)
        {
            for (size_t ch = 0; ch < kEqualizerChannels; ++ch)
            {
                const size_t lane = LaneOf(band, ch);
                Filters[band].Z1[ch] = Z1[lane];
                Filters[band].Z2[ch] = Z2[lane];
                if (band > 0)
                    *(End - band * kEqualizerChannels + ch) = static_cast<float>(Input[lane]);
            }
        }
    }
};

// How far the last band is behind the first one.
constexpr size_t kFloatsBehind = (kBands - 1) * kEqualizerChannels;

__m128 LoadFrame(const float* Frame)
{
    return _mm_loadl_pi(_mm_setzero_ps(), reinterpret_cast<const __m64*>(Frame));
}

// One step for each frame from `Frame` on. Within a step the bands go downwards: each leaves its
// output where the one behind it has just taken its input. The counters go upwards all the same, or
// GCC would not unroll the loops.
void RunStepsSse2(CascadeLanes& Lanes, float* Frame, const float* End)
{
    const __m128d low = _mm_set1_pd(-kEqualizerOutputLimit);
    const __m128d high = _mm_set1_pd(kEqualizerOutputLimit);
    for (; Frame != End; Frame += kEqualizerChannels)
    {
        _mm_store_pd(&Lanes.Input[0], _mm_cvtps_pd(LoadFrame(Frame)));
#pragma GCC unroll 10
        for (size_t i = 0; i < kBands; ++i)
        {
            const size_t band = kBands - 1 - i;
            const size_t at = LaneOf(band, 0);
            const __m128d x = _mm_load_pd(&Lanes.Input[at]);
            const __m128d out = _mm_load_pd(&Lanes.B0[at]) * x + _mm_load_pd(&Lanes.Z1[at]);
            _mm_store_pd(&Lanes.Z1[at], _mm_load_pd(&Lanes.B1[at]) * x -
                                            _mm_load_pd(&Lanes.A1[at]) * out +
                                            _mm_load_pd(&Lanes.Z2[at]));
            _mm_store_pd(&Lanes.Z2[at],
                         _mm_load_pd(&Lanes.B2[at]) * x - _mm_load_pd(&Lanes.A2[at]) * out);
            const __m128 made = _mm_cvtpd_ps(_mm_min_pd(high, _mm_max_pd(low, out)));
            if (band + 1 < kBands)
                _mm_store_pd(&Lanes.Input[LaneOf(band + 1, 0)], _mm_cvtps_pd(made));
            else
                _mm_storel_pi(reinterpret_cast<__m64*>(Frame - kFloatsBehind), made);
        }
    }
}

// The same with two bands, k and k + 5, in one vector.
[[gnu::target("avx2")]] void RunStepsAvx2(CascadeLanes& Lanes, float* Frame, const float* End)
{
    __m256d input[kVectors];
    __m256d z1[kVectors];
    __m256d z2[kVectors];
#pragma GCC unroll 5
    for (size_t k = 0; k < kVectors; ++k)
    {
        input[k] = _mm256_load_pd(&Lanes.Input[k * kLanesPerVector]);
        z1[k] = _mm256_load_pd(&Lanes.Z1[k * kLanesPerVector]);
        z2[k] = _mm256_load_pd(&Lanes.Z2[k * kLanesPerVector]);
    }
    const __m256d low = _mm256_set1_pd(-kEqualizerOutputLimit);
    const __m256d high = _mm256_set1_pd(kEqualizerOutputLimit);
    __m128 last = _mm_cvtpd_ps(_mm256_extractf128_pd(input[0], 1)); // what bands 4 and 9 made
    for (; Frame != End; Frame += kEqualizerChannels)
    {
        input[0] = _mm256_cvtps_pd(_mm_movelh_ps(LoadFrame(Frame), last));
#pragma GCC unroll 5
        for (size_t i = 0; i < kVectors; ++i)
        {
            const size_t k = kVectors - 1 - i;
            const size_t at = k * kLanesPerVector;
            const __m256d x = input[k];
            const __m256d out = _mm256_load_pd(&Lanes.B0[at]) * x + z1[k];
            z1[k] = _mm256_load_pd(&Lanes.B1[at]) * x - _mm256_load_pd(&Lanes.A1[at]) * out + z2[k];
            z2[k] = _mm256_load_pd(&Lanes.B2[at]) * x - _mm256_load_pd(&Lanes.A2[at]) * out;
            const __m128 made = _mm256_cvtpd_ps(_mm256_min_pd(high, _mm256_max_pd(low, out)));
            if (k + 1 < kVectors)
                input[k + 1] = _mm256_cvtps_pd(made);
            else
                last = made;
        }
        _mm_storeh_pi(reinterpret_cast<__m64*>(Frame - kFloatsBehind), last);
    }
    input[0] = _mm256_cvtps_pd(_mm_movelh_ps(last, last));
#pragma GCC unroll 5
    for (size_t k = 0; k < kVectors; ++k)
    {
        _mm256_store_pd(&Lanes.Input[k * kLanesPerVector], input[k]);
        _mm256_store_pd(&Lanes.Z1[k * kLanesPerVector], z1[k]);
        _mm256_store_pd(&Lanes.Z2[k * kLanesPerVector], z2[k]);
    }
}

using RunSteps = void (*)(CascadeLanes&, float*, const float*);

// Runs a stereo block. With fewer frames than bands no step would have work for all of them.
void RunSideBySide(PeakingCascade& Filters, float* Samples, int SampleCount, RunSteps Run)
{
    if (SampleCount < static_cast<int>(kBands))
        return RunInTurn(Filters, Samples, SampleCount, kEqualizerChannels);

    const auto runBands = [&](float* frame, size_t first, size_t end)
    {
        for (int ch = 0; ch < kEqualizerChannels; ++ch)
        {
            for (size_t band = first; band < end; ++band)
                frame[ch] = Filters[band].Process(frame[ch], ch);
        }
    };
    float* const end = Samples + static_cast<ptrdiff_t>(SampleCount) * kEqualizerChannels;
    float* const next = Samples + kFloatsBehind;
    for (size_t bands = kBands - 1, i = 0; bands > 0; --bands, ++i)
        runBands(Samples + i * kEqualizerChannels, 0, bands);
    CascadeLanes lanes(Filters, next);
    Run(lanes, next, end);
    lanes.Store(Filters, end);
    for (size_t band = kBands - 1; band > 0; --band)
        runBands(end - band * kEqualizerChannels, band, kBands);
}

// Runs the channels of one history, the first channel or all others, as the left one of a stereo
// block whose right one is silent.
void RunHistory(PeakingCascade& Filters, size_t History, float* Samples, int SampleCount,
                int Channels, RunSteps Run)
{
    PeakingCascade alone = Filters;
    for (PeakingBiquad& filter : alone)
    {
        filter.Z1 = {filter.Z1[History], 0.0};
        filter.Z2 = {filter.Z2[History], 0.0};
    }

    std::array<float, size_t{kHistoryFrames} * kEqualizerChannels> block{};
    const int first = static_cast<int>(History);
    const int end = History == 0 ? 1 : Channels;
    const int framesAtOnce = kHistoryFrames / (end - first);
    for (int done = 0; done < SampleCount; done += framesAtOnce)
    {
        const int frames = std::min(SampleCount - done, framesAtOnce);
        const auto forEachSample = [&](auto function)
        {
            float* left = block.data();
            float* frame = Samples + static_cast<ptrdiff_t>(done) * Channels;
            for (int i = 0; i < frames; ++i, frame += Channels)
            {
                for (int ch = first; ch < end; ++ch, left += kEqualizerChannels)
                    function(frame[ch], *left);
            }
        };
        forEachSample([](const float& sample, float& left) { left = sample; });
        RunSideBySide(alone, block.data(), frames * (end - first), Run);
        forEachSample([](float& sample, const float& left) { sample = left; });
    }

    for (size_t band = 0; band < kBands; ++band)
    {
        Filters[band].Z1[History] = alone[band].Z1[0];
        Filters[band].Z2[History] = alone[band].Z2[0];
    }
}

// Whether a block begins with numbers alone. Of two that are none, which one an addition passes on
// is the compiler's choice, made anew wherever the addition is written. A filter that is unstable
// may leave the numbers within a block, but then to the processor's one NaN. B0 tells of all
// coefficients: a gain that is no number makes it none.
bool IsFinite(const PeakingCascade& Filters, const float* Samples, size_t Count)
{
    int32_t largest = 0; // magnitude, as bits: those of infinity and NaN are above all others
    for (size_t i = 0; i < Count; ++i)
        largest = std::max(largest, std::bit_cast<int32_t>(Samples[i]) & INT32_MAX);
    return largest < std::bit_cast<int32_t>(std::numeric_limits<float>::infinity()) &&
           std::all_of(Filters.begin(), Filters.end(),
                       [](const PeakingBiquad& filter) {
                           return std::isfinite(filter.B0 + filter.Z1[0] + filter.Z1[1] +
                                                filter.Z2[0] + filter.Z2[1]);
                       });
}

void RunCascade(PeakingCascade& Filters, float* Samples, int SampleCount, int Channels)
{
    static const RunSteps run = __builtin_cpu_supports("avx2") ? RunStepsAvx2 : RunStepsSse2;
    const auto count = static_cast<size_t>(SampleCount) * static_cast<size_t>(Channels);
    if (SampleCount < static_cast<int>(kBands) || Channels > kHistoryFrames ||
        !IsFinite(Filters, Samples, count))
        return RunInTurn(Filters, Samples, SampleCount, Channels);
    if (Channels == kEqualizerChannels)
        return RunSideBySide(Filters, Samples, SampleCount, run);
    RunHistory(Filters, 0, Samples, SampleCount, Channels, run);
    if (Channels > 1)
        RunHistory(Filters, 1, Samples, SampleCount, Channels, run);
}

#else

void RunCascade(PeakingCascade& Filters, float* Samples, int SampleCount, int Channels)
{
    RunInTurn(Filters, Samples, SampleCount, Channels);
}

#endif

} // namespace

void TovrelAudioPlayer::ApplyEqualizer(float* Samples, int SampleCount, int Channels,
                                       int SampleRate)
{
    if (!Samples || SampleCount <= 0 || Channels <= 0 || SampleRate <= 0)
        return;

    // The switch is read without the lock: it may be a block ahead of the gains, which nobody
    // hears.
    const bool enabled = EqualizerEnabled;
    std::array<double, EqualizerBandCount> gains{};
    {
        const std::lock_guard lock(EqualizerMutex);
        gains = EqualizerGainsDb;
    }
    const bool hasGain = std::any_of(gains.begin(), gains.end(),
                                     [](double dB) { return std::fabs(dB) > kEqualizerFlatDb; });
    if (!hasGain || !enabled)
        return; // the history stays as it is

    // Every playback runs on a thread of its own, so each starts unconfigured and silent.
    thread_local PeakingCascade filters;
    thread_local std::array<double, EqualizerBandCount> lastGains{};
    thread_local int lastSampleRate = 0;
    thread_local bool bConfigured = false;
    if (!bConfigured || lastSampleRate != SampleRate || gains != lastGains)
    {
        for (size_t band = 0; band < EqualizerBandCount; ++band)
            filters[band].Configure(SampleRate, kEqualizerFrequenciesHz[band], gains[band]);
        lastGains = gains;
        lastSampleRate = SampleRate;
        bConfigured = true;
    }

    RunCascade(filters, Samples, SampleCount, Channels);
}

void TovrelAudioPlayer::ApplyGainAndPan(float* Samples, int SampleCount, int Channels,
                                        double MetadataGain)
{
    if (SampleCount <= 0 || Channels <= 0 || !Samples)
        return;

    const auto metadataGain = static_cast<float>(Clamped(MetadataGain, 0.0, kMaxMetadataGain));
    const auto volume = static_cast<float>(VolumeValue.load());
    const float g = metadataGain * volume;
    if (Channels == 1)
    {
        for (int i = 0; i < SampleCount; ++i)
            Samples[i] *= g;
        return;
    }

    // Constant power over the quarter circle, with unity in the middle. The price, taken on
    // purpose, is 3 dB more on the remaining side of a hard pan.
    const double pan = Clamped(PanValue, -kMaxPan, kMaxPan);
    const double angle = ((pan + 1.0) * 0.25) * kPi;
    double sinA = 0.0;
    double cosA = 0.0;
    sincos(angle, &sinA, &cosA);
    constexpr double kSqrt2 = 1.4142135623730951;
    const auto leftGain = static_cast<float>(static_cast<double>(g) * cosA * kSqrt2);
    const auto rightGain = static_cast<float>(static_cast<double>(g) * sinA * kSqrt2);
    float* frame = Samples;
    for (int i = 0; i < SampleCount; ++i, frame += Channels)
    {
        frame[0] *= leftGain;
        frame[1] *= rightGain;
        for (int ch = 2; ch < Channels; ++ch)
            frame[ch] *= g;
    }
}

void TovrelAudioPlayer::ApplyGainAndPan(float* Samples, int SampleCount, int Channels)
{
    ApplyGainAndPan(Samples, SampleCount, Channels, 1.0);
}

void TovrelAudioPlayer::CaptureSpectrumSamples(const float* Samples, int SampleCount, int Channels)
{
    if (SampleCount <= 0 || Channels <= 0 || !Samples)
        return;

    constexpr int maxSamples = 2048;
    const int start = std::max(SampleCount - maxSamples, 0);
    // What comes back from the exchange serves the worker's next block: it allocates none in steady
    // state.
    thread_local std::vector<float> mono;
    mono.resize(static_cast<size_t>(SampleCount - start));
    const float* sample = Samples + static_cast<ptrdiff_t>(start) * Channels;
    for (float& mixed : mono)
    {
        float sum = 0.0f;
        for (int ch = 0; ch < Channels; ++ch)
            sum += *sample++;
        mixed = sum / static_cast<float>(Channels);
    }
    const std::lock_guard lock(SpectrumMutex);
    SpectrumSamples.swap(mono);
}

std::vector<float> TovrelAudioPlayer::CopySpectrumSamples() const
{
    const std::lock_guard lock(SpectrumMutex);
    return SpectrumSamples;
}

// The last two stations of every block: the tap, which is told that it begins (for a live stream,
// ends) at `Seconds`, and the sink.
void TovrelAudioPlayer::TapAndPush(const float* Samples, int SampleCount, int Channels,
                                   int SampleRate, double Seconds)
{
    PCMCallback tap;
    {
        const std::lock_guard lock(AudioPCMCallbackMutex);
        tap = AudioPCMCallback;
    }
    // Called outside the lock, on a copy that lives until the block is pushed, so that the tap may
    // replace itself.
    if (tap)
        tap(Samples, SampleCount, SampleRate, Channels, std::llround(Seconds * 1000000.0));
    AudioOutput->PushBytes(reinterpret_cast<const uint8_t*>(Samples),
                           static_cast<size_t>(SampleCount) * static_cast<size_t>(Channels) *
                               sizeof(float));
}

// Files: the copy in memory

namespace
{

int ReadCachedFilePacket(void* Opaque, uint8_t* Buffer, int BufferSize)
{
    if (!Buffer || BufferSize <= 0)
        return AVERROR(EINVAL);
    if (!Opaque)
        return AVERROR(EINVAL);
    auto& cache = *static_cast<TovrelAudioCachedFileInput*>(Opaque);
    if (cache.Position >= cache.Bytes.size())
        return AVERROR_EOF;
    const size_t remaining = cache.Bytes.size() - cache.Position;
    const size_t count = std::min(remaining, static_cast<size_t>(BufferSize));
    std::memcpy(Buffer, cache.Bytes.data() + cache.Position, count);
    cache.Position += count;
    return static_cast<int>(count);
}

int64_t SeekCachedFile(void* Opaque, int64_t Offset, int Whence)
{
    if (!Opaque)
        return AVERROR(EINVAL);
    auto& cache = *static_cast<TovrelAudioCachedFileInput*>(Opaque);
    const auto size = static_cast<int64_t>(cache.Bytes.size());
    if (Whence == AVSEEK_SIZE)
        return size;

    int64_t base = 0;
    switch (Whence & ~AVSEEK_FORCE)
    {
    case SEEK_SET:
        break;
    case SEEK_CUR:
        base = static_cast<int64_t>(cache.Position);
        break;
    case SEEK_END:
        base = size;
        break;
    default:
        return AVERROR(EINVAL);
    }
    // 0 <= base + Offset <= size, without the overflow of an absurd offset.
    if (Offset < -base || Offset > size - base)
        return AVERROR(EINVAL);
    const int64_t target = base + Offset;
    cache.Position = static_cast<size_t>(target);
    return target;
}

// New memory page by page, as it is touched, takes longer than reading a file into it; asked for at
// once it takes less. Huge pages would take a fifth, but a virtual machine's host may have to find
// each of them first, and then they take longer than all else. An old kernel refuses, and nothing
// is lost.
void PopulateMemory([[maybe_unused]] void* Memory, [[maybe_unused]] size_t Size)
{
#if defined(MADV_POPULATE_WRITE)
    const auto pageBytes = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    if (std::align(pageBytes, pageBytes, Memory, Size))
        (void)madvise(Memory, Size, MADV_POPULATE_WRITE);
#endif
}

} // namespace

TovrelAudioCachedFileInput::~TovrelAudioCachedFileInput()
{
    if (Avio)
    {
        // Not the buffer of the start: probing may have made the context allocate another.
        av_freep(&Avio->buffer);
        avio_context_free(&Avio);
        AvioBuffer = nullptr;
    }
    else if (AvioBuffer)
    {
        av_free(AvioBuffer);
        AvioBuffer = nullptr;
    }
}

bool TovrelAudioPlayer::LoadFileIntoCache(const std::string& Path,
                                          TovrelAudioCachedFileInput& Cache,
                                          std::string* ErrorMessage) const
{
    const auto fail = [&](const std::string& message)
    {
        AssignMessage(ErrorMessage, message);
        return false;
    };

    Cache.Bytes.clear();
    Cache.Position = 0;
    std::error_code ec;
    const uint64_t fileSize = std::filesystem::file_size(std::filesystem::path(Path), ec);
    if (ec)
        return fail("Failed to stat audio file for preload: " + ec.message());
    if (fileSize == 0)
        return fail("Audio file is empty.");
    if (fileSize > kMaxPreloadBytes)
        return fail("Audio file too large for RAM preload.");
    std::ifstream in(Path, std::ios::binary);
    if (!in)
        return fail("Failed to open audio file for preload.");
    bool bRead = false;
    try
    {
        Cache.Bytes.reserve(fileSize);
        PopulateMemory(Cache.Bytes.data(), fileSize);
        Cache.Bytes.resize(fileSize);
        in.read(reinterpret_cast<char*>(Cache.Bytes.data()),
                static_cast<std::streamsize>(fileSize));
        bRead = in && static_cast<uint64_t>(in.gcount()) == fileSize;
    }
    catch (const std::bad_alloc&)
    {
        // Too little memory for a copy is no reason to fall silent: the file plays from disk.
    }
    if (!bRead)
    {
        Cache.Bytes.clear();
        return fail("Failed to read full audio file into RAM.");
    }
    Cache.AvioBuffer = static_cast<uint8_t*>(av_malloc(kPreloadIoBufferBytes));
    if (!Cache.AvioBuffer)
    {
        Cache.Bytes.clear();
        return fail("Failed to allocate RAM preload IO buffer.");
    }
    Cache.Avio = avio_alloc_context(Cache.AvioBuffer, kPreloadIoBufferBytes, 0, &Cache,
                                    ReadCachedFilePacket, nullptr, SeekCachedFile);
    if (!Cache.Avio)
    {
        av_free(Cache.AvioBuffer);
        Cache.AvioBuffer = nullptr;
        Cache.Bytes.clear();
        return fail("Failed to create RAM preload IO context.");
    }
    Cache.AvioBuffer = nullptr; // the context's now
    return true;
}

// Files: demuxer, decoder, resampler

namespace
{

// The FFmpeg objects of one source, from demuxer to packet. What is set is released in reverse
// order of creation, once.
struct DecoderChain
{
    AVFormatContext* format = nullptr;
    AVCodecContext* codec = nullptr;
    SwrContext* swr = nullptr;
    AVFrame* frame = nullptr;
    AVPacket* packet = nullptr;
    int streamIndex = -1;

    DecoderChain() = default;
    DecoderChain(const DecoderChain&) = delete;
    DecoderChain& operator=(const DecoderChain&) = delete;
    ~DecoderChain() { Release(); }

    // Safe to repeat: every one of these does nothing on null and leaves null.
    void Release()
    {
        av_packet_free(&packet);
        av_frame_free(&frame);
        swr_free(&swr);
        avcodec_free_context(&codec);
        avformat_close_input(&format);
    }
};

// What a resampler converts from.
struct ResamplerInput
{
    int channels = 0;
    int format = AV_SAMPLE_FMT_NONE;
    int rate = 0;

    bool operator==(const ResamplerInput&) const = default;
};

// The decoder's own layout; stereo where it does not report its channels.
AVChannelLayout DefaultLayoutForCodec(const AVCodecContext* CodecContext)
{
    AVChannelLayout layout{};
    if (CodecContext->ch_layout.nb_channels <= 0)
        av_channel_layout_default(&layout, 2);
    else if (av_channel_layout_copy(&layout, &CodecContext->ch_layout) < 0)
        layout = {}; // it promises channels that there was no memory for
    return layout;
}

// A resampler to interleaved float. Releases `inLayout`. Null on failure, with the message.
SwrContext* OpenResampler(AVChannelLayout inLayout, int inFormat, int inRate, int outRate,
                          int outChannels, std::string* ErrorMessage)
{
    AVChannelLayout outLayout{};
    av_channel_layout_default(&outLayout, outChannels);
    SwrContext* swr = nullptr;
    int rc = AVERROR(ENOMEM);
    if (inLayout.nb_channels > 0)
        rc = swr_alloc_set_opts2(&swr, &outLayout, AV_SAMPLE_FMT_FLT, outRate, &inLayout,
                                 static_cast<AVSampleFormat>(inFormat), inRate, 0, nullptr);
    av_channel_layout_uninit(&inLayout);
    av_channel_layout_uninit(&outLayout);
    if (rc < 0 || !swr)
    {
        AssignMessage(ErrorMessage, "Failed to allocate audio resampler.");
        swr_free(&swr);
        return nullptr;
    }
    rc = swr_init(swr);
    if (rc < 0)
    {
        AssignMessage(ErrorMessage, "Failed to initialize audio resampler: " + AvErrorText(rc));
        swr_free(&swr);
        return nullptr;
    }
    return swr;
}

// Decoders change their output in the middle of a stream (concatenated MP3, chained Ogg, AAC). A
// resampler for other channels would read planes that are not there, one for another rate would
// play at the wrong pitch, so one that fits takes its place. False, with the old one kept, when
// there is none for this frame.
bool FitResamplerToFrame(const AVFrame& frame, SwrContext** Swr, ResamplerInput* Input, int outRate,
                         int outChannels)
{
    const ResamplerInput wanted{frame.ch_layout.nb_channels, frame.format, frame.sample_rate};
    if (wanted == *Input)
        return true;
    AVChannelLayout layout{};
    if (av_channel_layout_copy(&layout, &frame.ch_layout) < 0)
        return false;
    SwrContext* swr =
        OpenResampler(layout, wanted.format, wanted.rate, outRate, outChannels, nullptr);
    if (!swr)
        return false;
    swr_free(Swr);
    *Swr = swr;
    *Input = wanted;
    return true;
}

// Converts one frame into `Buffer`, which grows as needed and never shrinks. Returns the frames
// written, 0 where there are none; AVERROR(ENOMEM) where there is no memory for what one frame of a
// file with an absurd rate would become.
int ConvertFrame(const AVFrame& frame, SwrContext* Swr, int outRate, int outChannels,
                 std::vector<float>& Buffer)
{
    const int64_t delay = swr_get_delay(Swr, frame.sample_rate);
    const int64_t dstSampleCount =
        av_rescale_rnd(delay + frame.nb_samples, outRate, frame.sample_rate, AV_ROUND_UP);
    if (dstSampleCount <= 0)
        return 0;
    if (dstSampleCount > INT_MAX / (outChannels * static_cast<int>(sizeof(float))))
        return AVERROR(ENOMEM);
    const auto neededFloats = static_cast<size_t>(dstSampleCount * outChannels);
    try
    {
        if (Buffer.size() < neededFloats)
            Buffer.resize(neededFloats);
    }
    catch (const std::bad_alloc&)
    {
        return AVERROR(ENOMEM);
    }
    auto* out = reinterpret_cast<uint8_t*>(Buffer.data());
    // extended_data, not data: planar audio of more than 8 channels has its planes only there.
    const int converted =
        swr_convert(Swr, &out, static_cast<int>(dstSampleCount),
                    const_cast<const uint8_t**>(frame.extended_data), frame.nb_samples);
    return std::max(converted, 0); // what cannot be converted costs its frame alone
}

// What is said of each step that can fail once a source is open. Where FFmpeg's own words follow, a
// text ends in ": ".
struct DecoderTexts
{
    const char* readInfo;
    const char* noAudio;
    const char* noDecoder;
    const char* allocate;
    const char* configure;
    const char* open;
};

// Finds the audio stream of an open source and opens a decoder for it. Returns what went wrong, or
// an empty text; the codec context is the caller's to free in both cases.
std::string OpenAudioStream(AVFormatContext* Format, const DecoderTexts& Texts,
                            AVCodecContext** OutCodec, int* OutStreamIndex)
{
    int rc = avformat_find_stream_info(Format, nullptr);
    if (rc < 0)
        return Texts.readInfo + AvErrorText(rc);
    const int streamIndex = av_find_best_stream(Format, AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0);
    if (streamIndex < 0)
        return Texts.noAudio;
    const AVCodecParameters* parameters = Format->streams[streamIndex]->codecpar;
    const AVCodec* decoder = avcodec_find_decoder(parameters->codec_id);
    if (!decoder)
        return Texts.noDecoder;
    *OutCodec = avcodec_alloc_context3(decoder);
    if (!*OutCodec)
        return Texts.allocate;
    rc = avcodec_parameters_to_context(*OutCodec, parameters);
    if (rc < 0)
        return Texts.configure + AvErrorText(rc);
    rc = avcodec_open2(*OutCodec, decoder, nullptr);
    if (rc < 0)
        return Texts.open + AvErrorText(rc);
    *OutStreamIndex = streamIndex;
    return "";
}

} // namespace

bool TovrelAudioPlayer::OpenDecoder(const std::string& Path, TovrelAudioCachedFileInput* Cache,
                                    AVFormatContext** OutFormat, AVCodecContext** OutCodec,
                                    int* OutStreamIndex, std::string* ErrorMessage)
{
    AVFormatContext* format = nullptr;
    AVCodecContext* codecContext = nullptr;
    const auto fail = [&](const std::string& message)
    {
        AssignMessage(ErrorMessage, message);
        avcodec_free_context(&codecContext);
        avformat_close_input(&format);
        return false;
    };

    if (Cache && Cache->Avio)
    {
        format = avformat_alloc_context();
        if (!format)
            return fail("Failed to allocate audio demuxer.");
        format->flags |= AVFMT_FLAG_CUSTOM_IO;
        format->pb = Cache->Avio;
    }
    // From memory the path still serves as a name: its extension helps to guess the format.
    const int rc = avformat_open_input(&format, Path.c_str(), nullptr, nullptr);
    if (rc < 0) // which has freed the context already
        return fail("Failed to open audio file: " + AvErrorText(rc));
    static constexpr DecoderTexts kTexts{
        .readInfo = "Failed to read audio stream info: ",
        .noAudio = "No audio stream found.",
        .noDecoder = "No decoder available for this audio stream.",
        .allocate = "Failed to allocate audio decoder.",
        .configure = "Failed to configure audio decoder: ",
        .open = "Failed to open audio decoder: ",
    };
    const std::string error = OpenAudioStream(format, kTexts, &codecContext, OutStreamIndex);
    if (!error.empty())
        return fail(error);
    *OutFormat = format;
    *OutCodec = codecContext;
    return true;
}

bool TovrelAudioPlayer::ConfigureResampler(AVCodecContext* CodecContext, SwrContext** OutSwr,
                                           int* OutSampleRate, int* OutChannels,
                                           std::string* ErrorMessage)
{
    if (!CodecContext || !OutSwr)
        return false;
    SwrContext* swr =
        OpenResampler(DefaultLayoutForCodec(CodecContext), CodecContext->sample_fmt,
                      CodecContext->sample_rate, kOutputSampleRate, kOutputChannels, ErrorMessage);
    if (!swr)
        return false;
    *OutSwr = swr;
    if (OutSampleRate)
        *OutSampleRate = kOutputSampleRate;
    if (OutChannels)
        *OutChannels = kOutputChannels;
    return true;
}

// Files: tags

namespace
{

constexpr double kMinLoudnessGainDb = -24.0;
constexpr double kMaxLoudnessGainDb = 12.0;
constexpr double kR128StepDb = 0.00390625; // the tag is a Q7.8 fixed-point number of dB

// The value of the first entry whose name begins with `Key`, whatever its case; null if none.
const char* MetadataEntry(const AVDictionary* Metadata, const char* Key)
{
    if (!Metadata || !Key)
        return nullptr;
    const AVDictionaryEntry* entry = av_dict_get(Metadata, Key, nullptr, AV_DICT_IGNORE_SUFFIX);
    return entry ? entry->value : nullptr;
}

std::string MetadataValue(const AVDictionary* Metadata, const char* Key)
{
    const char* value = MetadataEntry(Metadata, Key);
    return value ? value : "";
}

// The first value of these keys that is not empty, or an empty string.
std::string MetadataValueAny(const AVDictionary* Metadata, std::initializer_list<const char*> keys)
{
    for (const char* key : keys)
    {
        std::string value = MetadataValue(Metadata, key);
        if (!value.empty())
            return value;
    }
    return "";
}

// The number at the start of a tag; what follows it ("-6.20 dB") is ignored. False when there is no
// finite number.
bool ReadMetadataGainDb(const AVDictionary* Metadata, const char* Key, double& Out)
{
    const char* value = MetadataEntry(Metadata, Key);
    if (!value || !*value)
        return false;
    // Tags are written with a point, whatever the host's locale makes of numbers.
    static const locale_t cLocale = newlocale(LC_ALL_MASK, "C", nullptr);
    char* end = nullptr;
    const double number = cLocale ? strtod_l(value, &end, cLocale) : std::strtod(value, &end);
    if (end == value || !std::isfinite(number))
        return false;
    Out = number;
    return true;
}

// An R128 tag in dB. Its reference level lies lower than ReplayGain's; no offset is added.
bool ReadR128GainDb(const AVDictionary* Metadata, const char* Key, double& Out)
{
    double steps = 0.0;
    if (!ReadMetadataGainDb(Metadata, Key, steps))
        return false;
    Out = steps * kR128StepDb;
    return true;
}

// The loudness gain of one stream as a linear factor, 1 without usable tags. Track gain comes
// before album gain, ReplayGain before R128, any tag of the stream before any of the container.
double MetadataGainLinear(const AVFormatContext* Format, int StreamIndex)
{
    if (!Format || StreamIndex < 0 || static_cast<unsigned>(StreamIndex) >= Format->nb_streams)
        return 1.0;
    struct Tag
    {
        const char* key;
        bool (*read)(const AVDictionary*, const char*, double&);
    };
    // The lookup ignores case, so the lower-case rows find nothing new; they stand here on purpose,
    // as the list of what taggers write.
    static constexpr Tag kTags[] = {
        {"REPLAYGAIN_TRACK_GAIN", ReadMetadataGainDb},
        {"replaygain_track_gain", ReadMetadataGainDb},
        {"REPLAYGAIN_ALBUM_GAIN", ReadMetadataGainDb},
        {"replaygain_album_gain", ReadMetadataGainDb},
        {"R128_TRACK_GAIN", ReadR128GainDb},
        {"R128_ALBUM_GAIN", ReadR128GainDb},
    };
    const AVStream* stream = Format->streams[StreamIndex];
    for (const AVDictionary* metadata : {stream ? stream->metadata : nullptr, Format->metadata})
    {
        for (const Tag& tag : kTags)
        {
            double dB = 0.0;
            if (tag.read(metadata, tag.key, dB))
                return std::pow(10.0, Clamped(dB, kMinLoudnessGainDb, kMaxLoudnessGainDb) / 20.0);
        }
    }
    return 1.0;
}

} // namespace

// Files: the decode thread

void TovrelAudioPlayer::DecodeThreadMain(std::string Path)
{
    TovrelAudioCachedFileInput cachedInput; // outlives the demuxer that reads from it
    DecoderChain chain;
    const auto finish = [&]
    {
        chain.Release();
        Finished = true;
        Playing = false;
    };
    const auto fail = [&](const std::string& text)
    {
        SetLastError(text);
        finish();
    };

    std::string preloadError;
    TovrelAudioCachedFileInput* decoderInput = nullptr; // null: the file plays from disk
    if (LoadFileIntoCache(Path, cachedInput, &preloadError))
        decoderInput = &cachedInput;

    std::string error;
    int outRate = 0;
    int outChannels = 0;
    if (!OpenDecoder(Path, decoderInput, &chain.format, &chain.codec, &chain.streamIndex, &error) ||
        !ConfigureResampler(chain.codec, &chain.swr, &outRate, &outChannels, &error))
        return fail(error.empty() ? preloadError : error);
    ResamplerInput resamplerInput{chain.codec->ch_layout.nb_channels, chain.codec->sample_fmt,
                                  chain.codec->sample_rate};

    const AVStream* stream = chain.format->streams[chain.streamIndex];
    double durationSec = 0.0;
    if (stream->duration != AV_NOPTS_VALUE)
        durationSec = av_q2d(stream->time_base) * static_cast<double>(stream->duration);
    else if (chain.format->duration != AV_NOPTS_VALUE)
        durationSec = static_cast<double>(chain.format->duration) / 1000000.0;
    DurationSec = durationSec > 0.0 ? std::min(durationSec, kLatestSeconds) : 0.0;
    PausedPresentationSec = 0.0;
    const double metadataGain = MetadataGainLinear(chain.format, chain.streamIndex);

    auto output = std::make_unique<PipeWirePlayer>();
    if (!output->Init(outRate, outChannels))
    {
        SetLastError("Failed to initialize PipeWire audio output.");
        output.reset();
        return finish();
    }
    output->SetActive(true);
    InstallOutput(std::move(output));
    AnchorClock(0.0, 0.0);

    chain.frame = av_frame_alloc();
    chain.packet = av_packet_alloc();
    if (!chain.frame || !chain.packet)
        return fail("Failed to allocate FFmpeg audio buffers.");

    const auto failDecode = [&](int code)
    {
        SetLastError("Audio decode failed: " + AvErrorText(code));
        StopRequested = true;
    };
    const auto bInterrupted = [&]
    {
        return StopRequested || SeekRequested;
    };
    double reachedSec = 0.0; // the position by what was pushed, whoever stores another meanwhile

    // A frame's start in seconds; where it carries no time, the position reached.
    const auto frameSeconds = [&](const AVFrame* decodedFrame)
    {
        int64_t timestamp = AV_NOPTS_VALUE;
        if (decodedFrame)
            timestamp = decodedFrame->best_effort_timestamp != AV_NOPTS_VALUE
                            ? decodedFrame->best_effort_timestamp
                            : decodedFrame->pts;
        if (timestamp == AV_NOPTS_VALUE)
            return CurrentSec.load();
        return Clamped(static_cast<double>(timestamp) * stream->time_base.num /
                           stream->time_base.den,
                       0.0, kLatestSeconds);
    };

    const auto handleSeek = [&]
    {
        const double target = SeekTarget();
        const int64_t timestamp = av_rescale_q(std::llround(target * 1000000.0),
                                               AVRational{1, 1000000}, stream->time_base);
        const int seekRc =
            av_seek_frame(chain.format, chain.streamIndex, timestamp, AVSEEK_FLAG_BACKWARD);
        avcodec_flush_buffers(chain.codec);
        av_frame_unref(chain.frame);
        av_packet_unref(chain.packet);
        swr_close(chain.swr);
        const int swrRc = swr_init(chain.swr);
        if (seekRc < 0 || swrRc < 0)
        {
            SetLastError("Audio seek failed.");
            return false;
        }
        if (AudioOutput)
            AudioOutput->Clear();
        CurrentSec = target;
        reachedSec = target;
        PausedPresentationSec = target;
        AnchorClock(target, PresentedSeconds());
        QueuedSourceEndSec = target;
        return true;
    };

    const auto pumpFrame = [&](const AVFrame* decodedFrame)
    {
        const double startSec = frameSeconds(decodedFrame);
        CurrentSec = startSec;
        if (!FitResamplerToFrame(*decodedFrame, &chain.swr, &resamplerInput, outRate, outChannels))
            return;
        const int outSamples =
            ConvertFrame(*decodedFrame, chain.swr, outRate, outChannels, ResampleBuffer);
        if (outSamples == AVERROR(ENOMEM))
            return failDecode(outSamples);
        if (outSamples <= 0)
            return;
        while (!bInterrupted() && AudioOutput &&
               AudioOutput->QueuedSeconds() > kFileQueueLimitSeconds)
            std::this_thread::sleep_for(kQueuePoll);
        while (!bInterrupted() && Paused)
            std::this_thread::sleep_for(kPausePoll);
        if (bInterrupted() || !AudioOutput)
            return;

        float* samples = ResampleBuffer.data();
        ApplyEqualizer(samples, outSamples, outChannels, outRate);
        ApplyGainAndPan(samples, outSamples, outChannels, metadataGain);
        CaptureSpectrumSamples(samples, outSamples, outChannels);
        TapAndPush(samples, outSamples, outChannels, outRate, startSec);
        const double endSec = startSec + static_cast<double>(outSamples) / outRate;
        QueuedSourceEndSec = endSec;
        // A file that was played out reads its duration, not the start of its last frame.
        reachedSec = DurationSec > 0.0 ? Clamped(endSec, 0.0, DurationSec) : startSec;
        CurrentSec = reachedSec;
    };

    // The FFmpeg error that ended a run of frames: EAGAIN, EOF, or a failure.
    const auto pumpFrames = [&]
    {
        int receiveRc = 0;
        while ((receiveRc = avcodec_receive_frame(chain.codec, chain.frame)) == 0)
        {
            pumpFrame(chain.frame);
            av_frame_unref(chain.frame);
            if (StopRequested)
                break;
        }
        return receiveRc;
    };

    while (!StopRequested)
    {
        if (SeekRequested.exchange(false) && !handleSeek())
            break;
        if (av_read_frame(chain.format, chain.packet) < 0)
            break; // the end of the file, or as much of it as can be read
        if (chain.packet->stream_index == chain.streamIndex &&
            avcodec_send_packet(chain.codec, chain.packet) == 0)
        {
            const int receiveRc = pumpFrames();
            if (receiveRc != 0 && receiveRc != AVERROR(EAGAIN) && receiveRc != AVERROR_EOF)
                failDecode(receiveRc);
        }
        av_packet_unref(chain.packet); // also one that the decoder refused: it is skipped
    }

    if (!StopRequested)
    {
        avcodec_send_packet(chain.codec, nullptr);
        pumpFrames();
        while (AudioOutput && AudioOutput->QueuedSeconds() > kDrainedSeconds && !StopRequested)
            std::this_thread::sleep_for(kDrainPoll);
        // A pause, or a seek that came too late, may have moved it while the last frames played.
        if (!StopRequested)
            CurrentSec = reachedSec;
    }
    if (AudioOutput)
        AudioOutput->SetActive(false);
    finish(); // the sink stays, inactive, until the next Stop
}

// Radio: opening

namespace
{

constexpr char kRadioHeaders[] = "Icy-MetaData: 1\r\nUser-Agent: Tovrel/1.0\r\n";

// What is asked of FFmpeg's HTTP layer: titles in the stream, its own quick reconnections (up to 5
// s apart), and an end to connections and reads that stay silent for 3 s (in microseconds).
constexpr std::pair<const char*, const char*> kRadioOptions[] = {
    {"headers", kRadioHeaders},
    {"icy", "1"},
    {"reconnect", "1"},
    {"reconnect_streamed", "1"},
    {"reconnect_on_network_error", "1"},
    {"reconnect_delay_max", "5"},
    {"rw_timeout", "3000000"},
    {"timeout", "3000000"},
};

// Where the HTTP content type may stand in a demuxer's metadata.
constexpr auto kContentTypeKeys = {"content-type", "Content-Type", "mime-type"};

// FFmpeg asks this while it connects and reads; 1 makes it give up.
int InterruptIfStopped(void* opaque)
{
    const auto* player = static_cast<const TovrelAudioPlayer*>(opaque);
    return player && player->IsStopRequestedForInterrupt() ? 1 : 0;
}

// FFmpeg keeps the content type to its I/O layer: it goes where the stream's description is read.
void PublishContentType(AVFormatContext* Format)
{
    if (Format->pb == nullptr || !MetadataValueAny(Format->metadata, kContentTypeKeys).empty())
        return;
    uint8_t* mimeType = nullptr;
    if (av_opt_get(Format->pb, "mime_type", AV_OPT_SEARCH_CHILDREN, &mimeType) < 0 || !mimeType)
        return;
    if (*mimeType)
        av_dict_set(&Format->metadata, "content-type", reinterpret_cast<const char*>(mimeType), 0);
    av_free(mimeType);
}

} // namespace

bool TovrelAudioPlayer::OpenStreamDecoder(const std::string& Url, AVFormatContext** OutFormat,
                                          AVCodecContext** OutCodec, int* OutStreamIndex,
                                          std::string* ErrorMessage)
{
    AVFormatContext* format = avformat_alloc_context();
    AVCodecContext* codecContext = nullptr;
    const auto fail = [&](const std::string& message)
    {
        AssignMessage(ErrorMessage, message);
        avcodec_free_context(&codecContext);
        avformat_close_input(&format);
        return false;
    };
    if (!format)
        return fail("Failed to allocate radio stream context.");
    format->interrupt_callback = {InterruptIfStopped, this};

    AVDictionary* options = nullptr;
    for (const auto& [key, value] : kRadioOptions)
        av_dict_set(&options, key, value, 0);
    const int rc = avformat_open_input(&format, Url.c_str(), nullptr, &options);
    av_dict_free(&options); // with what this build of FFmpeg did not want
    if (rc < 0)             // which has freed the context already
        return fail(StopRequested ? "Radio stream open cancelled."
                                  : "Failed to open radio stream: " + AvErrorText(rc));
    static constexpr DecoderTexts kTexts{
        .readInfo = "Failed to read radio stream info: ",
        .noAudio = "No audio stream found in radio source.",
        .noDecoder = "No decoder available for this radio stream.",
        .allocate = "Failed to allocate radio audio decoder.",
        .configure = "Failed to configure radio decoder: ",
        .open = "Failed to open radio decoder: ",
    };
    const std::string error = OpenAudioStream(format, kTexts, &codecContext, OutStreamIndex);
    if (!error.empty())
        return fail(error);
    PublishContentType(format);
    *OutFormat = format;
    *OutCodec = codecContext;
    return true;
}

// Radio: what is known about the stream

namespace
{

// Ogg streams carry their titles in the audio stream's own tags, not as the server's StreamTitle:
// this makes one of the other, and of such tags in other containers too.
class OggTitles
{
public:
    // To be called whenever the demuxer may have met new tags.
    void Publish(AVFormatContext* Format, int StreamIndex)
    {
        AVStream* stream = Format->streams[StreamIndex];
        const bool bNewTags =
            bFirst || (stream->event_flags & AVSTREAM_EVENT_FLAG_METADATA_UPDATED) != 0;
        bFirst = false;
        stream->event_flags &= ~AVSTREAM_EVENT_FLAG_METADATA_UPDATED;
        if (!bNewTags || MetadataValue(Format->metadata, "StreamTitle") != published)
            return; // nothing new, or the server speaks for itself
        const std::string artist = Take(stream, "artist");
        const std::string title = Take(stream, "title");
        if (title.empty())
            return;
        std::string whole = artist.empty() ? title : artist + " - " + title;
        if (av_dict_set(&Format->metadata, "StreamTitle", whole.c_str(), 0) >= 0)
            published = std::move(whole);
    }

private:
    // What is taken is cleared: some demuxers append the next title to the one that stands there.
    static std::string Take(AVStream* Stream, const char* Key)
    {
        const AVDictionaryEntry* entry = av_dict_get(Stream->metadata, Key, nullptr, 0);
        std::string value = entry ? entry->value : "";
        av_dict_set(&Stream->metadata, Key, nullptr, 0);
        return value;
    }

    bool bFirst = true;
    std::string published;
};

void FillStreamInfo(TovrelAudioPlayer::StreamInfo& Info, const AVFormatContext* FormatContext,
                    const AVCodecContext* CodecContext)
{
    if (!FormatContext || !CodecContext)
        return;

    Info.Codec = avcodec_get_name(CodecContext->codec_id);
    const AVInputFormat* input = FormatContext->iformat;
    const char* name = input ? (input->long_name ? input->long_name : input->name) : nullptr;
    Info.Format = name ? name : "";
    int64_t bitRate = CodecContext->bit_rate;
    if (bitRate < 1)
        bitRate = FormatContext->bit_rate;
    Info.BitRate = bitRate < 1 ? 0 : static_cast<int>(bitRate); // its low 32 bits
    Info.SampleRate = CodecContext->sample_rate;
    Info.Channels = CodecContext->ch_layout.nb_channels;

    const AVDictionary* metadata = FormatContext->metadata;
    Info.IcyName = MetadataValueAny(metadata, {"icy-name", "icy_name"});
    Info.IcyGenre = MetadataValueAny(metadata, {"icy-genre", "icy_genre"});
    Info.IcyBitrate = MetadataValueAny(metadata, {"icy-br", "icy-bitrate", "icy_bitrate"});
    Info.IcySampleRate = MetadataValueAny(metadata, {"icy-sr", "icy-samplerate", "icy_samplerate"});
    Info.IcyUrl = MetadataValueAny(metadata, {"icy-url", "icy_url"});
    Info.IcyPublic = MetadataValueAny(metadata, {"icy-pub", "icy_public"});
    Info.IcyNotice1 = MetadataValueAny(metadata, {"icy-notice1", "icy_notice1"});
    Info.IcyNotice2 = MetadataValueAny(metadata, {"icy-notice2", "icy_notice2"});
    Info.ContentType = MetadataValueAny(metadata, kContentTypeKeys);

    std::string title = MetadataValue(metadata, "StreamTitle");
    if (title.empty())
        title = MetadataValue(metadata, "streamtitle");
    if (title.empty() || title == Info.NowPlaying)
        return; // between two titles, and after a reconnection, the last one stays
    Info.NowPlaying = std::move(title);
    const std::time_t now = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
    std::tm local{};
    localtime_r(&now, &local);
    char text[16] = {};
    std::strftime(text, sizeof text, "%H:%M:%S", &local);
    Info.LastMetadataTime = text;
}

} // namespace

// Radio: the stream thread

void TovrelAudioPlayer::ReportStreamState(const StreamStatusCallback& Callback, StreamState State,
                                          const StreamInfo& Info, const std::string& Text)
{
    if (!Callback)
        return;
    try
    {
        Callback(State, Info, Text);
    }
    catch (...)
    {
        // A faulty callback costs its host a report, not the music.
    }
}

void TovrelAudioPlayer::StreamThreadMain(std::string Url, StreamStatusCallback Callback)
{
    StreamInfo streamInfo; // outlives every connection, as do the next two
    streamInfo.MaxReconnectAttempts = kMaxReconnectAttempts;
    std::string lastError;
    // Deliberately never reset: a station that keeps failing is given up at some point, however
    // well it plays in between.
    int reconnectAttempt = 0;

    const auto report = [&](StreamState state, const std::string& text)
    {
        ReportStreamState(Callback, state, streamInfo, text);
    };
    // Failures that also stand in the player's error text.
    const auto fail = [&](const std::string& text)
    {
        lastError = text;
        SetLastError(text);
    };

    // One connection from its opening to its end. True where another attempt makes sense.
    const auto playConnection = [&]
    {
        DecoderChain chain;
        int outRate = 0;
        int outChannels = 0;
        std::string error;
        if (!OpenStreamDecoder(Url, &chain.format, &chain.codec, &chain.streamIndex, &error) ||
            !ConfigureResampler(chain.codec, &chain.swr, &outRate, &outChannels, &error))
        {
            fail(error.empty() ? "Failed to connect to radio stream." : error);
            return true;
        }
        ResamplerInput resamplerInput{chain.codec->ch_layout.nb_channels, chain.codec->sample_fmt,
                                      chain.codec->sample_rate};
        OggTitles oggTitles;
        const auto refreshInfo = [&]
        {
            oggTitles.Publish(chain.format, chain.streamIndex);
            FillStreamInfo(streamInfo, chain.format, chain.codec);
        };
        refreshInfo();

        // A live stream has no length, and every connection counts from 0 again.
        DurationSec = 0.0;
        CurrentSec = 0.0;
        PausedPresentationSec = 0.0;
        QueuedSourceEndSec = 0.0;
        AnchorClock(0.0, 0.0);

        auto output = std::make_unique<PipeWirePlayer>();
        if (!output->Init(outRate, outChannels))
        {
            fail("Failed to initialize PipeWire audio output.");
            chain.Release();
            output.reset();
            return false;
        }
        output->SetActive(false); // silent until the start buffer is full
        InstallOutput(std::move(output), true);
        chain.frame = av_frame_alloc();
        chain.packet = av_packet_alloc();
        if (!chain.frame || !chain.packet)
        {
            // The sink deliberately stays, inactive, for the next Stop to remove.
            fail("Failed to allocate FFmpeg radio buffers.");
            return false;
        }

        report(StreamState::Buffering, "");
        bool bOutputActivated = false;
        bool bReadFailed = false;
        StreamState lastReportedState = StreamState::Buffering;
        std::string lastReportedTitle = streamInfo.NowPlaying;
        auto lastReportedAt = std::chrono::steady_clock::now();
        const double metadataGain = MetadataGainLinear(chain.format, chain.streamIndex);

        const auto reportChangesAndHeartbeat = [&]
        {
            const StreamState currentState =
                bOutputActivated ? StreamState::Playing : StreamState::Buffering;
            const auto now = std::chrono::steady_clock::now();
            if (currentState != lastReportedState || streamInfo.NowPlaying != lastReportedTitle ||
                now - lastReportedAt >= kHeartbeat)
            {
                report(currentState, "");
                lastReportedTitle = streamInfo.NowPlaying;
                lastReportedAt = now;
            }
            lastReportedState = currentState;
        };

        const auto pumpFrame = [&](const AVFrame& decodedFrame)
        {
            if (!FitResamplerToFrame(decodedFrame, &chain.swr, &resamplerInput, outRate,
                                     outChannels))
                return;
            const int converted =
                ConvertFrame(decodedFrame, chain.swr, outRate, outChannels, ResampleBuffer);
            if (converted <= 0)
                return;
            while (!StopRequested && AudioOutput &&
                   AudioOutput->QueuedSeconds() > kRadioQueueLimitSeconds)
                std::this_thread::sleep_for(kRadioQueuePoll);
            while (!StopRequested && Paused)
                std::this_thread::sleep_for(kPausePoll);
            if (StopRequested || !AudioOutput)
                return;

            float* samples = ResampleBuffer.data();
            ApplyEqualizer(samples, converted, outChannels, outRate);
            ApplyGainAndPan(samples, converted, outChannels, metadataGain);
            CaptureSpectrumSamples(samples, converted, outChannels);
            const double endSec = CurrentSec + static_cast<double>(converted) / outRate;
            CurrentSec = endSec;
            // Deliberately the end of the block, where files and PCM buffers tell its start.
            TapAndPush(samples, converted, outChannels, outRate, CurrentSec);
            QueuedSourceEndSec = endSec;
            if (bOutputActivated || AudioOutput->QueuedSeconds() < kStartBufferSeconds)
                return;
            ReleaseOutput();
            AnchorClock(0.0, 0.0);
            // Not entered as the last report, so the next packet tells of Playing once more. Hosts
            // have come to expect the two.
            report(StreamState::Playing, "");
            bOutputActivated = true;
        };

        while (!StopRequested)
        {
            refreshInfo();
            reportChangesAndHeartbeat();
            const int readRc = av_read_frame(chain.format, chain.packet);
            if (readRc < 0)
            {
                lastError = AvErrorText(readRc);
                bReadFailed = true;
                break;
            }
            // A packet that the decoder refuses is dropped without a word: the next one may do.
            if (chain.packet->stream_index == chain.streamIndex &&
                avcodec_send_packet(chain.codec, chain.packet) == 0)
            {
                int receiveRc = 0;
                while ((receiveRc = avcodec_receive_frame(chain.codec, chain.frame)) == 0)
                {
                    pumpFrame(*chain.frame);
                    av_frame_unref(chain.frame);
                    if (StopRequested)
                        break;
                }
                if (receiveRc != 0 && receiveRc != AVERROR(EAGAIN) && receiveRc != AVERROR_EOF)
                {
                    // Ends as a stop, on purpose: the error text alone tells why.
                    fail("Radio decode failed: " + AvErrorText(receiveRc));
                    StopRequested = true;
                }
            }
            av_packet_unref(chain.packet);
        }
        {
            const std::lock_guard lock(AudioOutputMutex);
            if (AudioOutput)
            {
                AudioOutput->SetActive(false);
                CloseOutput();
            }
        }
        return bReadFailed && !StopRequested;
    };

    while (!StopRequested)
    {
        streamInfo.ReconnectAttempt = reconnectAttempt;
        report(reconnectAttempt == 0 ? StreamState::Connecting : StreamState::Reconnecting,
               lastError);
        if (!playConnection())
            break;
        if (++reconnectAttempt > kMaxReconnectAttempts)
            break;
        streamInfo.ReconnectAttempt = reconnectAttempt;
        report(StreamState::Reconnecting, "retry " + std::to_string(reconnectAttempt) + "/" +
                                              std::to_string(kMaxReconnectAttempts) + ": " +
                                              lastError);
        for (int step = 0; step < kReconnectWaitSteps && !StopRequested; ++step)
            std::this_thread::sleep_for(kReconnectWaitStep);
    }

    if (StopRequested)
        report(StreamState::Stopped, "");
    else
        report(StreamState::Error, lastError.empty() ? "Radio stream ended." : lastError);
    Finished = true;
    Playing = false;
}

// PCM buffers

void TovrelAudioPlayer::PcmThreadMain(std::vector<float> Frames, int SampleRate, int Channels,
                                      double StartSeconds)
{
    const size_t totalFrames = Frames.size() / static_cast<size_t>(Channels);
    const auto secondsAt = [&](size_t frame)
    {
        return static_cast<double>(frame) / SampleRate;
    };
    const auto frameAt = [&](double seconds)
    {
        const long long frame = std::llround(seconds * SampleRate);
        return std::min(static_cast<size_t>(std::max(frame, 0LL)), totalFrames);
    };
    const auto finish = [&]
    {
        Finished = true;
        Playing = false;
    };
    DurationSec = secondsAt(totalFrames);

    auto output = std::make_unique<PipeWirePlayer>();
    if (!output->Init(SampleRate, Channels))
    {
        SetLastError("Failed to initialize PipeWire audio output.");
        return finish(); // which leaves the new sink to its owner here
    }
    output->SetActive(true);
    InstallOutput(std::move(output));
    AnchorClock(StartSeconds, 0.0);

    // 10 ms, or more where that would be too short to be worth a round.
    const int chunkFrames = std::max(SampleRate / kPcmChunksPerSecond, kMinPcmChunkFrames);
    const auto channels = static_cast<size_t>(Channels);
    std::vector<float> chunk;
    size_t framePos = frameAt(StartSeconds);
    // A pending seek counts as more to play: it may lead back from the end.
    while (!StopRequested && (framePos < totalFrames || SeekRequested))
    {
        if (SeekRequested.exchange(false))
        {
            const double target = SeekTarget();
            framePos = frameAt(target);
            CurrentSec = target;
            PausedPresentationSec = target;
            AnchorClock(target, PresentedSeconds());
            QueuedSourceEndSec = target;
            if (AudioOutput)
                AudioOutput->Clear();
        }
        while (!StopRequested && !SeekRequested && Paused)
            std::this_thread::sleep_for(kPausePoll);
        if (StopRequested)
            break;
        if (SeekRequested)
            continue;
        while (!StopRequested && !SeekRequested && AudioOutput &&
               AudioOutput->QueuedSeconds() > kPcmQueueLimitSeconds)
            std::this_thread::sleep_for(kQueuePoll);
        if (StopRequested)
            break;
        if (SeekRequested || !AudioOutput)
            continue;

        const size_t count = std::min(static_cast<size_t>(chunkFrames), totalFrames - framePos);
        if (count == 0)
            continue; // a seek to the very end
        const float* first = Frames.data() + framePos * channels;
        chunk.assign(first, first + count * channels);
        const int frames = static_cast<int>(count);
        ApplyEqualizer(chunk.data(), frames, Channels, SampleRate);
        ApplyGainAndPan(chunk.data(), frames, Channels);
        CaptureSpectrumSamples(chunk.data(), frames, Channels);
        TapAndPush(chunk.data(), frames, Channels, SampleRate, secondsAt(framePos));
        framePos += count;
        QueuedSourceEndSec = secondsAt(framePos);
        CurrentSec = Clamped(secondsAt(framePos), 0.0, DurationSec);
    }

    while (AudioOutput && AudioOutput->QueuedSeconds() > kDrainedSeconds && !StopRequested)
    {
        CurrentSec = std::min(secondsAt(framePos), DurationSec.load());
        std::this_thread::sleep_for(kDrainPoll);
    }
    if (!StopRequested)
        CurrentSec = std::min(secondsAt(framePos), DurationSec.load()); // as in DecodeThreadMain
    if (AudioOutput)
        AudioOutput->SetActive(false);
    finish();
}
