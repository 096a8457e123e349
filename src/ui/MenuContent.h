#pragma once

#include "hotkey/Hotkey.h"
#include "settings/SettingsTypes.h"

#include <QObject>
#include <QPointer>
#include <QStringList>
#include <functional>

class QActionGroup;
class QMenu;

namespace vocari {

class AppModel;

// The tray icon's menu: how to dictate with the current key, the engine in use, a way to finish
// setting up while input access is missing, the last dictation to copy again, the built-in
// engine's language, the settings and quitting. The items are made anew whenever what they show
// changes, and each time the menu opens.
class MenuContent : public QObject
{
    Q_OBJECT
public:
    MenuContent(AppModel &model, QMenu &menu, std::function<void()> openSettings,
                std::function<void()> quit, QObject *parent = nullptr);

    // Fills the menu from the current state.
    void rebuild();

    // The two usage lines for a key in a record mode; Escape is offered only where it cancels.
    static QStringList usageLines(const Hotkey &hotkey, RecordMode mode, bool escapeCancels);
    // A language's line in the submenu: its name, and a mark when no speech model for it is
    // installed, as the built-in engine then cannot dictate in it.
    static QString languageLine(const QString &name, bool modelInstalled);

private:
    void addLanguageMenu();

    AppModel &m_model;
    QPointer<QMenu> m_menu;
    QPointer<QMenu> m_languages;
    QActionGroup *m_languageGroup = nullptr;
    std::function<void()> m_openSettings;
    std::function<void()> m_quit;
};

} // namespace vocari
