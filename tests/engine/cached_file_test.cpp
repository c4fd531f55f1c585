// The copy of a file in memory and the two callbacks through which FFmpeg reads it.
#include "internals.h"
#include "media.h"
#include "wrapped_calls.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/resource.h>

#include <climits>
#include <fstream>
#include <memory>

extern "C"
{
#include <libavutil/mem.h>
}

using testing::IsEmpty;
using testing::StartsWith;

namespace
{

constexpr uint64_t kLimit = 536870912;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

std::string Text(const TovrelAudioCachedFileInput& cache)
{
    return {cache.Bytes.begin(), cache.Bytes.end()};
}

// While it lives a resource of the process is limited.
class Limited
{
public:
    Limited(__rlimit_resource resource, rlim_t limit) : kind(resource)
    {
        getrlimit(kind, &old);
        const rlimit lower{std::min(limit, old.rlim_max), old.rlim_max};
        setrlimit(kind, &lower);
    }
    ~Limited() { setrlimit(kind, &old); }
    Limited(const Limited&) = delete;
    Limited& operator=(const Limited&) = delete;

private:
    __rlimit_resource kind;
    rlimit old{};
};

class CachedFile : public testing::Test
{
protected:
    bool Load(const std::string& path) { return access.LoadFileIntoCache(path, cache, &error); }

    // While no file can be opened, not even by root; sizes can still be asked for. Nothing of the
    // test's own is touched meanwhile: a sanitizer opens files, too, to look at an object's type.
    bool LoadWithoutOpening(const std::string& path)
    {
        return LoadWithoutOpening(access, path, cache, error);
    }

    static bool LoadWithoutOpening(const TovrelAudioPlayerTestAccess& of, const std::string& path,
                                   TovrelAudioCachedFileInput& into, std::string& message)
    {
        const Limited guard(RLIMIT_NOFILE, 0);
        return of.LoadFileIntoCache(path, into, &message);
    }

    void ExpectNothingHeld() const
    {
        EXPECT_THAT(cache.Bytes, IsEmpty());
        EXPECT_EQ(cache.Position, 0u);
        EXPECT_EQ(cache.AvioBuffer, nullptr);
        EXPECT_EQ(cache.Avio, nullptr);
    }

    TovrelAudioPlayer player;
    TovrelAudioPlayerTestAccess access{player};
    TovrelAudioCachedFileInput cache;
    std::string error = "earlier text";
};

// Ten bytes, read up to the fourth.
class CachedBytes : public testing::Test
{
protected:
    CachedBytes()
    {
        cache.Bytes = {'0', '1', '2', '3', '4', '5', '6', '7', '8', '9'};
        cache.Position = 4;
    }

    // What a read of this size gives, as text; the code where it gives none.
    std::string Read(int size)
    {
        std::string buffer(64, '?');
        const int count = Internals::ReadCachedFilePacket(
            &cache, reinterpret_cast<uint8_t*>(buffer.data()), size);
        return count > 0 ? buffer.substr(0, static_cast<size_t>(count)) : std::to_string(count);
    }

    int64_t Seek(int64_t offset, int whence)
    {
        return Internals::SeekCachedFile(&cache, offset, whence);
    }

    TovrelAudioCachedFileInput cache;
};

} // namespace

// --- Loading

TEST_F(CachedFile, HoldsTheWholeFile)
{
    const std::string bytes = std::string("\0\xff\r\n", 4) + std::string(100000, 'x');
    EXPECT_TRUE(Load(Media::Write("whole", bytes)));
    EXPECT_EQ(Text(cache), bytes);
    EXPECT_EQ(cache.Position, 0u);
    EXPECT_EQ(error, "earlier text");
}

TEST_F(CachedFile, HandsItsBufferToTheContext)
{
    ASSERT_TRUE(Load(Media::Write("handed", "abc")));
    ASSERT_NE(cache.Avio, nullptr);
    EXPECT_EQ(cache.AvioBuffer, nullptr);
    EXPECT_EQ(cache.Avio->buffer_size, 65536);
    EXPECT_EQ(cache.Avio->write_flag, 0);
    EXPECT_EQ(cache.Avio->opaque, &cache);
    EXPECT_EQ(cache.Avio->write_packet, nullptr);
}

TEST_F(CachedFile, IsReadAndSoughtByTheContext)
{
    std::string bytes(200000, '\0');
    for (size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<char>(i % 251);
    ASSERT_TRUE(Load(Media::Write("context", bytes)));

    std::string part(70000, '?');
    EXPECT_EQ(avio_size(cache.Avio), 200000);
    EXPECT_EQ(avio_seek(cache.Avio, 150000, SEEK_SET), 150000);
    EXPECT_EQ(avio_read(cache.Avio, reinterpret_cast<unsigned char*>(part.data()), 70000), 50000);
    EXPECT_EQ(part.substr(0, 50000), bytes.substr(150000));
    EXPECT_EQ(avio_read(cache.Avio, reinterpret_cast<unsigned char*>(part.data()), 1), AVERROR_EOF);
}

TEST_F(CachedFile, NoLongerNeedsTheFile)
{
    const std::string path = Media::Write("gone", "still here");
    ASSERT_TRUE(Load(path));
    std::filesystem::remove(path);
    std::string read(10, '?');
    EXPECT_EQ(avio_read(cache.Avio, reinterpret_cast<unsigned char*>(read.data()), 10), 10);
    EXPECT_EQ(read, "still here");
}

TEST_F(CachedFile, FindsNamesWithBytesThatAreSpecialElsewhere)
{
    for (const char* name : {"a b", "ä ö.wav", "a:b", "a%20b", "-a", "a'b\"c", "http:a", "a\nb"})
    {
        TovrelAudioCachedFileInput fresh;
        EXPECT_TRUE(access.LoadFileIntoCache(Media::Write(name, "x"), fresh, &error)) << name;
    }
}

TEST_F(CachedFile, DropsWhatItHeldBeforeItLooksAtTheFile)
{
    cache.Bytes = {1, 2, 3};
    cache.Position = 2;
    EXPECT_FALSE(Load("/nonexistent/file"));
    ExpectNothingHeld();
}

TEST_F(CachedFile, StartsOverWhereItHeldSomethingElse)
{
    cache.Bytes = {1, 2, 3};
    cache.Position = 2;
    EXPECT_TRUE(Load(Media::Write("over", "abcde")));
    EXPECT_EQ(Text(cache), "abcde");
    EXPECT_EQ(cache.Position, 0u);
}

// --- Failures

TEST_F(CachedFile, TellsWhyTheSizeIsUnknown)
{
    EXPECT_FALSE(Load("/nonexistent/file"));
    EXPECT_EQ(error, "Failed to stat audio file for preload: No such file or directory");
    ExpectNothingHeld();
}

TEST_F(CachedFile, TakesNoDirectory)
{
    EXPECT_FALSE(Load(Media::Directory()));
    EXPECT_EQ(error, "Failed to stat audio file for preload: Is a directory");
}

TEST_F(CachedFile, TakesNoPipeAndDoesNotWaitForOne)
{
    EXPECT_FALSE(Load(Media::MakePipe("pipe")));
    EXPECT_THAT(error, StartsWith("Failed to stat audio file for preload: "));
}

TEST_F(CachedFile, RefusesAnEmptyPath)
{
    EXPECT_FALSE(Load(""));
    EXPECT_EQ(error, "Failed to stat audio file for preload: No such file or directory");
}

TEST_F(CachedFile, SaysEmptyBeforeItTriesToOpen)
{
    const std::string path = Media::Write("empty", "");
    EXPECT_FALSE(LoadWithoutOpening(path));
    EXPECT_EQ(error, "Audio file is empty.");
    ExpectNothingHeld();
}

TEST_F(CachedFile, SaysTooLargeBeforeItTriesToOpen)
{
    const std::string path = Media::WriteSparse("large", "", kLimit + 1);
    EXPECT_FALSE(LoadWithoutOpening(path));
    EXPECT_EQ(error, "Audio file too large for RAM preload.");
    ExpectNothingHeld();
}

TEST_F(CachedFile, LoadsAFileOfExactlyTheLimit)
{
    ASSERT_TRUE(Load(Media::WriteSparse("limit", "start", kLimit)));
    EXPECT_EQ(cache.Bytes.size(), kLimit);
    EXPECT_EQ(cache.Bytes[0], 's');
    EXPECT_EQ(avio_size(cache.Avio), static_cast<int64_t>(kLimit));
}

TEST_F(CachedFile, SaysThatItCannotBeOpened)
{
    const std::string path = Media::Write("locked", "x");
    EXPECT_FALSE(LoadWithoutOpening(path));
    EXPECT_EQ(error, "Failed to open audio file for preload.");
    ExpectNothingHeld();
}

// A file whose size is a promise that its content does not keep.
TEST_F(CachedFile, SaysThatLessCameThanTheSizePromised)
{
    const std::string path = "/sys/kernel/mm/transparent_hugepage/enabled";
    std::error_code ec;
    if (std::filesystem::file_size(path, ec) <= Media::Read(path).size() || ec)
        GTEST_SKIP() << "no such file here";
    EXPECT_FALSE(Load(path));
    EXPECT_EQ(error, "Failed to read full audio file into RAM.");
    ExpectNothingHeld();
}

TEST_F(CachedFile, SurvivesTooLittleMemoryForTheCopy)
{
    if (kSanitized)
        GTEST_SKIP() << "a sanitizer ends the process where memory runs out";
    const std::string path = Media::WriteSparse("memory", "", kLimit);
    uint64_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    const Limited guard(RLIMIT_AS, pages * 4096 + kLimit / 2);
    EXPECT_FALSE(Load(path));
    EXPECT_EQ(error, "Failed to read full audio file into RAM.");
    ExpectNothingHeld();
}

TEST_F(CachedFile, SaysThatThereIsNoBuffer)
{
    const FailingCall failing("av_malloc");
    EXPECT_FALSE(Load(Media::Write("buffer", "x")));
    EXPECT_EQ(error, "Failed to allocate RAM preload IO buffer.");
    ExpectNothingHeld();
}

TEST_F(CachedFile, SaysThatThereIsNoContext)
{
    const FailingCall failing("avio_alloc_context");
    EXPECT_FALSE(Load(Media::Write("context", "x")));
    EXPECT_EQ(error, "Failed to create RAM preload IO context.");
    ExpectNothingHeld();
}

TEST_F(CachedFile, FailsWithoutAPlaceForTheMessage)
{
    const std::string path = Media::Write("quiet", "x");
    const std::string empty = Media::Write("quiet-empty", "");
    const FailingCall failing("av_malloc");
    for (const std::string& each : {path, empty, std::string("/nonexistent/file")})
        EXPECT_FALSE(access.LoadFileIntoCache(each, cache, nullptr)) << each;
}

TEST_F(CachedFile, NeverSetsTheLastError)
{
    access.SetLastError("kept");
    EXPECT_FALSE(Load("/nonexistent/file"));
    EXPECT_EQ(player.LastError(), "kept");
}

// --- The end of the record

TEST(CachedFileEnd, ReleasesABufferThatNoContextTookOver)
{
    auto cache = std::make_unique<TovrelAudioCachedFileInput>();
    cache->AvioBuffer = static_cast<uint8_t*>(av_malloc(65536));
    cache.reset(); // a leak or a double release shows in the sanitizers
}

// Each way a record can end, many times: what is lost each time adds up to more than the margin.
TEST(CachedFileEnd, KeepsNoMemory)
{
    TovrelAudioPlayer player;
    const TovrelAudioPlayerTestAccess access{player};
    const std::string path = Media::Write("again", std::string(100000, 'x'));
    const auto used = []
    {
        const auto info = mallinfo2();
        return info.uordblks + info.hblkhd;
    };
    const auto before = used();
    for (int i = 0; i < 100; ++i)
    {
        TovrelAudioCachedFileInput loaded, replaced, buffer, context, waiting;
        access.LoadFileIntoCache(path, loaded, nullptr);
        access.LoadFileIntoCache(path, replaced, nullptr);
        av_freep(&replaced.Avio->buffer); // as FFmpeg does when it needs a larger one
        replaced.Avio->buffer = static_cast<unsigned char*>(av_malloc(131072));
        waiting.AvioBuffer = static_cast<uint8_t*>(av_malloc(65536));
        const auto fail = [&](const char* call, TovrelAudioCachedFileInput& cache)
        {
            const FailingCall failing(call);
            access.LoadFileIntoCache(path, cache, nullptr);
        };
        fail("av_malloc", buffer);
        fail("avio_alloc_context", context);
    }
    EXPECT_LT(used(), before + 1000000);
}

// --- The read callback

TEST_F(CachedBytes, ReadsOnFromThePosition)
{
    EXPECT_EQ(Read(3), "456");
    EXPECT_EQ(Read(2), "78");
    EXPECT_EQ(cache.Position, 9u);
}

TEST_F(CachedBytes, ReadsShortAtTheEndAndThenSaysSo)
{
    EXPECT_EQ(Read(64), "456789");
    EXPECT_EQ(Read(64), std::to_string(AVERROR_EOF));
    EXPECT_EQ(cache.Position, 10u);
}

TEST_F(CachedBytes, ReadsNoMoreThanThereIsForTheLargestRequest)
{
    EXPECT_EQ(Read(INT_MAX), "456789");
}

TEST_F(CachedBytes, SaysEndForAPositionPastTheEnd)
{
    cache.Position = 11;
    EXPECT_EQ(Read(1), std::to_string(AVERROR_EOF));
}

TEST_F(CachedBytes, RefusesRequestsWithoutSize)
{
    for (const int size : {0, -1, INT_MIN})
        EXPECT_EQ(Read(size), "-22") << size;
    EXPECT_EQ(cache.Position, 4u);
}

TEST_F(CachedBytes, RefusesNullForReading)
{
    uint8_t byte = 0;
    EXPECT_EQ(Internals::ReadCachedFilePacket(&cache, nullptr, 1), -22);
    EXPECT_EQ(Internals::ReadCachedFilePacket(nullptr, &byte, 1), -22);
    EXPECT_EQ(cache.Position, 4u);
}

// At the end, too, a request without a size is refused rather than told of the end.
TEST_F(CachedBytes, LooksAtTheRequestBeforeTheEnd)
{
    cache.Position = 10;
    EXPECT_EQ(Read(0), "-22");
}

// --- The seek callback

namespace
{

struct SeekCase
{
    int64_t offset;
    int whence;
    int64_t result;
    size_t position; // afterwards
};

void PrintTo(const SeekCase& seek, std::ostream* out)
{
    *out << "offset " << seek.offset << " whence " << seek.whence;
}

class SeekCachedFile : public CachedBytes, public testing::WithParamInterface<SeekCase>
{
};

} // namespace

TEST_P(SeekCachedFile, GoesThereOrStays)
{
    const SeekCase& seek = GetParam();
    EXPECT_EQ(Seek(seek.offset, seek.whence), seek.result);
    EXPECT_EQ(cache.Position, seek.position);
}

static constexpr SeekCase kSeeks[] = {
    {0, SEEK_SET, 0, 0},
    {7, SEEK_SET, 7, 7},
    {10, SEEK_SET, 10, 10},
    {11, SEEK_SET, -22, 4},
    {-1, SEEK_SET, -22, 4},
    {INT64_MAX, SEEK_SET, -22, 4},
    {INT64_MIN, SEEK_SET, -22, 4},
    {0, SEEK_CUR, 4, 4},
    {-4, SEEK_CUR, 0, 0},
    {-5, SEEK_CUR, -22, 4},
    {6, SEEK_CUR, 10, 10},
    {7, SEEK_CUR, -22, 4},
    {INT64_MAX, SEEK_CUR, -22, 4},
    {INT64_MIN, SEEK_CUR, -22, 4},
    {0, SEEK_END, 10, 10},
    {-10, SEEK_END, 0, 0},
    {-11, SEEK_END, -22, 4},
    {1, SEEK_END, -22, 4},
    {INT64_MAX, SEEK_END, -22, 4},
    {INT64_MIN, SEEK_END, -22, 4},
    {7, SEEK_SET | AVSEEK_FORCE, 7, 7},
    {2, SEEK_CUR | AVSEEK_FORCE, 6, 6},
    {-1, SEEK_END | AVSEEK_FORCE, 9, 9},
    {0, AVSEEK_SIZE, 10, 4},
    {99, AVSEEK_SIZE, 10, 4},
    {0, AVSEEK_SIZE | AVSEEK_FORCE, -22, 4},
    {0, 3, -22, 4},
    {0, -1, -22, 4},
};
INSTANTIATE_TEST_SUITE_P(All, SeekCachedFile, testing::ValuesIn(kSeeks));

TEST_F(CachedBytes, RefusesNullForSeeking)
{
    EXPECT_EQ(Internals::SeekCachedFile(nullptr, 0, SEEK_SET), -22);
    EXPECT_EQ(Internals::SeekCachedFile(nullptr, 0, AVSEEK_SIZE), -22);
}

TEST_F(CachedBytes, ReadsFromWhereASeekWent)
{
    Seek(-3, SEEK_END);
    EXPECT_EQ(Read(64), "789");
}
