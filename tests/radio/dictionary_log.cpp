#include "dictionary_log.h"

#include "wrapped_calls.h"

#include <mutex>

extern "C"
{
#include <libavutil/dict.h>
#include <libavutil/error.h>
}

namespace
{

std::mutex g_mutex;
std::vector<std::string> g_entries;

} // namespace

std::vector<std::string> DictionaryEntries()
{
    const std::lock_guard lock(g_mutex);
    return g_entries;
}

void ForgetDictionaryEntries()
{
    const std::lock_guard lock(g_mutex);
    g_entries.clear();
}

extern "C"
{

    int __real_av_dict_set(AVDictionary** dictionary, const char* key, const char* value,
                           int flags);
    int __wrap_av_dict_set(AVDictionary** dictionary, const char* key, const char* value,
                           int flags);
    int __wrap_av_dict_set(AVDictionary** dictionary, const char* key, const char* value, int flags)
    {
        {
            const std::lock_guard lock(g_mutex);
            g_entries.push_back(std::string(key) + "=" + (value ? value : "") + " " +
                                std::to_string(flags));
        }
        return FailsHere("av_dict_set") ? AVERROR(ENOMEM)
                                        : __real_av_dict_set(dictionary, key, value, flags);
    }
}
