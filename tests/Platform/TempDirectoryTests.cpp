#include "Platform/TempDirectory.h"

#include <gtest/gtest.h>

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

TEST(TempDirectory, CreatesOrTightensAPrivateFolderWhateverTheUmask)
{
    for (mode_t mask : { mode_t(022), mode_t(0277) }) {
        Base base;
        const mode_t previous = ::umask(mask);
        std::string reason;
        const auto folder = preparePerUserDirectory(base.path, &reason);
        ::umask(previous);
        ASSERT_EQ(folder, base.ours()) << reason;
        EXPECT_EQ(modeOf(*folder), 0700u) << "umask " << std::oct << mask;
        EXPECT_EQ(preparePerUserDirectory(base.path, nullptr), folder); // used again as is
        ::chmod(folder->c_str(), 0777);
        ASSERT_EQ(preparePerUserDirectory(base.path, &reason), folder) << reason;
        EXPECT_EQ(modeOf(*folder), 0700u);
    }
}

TEST(TempDirectory, RefusesASymbolicLinkANonDirectoryAndAFolderOfAnotherUser)
{
    Base base;
    const auto elsewhere = base.path / "elsewhere";
    std::filesystem::create_directory(elsewhere);
    std::filesystem::permissions(elsewhere, std::filesystem::perms::all);
    std::filesystem::create_directory_symlink(elsewhere, base.ours());
    const auto refusal = [&] {
        std::string reason;
        EXPECT_FALSE(preparePerUserDirectory(base.path, &reason));
        return reason;
    };
    EXPECT_NE(refusal().find("symbolic link"), std::string::npos);
    EXPECT_EQ(modeOf(elsewhere), 0777u) << "the link's target is left alone";

    std::filesystem::remove(base.ours());
    std::ofstream(base.ours()) << "not a folder";
    EXPECT_NE(refusal().find("not a directory"), std::string::npos);

    if (::getuid() != 0)
        GTEST_SKIP() << "handing a folder to another user needs root";
    std::filesystem::remove(base.ours());
    std::filesystem::create_directory(base.ours());
    ASSERT_EQ(::chown(base.ours().c_str(), 65534, 65534), 0);
    EXPECT_NE(refusal().find("another user"), std::string::npos);
}
