// What a case plays with sinks that have failed before: pieces of one signal, and one recording of
// all of them.
#pragma once

#include "harness.h"

#include <cstddef>
#include <vector>

class PipeWirePlayer;

constexpr size_t kPieceFrames = 2 * kQuantum + 100;

class PiecewisePlay
{
public:
    // The frames that follow those of the last piece.
    std::vector<float> NextPiece(size_t frames = kPieceFrames);

    // Plays the next piece from its start to its end.
    void PlayPiece(PipeWirePlayer& sink);

    // Ends the recording. It holds all the pieces whole, in order, and nothing else.
    [[nodiscard]] testing::AssertionResult IsWhole();

private:
    MonitorRecording m_recording;
    size_t m_given = 0;
};

inline std::vector<float> PiecewisePlay::NextPiece(size_t frames)
{
    m_given += frames;
    return IndexedFrames(m_given - frames, frames);
}

inline void PiecewisePlay::PlayPiece(PipeWirePlayer& sink)
{
    PushFrames(sink, NextPiece());
    sink.SetActive(true);
    EXPECT_TRUE(DrainAsWorkersDo(sink));
}

inline testing::AssertionResult PiecewisePlay::IsWhole()
{
    return IsComplete(FindIndexed(m_recording.Finish(), 0, m_given));
}
