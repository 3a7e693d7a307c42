#include "Platform/TempDirectory.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace sorva {

std::optional<std::filesystem::path> preparePerUserDirectory(const std::filesystem::path& base, std::string* reason)
{
    uid_t uid = getuid();
    std::filesystem::path folder = base / ("sorva-" + std::to_string(uid));
    auto refuse = [&](const std::string& why) -> std::optional<std::filesystem::path> {
        if (reason)
            *reason = folder.string() + ": " + why;
        return std::nullopt;
    };

    if (mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST)
        return refuse(std::string("cannot create: ") + std::strerror(errno));

    // lstat, not stat: a symbolic link planted in a shared /tmp must never be
    // followed into someone else's folder.
    struct stat info {};
    if (lstat(folder.c_str(), &info) != 0)
        return refuse(std::string("cannot inspect: ") + std::strerror(errno));
    if (S_ISLNK(info.st_mode))
        return refuse("is a symbolic link");
    if (!S_ISDIR(info.st_mode))
        return refuse("is not a directory");
    if (info.st_uid != uid)
        return refuse("is owned by another user");
    if ((info.st_mode & 07777) != 0700) {
        // Ours but too open (an older umask, a hand-made folder), or made
        // unwritable for us by a strict umask at creation: set it right.
        if (chmod(folder.c_str(), 0700) != 0)
            return refuse(std::string("cannot set its mode to 0700: ") + std::strerror(errno));
    }
    return folder;
}

std::optional<std::filesystem::path> perUserTemporaryDirectory()
{
    // Never destroyed: the log queue's worker reads it while static objects
    // are being destroyed at exit (it drains what was handed over last).
    static const auto* folder = new std::optional<std::filesystem::path>([] {
        const char* tmpdir = std::getenv("TMPDIR");
        std::filesystem::path base = (tmpdir && *tmpdir) ? tmpdir : "/tmp";
        std::string reason;
        auto result = preparePerUserDirectory(base, &reason);
        if (!result)
            std::fprintf(stderr, "[sorva] temporary folder refused: %s\n", reason.c_str());
        return result;
    }());
    return *folder;
}

} // namespace sorva
