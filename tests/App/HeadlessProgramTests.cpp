// The built program, headless, on the simulated audio system; autostart and
// SIGTERM on the real backend are covered by the PipeWire tests.
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <QProcess>

#include <csignal>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace sorva {
namespace {

struct Outcome {
    int exitCode = -1; // -1: killed
    bool ready = false;
    std::vector<std::string> lines; // standard error
};

// Runs the program in a fresh configuration folder (in values, "$HOME" stands
// for it; an empty value removes the variable) until its standard error shows
// `ready`, then sends `signal`; or until it exits.
Outcome run(const QStringList& arguments, std::map<QString, QString> variables, const std::string& ready = {},
        int signal = 0)
{
    sorva::testing::qtApp();
    sorva::testing::ConfigHome config;
    // Under a display the program opens its tray and panel instead.
    for (const char* name : { "SORVA_AUTOSTART", "DISPLAY", "WAYLAND_DISPLAY" })
        variables.try_emplace(name, "");
    variables.try_emplace("TMPDIR", "$HOME");
    auto environment = QProcessEnvironment::systemEnvironment();
    for (auto [name, value] : variables)
        value.isEmpty() ? environment.remove(name) : environment.insert(name, value.replace("$HOME", config.path.c_str()));
    QProcess process;
    process.setProcessEnvironment(environment);
    process.setReadChannel(QProcess::StandardError);
    process.start(QStringLiteral(SORVA_BINARY), arguments);
    Outcome result;
    std::string text;
    while (!result.ready && process.waitForReadyRead(10000)) {
        text += process.readAllStandardError().toStdString();
        result.ready = !ready.empty() && text.find(ready) != std::string::npos;
    }
    if (result.ready)
        ::kill(static_cast<pid_t>(process.processId()), signal);
    if (!process.waitForFinished(10000))
        process.kill();
    text += process.readAllStandardError().toStdString();
    if (process.exitStatus() == QProcess::NormalExit)
        result.exitCode = process.exitCode();
    for (size_t start = 0, end; (end = text.find('\n', start)) != std::string::npos; start = end + 1)
        result.lines.push_back(text.substr(start, end - start));
    return result;
}

TEST(HeadlessProgram, WithoutAutostartOfExactlyOneItRestoresTheStoredSwitchAndStopsOnSigint)
{
    // "true" is not "1": the stored switch (never set, so off) decides.
    const Outcome result = run({ "--simulate" }, { { "SORVA_AUTOSTART", "true" } },
                           "restorePreviousState called, wasEnabled=false", SIGINT);
    ASSERT_TRUE(result.ready) << (result.lines.empty() ? "(nothing)" : result.lines.back());
    EXPECT_EQ(result.exitCode, 0);
    // Processing stops, the program exits, no supervision in between.
    const auto stopping = std::ranges::find(result.lines, "[sorva] received SIGINT — stopping processing");
    const auto stopped = std::ranges::find(result.lines, "[sorva] processing stopped — exiting");
    EXPECT_LT(stopping, stopped);
    EXPECT_NE(stopped, result.lines.end());
    for (auto line = stopping; line != result.lines.end(); ++line)
        EXPECT_FALSE(line->starts_with("[sorva] frames ")) << "supervision after the stop";
    for (const auto& line : result.lines)
        EXPECT_EQ(line.find("processor started"), std::string::npos) << line;
}

TEST(HeadlessProgram, SaysSoAndExitsWhenNoPipeWireSessionIsReachable)
{
    const Outcome result = run({ "--headless" }, { { "XDG_RUNTIME_DIR", "$HOME" }, { "PIPEWIRE_REMOTE", "" },
                                                   { "PIPEWIRE_RUNTIME_DIR", "" } });
    EXPECT_EQ(result.exitCode, 1);
    ASSERT_FALSE(result.lines.empty());
    const auto folders = (std::filesystem::temp_directory_path() / "sorva-config-").string();
    EXPECT_TRUE(result.lines.back().starts_with("sorva: no PipeWire session is reachable (looked in " + folders))
        << result.lines.back();
}

} // namespace
} // namespace sorva
