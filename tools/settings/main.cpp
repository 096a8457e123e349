// vocari-settings-render: draws each tab of the settings window into a PNG file, without a
// display (on Qt's offscreen platform unless QT_QPA_PLATFORM names another), for the README
// and for looking at a change.
//
//   vocari-settings-render [--wayland] OUTPUT_FOLDER
//
// One picture per tab: settings-<tab>.png. The window is shown as a fresh user sees it, on an
// application model whose desktop parts are simple stand-ins defined here (two microphones,
// input access granted, nothing captured or typed), with settings, models and the login entry
// in a temporary folder, so the pictures do not depend on the machine or the user's settings.

#include "app/AppModel.h"
#include "dictation/AudioEngine.h"
#include "hotkey/HotkeyMonitor.h"
#include "settings/SettingsStore.h"
#include "ui/SettingsView.h"

#include <QApplication>
#include <QCommandLineParser>
#include <QDir>
#include <QTabWidget>
#include <QTemporaryDir>
#include <cstdio>

using namespace vocari;

namespace {

class StandInAudio final : public AudioEngine
{
public:
    bool hasDefaultInput() const override { return true; }
    QList<InputDevices::Device> inputs() const override
    {
        return {{QStringLiteral("alsa_input.pci-0000_00_1f.3.analog-stereo"),
                 QStringLiteral("Built-in Audio Analog Stereo")},
                {QStringLiteral("alsa_input.usb-microphone"), QStringLiteral("USB Microphone")}};
    }
    AudioFormat inputFormat(const QString &) const override { return {48000.0, 1}; }
    void start(const QString &, Tap) override {}
    void stop() override {}
};

class StandInKeys final : public KeyEventSource
{
public:
    bool open(Sink) override { return m_open = true; }
    void close() override { m_open = false; }
    bool isOpen() const override { return m_open; }
    std::vector<GrabFailure> setGrabs(const std::vector<KeyGrab> &) override { return {}; }
    QString errorString() const override { return {}; }

private:
    bool m_open = false;
};

class StandInDesktop final : public DesktopServices
{
public:
    InputAccessState inputAccess() override { return {true, {}}; }
    std::optional<qint64> frontmostWindow() override { return std::nullopt; }
    bool paste(const QString &) override { return true; }
    qsizetype type(const QString &text) override { return text.size(); }
    void erase(qsizetype) override {}
    void copyToClipboard(const QString &) override {}
    bool hasCompositor() override { return true; }
};

class Silence final : public SoundPlayer
{
public:
    void play(Sound) override {}
};

std::unique_ptr<AppModel> makeModel(bool wayland)
{
    AppModel::Services services;
    services.audio = std::make_unique<StandInAudio>();
    services.keys = std::make_unique<StandInKeys>();
    services.desktop = std::make_unique<StandInDesktop>();
    services.sounds = std::make_unique<Silence>();
    services.models.preload = false;
    // What the application reports on an ordinary X11 desktop, or on KDE Plasma's Wayland.
    services.session =
        wayland ? QStringLiteral("Wayland (XDG_SESSION_TYPE is wayland); typing: the desktop's "
                                 "remote-desktop portal; clipboard: data-control")
                : QStringLiteral("X11 (XDG_SESSION_TYPE is x11); dictation key and typing: the X "
                                 "server");
    services.offersKeyboardReading = wayland;
    return std::make_unique<AppModel>(std::move(services));
}

} // namespace

int main(int argc, char **argv)
{
    // Settings, models and the autostart entry of a fresh user, kept apart from the real ones.
    QTemporaryDir home;
    if (!home.isValid()) {
        std::fprintf(stderr, "vocari-settings-render: no temporary folder\n");
        return 1;
    }
    qputenv("XDG_CONFIG_HOME", QDir(home.path()).filePath(QStringLiteral("config")).toUtf8());
    qputenv("XDG_DATA_HOME", QDir(home.path()).filePath(QStringLiteral("data")).toUtf8());
    if (!qEnvironmentVariableIsSet("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");

    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("vocari"));
    QApplication::setApplicationDisplayName(QStringLiteral("Vocari"));
    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Draws each tab of the settings window into a PNG file."));
    parser.addHelpOption();
    const QCommandLineOption wayland(QStringLiteral("wayland"),
                                     QStringLiteral("Draws the window of a Wayland session."));
    parser.addOption(wayland);
    parser.addPositionalArgument(QStringLiteral("folder"),
                                 QStringLiteral("Where the pictures are written."));
    parser.process(app);
    if (parser.positionalArguments().size() != 1)
        parser.showHelp(2);
    const QString folder = parser.positionalArguments().constFirst();
    if (!QDir().mkpath(folder)) {
        std::fprintf(stderr, "vocari-settings-render: cannot create %s\n", qUtf8Printable(folder));
        return 1;
    }

    SettingsStore settings(
        QDir(home.path()).filePath(QStringLiteral("config/vocari/settings.json")));
    SettingsStore::setShared(&settings);
    int failures = 0;
    {
        const std::unique_ptr<AppModel> model = makeModel(parser.isSet(wayland));
        SettingsView view(*model);
        view.show();
        QTabWidget *tabs = view.tabs();
        for (int i = 0; i < tabs->count(); ++i) {
            tabs->setCurrentIndex(i);
            QApplication::processEvents();
            const QString path = QDir(folder).filePath(
                QStringLiteral("settings-%1.png").arg(tabs->tabText(i).toLower()));
            if (!view.grab().save(path)) {
                std::fprintf(stderr, "vocari-settings-render: cannot write %s\n",
                             qUtf8Printable(path));
                ++failures;
            }
        }
    }
    SettingsStore::setShared(nullptr);
    return failures == 0 ? 0 : 1;
}
