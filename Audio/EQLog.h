// The program's one logging call. EQLog::trace sends a message to the systemd
// journal (at once, on the caller's thread), and hands the standard-error line
// "[sorva] message" and the log-file line "[time] message" to the serial queue
// "com.sorva.app.log", which writes them later in submission order. The caller
// never blocks on file I/O. Callable from any thread; the audio thread logs
// only through a LogOnce.
#pragma once

#include <concepts>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

namespace sorva::EQLog {

// Evaluates message once, on the caller's thread, and logs it.
void trace(const std::function<std::string()>& message);

inline void trace(std::string_view message)
{
    trace([message] { return std::string(message); });
}

template <typename F>
    requires std::invocable<F> && std::convertible_to<std::invoke_result_t<F>, std::string>
         && (!std::convertible_to<F, std::string_view>)
         && (!std::same_as<std::remove_cvref_t<F>, std::function<std::string()>>)
void trace(F&& message)
{
    trace(std::function<std::string()>(std::forward<F>(message)));
}

// The folder "sorva-diagnostics" in the per-user temporary folder (never
// created here), or nothing where no safe temporary folder exists.
std::optional<std::filesystem::path> diagnosticsDirectory();

// The log file "sorva-diagnostic.log" in the per-user temporary folder.
std::optional<std::filesystem::path> logFilePath();

// Waits until every line handed over so far has been written.
void flush();

// For tests and the program's self-checks: every message, as evaluated, is
// also passed to the observer on the caller's thread. Pass an empty function
// to remove it.
void setObserver(std::function<void(const std::string&)> observer);

// For tests: writes the log file (and names the diagnostics folder) under this
// folder instead of the per-user temporary folder.
void setDirectoryForTesting(std::optional<std::filesystem::path> folder);

} // namespace sorva::EQLog
