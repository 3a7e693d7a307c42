#include "Models/LoginItem.h"

#include "Audio/EQLog.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <optional>
#include <string_view>
#include <system_error>

namespace sorva::LoginItem {

namespace {

std::filesystem::path configHome()
{
    if (const char* xdg = std::getenv("XDG_CONFIG_HOME"); xdg && *xdg && xdg[0] == '/')
        return xdg;
    if (const char* home = std::getenv("HOME"); home && *home)
        return std::filesystem::path(home) / ".config";
    if (const passwd* entry = getpwuid(getuid()); entry && entry->pw_dir)
        return std::filesystem::path(entry->pw_dir) / ".config";
    return "/.config";
}

std::string describe(std::string_view what, const std::filesystem::path& path, int error)
{
    return std::string(what) + " " + path.string() + ": " + std::strerror(error);
}

std::string entryText(const std::filesystem::path& program)
{
    return "[Desktop Entry]\n"
           "Type=Application\n"
           "Name=SORVA\n"
           "Comment=Equalizer for everything the computer plays\n"
           "Exec=" + execValue(program) + "\n"
           "Icon=sorva\n"
           "Terminal=false\n"
           "X-GNOME-Autostart-enabled=true\n";
}

// Writes the entry next to its final place and renames it over the old one,
// so that a crash never leaves a half-written entry behind. Returns the
// failure's description, or nothing on success.
std::optional<std::string> writeEntry()
{
    const std::filesystem::path path = entryPath();
    const std::filesystem::path folder = path.parent_path();

    std::error_code ec;
    const std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe", ec);
    if (ec)
        return "cannot find this program's own path: " + ec.message();

    std::filesystem::create_directories(folder, ec);
    if (ec)
        return describe("cannot create the folder", folder, ec.value());

    std::string temporary = (folder / ".sorva.desktop.XXXXXX").string();
    const int fd = mkstemp(temporary.data());
    if (fd < 0)
        return describe("cannot write in", folder, errno);

    const std::string text = entryText(program);
    size_t written = 0;
    int error = 0;
    while (written < text.size()) {
        const ssize_t n = ::write(fd, text.data() + written, text.size() - written);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            error = errno;
            break;
        }
        written += static_cast<size_t>(n);
    }
    if (error == 0 && fchmod(fd, 0644) != 0)
        error = errno;
    if (error == 0 && fsync(fd) != 0)
        error = errno;
    if (::close(fd) != 0 && error == 0)
        error = errno;
    if (error == 0 && std::rename(temporary.c_str(), path.c_str()) != 0)
        error = errno;
    if (error != 0) {
        ::unlink(temporary.c_str());
        return describe("cannot write", path, error);
    }
    return std::nullopt;
}

std::optional<std::string> removeEntry()
{
    const std::filesystem::path path = entryPath();
    if (::unlink(path.c_str()) != 0 && errno != ENOENT)
        return describe("cannot remove", path, errno);
    return std::nullopt;
}

bool isTrue(std::string_view value)
{
    return value == "true";
}

bool isFalse(std::string_view value)
{
    return value == "false";
}

} // namespace

std::filesystem::path entryPath()
{
    return configHome() / "autostart" / "sorva.desktop";
}

std::string execValue(const std::filesystem::path& program)
{
    const std::string path = program.string();
    // Desktop entries reserve these characters in arguments; any of them
    // means the path must be quoted.
    constexpr std::string_view reserved = " \t\n\"'\\><~|&;$*?#()`";
    std::string quoted;
    bool needsQuotes = false;
    for (char c : path) {
        if (reserved.find(c) != std::string_view::npos)
            needsQuotes = true;
        if (c == '%') {
            quoted += "%%";
            continue;
        }
        // Inside quotes, these take a backslash; the backslash itself is then
        // escaped once more because Exec is a string value.
        if (c == '"' || c == '`' || c == '$')
            quoted += "\\\\";
        else if (c == '\\')
            quoted += "\\\\\\";
        quoted += c;
    }
    if (!needsQuotes)
        return quoted;
    return "\"" + quoted + "\"";
}

bool setEnabled(bool enabled)
{
    const std::optional<std::string> failure = enabled ? writeEntry() : removeEntry();
    if (failure) {
        const std::string prefix = enabled ? "login item register failed: " : "login item unregister failed: ";
        EQLog::trace(prefix + *failure);
    }
    return isEnabled();
}

bool isEnabled()
{
    const std::filesystem::path path = entryPath();
    std::error_code ec;
    if (!std::filesystem::is_regular_file(path, ec))
        return false;
    std::ifstream file(path);
    if (!file)
        return false;
    bool inMainGroup = false;
    std::string line;
    while (std::getline(file, line)) {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        if (line.starts_with('[')) {
            inMainGroup = line == "[Desktop Entry]";
            continue;
        }
        if (!inMainGroup)
            continue;
        const size_t equals = line.find('=');
        if (equals == std::string::npos)
            continue;
        auto trim = [](std::string_view text) {
            while (!text.empty() && (text.front() == ' ' || text.front() == '\t'))
                text.remove_prefix(1);
            while (!text.empty() && (text.back() == ' ' || text.back() == '\t'))
                text.remove_suffix(1);
            return text;
        };
        const std::string_view key = trim(std::string_view(line).substr(0, equals));
        const std::string_view value = trim(std::string_view(line).substr(equals + 1));
        if (key == "Hidden" && isTrue(value))
            return false;
        if (key == "X-GNOME-Autostart-enabled" && isFalse(value))
            return false;
    }
    return true;
}

} // namespace sorva::LoginItem
