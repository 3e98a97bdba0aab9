#include "platform/linux/qt/QtDesktopServices.h"

#include <QApplication>
#include <QCursor>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDesktopServices>
#include <QDir>
#include <QFileDialog>
#include <QGridLayout>
#include <QLabel>
#include <QPointer>
#include <QProcess>
#include <QPropertyAnimation>
#include <QScreen>
#include <QStandardPaths>
#include <QUrl>
#include <filesystem>
#include <fstream>
#include <unistd.h>

namespace brightmix {

namespace {

QString qt(std::string_view text) {
    return QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
}

bool isDesktopEntry(std::string_view path) {
    return path.size() > 8 && path.substr(path.size() - 8) == ".desktop";
}

std::string lastComponent(std::string_view path) {
    const std::size_t slash = path.find_last_of('/');
    return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

// The bottom of the virtual desktop, around which y is flipped.
int virtualBottom() {
    const QScreen* primary = QGuiApplication::primaryScreen();
    if (primary == nullptr) return 0;
    const QRect all = primary->virtualGeometry();
    return all.y() + all.height();
}

// Shows a chooser in front; the completion gets the first chosen path, or none on cancel.
void openChooser(QFileDialog* dialog, FolderAccess::Completion completion) {
    QObject::connect(dialog, &QFileDialog::finished, dialog,
                     [dialog, completion = std::move(completion)](int result) {
                         const QStringList chosen = dialog->selectedFiles();
                         if (result == QDialog::Accepted && !chosen.isEmpty()) {
                             completion(chosen.front().toStdString());
                         } else {
                             completion(std::nullopt);
                         }
                     });
    dialog->open();
    dialog->raise();
    dialog->activateWindow();
}

ScreenRect flipped(const QRect& rect) {
    return {double(rect.x()), double(virtualBottom() - (rect.y() + rect.height())),
            double(rect.width()), double(rect.height())};
}

} // namespace

// ---- Workspace ---------------------------------------------------------------------------

std::optional<std::string> QtWorkspace::desktopEntryValue(const std::string& file,
                                                          const std::string& key) {
    std::ifstream stream(file);
    std::string line;
    bool isMainGroup = false;
    while (std::getline(stream, line)) {
        if (!line.empty() && line.front() == '[') {
            isMainGroup = line == "[Desktop Entry]";
            continue;
        }
        if (isMainGroup && line.rfind(key + "=", 0) == 0) return line.substr(key.size() + 1);
    }
    return std::nullopt;
}

std::optional<Workspace::RunningApplication>
QtWorkspace::runningApplication(std::int32_t pid) const {
    std::error_code error;
    const auto executable =
        std::filesystem::read_symlink("/proc/" + std::to_string(pid) + "/exe", error);
    if (error) return std::nullopt;
    return RunningApplication{executable.string(), executable.filename().string()};
}

std::optional<std::string> QtWorkspace::bundleIdentifier(std::string_view bundlePath) const {
    const std::string path(bundlePath);
    if (!isDesktopEntry(path)) {
        if (!std::filesystem::exists(path)) return std::nullopt;
        return lastComponent(path);
    }
    // The identity PipeWire reports for the app's streams is its binary's name.
    const std::optional<std::string> exec = desktopEntryValue(path, "Exec");
    if (!exec || exec->empty()) return std::nullopt;
    std::string program = exec->substr(0, exec->find(' '));
    if (!program.empty() && program.front() == '"')
        program = program.substr(1, program.find('"', 1) - 1);
    program = lastComponent(program);
    if (program.empty()) return std::nullopt;
    return program;
}

std::string QtWorkspace::displayName(std::string_view path) const {
    if (isDesktopEntry(path)) {
        if (auto name = desktopEntryValue(std::string(path), "Name")) return *name;
    }
    return lastComponent(path);
}

std::string QtWorkspace::ownBundlePath() const {
    std::error_code error;
    return std::filesystem::read_symlink("/proc/self/exe", error).string();
}

WorkspaceIcon QtWorkspace::icon(std::string_view path) const {
    if (isDesktopEntry(path)) {
        if (auto name = desktopEntryValue(std::string(path), "Icon")) return {*name, nullptr};
    }
    return {"application-x-executable", nullptr};
}

std::optional<std::string> QtWorkspace::bundleName(std::string_view bundlePath) const {
    if (!isDesktopEntry(bundlePath)) return std::nullopt;
    return desktopEntryValue(std::string(bundlePath), "Name");
}

std::optional<std::string> QtWorkspace::applicationBundlePath(std::string_view processPath) const {
    if (!entriesByProgram_) {
        entriesByProgram_.emplace();
        const QStringList folders =
            QStandardPaths::standardLocations(QStandardPaths::ApplicationsLocation);
        for (const QString& folder : folders) {
            std::error_code error;
            for (const auto& entry :
                 std::filesystem::directory_iterator(folder.toStdString(), error)) {
                const std::string file = entry.path().string();
                if (!isDesktopEntry(file)) continue;
                if (const auto program = bundleIdentifier(file)) {
                    entriesByProgram_->emplace(*program, file); // the first folder wins
                }
            }
        }
    }
    const std::string program = lastComponent(processPath);
    if (const auto found = entriesByProgram_->find(program); found != entriesByProgram_->end()) {
        return found->second;
    }
    if (processPath.empty()) return std::nullopt;
    return std::string(processPath);
}

bool QtWorkspace::openURL(std::string_view url) {
    return QDesktopServices::openUrl(QUrl(qt(url)));
}

bool QtWorkspace::openApplication(std::string_view path) {
    if (isDesktopEntry(path)) {
        return QProcess::startDetached("gtk-launch", {qt(lastComponent(path))}) ||
               QDesktopServices::openUrl(QUrl::fromLocalFile(qt(path)));
    }
    return QProcess::startDetached(qt(path), {});
}

bool QtWorkspace::revealFile(std::string_view path) {
    const QString uri = QUrl::fromLocalFile(qt(path)).toString();
    QDBusMessage call = QDBusMessage::createMethodCall("org.freedesktop.FileManager1",
                                                       "/org/freedesktop/FileManager1",
                                                       "org.freedesktop.FileManager1", "ShowItems");
    call << QStringList{uri} << QString();
    const QDBusMessage reply = QDBusConnection::sessionBus().call(call, QDBus::Block, 2000);
    if (reply.type() == QDBusMessage::ReplyMessage) return true;
    // No file manager on the bus: open the folder instead.
    return QDesktopServices::openUrl(
        QUrl::fromLocalFile(qt(std::filesystem::path(path).parent_path().string())));
}

bool QtWorkspace::relaunch() {
    return QProcess::startDetached(QCoreApplication::applicationFilePath(),
                                   QCoreApplication::arguments().mid(1));
}

void QtWorkspace::terminate() {
    QCoreApplication::quit();
}

// ---- Folders --------------------------------------------------------------------------------

std::string QtFolderAccess::desktopFolder() const {
    return QStandardPaths::writableLocation(QStandardPaths::DesktopLocation).toStdString();
}

void QtFolderAccess::chooseFolder(const FolderChoice& choice, Completion completion) {
    auto* dialog = new QFileDialog(nullptr, qt(choice.title), qt(choice.startFolder));
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->setFileMode(QFileDialog::Directory);
    dialog->setOption(QFileDialog::ShowDirsOnly, true);
    dialog->setOption(QFileDialog::DontUseNativeDialog, true);
    dialog->setLabelText(QFileDialog::Accept, qt(choice.prompt));
    if (auto* grid = qobject_cast<QGridLayout*>(dialog->layout())) {
        auto* message = new QLabel(qt(choice.message), dialog);
        message->setWordWrap(true);
        grid->addWidget(message, grid->rowCount(), 0, 1, -1);
    }
    openChooser(dialog, std::move(completion));
}

std::optional<PropertyList::Data> QtFolderAccess::createBookmark(const std::string& folder) {
    return PropertyList::Data(folder.begin(), folder.end());
}

std::optional<FolderAccess::ResolvedBookmark>
QtFolderAccess::resolveBookmark(const PropertyList::Data& bookmark) {
    const std::string folder(bookmark.begin(), bookmark.end());
    std::error_code error;
    if (folder.empty() || !std::filesystem::is_directory(folder, error)) return std::nullopt;
    return ResolvedBookmark{folder, false};
}

bool QtFolderAccess::startAccessing(const std::string& folder) {
    return ::access(folder.c_str(), W_OK | X_OK) == 0;
}

void QtFolderAccess::chooseApplication(const std::string& message, const std::string& startFolder,
                                       Completion completion) {
    // Linux applications are their desktop entries.
    const std::string start = std::filesystem::is_directory("/usr/share/applications")
                                  ? std::string("/usr/share/applications")
                                  : startFolder;
    auto* dialog = new QFileDialog(nullptr, qt(message), qt(start), "Applications (*.desktop)");
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->setFileMode(QFileDialog::ExistingFile);
    dialog->setOption(QFileDialog::DontUseNativeDialog, true);
    openChooser(dialog, std::move(completion));
}

// ---- Indicator --------------------------------------------------------------------------------

QtHudPanel::QtHudPanel(ContentView draw)
    : draw_(std::move(draw)), panel_(std::make_unique<QWidget>()) {
    panel_->setWindowFlags(Qt::ToolTip | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint |
                           Qt::WindowDoesNotAcceptFocus | Qt::WindowTransparentForInput);
    panel_->setAttribute(Qt::WA_ShowWithoutActivating);
    panel_->setFixedSize(250, 70);
    panel_->setWindowOpacity(0);
}

QtHudPanel::~QtHudPanel() = default;

void QtHudPanel::setContent(const HudContent& content) {
    if (draw_) draw_(panel_.get(), content);
}

void QtHudPanel::setFrameOrigin(ScreenPoint origin) {
    panel_->move(int(origin.x), virtualBottom() - int(origin.y) - panel_->height());
}

void QtHudPanel::setAlpha(double alpha) {
    for (auto* animation : panel_->findChildren<QPropertyAnimation*>())
        animation->stop();
    panel_->setWindowOpacity(alpha);
}

void QtHudPanel::orderFrontRegardless() {
    panel_->show();
    panel_->raise();
}

void QtHudPanel::orderOut() {
    panel_->hide();
}

void QtHudPanel::animateAlpha(double alpha, double duration, std::function<void()> completion) {
    auto* animation = new QPropertyAnimation(panel_.get(), "windowOpacity", panel_.get());
    animation->setDuration(int(duration * 1000));
    animation->setEndValue(alpha);
    QObject::connect(animation, &QPropertyAnimation::finished, panel_.get(),
                     [completion = std::move(completion)] {
                         if (completion) completion();
                     });
    animation->start(QAbstractAnimation::DeleteWhenStopped);
}

std::vector<Screen> QtHudPanel::screens() const {
    std::vector<Screen> result;
    for (const QScreen* screen : QGuiApplication::screens()) {
        result.push_back({flipped(screen->geometry()), flipped(screen->availableGeometry())});
    }
    return result;
}

std::optional<Screen> QtHudPanel::mainScreen() const {
    const QScreen* screen = QGuiApplication::primaryScreen();
    if (screen == nullptr) return std::nullopt;
    return Screen{flipped(screen->geometry()), flipped(screen->availableGeometry())};
}

ScreenPoint QtHudPanel::mouseLocation() const {
    const QPoint point = QCursor::pos();
    return {double(point.x()), double(virtualBottom() - point.y())};
}

} // namespace brightmix
