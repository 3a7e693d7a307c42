// render-views: draws every view of the panel in its edge-case states on the
// panel's glass and writes them as PNG files at twice the pixel density, so
// that a person can look at dots, gradients and labels. Usage:
//   render-views OUTPUT_FOLDER
// Runs without a display (offscreen) unless QT_QPA_PLATFORM says otherwise.
// With --show it opens the same scenes in one window instead (for a real
// X server), and quits after --seconds N if given.
#include "Audio/EQController.h"
#include "Models/EQConfig.h"
#include "Models/EQPresets.h"
#include "Platform/ManualMainExecutor.h"
#include "Platform/Simulated/SimulatedAudioHardware.h"
#include "Views/CreditsView.h"
#include "Views/CurveView.h"
#include "Views/DotMatrixText.h"
#include "Views/GlassBackground.h"
#include "Views/PanelWindowStyler.h"
#include "Views/PillButton.h"
#include "Views/PresetPills.h"
#include "Views/SORVALogo.h"
#include "Views/SORVATheme.h"
#include "Views/SpectrumView.h"
#include "Views/VerticalGainSlider.h"

#include <QApplication>
#include <QDir>
#include <QHBoxLayout>
#include <QImage>
#include <QPainter>
#include <QTimer>
#include <QVBoxLayout>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace {

using namespace sorva;

constexpr double pixelRatio = 2.0;

// A scene: the view (or a row of views) on the panel's glass, padded.
std::unique_ptr<QWidget> onGlass(QWidget* content, int width, int padding = 12)
{
    auto scene = std::make_unique<QWidget>();
    auto* glass = new GlassBackground(GlassBackground::hudWindow, scene.get());
    auto* layout = new QVBoxLayout(scene.get());
    layout->setContentsMargins(padding, padding, padding, padding);
    content->setParent(scene.get());
    layout->addWidget(content);
    scene->setFixedWidth(width);
    scene->adjustSize();
    glass->setGeometry(scene->rect());
    glass->lower();
    return scene;
}

bool writeScene(QWidget& scene, const QString& path)
{
    // Shown (offscreen), so that resizes and the layout requests they cause
    // (the pills' height for a narrow width) settle before the picture.
    scene.show();
    for (int pass = 0; pass < 3; ++pass) {
        QCoreApplication::processEvents();
        scene.adjustSize();
    }
    if (auto* glass = scene.findChild<GlassBackground*>())
        glass->setGeometry(scene.rect());
    QImage image(scene.size() * pixelRatio, QImage::Format_ARGB32_Premultiplied);
    image.setDevicePixelRatio(pixelRatio);
    image.fill(Qt::transparent);
    scene.render(&image, QPoint(), QRegion(), QWidget::DrawChildren);
    if (!image.save(path)) {
        std::fprintf(stderr, "render-views: cannot write %s\n", path.toLocal8Bit().constData());
        return false;
    }
    std::printf("%s %dx%d\n", path.toLocal8Bit().constData(), image.width(), image.height());
    return true;
}

std::vector<EQBand> bandsWith(const std::vector<double>& gains)
{
    std::vector<EQBand> bands = EQConfig::defaultConfig().bands;
    bands.resize(gains.size(), bands.back());
    for (size_t i = 0; i < gains.size(); ++i)
        bands[i].gain = gains[i];
    return bands;
}

QWidget* sliderRow(const std::vector<double>& gains, int active, bool dimmed)
{
    auto* row = new QWidget;
    auto* layout = new QHBoxLayout(row);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    const std::vector<EQBand> bands = bandsWith(gains);
    for (size_t i = 0; i < bands.size(); ++i) {
        auto* slider = new VerticalGainSlider(row);
        slider->setGain(bands[i].gain);
        slider->setLabel(QString::fromStdString(bands[i].label));
        slider->setActive(static_cast<int>(i) == active);
        slider->setDimmed(dimmed);
        slider->setTrackSize(116, 5);
        layout->addWidget(slider, 1, Qt::AlignBottom);
    }
    return row;
}

QWidget* column(std::initializer_list<QWidget*> widgets, int spacing = 10)
{
    auto* box = new QWidget;
    auto* layout = new QVBoxLayout(box);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(spacing);
    for (QWidget* widget : widgets) {
        // Rows of columns and pills take the full width, like in the panel.
        const bool fullWidth = widget->sizePolicy().horizontalPolicy() == QSizePolicy::Expanding
            || !widget->findChildren<VerticalGainSlider*>().isEmpty();
        layout->addWidget(widget, 0, fullWidth ? Qt::Alignment() : Qt::AlignHCenter);
    }
    return box;
}

struct Scene {
    QString name;
    std::function<std::unique_ptr<QWidget>()> build;
};

} // namespace

int main(int argc, char** argv)
{
    bool show = false;
    int seconds = 0;
    QString folder;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--show")
            show = true;
        else if (arg == "--seconds" && i + 1 < argc)
            seconds = std::atoi(argv[++i]);
        else
            folder = QString::fromLocal8Bit(argv[i]);
    }
    if (!show && folder.isEmpty()) {
        std::fprintf(stderr, "usage: render-views OUTPUT_FOLDER | render-views --show [--seconds N]\n");
        return 2;
    }
    if (!show && qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");

    // The pills need a controller; it saves what it is given, so it gets a
    // settings folder of its own.
    std::string configPattern = (std::filesystem::temp_directory_path() / "sorva-render-XXXXXX").string();
    const std::filesystem::path configFolder = mkdtemp(configPattern.data());
    setenv("XDG_CONFIG_HOME", configFolder.c_str(), 1);

    QApplication app(argc, argv);
    SORVATheme::registerFonts();

    auto hardware = std::make_shared<SimulatedAudioHardware>();
    hardware->addOutputDevice("Speakers", "speakers", 48000.0, 512);
    EQController::Environment environment;
    environment.hardware = hardware;
    environment.mainExecutor = std::make_shared<ManualMainExecutor>();
    auto flat = std::make_unique<EQController>(environment);
    auto rock = std::make_unique<EQController>(environment);
    rock->apply(EQPresets::all()[3]);

    const std::vector<float> ramp = [] {
        std::vector<float> levels;
        for (int i = 0; i < 16; ++i)
            levels.push_back(static_cast<float>(i) / 15.0f);
        return levels;
    }();
    const QColor dimWhite = SORVATheme::white(0.35);

    std::vector<Scene> scenes {
        { "spectrum-ramp", [&] { return onGlass(new SpectrumView(ramp, 7, 3, 2), 280); } },
        { "spectrum-0-half-1",
          [&] { return onGlass(new SpectrumView({ 0.0f, 0.5f, 1.0f, 0.0f, 0.5f, 1.0f }, 7, 3, 2), 280); } },
        { "spectrum-empty", [&] { return onGlass(new SpectrumView({}, 7, 3, 2), 280); } },
        { "dotmatrix",
          [&] {
              return onGlass(column({ new DotMatrixText("+6", 3, 3.5, 1.6, Qt::white),
                                      new DotMatrixText("-12", 3, 3.5, 1.6, Qt::white),
                                      new DotMatrixText("+100", 3, 3.5, 1.6, Qt::white),
                                      new DotMatrixText("A", 3, 3.5, 1.6, Qt::white),
                                      new DotMatrixText("+0", 3, 3.5, 1.6, dimWhite),
                                      new DotMatrixText("%", 1, 3.5, 1.6, Qt::white) }),
                             140);
          } },
        { "curve",
          [&] {
              auto* flatCurve = new CurveView;
              flatCurve->setBands(bandsWith({ 0, 0, 0, 0, 0 }));
              flatCurve->setActive(0);
              auto* shaped = new CurveView;
              shaped->setBands(bandsWith({ 24, -6, -24, 6, 12 }));
              shaped->setActive(2);
              auto* invalid = new CurveView;
              invalid->setBands(bandsWith({ 20, 2, -12, -2, 2 }));
              invalid->setActive(7);
              auto* single = new CurveView;
              single->setBands(bandsWith({ 12 }));
              for (CurveView* view : { flatCurve, shaped, invalid, single })
                  view->setFixedSize(280, 30);
              return onGlass(column({ flatCurve, shaped, invalid, single }), 304);
          } },
        { "sliders-ends-and-middle", [&] { return onGlass(sliderRow({ -24, 0, 24, -3, 6 }, 2, false), 304); } },
        { "sliders-dimmed", [&] { return onGlass(sliderRow({ -24, 0, 24, -3, 6 }, 0, true), 304); } },
        { "sliders-long-labels",
          [&] {
              auto* row = sliderRow({ 0, 12, -12 }, 1, false);
              const char* labels[] = { "Sub-bass rumble", "Presence", "Air" };
              int i = 0;
              for (auto* slider : row->findChildren<VerticalGainSlider*>())
                  slider->setLabel(labels[i++]);
              return onGlass(row, 200);
          } },
        { "pills-none-selected", [&] { return onGlass(new PresetPills(*flat), 304); } },
        { "pills-rock-selected", [&] { return onGlass(new PresetPills(*rock), 304); } },
        { "pills-narrow-wrapped", [&] { return onGlass(new PresetPills(*rock), 180); } },
        { "logo", [&] { return onGlass(column({ new SORVALogo(34), new SORVALogo(26) }), 200); } },
        { "logo-fallback", [&] { return onGlass(new SORVALogo(34, QStringLiteral(":/missing.svg")), 200); } },
        { "credits",
          [&] {
              auto scene = std::make_unique<QWidget>();
              auto* layout = new QVBoxLayout(scene.get());
              layout->setContentsMargins(30, 30, 30, 30);
              layout->addWidget(new CreditsView([] {}), 0, Qt::AlignCenter);
              return scene;
          } },
        { "card",
          [&] {
              // The readout card's middle as the panel stacks it.
              auto* dots = new DotMatrixText("-12", 3, 3.5, 1.6, Qt::white);
              auto* spectrum = new SpectrumView(ramp, 7, 3, 2);
              spectrum->setFixedHeight(34);
              auto* curve = new CurveView;
              curve->setBands(bandsWith({ 10, 0, -2, -6, 2 }));
              curve->setActive(3);
              curve->setFixedHeight(30);
              return onGlass(column({ new SORVALogo(34), dots, spectrum, curve, new PresetPills(*rock),
                                      sliderRow({ 10, 0, -2, -6, 2 }, 3, false) }),
                             320, 20);
          } },
    };

    if (show) {
        // One real window holding every scene, styled as the panel's window.
        auto window = std::make_unique<QWidget>();
        auto* layout = new QHBoxLayout(window.get());
        std::vector<std::unique_ptr<QWidget>> built;
        for (const char* name : { "card", "credits", "dotmatrix", "curve", "pills-narrow-wrapped" }) {
            for (const Scene& scene : scenes) {
                if (scene.name == QLatin1String(name)) {
                    auto widget = scene.build();
                    layout->addWidget(widget.release(), 0, Qt::AlignTop);
                }
            }
        }
        new PanelWindowStyler(window.get());
        window->show();
        if (seconds > 0)
            QTimer::singleShot(seconds * 1000, &app, &QApplication::quit);
        const int status = app.exec();
        std::filesystem::remove_all(configFolder);
        return status;
    }

    QDir().mkpath(folder);
    bool ok = true;
    for (const Scene& scene : scenes) {
        std::unique_ptr<QWidget> widget = scene.build();
        ok = writeScene(*widget, folder + QLatin1Char('/') + scene.name + QStringLiteral(".png")) && ok;
    }
    std::error_code ignored;
    std::filesystem::remove_all(configFolder, ignored);
    return ok ? 0 : 1;
}
