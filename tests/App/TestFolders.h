// Helpers for tests that work on real files: a fresh folder per test that
// stands in for $XDG_CONFIG_HOME, a folder made read-only even for root, and
// the trace lines logged meanwhile.
#pragma once

#include "Audio/EQLog.h"

#include <fcntl.h>
#include <linux/capability.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace sorva::testing {

// A new empty folder set as XDG_CONFIG_HOME for the test's lifetime.
class ConfigHome {
public:
    ConfigHome()
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "sorva-config-XXXXXX").string();
        path = mkdtemp(pattern.data());
        if (const char* old = std::getenv("XDG_CONFIG_HOME"))
            previous = old, hadPrevious = true;
        setenv("XDG_CONFIG_HOME", path.c_str(), 1);
    }
    ~ConfigHome()
    {
        std::error_code ec;
        for (auto& entry : std::filesystem::recursive_directory_iterator(path, ec))
            std::filesystem::permissions(entry.path(), std::filesystem::perms::owner_all,
                                         std::filesystem::perm_options::add, ec);
        std::filesystem::permissions(path, std::filesystem::perms::owner_all, std::filesystem::perm_options::add, ec);
        std::filesystem::remove_all(path, ec);
        if (hadPrevious)
            setenv("XDG_CONFIG_HOME", previous.c_str(), 1);
        else
            unsetenv("XDG_CONFIG_HOME");
    }
    std::filesystem::path path;

private:
    std::string previous;
    bool hadPrevious = false;
};

inline void writeFile(const std::filesystem::path& path, const std::string& bytes)
{
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

inline std::string readFile(const std::filesystem::path& path)
{
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

// For this thread, takes away the capabilities that let root read and write
// any file; restored when the object goes away. Linux keeps capabilities per
// thread, so the rest of the test program is unaffected.
class WithoutFileOverride {
public:
    WithoutFileOverride()
    {
        header.version = _LINUX_CAPABILITY_VERSION_3;
        header.pid = 0;
        if (syscall(SYS_capget, &header, saved) == 0) {
            __user_cap_data_struct lowered[2] = { saved[0], saved[1] };
            const unsigned mask = (1u << CAP_DAC_OVERRIDE) | (1u << CAP_DAC_READ_SEARCH) | (1u << CAP_FOWNER);
            lowered[0].effective &= ~mask;
            restore = syscall(SYS_capset, &header, lowered) == 0;
        }
    }
    WithoutFileOverride(const WithoutFileOverride&) = delete;
    WithoutFileOverride& operator=(const WithoutFileOverride&) = delete;
    ~WithoutFileOverride()
    {
        if (restore)
            syscall(SYS_capset, &header, saved);
    }

private:
    __user_cap_header_struct header {};
    __user_cap_data_struct saved[2] {};
    bool restore = false;
};

// Makes a folder read-only (mode 0555), even for root (see
// WithoutFileOverride); the mode is restored when the object goes away.
class ReadOnlyFolder {
public:
    explicit ReadOnlyFolder(std::filesystem::path folder)
        : folder(std::move(folder))
        , capabilities((std::filesystem::permissions(this->folder, std::filesystem::perms(0555)), std::make_unique<WithoutFileOverride>()))
    {
    }
    ~ReadOnlyFolder()
    {
        capabilities.reset();
        std::filesystem::permissions(folder, std::filesystem::perms(0755));
    }
    // Whether writing into the folder really fails now.
    bool isEffective() const
    {
        const std::string probe = (folder / ".probe").string();
        const int fd = open(probe.c_str(), O_CREAT | O_EXCL | O_WRONLY, 0600);
        if (fd < 0)
            return true;
        close(fd);
        unlink(probe.c_str());
        return false;
    }

private:
    std::filesystem::path folder;
    std::unique_ptr<WithoutFileOverride> capabilities;
};

// Every line traced while it exists.
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

} // namespace sorva::testing
