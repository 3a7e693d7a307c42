#include "Models/LoginItem.h"

#include "Audio/EQLog.h"
#include "TestFolders.h"

#include <gtest/gtest.h>

#include <memory>
#include <mutex>

using namespace sorva;
using sorva::testing::ConfigHome;
using sorva::testing::readFile;
using sorva::testing::writeFile;

namespace {

class LogCapture {
public:
    LogCapture()
    {
        EQLog::setObserver([lines = lines](const std::string& line) {
            std::lock_guard guard(lines->lock);
            lines->text.push_back(line);
        });
    }
    ~LogCapture() { EQLog::setObserver({}); }
    std::vector<std::string> taken()
    {
        std::lock_guard guard(lines->lock);
        return lines->text;
    }

private:
    struct Lines {
        std::mutex lock;
        std::vector<std::string> text;
    };
    std::shared_ptr<Lines> lines = std::make_shared<Lines>();
};

} // namespace

TEST(LoginItem, EnablingWritesAnEntryThatStartsThisProgramAndDisablingRemovesIt)
{
    ConfigHome home;
    LogCapture log;
    EXPECT_EQ(LoginItem::entryPath(), home.path / "autostart" / "sorva.desktop");
    EXPECT_FALSE(LoginItem::isEnabled());

    EXPECT_TRUE(LoginItem::setEnabled(true));
    const std::string entry = readFile(LoginItem::entryPath());
    EXPECT_TRUE(entry.starts_with("[Desktop Entry]\n")) << entry;
    EXPECT_NE(entry.find("\nType=Application\n"), std::string::npos) << entry;
    const std::string self = std::filesystem::read_symlink("/proc/self/exe").string();
    EXPECT_NE(entry.find("\nExec=" + LoginItem::execValue(self) + "\n"), std::string::npos) << entry;
    EXPECT_TRUE(LoginItem::isEnabled());

    // Enabling twice is harmless; disabling twice too.
    EXPECT_TRUE(LoginItem::setEnabled(true));
    EXPECT_FALSE(LoginItem::setEnabled(false));
    EXPECT_FALSE(std::filesystem::exists(LoginItem::entryPath()));
    EXPECT_FALSE(LoginItem::setEnabled(false));
    EXPECT_TRUE(log.taken().empty());
    // Nothing but the entry is left in the folder (no temporary files).
    EXPECT_TRUE(std::filesystem::is_empty(home.path / "autostart"));
}

TEST(LoginItem, StatusIsReadFromTheFileAfresh)
{
    ConfigHome home;
    const auto path = LoginItem::entryPath();
    writeFile(path, "[Desktop Entry]\nType=Application\nExec=sorva\nHidden=true\n");
    EXPECT_FALSE(LoginItem::isEnabled());
    writeFile(path, "[Desktop Entry]\nType=Application\nExec=sorva\nHidden=false\n");
    EXPECT_TRUE(LoginItem::isEnabled());
    writeFile(path, "[Desktop Entry]\nExec=sorva\nX-GNOME-Autostart-enabled=false\n");
    EXPECT_FALSE(LoginItem::isEnabled());
    // Hidden in another group does not hide the entry.
    writeFile(path, "[Desktop Entry]\nExec=sorva\n[Desktop Action x]\nHidden=true\n");
    EXPECT_TRUE(LoginItem::isEnabled());
    std::filesystem::remove(path);
    std::filesystem::create_directory(path);
    EXPECT_FALSE(LoginItem::isEnabled());

    // An entry the user hid is replaced by a visible one when enabled again.
    std::filesystem::remove(path);
    writeFile(path, "[Desktop Entry]\nExec=sorva\nHidden=true\n");
    EXPECT_TRUE(LoginItem::setEnabled(true));
    EXPECT_EQ(readFile(path).find("Hidden"), std::string::npos);
}

TEST(LoginItem, AReadOnlyFolderMakesTheSwitchSpringBackAndIsLogged)
{
    ConfigHome home;
    const auto folder = home.path / "autostart";
    std::filesystem::create_directories(folder);
    {
        LogCapture log;
        sorva::testing::ReadOnlyFolder readOnly(folder);
        ASSERT_TRUE(readOnly.isEffective());
        EXPECT_FALSE(LoginItem::setEnabled(true));
        const auto lines = log.taken();
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0], "login item register failed: cannot write in " + folder.string() + ": Permission denied");
    }
    EXPECT_TRUE(std::filesystem::is_empty(folder));

    // Registered, then the folder turns read-only: unregistering fails and
    // the switch stays on.
    ASSERT_TRUE(LoginItem::setEnabled(true));
    {
        LogCapture log;
        sorva::testing::ReadOnlyFolder readOnly(folder);
        EXPECT_TRUE(LoginItem::setEnabled(false));
        const auto lines = log.taken();
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0],
                  "login item unregister failed: cannot remove " + LoginItem::entryPath().string() + ": Permission denied");
    }

    // A config folder that cannot hold an autostart folder at all.
    std::filesystem::remove_all(folder);
    writeFile(folder, "not a folder");
    LogCapture log;
    EXPECT_FALSE(LoginItem::setEnabled(true));
    ASSERT_EQ(log.taken().size(), 1u);
    EXPECT_TRUE(log.taken()[0].starts_with("login item register failed: cannot create the folder " + folder.string()))
        << log.taken()[0];
}

TEST(LoginItem, ExecQuotesPathsThatNeedIt)
{
    EXPECT_EQ(LoginItem::execValue("/usr/bin/sorva"), "/usr/bin/sorva");
    EXPECT_EQ(LoginItem::execValue("/opt/my apps/sorva"), "\"/opt/my apps/sorva\"");
    EXPECT_EQ(LoginItem::execValue("/opt/100%/sorva"), "/opt/100%%/sorva");
    // Inside quotes: \" for a quote, \\ for a backslash, each backslash then
    // doubled again for the string value.
    EXPECT_EQ(LoginItem::execValue("/opt/a\"b/$x"), "\"/opt/a\\\\\"b/\\\\$x\"");
    EXPECT_EQ(LoginItem::execValue("/opt/a\\b"), "\"/opt/a\\\\\\\\b\"");
}
