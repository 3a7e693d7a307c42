// The built program, headless: started as a user or a service manager would,
// stopped with SIGTERM or SIGINT. On the simulated audio system, so that it
// runs anywhere; the PipeWire tests cover the real backend.
#include "QtTestSupport.h"
#include "TestFolders.h"

#include <gtest/gtest.h>

#include <QElapsedTimer>
#include <QProcess>
#include <QProcessEnvironment>

#include <csignal>
#include <regex>
#include <string>

namespace sorva {
namespace {

class HeadlessProgram {
public:
    HeadlessProgram(const QStringList& arguments, const std::map<QString, QString>& variables,
                    const std::vector<QString>& removed = {})
    {
        auto environment = QProcessEnvironment::systemEnvironment();
        environment.remove(QStringLiteral("SORVA_AUTOSTART"));
        for (const auto& name : removed)
            environment.remove(name);
        for (const auto& [name, value] : variables)
            environment.insert(name, value);
        process.setProcessEnvironment(environment);
        process.start(QStringLiteral(SORVA_BINARY), arguments);
        started = process.waitForStarted(5000);
    }
    ~HeadlessProgram()
    {
        if (process.state() != QProcess::NotRunning) {
            process.kill();
            process.waitForFinished(5000);
        }
    }

    // Reads standard error until a line matches, or the time is up.
    bool waitForLine(const std::regex& pattern, int milliseconds)
    {
        QElapsedTimer clock;
        clock.start();
        for (;;) {
            for (; scanned < lines.size(); ++scanned)
                if (std::regex_search(lines[scanned], pattern))
                    return true;
            if (clock.elapsed() > milliseconds || process.state() == QProcess::NotRunning)
                return false;
            process.waitForReadyRead(50);
            readLines();
        }
    }

    void signal(int number) { ::kill(static_cast<pid_t>(process.processId()), number); }

    bool finish(int milliseconds)
    {
        bool finished = process.waitForFinished(milliseconds);
        readLines();
        return finished;
    }

    size_t indexOf(const std::string& line) const
    {
        auto at = std::find(lines.begin(), lines.end(), line);
        return at == lines.end() ? std::string::npos : static_cast<size_t>(at - lines.begin());
    }

    QProcess process;
    bool started = false;
    std::vector<std::string> lines;

private:
    void readLines()
    {
        pending += process.readAllStandardError().toStdString();
        for (auto end = pending.find('\n'); end != std::string::npos; end = pending.find('\n')) {
            lines.push_back(pending.substr(0, end));
            pending.erase(0, end + 1);
        }
    }

    std::string pending;
    size_t scanned = 0;
};

} // namespace

TEST(HeadlessProgram, EqualizesOnTheSimulatedSystemUntilSigtermThenStopsAndExitsCleanly)
{
    sorva::testing::qtApp();
    sorva::testing::ConfigHome config;
    HeadlessProgram program({ QStringLiteral("--headless"), QStringLiteral("--simulate") },
                            { { QStringLiteral("SORVA_AUTOSTART"), QStringLiteral("1") },
                              { QStringLiteral("TMPDIR"), QString::fromStdString(config.path.string()) } });
    ASSERT_TRUE(program.started);
    // The per-second statistics line with a signal in it.
    ASSERT_TRUE(program.waitForLine(std::regex(R"(^\[sorva\] frames \d+/s · peak 0\.\d*[1-9]\d* · late )"), 10000))
        << (program.lines.empty() ? "" : program.lines.back());
    program.signal(SIGTERM);
    ASSERT_TRUE(program.finish(10000));
    EXPECT_EQ(program.process.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(program.process.exitCode(), 0);
    auto stopping = program.indexOf("[sorva] received SIGTERM — stopping processing");
    auto stopped = program.indexOf("[sorva] processing stopped — exiting");
    ASSERT_NE(stopping, std::string::npos);
    ASSERT_NE(stopped, std::string::npos);
    EXPECT_LT(stopping, stopped);
    for (size_t i = stopping; i < program.lines.size(); ++i)
        EXPECT_EQ(program.lines[i].rfind("[sorva] frames ", 0), std::string::npos) << "supervision after the stop";
    // The autostart switched processing on and stored it.
    EXPECT_NE(program.indexOf("[sorva] setRunning(true) called"), std::string::npos);
}

TEST(HeadlessProgram, WithoutAutostartItRestoresTheStoredSwitchAndStopsOnSigint)
{
    sorva::testing::qtApp();
    sorva::testing::ConfigHome config;
    // "true" is not "1": the stored switch (never set, so off) decides.
    HeadlessProgram program({ QStringLiteral("--simulate") },
                            { { QStringLiteral("SORVA_AUTOSTART"), QStringLiteral("true") },
                              { QStringLiteral("TMPDIR"), QString::fromStdString(config.path.string()) } });
    ASSERT_TRUE(program.started);
    ASSERT_TRUE(program.waitForLine(std::regex("restorePreviousState called, wasEnabled=false"), 10000));
    program.signal(SIGINT);
    ASSERT_TRUE(program.finish(10000));
    EXPECT_EQ(program.process.exitCode(), 0);
    EXPECT_NE(program.indexOf("[sorva] received SIGINT — stopping processing"), std::string::npos);
    for (const auto& line : program.lines)
        EXPECT_EQ(line.find("processor started"), std::string::npos) << line;
}

TEST(HeadlessProgram, SaysSoAndExitsWhenNoPipeWireSessionIsReachable)
{
    sorva::testing::qtApp();
    sorva::testing::ConfigHome config;
    HeadlessProgram program({ QStringLiteral("--headless") },
                            { { QStringLiteral("XDG_RUNTIME_DIR"), QString::fromStdString(config.path.string()) },
                              { QStringLiteral("TMPDIR"), QString::fromStdString(config.path.string()) } },
                            { QStringLiteral("PIPEWIRE_REMOTE"), QStringLiteral("PIPEWIRE_RUNTIME_DIR") });
    ASSERT_TRUE(program.started);
    ASSERT_TRUE(program.finish(10000));
    EXPECT_EQ(program.process.exitCode(), 1);
    bool told = false;
    for (const auto& line : program.lines)
        told = told || line.rfind("sorva: no PipeWire session is reachable (looked in " + config.path.string(), 0) == 0;
    EXPECT_TRUE(told) << (program.lines.empty() ? "(nothing)" : program.lines.back());
}

} // namespace sorva
