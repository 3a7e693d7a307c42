#include "App/TestProbe.h"

#include "Audio/BiquadEQ.h"
#include "Audio/BufferedEQProcessor.h"
#include "Audio/EQController.h"
#include "Audio/SystemEQProcessor.h"

#include <QTimer>
#include <QWidget>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace sorva {

namespace {

void line(const std::string& text)
{
    std::fprintf(stdout, "probe %s\n", text.c_str());
    std::fflush(stdout);
}

} // namespace

bool TestProbe::requested()
{
    const char* value = std::getenv("SORVA_TEST_PROBE");
    return value && std::strcmp(value, "1") == 0;
}

TestProbe::TestProbe(EQController& controller, QObject* parent)
    : QObject(parent)
    , controller(controller)
{
    connect(&controller, &EQController::isRunningChanged, this,
        [](bool running) { line(std::string("running ") + (running ? "true" : "false")); });
    connect(&controller, &EQController::statusChanged, this,
        [](const EQController::Status& status) { line("status " + status.description()); });
    // The controller publishes the coefficients right after announcing the
    // change; read them once that has happened.
    connect(&controller, &EQController::configChanged, this,
        [this] { QTimer::singleShot(0, this, &TestProbe::reportConfiguration); });
    connect(&controller, &EQController::isBypassedChanged, this,
        [this] { QTimer::singleShot(0, this, &TestProbe::reportConfiguration); });
}

void TestProbe::trayAvailable(bool available)
{
    line(std::string("tray ") + (available ? "available" : "unavailable"));
}

void TestProbe::panelShown(const QWidget& panel, const char* kind)
{
    for (const QWidget* widget : panel.findChildren<QWidget*>()) {
        if (widget->objectName().isEmpty() || !widget->isVisible())
            continue;
        const QPoint origin = widget->mapToGlobal(QPoint(0, 0));
        char text[256];
        std::snprintf(text, sizeof text, "widget %s %d %d %d %d", widget->objectName().toUtf8().constData(),
            origin.x(), origin.y(), widget->width(), widget->height());
        line(text);
    }
    line(std::string("panel shown ") + kind);
}

void TestProbe::panelHidden()
{
    line("panel hidden");
}

void TestProbe::stopped()
{
    line(std::string("stopped processors=")
        + std::to_string(int(controller.hasSingleDeviceProcessor()) + int(controller.hasBufferedProcessor())));
}

void TestProbe::reportConfiguration()
{
    std::string text = "eq gains";
    char number[64];
    for (const EQBand& band : controller.config().bands) {
        std::snprintf(number, sizeof number, " %g", band.gain);
        text += number;
    }
    const BiquadEQ* eq = nullptr;
    if (SystemEQProcessor* processor = controller.singleDeviceProcessor())
        eq = &processor->eq;
    else if (BufferedEQProcessor* processor = controller.bufferedProcessor())
        eq = &processor->eq;
    text += " b0";
    if (!eq) {
        text += " none";
    } else {
        const int64_t bank = eq->publishedBank();
        for (int64_t band = 0; band < eq->bands(); ++band) {
            std::snprintf(number, sizeof number, " %.9g", static_cast<double>(eq->section(bank, band).b0));
            text += number;
        }
    }
    line(text);
}

} // namespace sorva
