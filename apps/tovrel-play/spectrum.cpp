#include "spectrum.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <numbers>

extern "C"
{
#include <libavutil/mem.h>
#include <libavutil/tx.h>
}

namespace
{

constexpr float kFallDbPerSecond = 40.0f;
constexpr float kHoldSeconds = 0.8f;
constexpr float kPeakFallDbPerSecond = 16.0f;

struct Free
{
    void operator()(void* memory) const { av_free(memory); }
};

} // namespace

void Ballistics::Update(float levelDb, float seconds)
{
    m_levelDb = std::max({levelDb, m_levelDb - kFallDbPerSecond * seconds, kFloorDb});
    m_heldSeconds += seconds;
    if (m_levelDb >= m_peakDb)
    {
        m_peakDb = m_levelDb;
        m_heldSeconds = 0.0f;
    }
    else if (m_heldSeconds > kHoldSeconds)
        m_peakDb = std::max(m_levelDb, m_peakDb - kPeakFallDbPerSecond * seconds);
}

float Decibels(float amplitude)
{
    constexpr float kMostDb = 24.0f; // so that a meter comes back also from infinity
    return amplitude > 0.0f
               ? std::clamp(20.0f * std::log10(amplitude), Ballistics::kFloorDb, kMostDb)
               : Ballistics::kFloorDb;
}

// FFmpeg's transform of real numbers; its vectors want their own alignment.
struct Spectrum::Transform
{
    AVTXContext* context = nullptr;
    av_tx_fn run = nullptr;
    std::unique_ptr<float, Free> in{static_cast<float*>(av_mallocz(kFrames * sizeof(float)))};
    std::unique_ptr<std::complex<float>, Free> out{static_cast<std::complex<float>*>(
        av_mallocz((kFrames / 2 + 1) * sizeof(std::complex<float>)))};

    Transform()
    {
        const float scale = 1.0f;
        if (in && out)
            av_tx_init(&context, &run, AV_TX_FLOAT_RDFT, 0, static_cast<int>(kFrames), &scale, 0);
    }
    ~Transform() { av_tx_uninit(&context); }
    Transform(const Transform&) = delete;
    Transform& operator=(const Transform&) = delete;
};

Spectrum::Spectrum() : m_transform(std::make_unique<Transform>()), m_powers(kFrames / 2 + 1)
{
}

Spectrum::~Spectrum() = default;

double Spectrum::EdgeHz(size_t band, size_t bands)
{
    return kLowestHz *
           std::pow(kHighestHz / kLowestHz, static_cast<double>(band) / static_cast<double>(bands));
}

void Spectrum::Analyse(const std::vector<float>& mono, double sampleRateHz,
                       std::vector<float>& levelsDb)
{
    std::fill(levelsDb.begin(), levelsDb.end(), Ballistics::kFloorDb);
    const size_t frames = std::min(mono.size(), kFrames);
    if (frames < 2 || sampleRateHz <= 0.0 || !m_transform->context)
        return;
    if (m_window.size() != frames) // Hann's
    {
        m_window.resize(frames);
        for (size_t i = 0; i < frames; ++i)
            m_window[i] = static_cast<float>(
                0.5 - 0.5 * std::cos(2.0 * std::numbers::pi * (static_cast<double>(i) + 0.5) /
                                     static_cast<double>(frames)));
        m_windowSum = static_cast<float>(frames) * 0.5f;
    }
    float* in = m_transform->in.get();
    std::transform(mono.end() - static_cast<std::ptrdiff_t>(frames), mono.end(), m_window.begin(),
                   in, std::multiplies<>());
    std::fill(in + frames, in + kFrames, 0.0f);
    m_transform->run(m_transform->context, m_transform->out.get(), in, sizeof(float));
    std::transform(m_transform->out.get(), m_transform->out.get() + m_powers.size(),
                   m_powers.begin(), [](const auto& bin) { return std::norm(bin); });

    const double binsPerHz = static_cast<double>(kFrames) / sampleRateHz;
    const auto lastBin = static_cast<double>(m_powers.size() - 1);
    for (size_t band = 0; band < levelsDb.size(); ++band)
    {
        const double from = EdgeHz(band, levelsDb.size()) * binsPerHz;
        const double to = EdgeHz(band + 1, levelsDb.size()) * binsPerHz;
        if (from > lastBin)
            break;
        // A band that has no bin of its own takes the nearest one.
        const auto first = static_cast<size_t>(std::lround(from));
        const auto end = static_cast<size_t>(std::lround(std::min(to, lastBin + 1.0)));
        const float power = *std::max_element(
            m_powers.begin() + static_cast<std::ptrdiff_t>(first),
            m_powers.begin() +
                static_cast<std::ptrdiff_t>(std::min(std::max(end, first + 1), m_powers.size())));
        levelsDb[band] = Decibels(2.0f * std::sqrt(power) / m_windowSum);
    }
}
