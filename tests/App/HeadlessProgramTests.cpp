// The built program, headless, on the simulated audio system; autostart and
// SIGTERM on the real backend are covered by the PipeWire tests.
#include "App/ProgramTestSupport.h"

#include <gtest/gtest.h>

#include <csignal>

namespace sorva::testing {
namespace {

// Headless in the configuration folder `home` (its temporary folder too),
// with these variables changed on top.
Variables headless(const ConfigHome& home, Variables variables)
{
    // Under a display the program opens its tray and panel instead.
    for (const char* name : { "SORVA_AUTOSTART", "DISPLAY", "WAYLAND_DISPLAY" })
        variables.try_emplace(name, "");
    variables.try_emplace("TMPDIR", home.path.string());
    return variables;
}

TEST(HeadlessProgram, WithoutAutostartOfExactlyOneItRestoresTheStoredSwitchAndStopsOnSigint)
{
    ConfigHome home;
    // "true" is not "1": the stored switch (never set, so off) decides.
    const std::string ready = "restorePreviousState called, wasEnabled=false";
    const ProgramRun run
        = runSorva({ "--simulate" }, home.path, headless(home, { { "SORVA_AUTOSTART", "true" } }), ready, SIGINT);
    EXPECT_NE(run.err.find(ready), std::string::npos) << run.err;
    EXPECT_EQ(run.exitStatus, 0);
    // Processing stops, the program exits, no supervision in between.
    const size_t stopping = run.err.find("[sorva] received SIGINT — stopping processing\n");
    const size_t stopped = run.err.find("[sorva] processing stopped — exiting\n");
    EXPECT_LT(stopping, stopped) << run.err;
    EXPECT_NE(stopped, std::string::npos) << run.err;
    EXPECT_EQ(run.err.find("[sorva] frames ", stopping), std::string::npos) << "supervision after the stop";
    EXPECT_EQ(run.err.find("processor started"), std::string::npos) << run.err;
}

TEST(HeadlessProgram, SaysSoAndExitsWhenNoPipeWireSessionIsReachable)
{
    ConfigHome home;
    const Variables noSession { { "XDG_RUNTIME_DIR", home.path.string() }, { "PIPEWIRE_REMOTE", "" },
                                { "PIPEWIRE_RUNTIME_DIR", "" } };
    const ProgramRun run = runSorva({ "--headless" }, home.path, headless(home, noSession));
    EXPECT_EQ(run.exitStatus, 1);
    // The last line says so, and where it looked.
    const size_t lastLine = run.err.rfind('\n', run.err.size() - 2) + 1; // 0 for a single line
    EXPECT_TRUE(run.err.substr(lastLine).starts_with("sorva: no PipeWire session is reachable (looked in "
                                                     + home.path.string()))
        << run.err;
}

} // namespace
} // namespace sorva::testing
