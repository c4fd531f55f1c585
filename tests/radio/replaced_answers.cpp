#include "replaced_answers.h"

#include <atomic>
#include <cstddef>

namespace
{

std::atomic<bool> g_bNoErrorTexts = false;

} // namespace

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
