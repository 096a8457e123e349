#include "ui/MenuContent.h"

#include "app/AppModel.h"
#include "engines/system/SphinxModel.h"
#include "hotkey/HotkeyMonitor.h"
#include "settings/Preferences.h"
#include "settings/SettingsStore.h"

#include <QActionGroup>
#include <QClipboard>
#include <QGuiApplication>
#include <QMenu>

namespace vocari {

MenuContent::MenuContent(AppModel &model, QMenu &menu, std::function<void()> openSettings,
                         std::function<void()> quit, QObject *parent)
    : QObject(parent), m_model(model), m_menu(&menu), m_openSettings(std::move(openSettings)),
      m_quit(std::move(quit))
{
    // Queued, so that an item is never deleted from inside its own triggered() signal.
    const auto later = [this] {
        QMetaObject::invokeMethod(this, &MenuContent::rebuild, Qt::QueuedConnection);
    };
    connect(&model, &AppModel::inputAccessChanged, this, later);
    connect(&model, &AppModel::microphoneGrantedChanged, this, later);
    connect(&model, &AppModel::lastDictationChanged, this, later);
    connect(&model, &AppModel::hotkeyChanged, this, later);
    connect(&model.models(), &ModelStore::selectedChanged, this, later);
    connect(&model.models(), &ModelStore::enginesChanged, this, later);
    connect(&SettingsStore::shared(), &SettingsStore::valueChanged, this, later);
    connect(&menu, &QMenu::aboutToShow, this, &MenuContent::rebuild);
    rebuild();
}

QStringList MenuContent::usageLines(const Hotkey &hotkey, RecordMode mode, bool escapeCancels)
{
    if (mode == RecordMode::toggle) {
        return {QStringLiteral("Press %1 to start, again to stop").arg(hotkey.label()),
                escapeCancels ? QStringLiteral("Esc to cancel")
                              : QStringLiteral("“vocari cancel” cancels")};
    }
    return {QStringLiteral("Hold %1 to dictate").arg(hotkey.label()),
            escapeCancels ? QStringLiteral("Esc, or press again, to cancel")
                          : QStringLiteral("Press again to cancel")};
}

QString MenuContent::languageLine(const QString &name, bool modelInstalled)
{
    return modelInstalled ? name : QStringLiteral("%1 (no speech model installed)").arg(name);
}

void MenuContent::rebuild()
{
    if (!m_menu)
        return;
    QMenu &menu = *m_menu;
    menu.clear();

    const auto addLine = [&menu](const QString &text) { menu.addAction(text)->setEnabled(false); };
    const bool escape = m_model.monitor().escapeCancels();
    for (const QString &line : usageLines(m_model.hotkey(), Preferences::recordMode(), escape))
        addLine(line);
    menu.addSeparator();
    addLine(QStringLiteral("Speech: %1").arg(m_model.selectedEngineName()));
    if (Preferences::aiTidy() && !Preferences::liveTyping())
        addLine(QStringLiteral("Tidy-up: on"));
    if (!m_model.inputAccessGranted() || !m_model.microphoneGranted()) {
        menu.addSeparator();
        menu.addAction(QStringLiteral("Finish setup…"), this, [this] { m_openSettings(); });
    }
    menu.addSeparator();

    QAction *copy = menu.addAction(QStringLiteral("Copy Last Dictation"), this, [this] {
        if (const std::optional<QString> last = m_model.lastDictation())
            QGuiApplication::clipboard()->setText(*last);
    });
    copy->setEnabled(m_model.lastDictation().has_value());

    addLanguageMenu();
    menu.addSeparator();
    QAction *settings =
        menu.addAction(QStringLiteral("Settings…"), this, [this] { m_openSettings(); });
    settings->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_Comma));
    QAction *quit = menu.addAction(QStringLiteral("Quit Vocari"), this, [this] { m_quit(); });
    quit->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_Q));
}

void MenuContent::addLanguageMenu()
{
    // The submenu lives as long as the menu; only its items are made anew.
    if (!m_languages) {
        m_languages = new QMenu(QStringLiteral("Language (Built-in Speech)"), m_menu);
        m_languages->setToolTipsVisible(true);
        m_languageGroup = new QActionGroup(m_languages);
    }
    m_languages->clear();
    const QString current = Preferences::language();
    for (const Preferences::Language &language : Preferences::languages()) {
        const bool installed = SphinxModelFinder::find(language.id).has_value();
        QAction *item = m_languages->addAction(languageLine(language.name, installed));
        if (!installed) {
            item->setToolTip(QStringLiteral("Dictation in this language needs a PocketSphinx "
                                            "model under ~/.local/share/vocari/pocketsphinx."));
        }
        item->setCheckable(true);
        item->setChecked(language.id == current);
        item->setActionGroup(m_languageGroup);
        connect(item, &QAction::triggered, this, [id = language.id] {
            SettingsStore::shared().setValue(QLatin1String(SettingsKey::language), id);
        });
    }
    m_menu->addMenu(m_languages);
}

} // namespace vocari
