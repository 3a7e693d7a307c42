// Helpers shared by the tests of the application and its views: a fresh
// folder per test that stands in for $XDG_CONFIG_HOME, a folder made
// read-only even for root, the trace lines logged meanwhile, and one
// QCoreApplication with a loop that processes events until a condition holds.
#pragma once

#include "Audio/EQLog.h"

#include <QCoreApplication>
#include <QElapsedTimer>

#include <fcntl.h>
#include <linux/capability.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace sorva::testing {

// A fresh temporary folder, removed with its contents (read-only parts too)
// at the end of the test.
class ScratchFolder {
public:
    explicit ScratchFolder(const std::string& prefix = "sorva-test-")
    {
        std::string pattern = (std::filesystem::temp_directory_path() / (prefix + "XXXXXX")).string();
        if (!mkdtemp(pattern.data()))
            throw std::runtime_error("mkdtemp failed");
        folder = pattern;
    }
    ~ScratchFolder()
    {
        std::error_code ec;
        for (auto& entry : std::filesystem::recursive_directory_iterator(folder, ec))
            std::filesystem::permissions(entry.path(), std::filesystem::perms::owner_all,
                                         std::filesystem::perm_options::add, ec);
        std::filesystem::permissions(folder, std::filesystem::perms::owner_all, std::filesystem::perm_options::add, ec);
        std::filesystem::remove_all(folder, ec);
    }
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;

    const std::filesystem::path& path() const { return folder; }
    std::filesystem::path operator/(const std::string& name) const { return folder / name; }
    // Every name in the folder, hidden ones included, sorted.
    std::vector<std::string> names() const
    {
        std::vector<std::string> result;
        for (const auto& entry : std::filesystem::directory_iterator(folder))
            result.push_back(entry.path().filename().string());
        std::sort(result.begin(), result.end());
        return result;
    }

private:
    std::filesystem::path folder;
};

// A new empty folder set as XDG_CONFIG_HOME for the test's lifetime.
class ConfigHome {
    ScratchFolder scratch { "sorva-config-" };
    std::optional<std::string> previous;

public:
    const std::filesystem::path path = scratch.path();
    ConfigHome()
    {
        if (const char* old = std::getenv("XDG_CONFIG_HOME"))
            previous = old;
        setenv("XDG_CONFIG_HOME", path.c_str(), 1);
    }
    ~ConfigHome() { previous ? setenv("XDG_CONFIG_HOME", previous->c_str(), 1) : unsetenv("XDG_CONFIG_HOME"); }
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
    std::filesystem::path folder;
    std::optional<WithoutFileOverride> capabilities;

public:
    explicit ReadOnlyFolder(std::filesystem::path path)
        : folder(std::move(path))
    {
        std::filesystem::permissions(folder, std::filesystem::perms(0555));
        capabilities.emplace();
    }
    ~ReadOnlyFolder()
    {
        capabilities.reset();
        std::filesystem::permissions(folder, std::filesystem::perms(0755));
    }
    // Whether writing into the folder really fails now.
    bool isEffective() const
    {
        std::filesystem::path probe = folder / ".probe";
        const int fd = open(probe.c_str(), O_CREAT | O_EXCL | O_WRONLY, 0600);
        return fd < 0 || (close(fd), unlink(probe.c_str()), false);
    }
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
    // The lines so far, forgotten here.
    std::vector<std::string> take()
    {
        std::lock_guard guard(lines->lock);
        return std::exchange(lines->text, {});
    }

private:
    struct Lines {
        std::mutex lock;
        std::vector<std::string> text;
    };
    std::shared_ptr<Lines> lines = std::make_shared<Lines>();
};

inline QCoreApplication& qtApp()
{
    static int argc = 1;
    static char name[] = "sorva_tests";
    static char* argv[] = { name, nullptr };
    static QCoreApplication* app = QCoreApplication::instance() ? QCoreApplication::instance()
                                                                 : new QCoreApplication(argc, argv);
    return *app;
}

// Processes Qt events until done() holds or timeout passes; returns done().
inline bool processEventsUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout)
{
    qtApp();
    QElapsedTimer clock;
    clock.start();
    while (!done()) {
        if (clock.elapsed() > timeout.count())
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
    }
    return true;
}

} // namespace sorva::testing
