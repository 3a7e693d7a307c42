#include "App/PanelModule.h"

#include "App/SORVAApp.h"

extern "C" int sorva_run_panel_app(int argc, char** argv, bool simulate)
{
    sorva::PanelAppOptions options;
    options.simulate = simulate;
    return sorva::runPanelApp(argc, argv, options);
}
