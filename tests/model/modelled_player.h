// A player in stepped time and, beside it, what its documentation promises: every operation is done
// to both, and after each the two are compared.
#pragma once

#include "host.h"

#include "internals.h"
#include "plain_equalizer.h"
#include "virtual_sink.h"

#include <array>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

class ModelledPlayer
{
public:
    explicit ModelledPlayer(Sources& sources);
    ~ModelledPlayer();
    ModelledPlayer(const ModelledPlayer&) = delete;
    ModelledPlayer& operator=(const ModelledPlayer&) = delete;

    void Do(const Operation& operation);

    // Lets what plays come to its end, if it has one, stops, and looks at what is left behind.
    void PlayOut();

private:
    using Gains = std::array<double, TovrelAudioPlayer::EqualizerBandCount>;

    // The controls, as they last from one playback to the next.
    struct Controls
    {
        double volume = 1.0;
        double pan = 0.0;
        bool bEqualizer = true;
        Gains gains{};
        int tap = 0; // 0: none
        bool bTapReplacesItself = false;
    };

    // Where the worker may be in the source, and what the equalizer remembers there.
    struct Place
    {
        size_t frame = 0;
        std::optional<PlainEqualizer> equalizer;
        Gains gains{};
    };

    // A position that is known to within the worker's next step.
    struct Bounds
    {
        double low = 0.0;
        double high = 0.0;
    };

    void Promise(const Operation& operation, const Outcome& outcome);
    void PromisePlay(const Operation& operation, const Outcome& outcome);
    void PromiseSeek(double seconds);
    void PromisePaused(bool bPaused);
    void PromiseStopRequest();
    void PromiseStop();

    Bounds Position() const;
    Bounds EndFrom(Bounds position) const;
    void AnchorAt(Bounds position);
    void PlaceAt(double target);
    bool IsAllDelivered() const;
    bool IsStream() const { return m_source && m_source->kind == Source::Kind::Stream; }
    double QueueLimit() const;

    void LookAtEverything();
    void LookForFailedSeek();
    void FindSink();
    void LookAtBlocks();
    void LookAtBlock(size_t frames, std::vector<TapCall>& calls);
    bool Follows(Place& place, const std::vector<float>& block, const TapCall* call) const;
    std::vector<float> Processed(Place& place, size_t frames) const;
    void LookAtTap(size_t block, const std::vector<float>& samples, const TapCall& call);
    void LookAtEnd();
    void LookAtSink();
    void LookAtQueue();
    void LookAtState();
    void LookAtPosition();

    template <class... Parts>
    void Require(bool bKept, const Parts&... message) const;

    Sources& m_sources;
    TovrelAudioPlayer m_player;
    Taps m_taps;
    Reports m_reports;
    Host m_host{m_sources, m_player, m_taps, m_reports};
    std::string m_doing;        // for messages
    bool m_bMayDeliver = false; // whether the worker may run while this is done

    // What is promised.
    Controls m_controls;
    const Source* m_source = nullptr; // of this playback or the last one
    bool m_bPlaying = false;
    bool m_bStarting = false; // Play has only just returned
    bool m_bLingers = false;  // the worker had ended before that: Playing may stay
    bool m_bPaused = false;
    bool m_bFinished = false;
    bool m_bStopRequested = false;
    double m_duration = 0.0;
    std::string m_error;
    std::vector<float> m_spectrum;
    std::vector<Place> m_places; // one of them is true; empty where the sound is not told
    std::vector<Place> m_placesBeforeSeek;
    double m_liveSeconds = 0.0; // of a stream: since its start or the last pause

    // The clock: where it stood, when, and when a seek came last. What a player that does not play
    // reads stands in the last one.
    Bounds m_anchor;
    double m_anchoredAt = 0.0;
    double m_soughtAt = 0.0;
    double m_soughtTo = -1.0;
    Bounds m_resting;

    // What was seen of this playback's sink so far.
    size_t m_sinksBefore = 0; // made for earlier playbacks
    std::shared_ptr<const VirtualSink> m_sink;
    size_t m_blocks = 0;
    size_t m_samples = 0;
    size_t m_reportsAtStop = 0;
    size_t m_droppedSamples = 0;           // from the queue, by seeks
    std::optional<size_t> m_samplesAtSeek; // when one was posted that is not known to be taken
    bool m_bBlockSincePause = false;
    bool m_bLastQueued = false; // the worker has queued its last block
    double m_changedAt = 0.0;   // when anything was done that may hold the worker up
    double m_stopRequestedAt = 0.0;
};
