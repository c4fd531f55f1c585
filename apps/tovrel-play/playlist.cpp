#include "playlist.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <filesystem>
#include <map>

#include <glob.h>
#include <pugixml.hpp>

extern "C"
{
#include <libavformat/avio.h>
#include <libavutil/dict.h>
#include <libavutil/error.h>
#include <libavutil/mem.h>
#include <libavutil/opt.h>
}

namespace
{

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kTimeLimit{15};
constexpr size_t kEntryLimit = 10000;
constexpr size_t kSizeLimit = 1 << 20; // bytes; what is longer is no list of titles
constexpr char kTooLong[] = "This playlist is too long.";
constexpr char kNothing[] = "This playlist holds nothing to play.";
constexpr std::string_view kPlaylistEndings[] = {".m3u", ".m3u8", ".pls", ".xspf"};
constexpr std::string_view kSoundEndings[] = {
    ".aac",  ".ac3",  ".aif", ".aiff", ".alac", ".amr", ".ape", ".au",  ".caf", ".dsf",
    ".dts",  ".flac", ".m4a", ".m4b",  ".mka",  ".mp2", ".mp3", ".mpc", ".oga", ".ogg",
    ".opus", ".spx",  ".tak", ".tta",  ".voc",  ".wav", ".wma", ".wv"};
constexpr char kSilenceLimit[] = "3000000"; // microseconds without a byte from a server

bool EqualsIgnoringCase(std::string_view left, std::string_view right)
{
    return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                      [](unsigned char a, unsigned char b)
                      { return std::tolower(a) == std::tolower(b); });
}

bool StartsWithIgnoringCase(std::string_view text, std::string_view start)
{
    return EqualsIgnoringCase(text.substr(0, start.size()), start);
}

bool EndsWithIgnoringCase(std::string_view text, std::string_view end)
{
    return text.size() >= end.size() &&
           EqualsIgnoringCase(text.substr(text.size() - end.size()), end);
}

template <size_t kCount>
bool EndsWithAnyOf(std::string_view text, const std::string_view (&ends)[kCount])
{
    return std::any_of(std::begin(ends), std::end(ends),
                       [=](std::string_view end) { return EndsWithIgnoringCase(text, end); });
}

std::string_view Trimmed(std::string_view text)
{
    constexpr std::string_view kSpace = " \t\r\n";
    const size_t first = text.find_first_not_of(kSpace);
    return first == text.npos ? std::string_view()
                              : text.substr(first, text.find_last_not_of(kSpace) + 1 - first);
}

// The trimmed lines that are not empty.
std::vector<std::string_view> Lines(std::string_view text)
{
    constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
    if (text.substr(0, kByteOrderMark.size()) == kByteOrderMark)
        text.remove_prefix(kByteOrderMark.size());
    std::vector<std::string_view> lines;
    while (!text.empty())
    {
        const size_t end = std::min(text.find_first_of("\r\n"), text.size());
        if (const std::string_view line = Trimmed(text.substr(0, end)); !line.empty())
            lines.push_back(line);
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return lines;
}

std::vector<std::string_view> M3uEntries(const std::vector<std::string_view>& lines)
{
    std::vector<std::string_view> entries;
    std::copy_if(lines.begin(), lines.end(), std::back_inserter(entries),
                 [](std::string_view line) { return line.front() != '#'; });
    return entries;
}

// "FileN=..." in the order of N.
std::vector<std::string_view> PlsEntries(const std::vector<std::string_view>& lines)
{
    constexpr std::string_view kKey = "file";
    std::map<unsigned, std::string_view> numbered;
    for (const std::string_view line : lines)
    {
        unsigned number = 0;
        const size_t equals = line.find('=');
        if (equals == line.npos || !StartsWithIgnoringCase(line, kKey))
            continue;
        const std::string_view digits = Trimmed(line.substr(kKey.size(), equals - kKey.size()));
        const std::string_view value = Trimmed(line.substr(equals + 1));
        const auto [end, error] =
            std::from_chars(digits.data(), digits.data() + digits.size(), number);
        if (error == std::errc() && end == digits.data() + digits.size() && !value.empty())
            numbered.emplace(number, value);
    }
    std::vector<std::string_view> entries;
    for (const auto& [number, value] : numbered)
        entries.push_back(value);
    return entries;
}

// "<location>" of each "<track>". The XML reader has resolved what is escaped for XML; what is
// escaped as an address stays.
std::vector<std::string> XspfEntries(const std::string& text)
{
    std::vector<std::string> entries;
    pugi::xml_document document;
    document.load_buffer(text.data(), text.size());
    for (const pugi::xml_node track :
         document.child("playlist").child("trackList").children("track"))
        entries.emplace_back(Trimmed(track.child_value("location")));
    std::erase_if(entries, [](const std::string& entry)
                  { return entry.empty() || entry.find_first_of("\r\n") != entry.npos; });
    return entries;
}

// A name that is escaped as an address is.
std::string Unescaped(std::string_view rest)
{
    std::string path;
    while (!rest.empty())
    {
        unsigned char escaped = 0; // also what is no escape; a name has no zero bytes
        if (rest.front() == '%' && rest.size() >= 3 &&
            std::from_chars(rest.data() + 1, rest.data() + 3, escaped, 16).ptr != rest.data() + 3)
            escaped = 0;
        path += escaped ? static_cast<char>(escaped) : rest.front();
        rest.remove_prefix(escaped ? 3 : 1);
    }
    return path;
}

// Playlists come from strangers: FFmpeg's other protocols reach files, devices and standard input.
bool IsOnTheNetwork(std::string_view address)
{
    static constexpr std::string_view kSchemes[] = {"http", "https", "rtmp", "rtsp", "mms", "mmsh"};
    const std::string_view scheme = address.substr(0, address.find("://"));
    return std::any_of(std::begin(kSchemes), std::end(kSchemes),
                       [=](std::string_view known) { return EqualsIgnoringCase(scheme, known); });
}

// Up to the host's end, "http://host:80".
std::string_view Origin(std::string_view address)
{
    return address.substr(0, address.find_first_of("/?#", address.find("://") + 3));
}

// An address without what follows its path.
std::string_view WithoutQuery(std::string_view address)
{
    return address.substr(0, address.find_first_of("?#"));
}

std::string BesideAddress(std::string_view entry, std::string_view playlist)
{
    const std::string origin(Origin(playlist));
    if (entry.substr(0, 2) == "//")
        return origin.substr(0, origin.find("//")) + std::string(entry);
    if (entry.front() == '/')
        return origin + std::string(entry);
    const std::string_view path = WithoutQuery(playlist);
    const size_t slash = path.rfind('/');
    if (slash < origin.size()) // that of "://": there is no path
        return origin + "/" + std::string(entry);
    return std::string(path.substr(0, slash + 1)) + std::string(entry);
}

std::string BesideFile(std::string_view entry, const std::string& playlist)
{
    if (entry.front() == '/')
        return std::string(entry);
    const std::string file =
        playlist.substr(0, playlist.rfind('/') + 1) + std::string(entry); // npos + 1 is 0
    return FileName(file);
}

struct Limits
{
    const std::atomic<bool>& bCancel;
    Clock::time_point end = Clock::now() + kTimeLimit;

    static int AreReached(void* limits)
    {
        const auto* self = static_cast<const Limits*>(limits);
        return self->bCancel || Clock::now() > self->end ? 1 : 0;
    }
};

std::string ErrorText(int code)
{
    std::array<char, AV_ERROR_MAX_STRING_SIZE> text{};
    av_strerror(code, text.data(), text.size());
    return text.data();
}

// Negative: FFmpeg's error. `location` is the address that the server has sent us to in the end.
int ReadAll(const std::string& url, Limits& limits, std::string& text, std::string& location)
{
    AVDictionary* options = nullptr;
    av_dict_set(&options, "rw_timeout", kSilenceLimit, 0);
    av_dict_set(&options, "user_agent", "Tovrel/1.0", 0);
    AVIOContext* input = nullptr;
    const AVIOInterruptCB interrupt{Limits::AreReached, &limits};
    int result = avio_open2(&input, url.c_str(), AVIO_FLAG_READ, &interrupt, &options);
    av_dict_free(&options);
    if (result < 0)
        return result;
    uint8_t* redirected = nullptr;
    if (av_opt_get(input, "location", AV_OPT_SEARCH_CHILDREN, &redirected) >= 0 && redirected)
        location = reinterpret_cast<const char*>(redirected);
    av_free(redirected);
    std::array<char, 4096> block{};
    do
    {
        result = avio_read(input, reinterpret_cast<unsigned char*>(block.data()),
                           static_cast<int>(block.size()));
        if (result > 0)
            text.append(block.data(), static_cast<size_t>(result));
    } while (result > 0 && text.size() <= kSizeLimit);
    avio_closep(&input);
    // Old servers tell the end of a text by hanging up, which FFmpeg takes for an accident.
    const bool bHungUp = result == AVERROR(EIO) && !text.empty();
    return result == AVERROR_EOF || bHungUp ? 0 : result;
}

} // namespace

bool IsAddress(std::string_view name)
{
    const size_t end = name.find("://");
    return end != name.npos && end > 0 && std::isalpha(static_cast<unsigned char>(name.front())) &&
           std::all_of(name.begin(), name.begin() + static_cast<std::ptrdiff_t>(end),
                       [](unsigned char c)
                       { return std::isalnum(c) || c == '+' || c == '-' || c == '.'; });
}

std::string LocalName(const std::string& name)
{
    constexpr std::string_view kScheme = "file://";
    if (!StartsWithIgnoringCase(name, kScheme))
        return name;
    std::string_view rest = std::string_view(name).substr(kScheme.size());
    rest.remove_prefix(std::min(rest.find('/'), rest.size())); // "localhost"
    return Unescaped(rest);
}

bool IsPlaylist(std::string_view name)
{
    const std::string_view path = IsAddress(name) ? WithoutQuery(name) : name;
    return EndsWithAnyOf(path, kPlaylistEndings);
}

std::vector<std::string> MatchingFiles(const std::string& name)
{
    std::error_code error;
    if (IsAddress(name) || name.find_first_of("*?[") == name.npos ||
        std::filesystem::exists(name, error))
        return {name};
    glob_t found{};
    std::vector<std::string> names;
    if (glob(name.c_str(), 0, nullptr, &found) == 0)
        std::transform(found.gl_pathv, found.gl_pathv + found.gl_pathc, std::back_inserter(names),
                       FileName);
    globfree(&found);
    return names.empty() ? std::vector{name} : names;
}

std::string FileName(const std::string& file)
{
    return IsAddress(file) || file == "-" ? "./" + file : file;
}

Playlist ParsePlaylist(std::string_view text, const std::string& location)
{
    Playlist playlist;
    const std::vector<std::string_view> lines = Lines(text);
    playlist.bOneStream =
        std::any_of(lines.begin(), lines.end(),
                    [](std::string_view line) { return line.substr(0, 7) == "#EXT-X-"; });
    if (playlist.bOneStream || text.find('\0') != text.npos) // the latter is no text
        return playlist;
    const bool bXml = !lines.empty() && lines.front().front() == '<';
    const bool bPls = !lines.empty() && EqualsIgnoringCase(lines.front(), "[playlist]");
    std::vector<std::string> entries;
    if (bXml)
        entries = XspfEntries(std::string(text));
    else
        for (const std::string_view entry : bPls ? PlsEntries(lines) : M3uEntries(lines))
            entries.emplace_back(entry);
    if (entries.size() > kEntryLimit)
    {
        playlist.error = kTooLong;
        return playlist;
    }
    const bool bRemote = IsAddress(location);
    for (const std::string& entry : entries)
    {
        const std::string local = LocalName(entry);
        if (!IsAddress(entry))
            playlist.entries.push_back(bRemote
                                           ? BesideAddress(entry, location)
                                           // In XSPF also what has no scheme is an address.
                                           : BesideFile(bXml ? Unescaped(entry) : entry, location));
        else if (IsOnTheNetwork(entry))
            playlist.entries.push_back(entry);
        else if (!bRemote && !IsAddress(local) && !local.empty()) // "file://..."
            playlist.entries.push_back(local);
    }
    return playlist;
}

Playlist ReadFolder(const std::string& folder, const std::atomic<bool>& bCancel)
{
    namespace fs = std::filesystem;
    Playlist playlist;
    std::error_code error;
    for (fs::recursive_directory_iterator file(
             folder, fs::directory_options::skip_permission_denied, error);
         !error && file != fs::recursive_directory_iterator() && !bCancel; file.increment(error))
    {
        const std::string name = file->path().string();
        std::error_code ignored;
        if (EndsWithAnyOf(name, kSoundEndings) && !file->is_directory(ignored))
            playlist.entries.push_back(name);
    }
    std::sort(playlist.entries.begin(), playlist.entries.end());
    if (playlist.entries.empty())
        playlist.error = error ? "Failed to read the folder: " + error.message()
                               : "This folder holds nothing to play.";
    return playlist;
}

Playlist ReadPlaylist(const std::string& location, const std::atomic<bool>& bCancel)
{
    Limits limits{bCancel};
    std::string text;
    std::string found = location;
    const int result =
        ReadAll(IsAddress(location) ? location : "file:" + location, limits, text, found);
    Playlist playlist;
    if (result < 0)
        playlist.error = "Failed to read the playlist: " +
                         (Clock::now() > limits.end ? "it took too long" : ErrorText(result));
    else if (text.size() > kSizeLimit)
        playlist.error = kTooLong;
    else
        playlist = ParsePlaylist(text, found);
    if (playlist.entries.empty() && !playlist.bOneStream && playlist.error.empty())
        playlist.error = kNothing;
    return playlist;
}
