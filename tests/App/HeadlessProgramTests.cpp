// The built program, headless, on the simulated audio system; autostart and
// SIGTERM on the real backend are covered by the PipeWire tests.
#include "QtTestSupport.h"
#include "TestFolders.h"

#include <gtest/gtest.h>

#include <QElapsedTimer>
#include <QProcess>

#include <csignal>
#include <filesystem>
#include <map>
#include <optional>
#include <regex>
#include <string>
#include <vector>

namespace sorva {
namespace {

struct Run {
    int exitCode = -1; // -1: killed
    bool ready = false;
    std::vector<std::string> lines; // standard error
    size_t indexOf(const std::string& line) const { return size_t(std::find(lines.begin(), lines.end(), line) - lines.begin()); }
};

// Runs the program in a fresh configuration folder (in values, "$HOME" stands for
// it; an empty value removes the variable) until a line matches `ready`, then
// sends `signal`; or until it exits.
Run run(const QStringList& arguments, std::map<QString, QString> variables, const std::optional<std::regex>& ready = {},
        int signal = 0)
{
    sorva::testing::qtApp();
    sorva::testing::ConfigHome config;
    auto environment = QProcessEnvironment::systemEnvironment();
    variables.try_emplace("TMPDIR", config.path.c_str());
    variables.try_emplace("SORVA_AUTOSTART", "");
    // Under a display the program opens its tray and panel instead.
    variables.try_emplace("DISPLAY", "");
    variables.try_emplace("WAYLAND_DISPLAY", "");
    for (auto [name, value] : variables)
        value.isEmpty() ? environment.remove(name) : environment.insert(name, value.replace("$HOME", config.path.c_str()));
    QProcess process;
    process.setProcessEnvironment(environment);
    process.start(QStringLiteral(SORVA_BINARY), arguments);
    Run result;
    std::string text;
    QElapsedTimer clock;
    clock.start();
    while (process.state() != QProcess::NotRunning && clock.elapsed() < 10000) {
        process.waitForReadyRead(50);
        text += process.readAllStandardError().toStdString();
        if (ready && std::regex_search(text, *ready)) {
            result.ready = true;
            ::kill(static_cast<pid_t>(process.processId()), signal);
            break;
        }
    }
    if (!process.waitForFinished(10000))
        process.kill();
    text += process.readAllStandardError().toStdString();
    if (process.exitStatus() == QProcess::NormalExit)
        result.exitCode = process.exitCode();
    for (size_t start = 0, end; (end = text.find('\n', start)) != std::string::npos; start = end + 1)
        result.lines.push_back(text.substr(start, end - start));
    return result;
}

// The shut-down sequence: processing stops, the program exits with 0, no supervision in between.
void expectCleanStop(const Run& run, const std::string& signalName)
{
    EXPECT_TRUE(run.ready) << (run.lines.empty() ? "(nothing)" : run.lines.back());
    EXPECT_EQ(run.exitCode, 0);
    auto stopping = run.indexOf("[sorva] received " + signalName + " — stopping processing");
    auto stopped = run.indexOf("[sorva] processing stopped — exiting");
    EXPECT_LT(stopping, stopped);
    EXPECT_LT(stopped, run.lines.size());
    for (size_t i = stopping; i < run.lines.size(); ++i)
        EXPECT_EQ(run.lines[i].rfind("[sorva] frames ", 0), std::string::npos) << "supervision after the stop";
}

} // namespace

TEST(HeadlessProgram, WithoutAutostartOfExactlyOneItRestoresTheStoredSwitchAndStopsOnSigint)
{
    // "true" is not "1": the stored switch (never set, so off) decides.
    auto result = run({ "--simulate" }, { { "SORVA_AUTOSTART", "true" } },
                      std::regex("restorePreviousState called, wasEnabled=false"), SIGINT);
    expectCleanStop(result, "SIGINT");
    for (const auto& line : result.lines)
        EXPECT_EQ(line.find("processor started"), std::string::npos) << line;
}

TEST(HeadlessProgram, SaysSoAndExitsWhenNoPipeWireSessionIsReachable)
{
    auto result = run({ "--headless" },
                      { { "XDG_RUNTIME_DIR", "$HOME" }, { "PIPEWIRE_REMOTE", "" }, { "PIPEWIRE_RUNTIME_DIR", "" } },
                      {});
    EXPECT_EQ(result.exitCode, 1);
    ASSERT_FALSE(result.lines.empty());
    auto folders = (std::filesystem::temp_directory_path() / "sorva-config-").string();
    EXPECT_EQ(result.lines.back().rfind("sorva: no PipeWire session is reachable (looked in " + folders, 0), 0u)
        << result.lines.back();
}

} // namespace sorva
