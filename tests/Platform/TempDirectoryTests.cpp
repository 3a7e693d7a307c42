#include "Platform/TempDirectory.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

using namespace sorva;

namespace {

// A fresh base folder for one test, removed afterwards.
struct Base {
    std::filesystem::path path;
    Base()
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "sorva-tempdir-test-XXXXXX").string();
        path = ::mkdtemp(pattern.data());
    }
    ~Base() { std::filesystem::remove_all(path); }
    std::filesystem::path ours() const { return path / ("sorva-" + std::to_string(::getuid())); }
};

mode_t modeOf(const std::filesystem::path& p)
{
    struct stat info {};
    EXPECT_EQ(::lstat(p.c_str(), &info), 0);
    return info.st_mode & 07777;
}

} // namespace

TEST(TempDirectory, CreatesAPrivateFolderWhateverTheUmask)
{
    for (mode_t mask : { mode_t(022), mode_t(0277) }) {
        Base base;
        const mode_t previous = ::umask(mask);
        std::string reason;
        auto folder = preparePerUserDirectory(base.path, &reason);
        ::umask(previous);
        ASSERT_TRUE(folder) << reason;
        EXPECT_EQ(*folder, base.ours());
        EXPECT_TRUE(std::filesystem::is_directory(*folder));
        EXPECT_EQ(modeOf(*folder), 0700u) << "umask " << std::oct << mask;
        // Using it again is fine and changes nothing.
        EXPECT_EQ(preparePerUserDirectory(base.path, nullptr), folder);
    }
}

TEST(TempDirectory, RefusesASymbolicLinkAndANonDirectory)
{
    Base base;
    const auto elsewhere = base.path / "elsewhere";
    std::filesystem::create_directory(elsewhere);
    std::filesystem::permissions(elsewhere, std::filesystem::perms::all);
    std::filesystem::create_directory_symlink(elsewhere, base.ours());
    std::string reason;
    EXPECT_FALSE(preparePerUserDirectory(base.path, &reason));
    EXPECT_NE(reason.find("symbolic link"), std::string::npos) << reason;
    EXPECT_EQ(modeOf(elsewhere), 0777u) << "the link's target is left alone";

    std::filesystem::remove(base.ours());
    std::ofstream(base.ours()) << "not a folder";
    reason.clear();
    EXPECT_FALSE(preparePerUserDirectory(base.path, &reason));
    EXPECT_NE(reason.find("not a directory"), std::string::npos) << reason;
}

TEST(TempDirectory, TightensATooOpenFolderOfOurs)
{
    Base base;
    std::filesystem::create_directory(base.ours());
    ::chmod(base.ours().c_str(), 0777);
    std::string reason;
    ASSERT_TRUE(preparePerUserDirectory(base.path, &reason)) << reason;
    EXPECT_EQ(modeOf(base.ours()), 0700u);
}

TEST(TempDirectory, RefusesAFolderOwnedBySomeoneElse)
{
    if (::getuid() != 0)
        GTEST_SKIP() << "handing a folder to another user needs root";
    Base base;
    std::filesystem::create_directory(base.ours());
    std::string reason;
    ASSERT_EQ(::chown(base.ours().c_str(), 65534, 65534), 0);
    reason.clear();
    EXPECT_FALSE(preparePerUserDirectory(base.path, &reason));
    EXPECT_NE(reason.find("another user"), std::string::npos) << reason;
}
