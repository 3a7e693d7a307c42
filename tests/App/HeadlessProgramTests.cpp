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

// The program with the given arguments and environment changes (an empty
// value removes the variable), its standard error read line by line.
struct Program {
    Program(const QStringList& arguments, const std::map<QString, QString>& variables)
    {
        auto environment = QProcessEnvironment::systemEnvironment();
        environment.remove(QStringLiteral("SORVA_AUTOSTART"));
        for (const auto& [name, value] : variables)
            value.isEmpty() ? environment.remove(name) : environment.insert(name, value);
        process.setProcessEnvironment(environment);
        process.start(QStringLiteral(SORVA_BINARY), arguments);
        started = process.waitForStarted(5000);
    }
    ~Program()
    {
        process.kill();
        process.waitForFinished(5000);
    }
    // Reads until a line matches; false when the program ended or time ran out.
    bool waitForLine(const std::regex& pattern)
    {
        QElapsedTimer clock;
        clock.start();
        for (size_t scanned = 0;; readLines()) {
            for (; scanned < lines.size(); ++scanned)
                if (std::regex_search(lines[scanned], pattern))
                    return true;
            if (clock.elapsed() > 10000 || process.state() == QProcess::NotRunning)
                return false;
            process.waitForReadyRead(50);
        }
    }
    bool finish()
    {
        bool finished = process.waitForFinished(10000);
        readLines();
        return finished;
    }
    size_t indexOf(const std::string& line) const
    {
        return static_cast<size_t>(std::find(lines.begin(), lines.end(), line) - lines.begin());
    }
    void readLines()
    {
        pending += process.readAllStandardError().toStdString();
        for (auto end = pending.find('\n'); end != std::string::npos; end = pending.find('\n')) {
            lines.push_back(pending.substr(0, end));
            pending.erase(0, end + 1);
        }
    }
    QProcess process;
    bool started = false;
    std::vector<std::string> lines;
    std::string pending;
};

} // namespace

TEST(HeadlessProgram, AutostartsOnlyForExactlyOneOtherwiseRestoresAndStopsCleanlyOnSigtermOrSigint)
{
    sorva::testing::qtApp();
    struct Case {
        QStringList arguments;
        QString autostart;
        std::string readyPattern, signalName, present, absent;
        int signal;
    };
    // "true" is not "1": the stored switch (never set, so off) decides.
    const Case cases[] = {
        { { "--headless", "--simulate" }, "1", R"(^\[sorva\] frames \d+/s · peak 0\.\d*[1-9]\d* · late )", "SIGTERM",
          "[sorva] setRunning(true) called", "restorePreviousState", SIGTERM },
        { { "--simulate" }, "true", "restorePreviousState called, wasEnabled=false", "SIGINT", "", "processor started",
          SIGINT },
    };
    for (const auto& c : cases) {
        sorva::testing::ConfigHome config;
        Program program(c.arguments, { { "SORVA_AUTOSTART", c.autostart }, { "TMPDIR", config.path.c_str() } });
        ASSERT_TRUE(program.started);
        ASSERT_TRUE(program.waitForLine(std::regex(c.readyPattern)))
            << (program.lines.empty() ? "(nothing)" : program.lines.back());
        ::kill(static_cast<pid_t>(program.process.processId()), c.signal);
        ASSERT_TRUE(program.finish());
        EXPECT_EQ(program.process.exitStatus(), QProcess::NormalExit);
        EXPECT_EQ(program.process.exitCode(), 0);
        auto stopping = program.indexOf("[sorva] received " + c.signalName + " — stopping processing");
        auto stopped = program.indexOf("[sorva] processing stopped — exiting");
        EXPECT_LT(stopping, stopped);
        ASSERT_LT(stopped, program.lines.size()) << c.signalName;
        for (size_t i = stopping; i < program.lines.size(); ++i)
            EXPECT_EQ(program.lines[i].rfind("[sorva] frames ", 0), std::string::npos) << "supervision after the stop";
        EXPECT_TRUE(c.present.empty() || program.indexOf(c.present) < program.lines.size()) << c.present;
        for (const auto& line : program.lines)
            EXPECT_EQ(line.find(c.absent), std::string::npos) << line;
    }
}

TEST(HeadlessProgram, SaysSoAndExitsWhenNoPipeWireSessionIsReachable)
{
    sorva::testing::qtApp();
    sorva::testing::ConfigHome config;
    Program program({ "--headless" }, { { "XDG_RUNTIME_DIR", config.path.c_str() }, { "TMPDIR", config.path.c_str() },
                                        { "PIPEWIRE_REMOTE", "" }, { "PIPEWIRE_RUNTIME_DIR", "" } });
    ASSERT_TRUE(program.started);
    ASSERT_TRUE(program.finish());
    EXPECT_EQ(program.process.exitCode(), 1);
    ASSERT_FALSE(program.lines.empty());
    EXPECT_EQ(program.lines.back().rfind("sorva: no PipeWire session is reachable (looked in " + config.path.string(), 0), 0u)
        << program.lines.back();
}

} // namespace sorva
