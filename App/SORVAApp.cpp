#include "App/SORVAApp.h"

#include "App/AppDelegate.h"
#include "App/PanelWindow.h"
#include "App/ProgramEnvironment.h"
#include "App/SingleInstance.h"
#include "App/TestProbe.h"
#include "Audio/EQController.h"
#include "Audio/EQLog.h"
#include "Platform/TerminationSignals.h"
#include "Views/EQPanelView.h"
#include "Views/SORVATheme.h"

#include <QAction>
#include <QApplication>
#include <QGuiApplication>
#include <QIcon>
#include <QMenu>
#include <QPainter>
#include <QPixmap>
#include <QSessionManager>
#include <QSvgRenderer>
#include <QSystemTrayIcon>
#include <QTimer>

#include <cstdio>
#include <string>

namespace sorva {

namespace {

// Tray hosts ask for 16 to 24 pixels, HiDPI ones for twice that.
QIcon renderedIcon(const QString& resource)
{
    QSvgRenderer renderer(resource);
    QIcon icon;
    for (int size : { 16, 22, 24, 32, 44, 48, 64 }) {
        QPixmap pixmap(size, size);
        pixmap.fill(Qt::transparent);
        QPainter painter(&pixmap);
        renderer.render(&painter);
        painter.end();
        icon.addPixmap(pixmap);
    }
    return icon;
}

const char* signalName(int signalNumber)
{
    return signalNumber == SIGINT ? "SIGINT" : signalNumber == SIGTERM ? "SIGTERM" : "signal";
}

} // namespace

SORVAApp::SORVAApp(EQController& controller, TestProbe* probe, QObject* parent)
    : QObject(parent)
    , controller(controller)
    , probe(probe)
{
    const bool trayAvailable = QSystemTrayIcon::isSystemTrayAvailable();
    if (probe)
        probe->trayAvailable(trayAvailable);
    if (!trayAvailable) {
        EQLog::trace("no system tray available — the panel opens as a window");
        return;
    }

    tray = new QSystemTrayIcon(this);
    tray->setToolTip(QStringLiteral("SORVA"));
    menu = std::make_unique<QMenu>();
    QAction* panelAction = menu->addAction(QStringLiteral("Open Panel"));
    connect(panelAction, &QAction::triggered, this, &SORVAApp::openPanel);
    powerAction = menu->addAction(QStringLiteral("Equalizer On"));
    powerAction->setCheckable(true);
    connect(powerAction, &QAction::triggered, &controller, [&controller](bool on) { controller.setRunning(on); });
    menu->addSeparator();
    QAction* quitAction = menu->addAction(QStringLiteral("Quit SORVA"));
    connect(quitAction, &QAction::triggered, qApp, &QCoreApplication::quit);
    tray->setContextMenu(menu.get());
    connect(tray, &QSystemTrayIcon::activated, this, [this](QSystemTrayIcon::ActivationReason reason) {
        if (reason == QSystemTrayIcon::Trigger || reason == QSystemTrayIcon::DoubleClick)
            panel().toggle(iconGeometry());
    });
    connect(&controller, &EQController::isRunningChanged, this, &SORVAApp::updateIcon);
    updateIcon(controller.isRunning());
}

SORVAApp::~SORVAApp()
{
    if (tray)
        tray->hide();
}

QString SORVAApp::iconResource(bool running)
{
    return running ? QStringLiteral(":/icons/waveform.svg") : QStringLiteral(":/icons/waveform.slash.svg");
}

void SORVAApp::show()
{
    if (tray)
        tray->show();
    else
        panel().open(QRect());
}

void SORVAApp::openPanel()
{
    panel().open(iconGeometry());
}

PanelWindow& SORVAApp::panel()
{
    if (window)
        return *window;
    // The panel's own faces are registered with its first build.
    SORVATheme::registerFonts();
    view = new EQPanelView(controller, tray != nullptr);
    window = std::make_unique<PanelWindow>(view, tray ? PanelWindow::Kind::trayPanel : PanelWindow::Kind::normalWindow);
    connect(view, &EQPanelView::closeRequested, window.get(), &QWidget::hide);
    if (probe) {
        const char* kind = tray ? "tray" : "window";
        connect(window.get(), &PanelWindow::shown, this, [this, kind] {
            // After the layout has placed every control.
            QTimer::singleShot(0, this, [this, kind] {
                if (window->isVisible())
                    this->probe->panelShown(*window, kind);
            });
        });
        connect(window.get(), &PanelWindow::hidden, probe, &TestProbe::panelHidden);
    }
    return *window;
}

void SORVAApp::updateIcon(bool running)
{
    if (!tray)
        return;
    tray->setIcon(renderedIcon(iconResource(running)));
    if (powerAction)
        powerAction->setChecked(running);
}

QRect SORVAApp::iconGeometry() const
{
    // StatusNotifierItem hosts do not report where the icon is; XEmbed trays do.
    return tray ? tray->geometry() : QRect();
}

int runPanelApp(int argc, char** argv, const PanelAppOptions& options)
{
    QApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("sorva"));
    QGuiApplication::setApplicationDisplayName(QStringLiteral("SORVA"));
    QGuiApplication::setDesktopFileName(QStringLiteral("sorva"));
    QApplication::setWindowIcon(renderedIcon(QStringLiteral(":/icons/sorva.svg")));
    // Closing the panel or the fallback window never ends the program:
    // processing goes on until Quit.
    QApplication::setQuitOnLastWindowClosed(false);

    SingleInstance instance;
    const QString socketPath = SingleInstance::socketPath();
    if (SingleInstance::askRunningInstance(socketPath, 2000)) {
        std::fprintf(stderr, "sorva: already running; its panel was asked to open\n");
        return 0;
    }
    if (instance.listen(socketPath) == SingleInstance::Outcome::anotherInstance) {
        std::fprintf(stderr, "sorva: already running; its panel was asked to open\n");
        return 0;
    }

    ProgramEnvironment environment;
    if (!environment.install(options.simulate))
        return 1;
    EQController& controller = EQController::shared();

    std::unique_ptr<TestProbe> probe;
    if (TestProbe::requested())
        probe = std::make_unique<TestProbe>(controller);

    AppDelegate delegate;
    auto shell = std::make_unique<SORVAApp>(controller, probe.get());
    QObject::connect(&instance, &SingleInstance::openPanelRequested, shell.get(), &SORVAApp::openPanel);

    // Every way out of the event loop passes aboutToQuit: the panel's QUIT,
    // the tray menu's Quit, the signals below and the session ending.
    bool terminated = false;
    auto terminate = [&delegate, &terminated, &probe] {
        if (terminated)
            return;
        terminated = true;
        delegate.applicationWillTerminate();
        if (probe)
            probe->stopped();
    };
    QObject::connect(&app, &QCoreApplication::aboutToQuit, &app, terminate);
    // Logging out: the session manager may end the process right after this
    // request, so processing stops here already.
    QObject::connect(&app, &QGuiApplication::commitDataRequest, &app, [&terminate](QSessionManager&) { terminate(); });
    TerminationSignals termination;
    QObject::connect(&termination, &TerminationSignals::received, &app, [](int signalNumber) {
        EQLog::trace(std::string("received ") + signalName(signalNumber) + " — stopping processing");
        QCoreApplication::quit();
    });

    shell->show();
    QTimer::singleShot(0, &app, [&delegate] { delegate.applicationDidFinishLaunching(); });

    environment.startSimulation();
    const int status = QApplication::exec();
    terminate();
    shell.reset();
    environment.stopSimulation();
    probe.reset();
    EQController::destroyShared();
    EQLog::flush();
    return status;
}

} // namespace sorva
