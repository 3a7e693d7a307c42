// Shared helpers of the view and shell tests: one offscreen QApplication with
// the panel's fonts registered (widgets and local sockets work without a
// display), rendering a widget into an image at a given size, colour
// comparisons for pixel probes, and processing events until something holds.
#pragma once

#include "App/TestSupport.h"
#include "Audio/EQController.h"
#include "Platform/ManualMainExecutor.h"
#include "Platform/Simulated/SimulatedAudioHardware.h"
#include "Platform/SleepWatcher.h"
#include "Views/SORVATheme.h"

#include <QDBusConnection>

#include <QApplication>
#include <QColor>
#include <QImage>
#include <QWidget>

#include <cmath>
#include <memory>
#include <ostream>

namespace sorva::testing {

inline QApplication& viewsApp()
{
    static QApplication* app = [] {
        // Pixel probes need the same rendering everywhere, display or not.
        qputenv("QT_QPA_PLATFORM", "offscreen");
        static int argc = 1;
        static char name[] = "sorva_widget_tests";
        static char* argv[] = { name, nullptr };
        auto* created = new QApplication(argc, argv);
        SORVATheme::registerFonts();
        return created;
    }();
    return *app;
}

// A controller that is switched off, on the simulated audio system with one
// output, saving into a configuration folder of its own.
struct SimulatedController {
    SimulatedController()
    {
        viewsApp();
        hardware->addOutputDevice("Speakers", "speakers", 48000.0, 512);
        EQController::Environment environment;
        environment.hardware = hardware;
        environment.mainExecutor = std::make_shared<ManualMainExecutor>();
        environment.makeSleepWatcher
            = [] { return std::make_unique<SleepWatcher>(QDBusConnection(QStringLiteral("sorva-no-bus"))); };
        controller = std::make_unique<EQController>(environment);
    }
    ConfigHome home;
    std::shared_ptr<SimulatedAudioHardware> hardware = std::make_shared<SimulatedAudioHardware>();
    std::unique_ptr<EQController> controller;
};

// The widget drawn at size on a transparent image, one pixel per unit.
inline QImage render(QWidget& widget, QSize size)
{
    viewsApp();
    widget.resize(size);
    QImage image(size, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    widget.render(&image, QPoint(), QRegion(), QWidget::DrawChildren);
    return image;
}

// Colour channels within tolerance (0…255), alpha included.
inline bool near(const QColor& actual, const QColor& expected, int tolerance = 8)
{
    return std::abs(actual.red() - expected.red()) <= tolerance && std::abs(actual.green() - expected.green()) <= tolerance
        && std::abs(actual.blue() - expected.blue()) <= tolerance
        && std::abs(actual.alpha() - expected.alpha()) <= tolerance;
}

inline QColor withAlpha(QColor color, double alpha)
{
    color.setAlphaF(static_cast<float>(alpha));
    return color;
}

} // namespace sorva::testing

inline void PrintTo(const QColor& color, std::ostream* out)
{
    *out << color.name(QColor::HexArgb).toStdString();
}
