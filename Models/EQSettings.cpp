#include "Models/EQSettings.h"

#include "Audio/EQLog.h"

#include <QLocale>
#include <QSettings>
#include <QString>
#include <QStringList>
#include <QUtf8StringView>
#include <QVariant>

#include <fcntl.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <optional>
#include <string>

namespace sorva::EQSettings {

namespace {

constexpr double minBandGain = -24.0;
constexpr double maxBandGain = 24.0;
constexpr double minOutputGain = -6.0;
constexpr double maxOutputGain = 6.0;
constexpr double defaultLatencyMs = 125.0;

std::filesystem::path homeDirectory()
{
    if (const char* home = std::getenv("HOME"); home && *home)
        return home;
    if (const passwd* entry = getpwuid(getuid()); entry && entry->pw_dir)
        return entry->pw_dir;
    return "/";
}

QString qPath(const std::filesystem::path& path)
{
    return QString::fromStdString(path.string());
}

// QSettings serialises writers with a lock file next to the settings file,
// which holds the writer's process ID. A writer killed between creating that
// file and filling it leaves an empty lock that QSettings only takes for stale
// after 30 seconds, blocking the next write that long. An empty lock file
// that nobody holds an flock on is such a leftover: remove it.
void removeAbandonedLock()
{
    const std::string lockPath = filePath().string() + ".lock";
    const int fd = ::open(lockPath.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return;
    struct stat info {};
    if (fstat(fd, &info) == 0 && info.st_size == 0 && flock(fd, LOCK_EX | LOCK_NB) == 0) {
        if (fstat(fd, &info) == 0 && info.st_size == 0)
            ::unlink(lockPath.c_str());
        flock(fd, LOCK_UN);
    }
    ::close(fd);
}

// A settings file is a few hundred bytes of text; anything past this is not
// one, and reading it would only cost memory and time.
constexpr off_t largestReadableFile = 1 << 20;

// Why the file at path cannot be the settings file, or nothing if it can be
// read (or does not exist). Hand-edited values of the wrong type are readable:
// the typed reads give their defaults and the other keys stay usable.
std::optional<std::string> unreadableReason(const std::filesystem::path& path)
{
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0)
        return errno == ENOENT ? std::nullopt : std::optional<std::string>(std::strerror(errno));
    if (S_ISDIR(info.st_mode))
        return "it is a folder";
    if (!S_ISREG(info.st_mode))
        return "it is not a regular file";
    if (info.st_size > largestReadableFile)
        return "it is too large (" + std::to_string(info.st_size) + " bytes)";
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0)
        return std::string(std::strerror(errno));
    std::string bytes(static_cast<size_t>(info.st_size), '\0');
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::read(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        done += static_cast<size_t>(n);
    }
    ::close(fd);
    bytes.resize(done);
    // QSettings writes UTF-8 text: NUL bytes or broken UTF-8 mean the file
    // was damaged or is something else, and rewriting it would lose it.
    if (bytes.find('\0') != std::string::npos || !QUtf8StringView(bytes).isValidUtf8())
        return "it is not text";
    return std::nullopt;
}

// Moves an unreadable settings file aside as "sorva.conf.unreadable-<UTC
// time>" so that the next write starts a fresh file without destroying what
// the user had; logs one line. False if the file is unreadable and stays in
// place, in which case nothing may be written over it.
bool setAsideIfUnreadable()
{
    const std::filesystem::path path = filePath();
    const std::optional<std::string> reason = unreadableReason(path);
    if (!reason)
        return true;
    const std::time_t now = std::time(nullptr);
    std::tm parts {};
    gmtime_r(&now, &parts);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y-%m-%dT%H-%M-%SZ", &parts);
    std::filesystem::path kept = path;
    kept += std::string(".unreadable-") + stamp;
    // Never over an earlier kept file: a second bad file within the same
    // second gets a counter.
    for (int n = 2; ::access(kept.c_str(), F_OK) == 0 || errno != ENOENT; ++n) {
        kept = path;
        kept += std::string(".unreadable-") + stamp + "-" + std::to_string(n);
        if (n > 1000)
            break;
    }
    if (::rename(path.c_str(), kept.c_str()) != 0) {
        const std::string why = std::strerror(errno);
        EQLog::trace([&] {
            return "settings file " + path.string() + " unreadable (" + *reason + ") and cannot be moved aside ("
                + why + "): using the defaults and leaving it as it is";
        });
        return false;
    }
    EQLog::trace([&] {
        return "settings file " + path.string() + " unreadable (" + *reason + "): kept as "
            + kept.filename().string() + ", starting from the defaults";
    });
    return true;
}

// One QSettings per operation: cheap (Qt shares the parsed file between
// instances and re-reads it only when it changed on disk) and always in step
// with the file. An unreadable file is moved aside first; if it cannot be,
// the settings come from an empty in-memory store (the defaults) and
// writable is false.
QSettings openSettings(bool* writable = nullptr)
{
    removeAbandonedLock();
    const bool usable = setAsideIfUnreadable();
    if (writable)
        *writable = usable;
    if (!usable)
        return QSettings(QString(), QSettings::IniFormat);
    return QSettings(qPath(filePath()), QSettings::IniFormat);
}

// A stored value as a number, whichever way it reached us: typed (written by
// this process and still cached) or as text (read back from the file). NaN
// is not a number; infinities are, and clamp like any large value.
std::optional<double> numberFrom(const QVariant& value)
{
    double result = 0;
    switch (value.typeId()) {
    case QMetaType::Double:
    case QMetaType::Float:
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
        result = value.toDouble();
        break;
    case QMetaType::QString: {
        bool ok = false;
        result = QLocale::c().toDouble(value.toString().trimmed(), &ok);
        if (!ok)
            return std::nullopt;
        break;
    }
    default:
        return std::nullopt;
    }
    if (std::isnan(result))
        return std::nullopt;
    return result;
}

// Booleans come back from the file as the text QSettings wrote.
std::optional<bool> booleanFrom(const QVariant& value)
{
    if (value.typeId() == QMetaType::Bool)
        return value.toBool();
    if (value.typeId() == QMetaType::QString) {
        const QString text = value.toString().trimmed();
        if (text.compare(QLatin1String("true"), Qt::CaseInsensitive) == 0)
            return true;
        if (text.compare(QLatin1String("false"), Qt::CaseInsensitive) == 0)
            return false;
    }
    return std::nullopt;
}

// "bandGains" as a list of numbers, or nothing if it is absent or any element
// is not a number. A single hand-written value comes back as plain text and
// counts as a list of one.
std::optional<std::vector<double>> storedGains(const QSettings& settings)
{
    const QVariant stored = settings.value(QStringLiteral("bandGains"));
    QVariantList elements;
    switch (stored.typeId()) {
    case QMetaType::QVariantList:
        elements = stored.toList();
        break;
    case QMetaType::QStringList:
        for (const QString& text : stored.toStringList())
            elements.append(text);
        break;
    case QMetaType::QString:
        elements.append(stored);
        break;
    default:
        return std::nullopt;
    }
    std::vector<double> gains;
    for (const QVariant& element : elements) {
        const std::optional<double> gain = numberFrom(element);
        if (!gain)
            return std::nullopt;
        gains.push_back(*gain);
    }
    return gains;
}

double clamped(double value, double low, double high)
{
    if (value <= low)
        value = low;
    if (value > high)
        value = high;
    return value;
}

void write(const QString& key, const QVariant& value)
{
    bool writable = true;
    QSettings settings = openSettings(&writable);
    if (!writable) {
        EQLog::trace([&] { return "settings not saved: cannot write " + filePath().string(); });
        return;
    }
    settings.setValue(key, value);
    settings.sync();
    if (settings.status() == QSettings::AccessError)
        EQLog::trace([&] { return "settings not saved: cannot write " + filePath().string(); });
}

} // namespace

std::filesystem::path filePath()
{
    std::filesystem::path base;
    if (const char* xdg = std::getenv("XDG_CONFIG_HOME"); xdg && *xdg && xdg[0] == '/')
        base = xdg;
    else
        base = homeDirectory() / ".config";
    return base / "sorva" / "sorva.conf";
}

EQConfig loadConfig()
{
    EQConfig config = EQConfig::defaultConfig();
    const QSettings settings = openSettings();
    const std::optional<std::vector<double>> gains = storedGains(settings);
    if (!gains || gains->size() != config.bands.size())
        return config;
    for (size_t i = 0; i < config.bands.size(); ++i)
        config.bands[i].gain = clamped((*gains)[i], minBandGain, maxBandGain);
    const double output = numberFrom(settings.value(QStringLiteral("outputGain"))).value_or(0.0);
    config.outputGain = clamped(output, minOutputGain, maxOutputGain);
    return config;
}

void saveGains(const std::vector<EQBand>& bands)
{
    QVariantList gains;
    for (const EQBand& band : bands)
        gains.append(band.gain);
    write(QStringLiteral("bandGains"), gains);
}

bool bufferedMode()
{
    return booleanFrom(openSettings().value(QStringLiteral("bufferedMode"))).value_or(false);
}

void saveOutputGain(double gainDB)
{
    write(QStringLiteral("outputGain"), gainDB);
}

bool eqEnabled()
{
    return booleanFrom(openSettings().value(QStringLiteral("eqEnabled"))).value_or(false);
}

void setEQEnabled(bool enabled)
{
    write(QStringLiteral("eqEnabled"), enabled);
}

double bufferLatencyMs()
{
    const double stored = numberFrom(openSettings().value(QStringLiteral("bufferLatencyMs"))).value_or(0.0);
    if (!std::isfinite(stored) || stored <= 0)
        return defaultLatencyMs;
    return stored;
}

} // namespace sorva::EQSettings
