// Writes what the PCM tap gives into a sound file.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

struct RecordingError : std::runtime_error
{
    using std::runtime_error::runtime_error;
};

class Recorder
{
public:
    // By the end of a file's name: .wav (32-bit float) or .flac (24 bit, clipped at full scale).
    static bool Knows(std::string_view path);

    // Creates or empties the file. Throws RecordingError where it cannot.
    explicit Recorder(const std::string& path);
    ~Recorder();
    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;

    // Called by the tap: copies the block, or drops it where the disk is ten seconds behind (less
    // of uncommonly many channels) or the block has another rate or number of channels than the
    // first one. Never waits, allocates with the first block alone. One thread at a time.
    void Put(const float* samples, int frames, int sampleRateHz, int channels);

    uint64_t DroppedBlocks() const { return m_dropped; }

    // Whether nothing is written any more; Close tells why.
    bool HasFailed() const { return m_bFailed; }

    // Writes what is left and ends the file. Returns what went wrong, empty where nothing did.
    std::string Close();

private:
    void Write();
    void WriteSome();
    void NoteFailure(const char* text);

    const bool m_bFlac;
    int m_descriptor = -1;
    // Written by Put before the ring that they stand for.
    int m_sampleRateHz = 48000;
    int m_channels = 2;
    // Samples, from one thread to another. Both counts only grow.
    std::vector<float> m_ring;
    std::atomic<uint64_t> m_put{0};
    std::atomic<uint64_t> m_written{0};
    std::atomic<bool> m_bStarted{false}; // the ring is there
    std::atomic<uint64_t> m_dropped{0};
    std::atomic<bool> m_bClosing{false};
    std::atomic<bool> m_bFailed{false};
    std::string m_error; // the writer's, until it has ended
    struct File;
    std::unique_ptr<File> m_file;
    std::thread m_writer;
};
