#include "meters.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace
{

constexpr int kSliceFrames = 1024; // of which a meter shows the peak
constexpr size_t kMostWaiting = 2000;
// After which a spectrum is over, where no other has followed: the longest block of the usual
// formats.
constexpr std::chrono::milliseconds kBlockTime{150};

float Peak(const float* samples, int frames, int channels, int channel)
{
    float peak = 0.0f;
    for (int i = channel; i < frames * channels; i += channels)
        peak = std::max(peak, std::abs(samples[i]));
    return peak;
}

} // namespace

void Meters::Put(const float* samples, int frames, int sampleRateHz, int channels,
                 Clock::time_point heardAt)
{
    const std::lock_guard lock(m_mutex);
    ++m_blocks;
    m_sampleRateHz = sampleRateHz;
    m_lastHeardAt = heardAt;
    for (int from = 0; from < frames && m_levels.size() < kMostWaiting; from += kSliceFrames)
    {
        const int count = std::min(kSliceFrames, frames - from);
        const float* slice = samples + static_cast<std::ptrdiff_t>(from) * channels;
        const auto after = std::chrono::microseconds(1000000LL * from / sampleRateHz);
        m_levels.push_back({heardAt + after, Peak(slice, count, channels, 0),
                            Peak(slice, count, channels, std::min(1, channels - 1))});
    }
}

bool Meters::HasNewBlock()
{
    const std::lock_guard lock(m_mutex);
    return m_blocks != m_analysed;
}

void Meters::PutSpectrum(const std::vector<float>& mono, size_t bands)
{
    Spectra spectra;
    int sampleRateHz = 0;
    {
        const std::lock_guard lock(m_mutex);
        m_analysed = m_blocks;
        spectra.heardAt = m_lastHeardAt;
        sampleRateHz = m_sampleRateHz;
    }
    spectra.levelsDb.resize(bands);
    m_spectrum.Analyse(mono, sampleRateHz, spectra.levelsDb);
    if (m_spectra.size() < kMostWaiting)
        m_spectra.push_back(std::move(spectra));
    if (m_bands.size() != bands)
        m_bands.assign(bands, {});
}

void Meters::Update(Clock::time_point now)
{
    const float seconds =
        std::chrono::duration<float>(now - std::exchange(m_updatedAt, now)).count();
    Level level;
    {
        const std::lock_guard lock(m_mutex);
        for (; !m_levels.empty() && m_levels.front().heardAt <= now; m_levels.pop_front())
        {
            level.left = std::max(level.left, m_levels.front().left);
            level.right = std::max(level.right, m_levels.front().right);
        }
    }
    m_left.Update(Decibels(level.left), seconds);
    m_right.Update(Decibels(level.right), seconds);

    for (; !m_spectra.empty() && m_spectra.front().heardAt <= now; m_spectra.pop_front())
        m_heard = std::move(m_spectra.front());
    const bool bHeard = now - m_heard.heardAt < kBlockTime;
    for (size_t band = 0; band < m_bands.size(); ++band)
        m_bands[band].Update(bHeard && band < m_heard.levelsDb.size() ? m_heard.levelsDb[band]
                                                                      : Ballistics::kFloorDb,
                             seconds);
}
