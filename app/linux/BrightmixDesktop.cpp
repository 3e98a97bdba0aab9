// brightmix-app: Brightmix as a Linux desktop application. A tray icon opens the panel (the
// menu-bar panel's view tree drawn with Qt widgets); the three windows and the volume
// indicator are drawn the same way; the app model runs on Qt's event loop against the
// PipeWire session, with its settings in ~/.config and recordings in a chosen folder.
//
// Where the desktop has no status area (a plain X server, some desktops) the panel opens as
// an ordinary window, and the app says so once. One instance per user session: a second
// start shows the first one's panel and leaves.
//
//     brightmix-app                      the desktop application
//     brightmix-app --demo DIR [--seconds N] [--no-recording]
//         a demonstration that needs no user: switches on on the first multi-output device,
//         records N seconds (default 3) into DIR, writes screenshots of the panel and the
//         windows into DIR, prints what it wrote and quits. Settings go to DIR too.
//     brightmix-app --help
//
// Qt ends the process when it finds no display, so the two things that need none — the usage
// and the sentence saying a desktop session is missing — happen before Qt starts.
#include <QApplication>
#include <QLocalServer>
#include <QLocalSocket>
#include <QMenu>
#include <QMessageBox>
#include <QPainter>
#include <QScreen>
#include <QSocketNotifier>
#include <QStandardPaths>
#include <QSystemTrayIcon>
#include <QTimer>
#include <QWidget>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "Brightmix/AppModel.h"
#include "Brightmix/BrightmixApp.h"
#include "app/linux/DesktopMuteKey.h"
#include "platform/linux/audiofile/LinuxAudioFileWriter.h"
#include "platform/linux/desktop/XdgLoginItem.h"
#include "platform/linux/pipewire/PipeWireAudioHardware.h"
#include "platform/linux/qt/QtDesktopServices.h"
#include "platform/linux/qt/QtMainLoop.h"
#include "platform/linux/qt/QtViewRenderer.h"
#include "platform/linux/settings/PropertyListFileDefaults.h"

using namespace brightmix;
using brightmix::pipewire::PipeWireAudioHardware;

namespace {

const char* const kBundleIdentifier = "com.corvale.brightmix";

int signalPipe[2] = {-1, -1};

void onSignal(int) {
    const char byte = 1;
    [[maybe_unused]] const auto written = ::write(signalPipe[1], &byte, 1);
}

std::string siblingExecutable(const char* name) {
    std::error_code error;
    const auto self = std::filesystem::read_symlink("/proc/self/exe", error);
    return error ? std::string() : (self.parent_path() / name).string();
}

// The first sound-settings program or PipeWire patchbay installed, for the sound-setup entries.
std::string findSoundSetup() {
    for (const char* program : {"pavucontrol", "pwvucontrol", "helvum", "qpwgraph"}) {
        const QString path = QStandardPaths::findExecutable(program);
        if (!path.isEmpty()) return path.toStdString();
    }
    return {};
}

QIcon trayIcon(const AppModelState& state) {
    const char* name = state.isRecording  ? "media-record"
                       : !state.isEnabled ? "audio-card"
                       : state.isMuted    ? "audio-volume-muted"
                                          : "audio-volume-high";
    QIcon themed = QIcon::fromTheme(name);
    if (!themed.isNull()) return themed;
    // Drawn fallback: a speaker whose colour tells the state.
    QPixmap pixmap(64, 64);
    pixmap.fill(Qt::transparent);
    QPainter painter(&pixmap);
    painter.setRenderHint(QPainter::Antialiasing);
    const QColor colour = state.isRecording  ? QColor(0xd3, 0x2f, 0x2f)
                          : !state.isEnabled ? QColor(0x9e, 0x9e, 0x9e)
                          : state.isMuted    ? QColor(0xf5, 0x7c, 0x00)
                                             : QColor(0x1e, 0x88, 0xe5);
    painter.setBrush(colour);
    painter.setPen(Qt::NoPen);
    painter.drawRect(10, 22, 14, 20);
    painter.drawPolygon(QPolygon({{24, 22}, {40, 8}, {40, 56}, {24, 42}}));
    painter.setPen(QPen(colour, 5));
    painter.setBrush(Qt::NoBrush);
    painter.drawArc(36, 16, 20, 32, -60 * 16, 120 * 16);
    return QIcon(pixmap);
}

// One drawn window: its widget and the renderer that keeps it current.
struct DrawnWindow {
    std::unique_ptr<QWidget> widget;
    std::unique_ptr<QtViewRenderer> renderer;
};

class DesktopShell {
public:
    DesktopShell(AppModel& model, Updater& updater, PlatformProfile profile, bool isDemo)
        : model_(model), app_(model, updater,
                              BrightmixApp::Host{[this](const std::string& id) { show(id); },
                                                 [this](const std::string& id) { hide(id); },
                                                 [this] { about(); }, [this] { redraw(); }},
                              std::move(profile)) {
        hasTray_ = !isDemo && QSystemTrayIcon::isSystemTrayAvailable();
        panel_.widget = std::make_unique<QWidget>(
            nullptr, hasTray_ ? Qt::Popup | Qt::FramelessWindowHint : Qt::Window);
        panel_.widget->setWindowTitle("Brightmix");
        panel_.widget->setMinimumWidth(380);
        panel_.renderer = std::make_unique<QtViewRenderer>(
            panel_.widget.get(), [this](const ui::ActionEvent& event) { app_.perform(event); });
        if (hasTray_) {
            tray_ = std::make_unique<QSystemTrayIcon>();
            QObject::connect(tray_.get(), &QSystemTrayIcon::activated,
                             [this](QSystemTrayIcon::ActivationReason reason) {
                                 if (reason == QSystemTrayIcon::Trigger ||
                                     reason == QSystemTrayIcon::DoubleClick) {
                                     togglePanel();
                                 }
                             });
            trayMenu_ = std::make_unique<QMenu>();
            trayMenu_->addAction("Show Brightmix", [this] { showPanel(); });
            trayMenu_->addAction("Quit Brightmix", [] { QCoreApplication::quit(); });
            tray_->setContextMenu(trayMenu_.get());
            tray_->show();
        } else if (!isDemo) {
            std::fprintf(stderr, "brightmix-app: this desktop has no status area; the panel "
                                 "opens as an ordinary window.\n");
        }
        redraw();
        if (!hasTray_) showPanel();
    }

    BrightmixApp& app() { return app_; }
    QWidget* panel() const { return panel_.widget.get(); }
    QWidget* window(const std::string& id) const {
        const auto found = windows_.find(id);
        return found == windows_.end() ? nullptr : found->second.widget.get();
    }

    void showPanel() {
        app_.panelWillOpen();
        redraw();
        if (hasTray_ && tray_) {
            const QRect icon = tray_->geometry();
            panel_.widget->adjustSize();
            QPoint at = icon.isValid() ? icon.bottomLeft() : QCursor::pos();
            if (const QScreen* screen = QGuiApplication::screenAt(at)) {
                const QRect room = screen->availableGeometry();
                at.setX(std::min(at.x(), room.right() - panel_.widget->width()));
                if (at.y() + panel_.widget->height() > room.bottom()) {
                    at.setY(icon.top() - panel_.widget->height());
                }
            }
            panel_.widget->move(at);
        }
        panel_.widget->show();
        panel_.widget->raise();
        panel_.widget->activateWindow();
    }

private:
    void togglePanel() {
        if (panel_.widget->isVisible()) {
            panel_.widget->hide();
        } else {
            showPanel();
        }
    }

    void show(const std::string& id) {
        DrawnWindow& drawn = windows_[id];
        if (!drawn.widget) {
            drawn.widget = std::make_unique<QWidget>();
            drawn.widget->setMinimumWidth(id == BrightmixApp::kSetupWindow ? 460 : 520);
            drawn.renderer = std::make_unique<QtViewRenderer>(
                drawn.widget.get(), [this](const ui::ActionEvent& event) { app_.perform(event); });
        }
        redraw();
        drawn.widget->show();
        drawn.widget->raise();
    }

    void hide(const std::string& id) {
        const auto found = windows_.find(id);
        if (found == windows_.end()) return;
        found->second.widget->hide();
        // Later: the close may come from a button inside the window.
        found->second.widget.release()->deleteLater();
        found->second.renderer.release();
        windows_.erase(found);
    }

    void about() {
        QMessageBox::about(panel_.widget.get(), "About Brightmix",
                           "Brightmix " BRIGHTMIX_VERSION
                           "\n\nVolume, speaker roles and equalisers for multi-output devices.");
    }

    void redraw() {
        if (isRedrawing_) return; // an action inside a redraw asks again; once is enough
        isRedrawing_ = true;
        panel_.renderer->render(app_.panel());
        for (auto& [id, drawn] : windows_) {
            if (const std::optional<ui::Node> tree = app_.window(id)) {
                drawn.renderer->render(*tree);
                drawn.widget->setWindowTitle(QString::fromStdString(tree->title));
            }
        }
        if (tray_) {
            tray_->setIcon(trayIcon(model_.state()));
            tray_->setToolTip(QString::fromStdString(app_.accessibilityLabel()));
        }
        panel_.widget->setAccessibleName(QString::fromStdString(app_.accessibilityLabel()));
        isRedrawing_ = false;
    }

    AppModel& model_;
    BrightmixApp app_;
    bool hasTray_ = false;
    bool isRedrawing_ = false;
    DrawnWindow panel_;
    std::map<std::string, DrawnWindow> windows_;
    std::unique_ptr<QSystemTrayIcon> tray_;
    std::unique_ptr<QMenu> trayMenu_;
};

const char* const kUsage =
    "usage: brightmix-app [--demo FOLDER [--seconds N] [--no-recording]]\n"
    "       brightmix-app --help\n"
    "\n"
    "Without options, Brightmix runs in the desktop session’s status area, once per user.\n"
    "--demo FOLDER  a demonstration: routes the first multi-output device through Brightmix,\n"
    "               records N seconds (default 3; nothing with --no-recording) into FOLDER,\n"
    "               saves screenshots of the panel and the windows there, and quits. Its\n"
    "               settings are kept in FOLDER too.\n";

struct Arguments {
    std::optional<std::string> demoFolder;
    double seconds = 3;
    bool isRecording = true;
};

// The options of Brightmix itself, once Qt has taken its own out.
std::optional<Arguments> parse(const QStringList& list) {
    Arguments arguments;
    for (qsizetype i = 1; i < list.size(); ++i) {
        if (list[i] == "--demo" && i + 1 < list.size()) {
            arguments.demoFolder = list[++i].toStdString();
        } else if (list[i] == "--no-recording") {
            arguments.isRecording = false;
        } else if (list[i] == "--seconds" && i + 1 < list.size()) {
            bool isNumber = false;
            arguments.seconds = list[++i].toDouble(&isNumber);
            if (!isNumber || arguments.seconds <= 0 || arguments.seconds > 3600)
                return std::nullopt;
        } else {
            return std::nullopt;
        }
    }
    return arguments;
}

// What can be told from the raw arguments before Qt starts (Qt's own options among them):
// whether the usage is asked for, whether this is a demonstration, and the platform plugin
// named by Qt's -platform option.
struct EarlyArguments {
    bool asksForHelp = false;
    bool isDemo = false;
    std::optional<std::string> platform;
};

EarlyArguments earlyArguments(const std::vector<std::string_view>& given) {
    EarlyArguments early;
    for (std::size_t i = 0; i < given.size(); ++i) {
        const std::string_view argument = given[i];
        const bool hasValue = i + 1 < given.size();
        if (argument == "--help" || argument == "-h") {
            early.asksForHelp = true;
        } else if (argument == "--demo" && hasValue) {
            early.isDemo = true;
            ++i;
        } else if (argument == "--seconds" && hasValue) {
            ++i;
        } else if ((argument == "-platform" || argument == "--platform") && hasValue) {
            early.platform = std::string(given[++i]);
        }
    }
    return early;
}

// The sentence to end with when Qt would find no display, or none. Qt's default plugins (xcb,
// wayland) need the session's server; offscreen and the framebuffer plugins do not.
std::optional<std::string> missingDesktopSession(const EarlyArguments& arguments) {
    const char* configured = std::getenv("QT_QPA_PLATFORM");
    const std::string platform = arguments.platform      ? *arguments.platform
                                 : configured != nullptr ? configured
                                                         : "";
    const std::string_view name = platform;
    const bool needsServer =
        name.empty() || name.substr(0, 3) == "xcb" || name.substr(0, 7) == "wayland";
    const auto isSet = [](const char* variable) {
        const char* value = std::getenv(variable);
        return value != nullptr && value[0] != '\0';
    };
    if (!needsServer || isSet("DISPLAY") || isSet("WAYLAND_DISPLAY") || isSet("WAYLAND_SOCKET")) {
        return std::nullopt;
    }
    if (arguments.isDemo) {
        return "brightmix-app: --demo needs a display (no DISPLAY or WAYLAND_DISPLAY); run it "
               "under a virtual X server (xvfb-run) or with QT_QPA_PLATFORM=offscreen";
    }
    return "brightmix-app: no desktop session (no DISPLAY or WAYLAND_DISPLAY); run it inside a "
           "desktop, or use --demo under a virtual X server";
}

bool save(QWidget* widget, const std::filesystem::path& file) {
    if (widget == nullptr) return false;
    widget->adjustSize();
    QCoreApplication::processEvents();
    return widget->grab().save(QString::fromStdString(file.string()));
}

} // namespace

int main(int argc, char** argv) {
    const EarlyArguments early =
        earlyArguments(std::vector<std::string_view>(argv + 1, argv + argc));
    if (early.asksForHelp) {
        std::fputs(kUsage, stdout);
        return 0;
    }
    if (const std::optional<std::string> missing = missingDesktopSession(early)) {
        std::fprintf(stderr, "%s\n", missing->c_str());
        return 1;
    }

    QApplication application(argc, argv);
    QApplication::setApplicationName("Brightmix");
    QApplication::setApplicationVersion(BRIGHTMIX_VERSION);
    QApplication::setQuitOnLastWindowClosed(false);
    QtViewRenderer::useInstalledIconTheme();

    const std::optional<Arguments> arguments = parse(QCoreApplication::arguments());
    if (!arguments) {
        std::fputs(kUsage, stderr);
        return 2;
    }
    const bool isDemo = arguments->demoFolder.has_value();

    // One instance per session: a second start shows the first one's panel.
    const QString instanceName = QString("brightmix-%1").arg(::getuid());
    std::unique_ptr<QLocalServer> instance;
    if (!isDemo) {
        QLocalSocket other;
        other.connectToServer(instanceName);
        if (other.waitForConnected(500)) {
            other.write("show\n");
            other.waitForBytesWritten(500);
            std::printf("Brightmix is already running; showing its panel.\n");
            return 0;
        }
        QLocalServer::removeServer(instanceName);
        instance = std::make_unique<QLocalServer>();
        instance->listen(instanceName);
    }

    // SIGINT and SIGTERM end the event loop, so the model finishes a recording and the router
    // comes down (the watchdog covers SIGKILL).
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, signalPipe) == 0) {
        std::signal(SIGINT, onSignal);
        std::signal(SIGTERM, onSignal);
    }
    QSocketNotifier signalNotifier(signalPipe[0], QSocketNotifier::Read);
    QObject::connect(&signalNotifier, &QSocketNotifier::activated, [] {
        char byte = 0;
        [[maybe_unused]] const auto got = ::read(signalPipe[0], &byte, 1);
        QCoreApplication::quit();
    });

    PipeWireAudioHardware::Options options;
    options.watchdogExecutable = siblingExecutable("brightmix-watchdog");
    std::string error;
    std::unique_ptr<PipeWireAudioHardware> hardware =
        PipeWireAudioHardware::connect(options, &error);
    if (!hardware) {
        std::fprintf(stderr, "brightmix-app: no PipeWire session: %s\n", error.c_str());
        if (!isDemo) {
            QMessageBox::critical(
                nullptr, "Brightmix",
                QString("Brightmix needs a PipeWire session and found none.\n\n%1")
                    .arg(QString::fromStdString(error)));
        }
        return 1;
    }

    const std::filesystem::path settingsFile =
        isDemo ? std::filesystem::path(*arguments->demoFolder) / "settings.plist"
               : PropertyListFileDefaults::fileForDomain(kBundleIdentifier);
    if (isDemo) std::filesystem::create_directories(*arguments->demoFolder);
    PropertyListFileDefaults defaults(settingsFile);
    defaults.setWriteErrorHandler([](const std::string& message) {
        std::fprintf(stderr, "brightmix-app: %s\n", message.c_str());
    });
    if (defaults.setAsideFile()) {
        std::fprintf(stderr,
                     "brightmix-app: the settings file could not be read and was kept as %s\n",
                     defaults.setAsideFile()->c_str());
    }
    if (isDemo) {
        const std::string folder = std::filesystem::absolute(*arguments->demoFolder).string();
        defaults.set("recordingFolderBookmark",
                     PropertyList::data(PropertyList::Data(folder.begin(), folder.end())));
    }

    QtMainLoop loop;
    LinuxAudioFileWriter writer;
    QtWorkspace workspace;
    NoKeyEvents keys;
    XdgLoginItem loginItem(
        QCoreApplication::applicationFilePath().toStdString(), "brightmix",
        isDemo ? std::filesystem::path(*arguments->demoFolder) / "autostart"
               : XdgLoginItem::defaultFolder(),
        [&workspace](const std::string& folder) { workspace.openURL("file://" + folder); });
    QtFolderAccess folders;
    std::unique_ptr<QtViewRenderer> hudRenderer;
    QtHudPanel hud([&hudRenderer](QWidget* panel, const HudContent& content) {
        if (!hudRenderer) hudRenderer = std::make_unique<QtViewRenderer>(panel, nullptr);
        hudRenderer->render(BrightmixApp::hud(content));
    });
    NoUpdater updater;

    // The desktop owns the volume keys: they change the multi-output sink's own volume, which
    // the router's tap (the sink's monitor, taken before that volume) does not hear, so it is
    // free to carry Brightmix's level both ways.
    AppModel model(AppServices{*hardware, loop, defaults, writer, workspace, keys, keys, loginItem,
                               folders, hud, hud, /*followsSystemVolume=*/true});
    linuxapp::DesktopMuteKey muteKey(model, *hardware, loop);
    DesktopShell shell(model, updater, PlatformProfile::linuxDesktop(findSoundSetup()), isDemo);
    QObject::connect(&application, &QCoreApplication::aboutToQuit,
                     [&model] { model.applicationWillTerminate(); });
    if (instance) {
        QObject::connect(instance.get(), &QLocalServer::newConnection, [&] {
            while (QLocalSocket* socket = instance->nextPendingConnection()) {
                QObject::connect(socket, &QLocalSocket::readyRead, socket, [socket, &shell] {
                    socket->readAll();
                    shell.showPanel();
                    socket->deleteLater();
                });
            }
        });
    }
    shell.app().launch();

    if (isDemo) {
        const std::filesystem::path folder = *arguments->demoFolder;
        int status = 0;
        QTimer::singleShot(0, [&] {
            const AppModelState& state = model.state();
            std::optional<std::string> multi;
            for (const AudioDevice& device : state.outputDevices) {
                if (device.isMultiOutput()) {
                    multi = device.uid;
                    break;
                }
            }
            if (!multi) {
                std::fprintf(stderr, "brightmix-app: no multi-output device in this session\n");
                status = 1;
                QCoreApplication::quit();
                return;
            }
            model.selectOutput(*multi, false);
            model.setEnabled(true);
            if (!state.isEnabled) {
                std::fprintf(stderr, "brightmix-app: switching on failed: %s\n",
                             state.errorMessage.value_or("").c_str());
                status = 1;
                QCoreApplication::quit();
                return;
            }
            std::printf("Switched on: routing %s through the software volume engine.\n",
                        multi->c_str());
            model.setVolume(0.5);
            if (arguments->isRecording) {
                model.toggleRecording();
                std::printf("Recording %.0f s…\n", arguments->seconds);
            } else {
                std::printf("Routing %.0f s…\n", arguments->seconds);
            }
            std::fflush(stdout);
            QTimer::singleShot(int(arguments->seconds * 1000), [&] {
                model.tick();
                save(shell.panel(), folder / "panel.png");
                model.toggleRecording();
                shell.app().openWindow(BrightmixApp::kAppOutputsWindow);
                shell.app().openWindow(BrightmixApp::kDeviceLabelsWindow);
                save(shell.window(BrightmixApp::kAppOutputsWindow), folder / "app-outputs.png");
                save(shell.window(BrightmixApp::kDeviceLabelsWindow), folder / "device-labels.png");
                if (!arguments->isRecording) {
                    // Nothing was asked to be recorded.
                } else if (state.lastRecordingURL) {
                    std::printf("Recording: %s (%s)\n", state.lastRecordingURL->c_str(),
                                state.recordingMessage.value_or("").c_str());
                } else {
                    std::fprintf(stderr, "brightmix-app: the recording did not start: %s\n",
                                 state.recordingMessage.value_or("").c_str());
                    status = 1;
                }
                std::printf("Screenshots: %s, %s, %s\n", (folder / "panel.png").c_str(),
                            (folder / "app-outputs.png").c_str(),
                            (folder / "device-labels.png").c_str());
                model.setEnabled(false);
                QCoreApplication::quit();
            });
        });
        const int result = QApplication::exec();
        return result != 0 ? result : status;
    }
    return QApplication::exec();
}
