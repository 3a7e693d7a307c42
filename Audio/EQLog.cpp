#include "Audio/EQLog.h"

#include "Platform/SerialQueue.h"
#include "Platform/SystemJournal.h"
#include "Platform/TempDirectory.h"

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <mutex>
#include <unistd.h>

namespace sorva::EQLog {

namespace {

std::mutex& observerLock()
{
    static std::mutex lock;
    return lock;
}

std::function<void(const std::string&)>& observerSlot()
{
    static std::function<void(const std::string&)> observer;
    return observer;
}

std::mutex& directoryLock()
{
    static std::mutex lock;
    return lock;
}

std::optional<std::optional<std::filesystem::path>>& directoryOverride()
{
    static std::optional<std::optional<std::filesystem::path>> folder;
    return folder;
}

std::optional<std::filesystem::path> baseDirectory()
{
    {
        std::lock_guard guard(directoryLock());
        if (directoryOverride())
            return *directoryOverride();
    }
    return perUserTemporaryDirectory();
}

// Guards the log file; only writeQueue jobs take it.
std::mutex& fileLock()
{
    static std::mutex lock;
    return lock;
}

SerialQueue& writeQueue()
{
    // The queue's jobs read these statics. Constructing them before the queue
    // makes them outlive it at exit, when the queue runs its remaining jobs.
    static const bool jobStatics = [] {
        directoryLock();
        directoryOverride();
        fileLock();
        perUserTemporaryDirectory();
        return true;
    }();
    (void)jobStatics;
    static SerialQueue queue("com.sorva.app.log");
    return queue;
}

std::string timeOfDay()
{
    timespec now {};
    clock_gettime(CLOCK_REALTIME, &now);
    tm local {};
    localtime_r(&now.tv_sec, &local);
    char text[64];
    // %X: the locale's time of day without a date (14:03:27 in the C locale).
    if (std::strftime(text, sizeof text, "%X", &local) == 0)
        return "??:??:??";
    return text;
}

bool writeAll(int fd, const std::string& bytes)
{
    size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

void appendLine(const std::filesystem::path& file, const std::string& line)
{
    std::lock_guard guard(fileLock());
    // Created private (0600) if missing; never through a symbolic link, which
    // anyone able to plant one could aim at a file of their choosing.
    int fd = ::open(file.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd >= 0) {
        writeAll(fd, line);
        ::close(fd);
        return;
    }
    if (errno == ELOOP) {
        static bool told = false;
        if (!told) {
            told = true;
            std::fprintf(stderr, "[sorva] log file refused: %s is a symbolic link\n", file.c_str());
        }
        return;
    }
    // Not writable in place (a file made read-only, say): the line becomes
    // the whole file, written to a temporary name and renamed so a reader
    // never sees half of it.
    std::filesystem::path temporary = file;
    temporary += ".tmp-" + std::to_string(::getpid());
    fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0)
        return;
    bool ok = writeAll(fd, line);
    ::close(fd);
    if (!ok || ::rename(temporary.c_str(), file.c_str()) != 0)
        ::unlink(temporary.c_str());
}

} // namespace

void trace(const std::function<std::string()>& message)
{
    std::string text = message();
    journalSend("com.sorva.app", "audio", text);
    {
        std::lock_guard guard(observerLock());
        if (observerSlot())
            observerSlot()(text);
    }
    // Appended piece by piece: GCC 12 at -O3 warns (-Wrestrict, falsely) on
    // "[" + std::string&&.
    const std::string time = timeOfDay();
    std::string line;
    line.reserve(time.size() + text.size() + 4);
    line.append("[").append(time).append("] ").append(text).append("\n");
    writeQueue().async([text = std::move(text), line = std::move(line)] {
        std::string errorLine = "[sorva] " + text + "\n";
        std::fwrite(errorLine.data(), 1, errorLine.size(), stderr);
        std::fflush(stderr);
        if (auto file = logFilePath())
            appendLine(*file, line);
    });
}

std::optional<std::filesystem::path> diagnosticsDirectory()
{
    auto base = baseDirectory();
    if (!base)
        return std::nullopt;
    return *base / "sorva-diagnostics";
}

std::optional<std::filesystem::path> logFilePath()
{
    auto base = baseDirectory();
    if (!base)
        return std::nullopt;
    return *base / "sorva-diagnostic.log";
}

void flush() { writeQueue().drain(); }

void setObserver(std::function<void(const std::string&)> observer)
{
    std::lock_guard guard(observerLock());
    observerSlot() = std::move(observer);
}

void setDirectoryForTesting(std::optional<std::filesystem::path> folder)
{
    flush();
    std::lock_guard guard(directoryLock());
    directoryOverride() = std::move(folder);
}

} // namespace sorva::EQLog
