// What is kept from one time to the next.
#include "settings.h"

#include "media.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

namespace
{

namespace fs = std::filesystem;

class KeptSettings : public testing::Test
{
protected:
    KeptSettings() { setenv("XDG_STATE_HOME", home.c_str(), 1); }
    ~KeptSettings() override { fs::remove_all(home); }

    void Write(const std::string& text) const
    {
        fs::create_directories(file.parent_path());
        fs::rename(Media::Write("state", text), file);
    }

    const fs::path home = Media::Directory() / "home";
    const fs::path file = home / "tovrel-play/state.json";
};

} // namespace

TEST_F(KeptSettings, ComeBackAsTheyWere)
{
    Settings settings;
    settings.volume = 0.35;
    settings.presets = {{"Größe", {1, 2, 3, 4, 5, -6, -7.5, 8, 9, 18}}, {"mine", {}}};
    EXPECT_EQ(SaveSettings(settings), "");
    const Settings loaded = LoadSettings();
    EXPECT_EQ(loaded.volume, settings.volume);
    ASSERT_EQ(loaded.presets.size(), 2u);
    EXPECT_EQ(loaded.presets[0].name, "Größe");
    EXPECT_EQ(loaded.presets[0].gainsDb, settings.presets[0].gainsDb);
}

TEST_F(KeptSettings, LeaveNothingBesideTheirFile)
{
    EXPECT_EQ(SaveSettings({}), "");
    EXPECT_EQ(std::distance(fs::directory_iterator(file.parent_path()), {}), 1);
}

TEST_F(KeptSettings, AreEmptyWithoutAFile)
{
    EXPECT_FALSE(LoadSettings().volume);
    EXPECT_TRUE(LoadSettings().presets.empty());
}

TEST_F(KeptSettings, TakeWhatMakesSenseOfAnything)
{
    for (const char* text : {"", "{", "[]", "7", "null", "{\"volume\":\"loud\",\"presets\":[1]}",
                             "{\"volume\":9,\"presets\":{\"a\":[1,2]}}",
                             "{\"presets\":{\"a\":[0,0,0,0,0,0,0,0,0,19]}}",
                             "{\"presets\":{\"\":[0,0,0,0,0,0,0,0,0,0]}}", "\xff\xfe"})
    {
        Write(text);
        EXPECT_FALSE(LoadSettings().volume) << text;
        EXPECT_TRUE(LoadSettings().presets.empty()) << text;
    }
    Write("{\"volume\":0.5,\"presets\":{\"a\":[0,0,0,0,0,0,0,0,0,\"x\"],"
          "\"b\":[1,1,1,1,1,1,1,1,1,1]},\"more\":1}");
    EXPECT_EQ(LoadSettings().volume, 0.5);
    ASSERT_EQ(LoadSettings().presets.size(), 1u);
    EXPECT_EQ(LoadSettings().presets[0].name, "b");
}

TEST_F(KeptSettings, SayWhereTheyCannotBeKept)
{
    Media::Write("home", "a file where the directory should be");
    EXPECT_NE(SaveSettings({}).find("Failed to keep the settings: "), std::string::npos);
}

TEST_F(KeptSettings, StandInTheHomeDirectoryOtherwise)
{
    for (const char* ignored : {"", "relative"})
    {
        setenv("XDG_STATE_HOME", ignored, 1);
        setenv("HOME", home.c_str(), 1);
        EXPECT_EQ(SaveSettings({}), "");
        EXPECT_TRUE(fs::exists(home / ".local/state/tovrel-play/state.json"));
        fs::remove_all(home);
    }
    unsetenv("HOME");
    EXPECT_EQ(SaveSettings({}), "There is no home directory to keep the settings in.");
    EXPECT_FALSE(LoadSettings().volume);
}
