// Playlists, folders and patterns: what they name.
#include "playlist.h"

#include "media.h"

#include <gmock/gmock.h>

#include <filesystem>

using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

namespace fs = std::filesystem;

class Folder : public testing::Test
{
protected:
    Folder() { fs::create_directories(root); }
    ~Folder() override { fs::remove_all(root); }

    std::string Touch(const std::string& name) const
    {
        fs::create_directories((root / name).parent_path());
        fs::copy_file(Media::Write("touched", ""), root / name);
        return (root / name).string();
    }

    const fs::path root = Media::Directory() / "folder";
    const std::atomic<bool> bNever{false};
};

std::vector<std::string> Entries(std::string_view text, const std::string& location = "/music/list")
{
    return ParsePlaylist(text, location).entries;
}

} // namespace

TEST(Playlists, M3uNamesFilesAndAddresses)
{
    EXPECT_THAT(Entries("#EXTM3U\n#EXTINF:1,A\na b.mp3\n/x/y.flac\r\nhttp://h/s\n"),
                ElementsAre("/music/a b.mp3", "/x/y.flac", "http://h/s"));
}

TEST(Playlists, M3uMayBeginWithAByteOrderMark)
{
    EXPECT_THAT(Entries("\xEF\xBB\xBF"
                        "Größe.mp3\n"),
                ElementsAre("/music/Größe.mp3"));
}

TEST(Playlists, PlsIsInTheOrderOfItsNumbers)
{
    EXPECT_THAT(Entries("[playlist]\nFile2=b\nTitle2=B\nfile1=a\nFile10=c\nNumberOfEntries=3\n"),
                ElementsAre("/music/a", "/music/b", "/music/c"));
}

TEST(Playlists, XspfNamesTracks)
{
    EXPECT_THAT(Entries("<?xml version=\"1.0\"?>\n<playlist version=\"1\" "
                        "xmlns=\"http://xspf.org/ns/0/\">\n<title>T</title><trackList>"
                        "<track><location>file:///a%20b.mp3</location><title>x</title></track>"
                        "<track><title>without</title></track>"
                        "<track><location> sub/c%C3%A9&amp;d.ogg\n</location></track>"
                        "<track><location>https://h/s?a=1&amp;b=2</location></track>"
                        "</trackList></playlist>"),
                ElementsAre("/a b.mp3", "/music/sub/cé&d.ogg", "https://h/s?a=1&b=2"));
}

TEST(Playlists, XspfOfAServerStandsBesideIt)
{
    EXPECT_THAT(Entries("<playlist><trackList><track><location>a%20b.mp3</location></track>"
                        "<track><location>file:///etc/passwd</location></track>"
                        "</trackList></playlist>",
                        "http://h/lists/l.xspf"),
                ElementsAre("http://h/lists/a%20b.mp3"));
}

TEST(Playlists, BrokenXspfNamesNothing)
{
    for (const char* text : {"<", "<playlist", "<playlist><trackList><track>",
                             "<html><body>404</body></html>", "<location>a.mp3</location>"})
        EXPECT_THAT(Entries(text), IsEmpty()) << text;
}

TEST(Playlists, XspfReadsNoOtherFile)
{
    EXPECT_THAT(Entries("<!DOCTYPE x [<!ENTITY e SYSTEM \"file:///etc/passwd\">]>"
                        "<playlist><trackList><track><location>&e;</location></track>"
                        "</trackList></playlist>"),
                ElementsAre("/music/&e;"));
}

TEST(Playlists, XspfEntryIsOneLine)
{
    EXPECT_THAT(Entries("<playlist><trackList><track><location>http://h/a\nb</location></track>"
                        "<track><location>http://h/c</location></track></trackList></playlist>"),
                ElementsAre("http://h/c"));
}

TEST(Playlists, XspfFileThatReadsAsAnAddressIsAFile)
{
    EXPECT_THAT(Entries("<playlist><trackList><track><location>http%3A//h/a</location></track>"
                        "</trackList></playlist>",
                        "list.xspf"),
                ElementsAre("./http://h/a"));
}

TEST(Playlists, EntryThatReadsAsStandardInputIsAFile)
{
    EXPECT_THAT(Entries("-\n", "list.m3u"), ElementsAre("./-"));
}

TEST(Playlists, AreKnownByTheirEndings)
{
    for (const char* name : {"a.m3u", "a.M3U8", "a.pls", "a.xspf", "http://h/a.m3u8?x=.mp3"})
        EXPECT_TRUE(IsPlaylist(name)) << name;
    for (const char* name : {"a.mp3", "m3u", "a.xspf.gz", "http://h/a?x=.m3u"})
        EXPECT_FALSE(IsPlaylist(name)) << name;
}

TEST_F(Folder, GivesItsSoundSortedWithWhatIsBelow)
{
    const std::string b = Touch("b.MP3");
    const std::string inner = Touch("a/z.flac");
    Touch("a/cover.jpg");
    Touch("list.m3u"); // it would name the same files again
    const std::string c = Touch("c.opus");
    EXPECT_THAT(ReadFolder(root.string(), bNever).entries, ElementsAre(inner, b, c));
}

TEST_F(Folder, WithoutSoundSaysSo)
{
    Touch("cover.jpg");
    EXPECT_THAT(ReadFolder(root.string(), bNever).entries, IsEmpty());
    EXPECT_EQ(ReadFolder(root.string(), bNever).error, "This folder holds nothing to play.");
}

TEST_F(Folder, ThatIsNoneSaysWhy)
{
    EXPECT_EQ(ReadFolder((root / "none").string(), bNever).error,
              "Failed to read the folder: No such file or directory");
}

TEST_F(Folder, LinksInACircleEnd)
{
    const std::string sound = Touch("a.mp3");
    fs::create_directory_symlink(root, root / "again");
    EXPECT_THAT(ReadFolder(root.string(), bNever).entries, ElementsAre(sound));
}

TEST_F(Folder, PatternIsFilledIn)
{
    const std::string a = Touch("1.mp3");
    const std::string b = Touch("2.mp3");
    Touch("3.txt");
    EXPECT_THAT(MatchingFiles((root / "*.mp3").string()), ElementsAre(a, b));
    EXPECT_THAT(MatchingFiles((root / "[2-9].mp3").string()), ElementsAre(b));
}

TEST_F(Folder, NameThatIsAFileIsNoPattern)
{
    const std::string odd = Touch("[1].mp3");
    Touch("1.mp3");
    EXPECT_THAT(MatchingFiles(odd), ElementsAre(odd));
}

TEST_F(Folder, PatternOfNothingStaysAName)
{
    for (const std::string name : {"no such *.mp3", "http://h/a?b=*"})
        EXPECT_THAT(MatchingFiles(name), ElementsAre(name));
}
