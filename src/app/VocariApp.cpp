#include "app/VocariApp.h"

#include "app/AppLog.h"
#include "app/AppModel.h"
#include "app/QtSoundPlayer.h"
#include "hotkey/HotkeyMonitor.h"
#include "platform/audio/QtAudioEngine.h"
#include "platform/evdev/EvdevKeySource.h"
#include "platform/wayland/SessionKind.h"
#include "platform/wayland/WaylandInput.h"
#include "platform/x11/X11DesktopServices.h"
#include "platform/x11/X11KeySource.h"
#include "settings/Preferences.h"
#include "ui/MenuContent.h"
#include "ui/SettingsView.h"

#include <QApplication>
#include <QClipboard>
#include <QDBusConnection>
#include <QMenu>
#include <QSystemTrayIcon>
#include <QTimer>

namespace vocari {

namespace {

// The desktop parts of the session: an X server's keyboard and synthetic keys, or a Wayland
// desktop's portals. The windows run on X in both (XWayland on Wayland), where the popup can be
// placed where it belongs.
AppModel::Services desktopServices(const SessionKind &session)
{
    AppModel::Services services;
    services.audio = std::make_unique<QtAudioEngine>();
    services.sounds = std::make_unique<QtSoundPlayer>();
    services.models.preloadBuiltIn = true;
    QString summary;
    if (session.isWayland()) {
        WaylandInput input =
            WaylandInput::choose(QDBusConnection::sessionBus(), [](const QString &text) {
                QGuiApplication::clipboard()->setText(text, QClipboard::Clipboard);
            });
        services.keys = std::move(input.keys);
        services.desktop = std::move(input.desktop);
        summary = input.summary;
        // Where the user allows it, the keyboards' devices give the key the desktop cannot bind.
        services.offersKeyboardReading = true;
        if (Preferences::readKeyboards()) {
            services.keys = std::make_unique<EvdevKeySource>();
            summary += QStringLiteral("; dictation key: read from the keyboards");
        }
    } else {
        services.keys = std::make_unique<X11KeySource>();
        services.desktop = std::make_unique<X11DesktopServices>();
        summary = QStringLiteral("dictation key and typing: the X server");
    }
    services.session = QStringLiteral("%1 (%2); %3").arg(session.name(), session.reason, summary);
    qCInfo(lcApp).noquote() << "session:" << services.session;
    return services;
}

} // namespace

VocariApp::VocariApp(const QElapsedTimer &started, QObject *parent)
    : QObject(parent), m_session(SessionKind::detect()),
      m_model(std::make_unique<AppModel>(desktopServices(m_session)))
{
    m_menu = std::make_unique<QMenu>();
    m_menuContent = std::make_unique<MenuContent>(
        *m_model, *m_menu, [this] { openSettings(); }, [] { QCoreApplication::quit(); });
    showTrayIcon();
    connect(m_model.get(), &AppModel::activeChanged, this, &VocariApp::updateTrayIcon);

    // Logged once the event loop runs, when the tray icon has been handed to the desktop.
    QTimer::singleShot(0, this, [this, started] {
        const bool xwayland =
            m_session.isWayland() && QGuiApplication::platformName() == QLatin1String("xcb");
        qCInfo(lcApp, "ready in %.2f s: %s, speech: %s, input access: %s, windows: %s",
               started.nsecsElapsed() / 1e9, m_tray ? "tray icon shown" : "no tray",
               qUtf8Printable(m_model->selectedEngineName()),
               m_model->inputAccessGranted() ? "granted" : "missing",
               xwayland ? "XWayland" : qUtf8Printable(QGuiApplication::platformName()));
    });
}

VocariApp::~VocariApp()
{
    // The menu's content watches the model: it goes first.
    m_tray.reset();
    m_menuContent.reset();
    delete m_settings;
}

void VocariApp::showTrayIcon()
{
    if (!QSystemTrayIcon::isSystemTrayAvailable()) {
        qCWarning(lcApp, "This desktop shows no tray icons: run \"vocari settings\", or start "
                         "Vocari again, to open its settings.");
        return;
    }
    m_tray = std::make_unique<QSystemTrayIcon>();
    m_tray->setContextMenu(m_menu.get());
    m_tray->setToolTip(QStringLiteral("Vocari"));
    updateTrayIcon(false);
    // A left click opens the same menu where the desktop leaves it to the program.
    connect(m_tray.get(), &QSystemTrayIcon::activated, this,
            [this](QSystemTrayIcon::ActivationReason reason) {
                if (reason == QSystemTrayIcon::Trigger)
                    m_menu->popup(QCursor::pos());
            });
    m_tray->show();
}

void VocariApp::updateTrayIcon(bool active)
{
    if (!m_tray)
        return;
    m_tray->setIcon(QIcon(active ? QStringLiteral(":/vocari/icons/tray-active.svg")
                                 : QStringLiteral(":/vocari/icons/tray-idle.svg")));
    m_tray->setToolTip(active ? QStringLiteral("Vocari: dictating") : QStringLiteral("Vocari"));
}

void VocariApp::openSettings()
{
    if (!m_settings)
        m_settings = new SettingsView(*m_model);
    m_settings->present();
}

void VocariApp::handle(ControlCommand command)
{
    switch (command) {
    case ControlCommand::showSettings:
        openSettings();
        break;
    case ControlCommand::toggle:
        m_model->toggleDictation();
        break;
    case ControlCommand::start:
        m_model->startDictation();
        break;
    case ControlCommand::stop:
        m_model->stopDictation();
        break;
    case ControlCommand::cancel:
        m_model->cancelDictation();
        break;
    case ControlCommand::quit:
        QTimer::singleShot(0, qApp, &QCoreApplication::quit);
        break;
    }
}

} // namespace vocari
