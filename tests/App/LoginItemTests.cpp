// Launch at login as an XDG autostart entry.
#include "Models/LoginItem.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

using namespace sorva;
using sorva::testing::ConfigHome;
using sorva::testing::LogCapture;
using sorva::testing::readFile;
using sorva::testing::writeFile;

TEST(LoginItem, EnablingWritesAnEntryThatStartsThisProgramAndDisablingRemovesIt)
{
    ConfigHome home;
    LogCapture log;
    EXPECT_EQ(LoginItem::entryPath(), home.path / "autostart" / "sorva.desktop");
    EXPECT_FALSE(LoginItem::isEnabled());

    for (int twice = 0; twice < 2; ++twice) {
        EXPECT_TRUE(LoginItem::setEnabled(true));
        const std::string entry = readFile(LoginItem::entryPath());
        EXPECT_TRUE(entry.starts_with("[Desktop Entry]\n")) << entry;
        EXPECT_NE(entry.find("\nType=Application\n"), std::string::npos) << entry;
        const std::string self = std::filesystem::read_symlink("/proc/self/exe").string();
        EXPECT_NE(entry.find("\nExec=" + LoginItem::execValue(self) + "\n"), std::string::npos) << entry;
        EXPECT_TRUE(LoginItem::isEnabled());
    }
    for (int twice = 0; twice < 2; ++twice) {
        EXPECT_FALSE(LoginItem::setEnabled(false));
        EXPECT_FALSE(std::filesystem::exists(LoginItem::entryPath()));
    }
    EXPECT_TRUE(log.taken().empty());
    EXPECT_TRUE(std::filesystem::is_empty(home.path / "autostart")) << "no temporary files left";

    EXPECT_EQ(LoginItem::execValue("/usr/bin/sorva"), "/usr/bin/sorva");
    EXPECT_EQ(LoginItem::execValue("/opt/my apps/sorva"), "\"/opt/my apps/sorva\"");
    EXPECT_EQ(LoginItem::execValue("/opt/100%/sorva"), "/opt/100%%/sorva");
    // Inside quotes: \" for a quote, \\ for a backslash, each backslash then
    // doubled again for the string value.
    EXPECT_EQ(LoginItem::execValue("/opt/a\"b/$x"), "\"/opt/a\\\\\"b/\\\\$x\"");
    EXPECT_EQ(LoginItem::execValue("/opt/a\\b"), "\"/opt/a\\\\\\\\b\"");
}

TEST(LoginItem, StatusIsReadFromTheFileAfresh)
{
    ConfigHome home;
    const auto path = LoginItem::entryPath();
    const std::pair<const char*, bool> entries[] = {
        { "[Desktop Entry]\nType=Application\nExec=sorva\nHidden=true\n", false },
        { "[Desktop Entry]\nType=Application\nExec=sorva\nHidden=false\n", true },
        { "[Desktop Entry]\nExec=sorva\nX-GNOME-Autostart-enabled=false\n", false },
        { "[Desktop Entry]\nExec=sorva\n[Desktop Action x]\nHidden=true\n", true }, // another group's Hidden
    };
    for (const auto& [text, enabled] : entries) {
        writeFile(path, text);
        EXPECT_EQ(LoginItem::isEnabled(), enabled) << text;
    }

    // An entry the user hid is replaced by a visible one when enabled again.
    writeFile(path, "[Desktop Entry]\nExec=sorva\nHidden=true\n");
    EXPECT_TRUE(LoginItem::setEnabled(true));
    EXPECT_EQ(readFile(path).find("Hidden"), std::string::npos);
}

// The switch reports the state that holds after a failed change.
TEST(LoginItem, AReadOnlyFolderMakesTheSwitchSpringBackAndIsLogged)
{
    ConfigHome home;
    const auto folder = home.path / "autostart";
    std::filesystem::create_directories(folder);
    LogCapture log;
    {
        sorva::testing::ReadOnlyFolder readOnly(folder);
        ASSERT_TRUE(readOnly.isEffective());
        EXPECT_FALSE(LoginItem::setEnabled(true));
    }
    EXPECT_EQ(log.take(), std::vector<std::string> {
        "login item register failed: cannot write in " + folder.string() + ": Permission denied" });
    EXPECT_TRUE(std::filesystem::is_empty(folder));

    ASSERT_TRUE(LoginItem::setEnabled(true));
    {
        sorva::testing::ReadOnlyFolder readOnly(folder);
        EXPECT_TRUE(LoginItem::setEnabled(false));
    }
    EXPECT_EQ(log.take(), std::vector<std::string> {
        "login item unregister failed: cannot remove " + LoginItem::entryPath().string() + ": Permission denied" });

    // A config folder that cannot hold an autostart folder at all.
    std::filesystem::remove_all(folder);
    writeFile(folder, "not a folder");
    EXPECT_FALSE(LoginItem::setEnabled(true));
    const std::vector<std::string> lines = log.take();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(lines[0].starts_with("login item register failed: cannot create the folder " + folder.string()))
        << lines[0];
}
