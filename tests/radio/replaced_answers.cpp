#include "replaced_answers.h"

#include <atomic>
#include <cstddef>
#include <cstdint>

extern "C"
{
#include <libswresample/swresample.h>
}

namespace
{

constexpr int kNever = -1;

std::atomic<int> g_conversionsLeft = kNever; // until the one that is replaced
std::atomic<int> g_conversionAnswer = 0;
std::atomic<bool> g_bNoErrorTexts = false;

} // namespace

ConversionAnswer::ConversionAnswer(int code, int skip)
{
    g_conversionAnswer = code;
    g_conversionsLeft = skip;
}

ConversionAnswer::~ConversionAnswer()
{
    g_conversionsLeft = kNever;
}

bool ConversionAnswer::Happened() const
{
    return g_conversionsLeft == kNever;
}

NoErrorTexts::NoErrorTexts()
{
    g_bNoErrorTexts = true;
}

NoErrorTexts::~NoErrorTexts()
{
    g_bNoErrorTexts = false;
}

extern "C"
{

    int __real_swr_convert(SwrContext* swr, uint8_t** out, int outFrames, const uint8_t** in,
                           int inFrames);
    int __wrap_swr_convert(SwrContext* swr, uint8_t** out, int outFrames, const uint8_t** in,
                           int inFrames);
    int __wrap_swr_convert(SwrContext* swr, uint8_t** out, int outFrames, const uint8_t** in,
                           int inFrames)
    {
        // Conversions are the one worker's alone: nobody counts between these two.
        if (g_conversionsLeft != kNever && g_conversionsLeft-- == 0)
            return g_conversionAnswer;
        return __real_swr_convert(swr, out, outFrames, in, inFrames);
    }

    int __real_av_strerror(int code, char* text, size_t size);
    int __wrap_av_strerror(int code, char* text, size_t size);
    int __wrap_av_strerror(int code, char* text, size_t size)
    {
        if (!g_bNoErrorTexts)
            return __real_av_strerror(code, text, size);
        *text = '\0';
        return 0;
    }
}
