#include "recorder.h"

#include <sndfile.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>
#include <utility>

namespace
{

constexpr int kRingSeconds = 10;
constexpr size_t kMostSamples = 1 << 24; // 64 MiB
constexpr std::chrono::milliseconds kPoll{20};

} // namespace

struct Recorder::File
{
    SNDFILE* handle = nullptr;

    // Takes the descriptor, also where it fails.
    File(int descriptor, bool bFlac, int sampleRateHz, int channels)
    {
        SF_INFO info{};
        info.samplerate = sampleRateHz;
        info.channels = channels;
        // Beyond 4 GiB a WAV file needs the wider fields of RF64; below it stays a WAV file.
        info.format = bFlac ? SF_FORMAT_FLAC | SF_FORMAT_PCM_24 : SF_FORMAT_RF64 | SF_FORMAT_FLOAT;
        handle = sf_open_fd(descriptor, SFM_WRITE, &info, SF_TRUE);
        if (handle)
            sf_command(handle, bFlac ? SFC_SET_CLIPPING : SFC_RF64_AUTO_DOWNGRADE, nullptr,
                       SF_TRUE);
    }
    ~File() { Close(); }

    // 0, or the error of what was still to be written.
    int Close() { return sf_close(std::exchange(handle, nullptr)); }

    File(const File&) = delete;
    File& operator=(const File&) = delete;
};

bool Recorder::Knows(std::string_view path)
{
    return path.ends_with(".wav") || path.ends_with(".flac");
}

Recorder::Recorder(const std::string& path) : m_bFlac(path.ends_with(".flac"))
{
    m_descriptor = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (m_descriptor < 0)
        throw RecordingError(std::strerror(errno));
    m_writer = std::thread([this] { Write(); });
}

Recorder::~Recorder()
{
    Close();
}

void Recorder::Put(const float* samples, int frames, int sampleRateHz, int channels)
{
    if (!m_bStarted)
    {
        m_sampleRateHz = sampleRateHz;
        m_channels = channels;
        m_ring.resize(std::min(static_cast<size_t>(sampleRateHz) * static_cast<size_t>(channels) *
                                   kRingSeconds,
                               kMostSamples));
        m_bStarted = true;
    }
    const auto count = static_cast<size_t>(frames) * static_cast<size_t>(channels);
    const uint64_t put = m_put;
    if (sampleRateHz != m_sampleRateHz || channels != m_channels ||
        put - m_written + count > m_ring.size())
    {
        ++m_dropped;
        return;
    }
    const size_t at = put % m_ring.size();
    const size_t first = std::min(count, m_ring.size() - at);
    std::copy_n(samples, first, m_ring.begin() + static_cast<std::ptrdiff_t>(at));
    std::copy_n(samples + first, count - first, m_ring.begin());
    m_put = put + count;
}

std::string Recorder::Close()
{
    if (m_writer.joinable())
    {
        m_bClosing = true;
        m_writer.join();
    }
    return m_error;
}

// The writer's thread.
void Recorder::Write()
{
    bool bLast = false;
    while (!bLast)
    {
        bLast = m_bClosing; // before the last look: what came before Close is written
        if (m_bStarted || bLast)
            WriteSome();
        if (!bLast)
            std::this_thread::sleep_for(kPoll);
    }
    if (m_file && m_file->handle)
        if (const int error = m_file->Close(); error != 0)
            NoteFailure(sf_error_number(error));
    m_file.reset();
}

void Recorder::WriteSome()
{
    if (!m_file)
    {
        m_file = std::make_unique<File>(m_descriptor, m_bFlac, m_sampleRateHz, m_channels);
        if (!m_file->handle)
            NoteFailure(sf_strerror(nullptr));
    }
    const uint64_t put = m_put;
    uint64_t written = m_written;
    while (written < put)
    {
        const size_t at = written % m_ring.size();
        const auto count = static_cast<sf_count_t>(std::min(put - written, m_ring.size() - at));
        if (!m_bFailed && sf_write_float(m_file->handle, &m_ring[at], count) != count)
            NoteFailure(sf_strerror(m_file->handle));
        written += static_cast<uint64_t>(count);
        m_written = written;
    }
}

void Recorder::NoteFailure(const char* text)
{
    if (!m_bFailed) // the first one is the reason of the others
        m_error = text;
    m_bFailed = true;
}
