#pragma once

#include "app/ControlCommand.h"
#include "platform/wayland/SessionKind.h"

#include <QElapsedTimer>
#include <QObject>
#include <QPointer>
#include <memory>

class QMenu;
class QSystemTrayIcon;

namespace vocari {

class AppModel;
class MenuContent;
class SettingsView;

// The running application: the one application model, the tray icon with its menu, and the
// settings window, created when first asked for and kept from then on.
class VocariApp : public QObject
{
    Q_OBJECT
public:
    // `started` runs since the process began, for the start-up time in the log.
    explicit VocariApp(const QElapsedTimer &started, QObject *parent = nullptr);
    ~VocariApp() override;

    AppModel &model() { return *m_model; }
    // Opens the settings window, or brings it to the front.
    void openSettings();
    // What another start of vocari asked for.
    void handle(ControlCommand command);

private:
    void showTrayIcon();
    void updateTrayIcon(bool active);

    const SessionKind m_session;
    std::unique_ptr<AppModel> m_model;
    std::unique_ptr<QMenu> m_menu;
    std::unique_ptr<MenuContent> m_menuContent;
    std::unique_ptr<QSystemTrayIcon> m_tray;
    QPointer<SettingsView> m_settings;
};

} // namespace vocari
