#include "ui/SettingsWindow.h"

#include "app/AppModel.h"
#include "hotkey/HotkeyMonitor.h"
#include "settings/Preferences.h"
#include "settings/SettingsStore.h"

#include <QDesktopServices>
#include <QDialogButtonBox>
#include <QFileInfo>
#include <QLabel>
#include <QPushButton>
#include <QUrl>
#include <QVBoxLayout>

namespace vocari {

SettingsWindow::SettingsWindow(AppModel &model, QWidget *parent)
    : QWidget(parent, Qt::Window), m_model(model)
{
    setWindowTitle(QStringLiteral("Settings"));
    setObjectName(QStringLiteral("Settings"));
    resize(560, 560);

    auto *layout = new QVBoxLayout(this);
    m_state = new QLabel(this);
    m_state->setWordWrap(true);
    m_state->setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
    m_state->setAccessibleName(QStringLiteral("Current state"));
    layout->addWidget(m_state);
    layout->addStretch();

    auto *buttons = new QDialogButtonBox(this);
    QPushButton *file =
        buttons->addButton(QStringLiteral("Open Settings File"), QDialogButtonBox::ActionRole);
    QPushButton *models =
        buttons->addButton(QStringLiteral("Open Models Folder"), QDialogButtonBox::ActionRole);
    QPushButton *close = buttons->addButton(QDialogButtonBox::Close);
    layout->addWidget(buttons);
    connect(file, &QPushButton::clicked, this, [] {
        QDesktopServices::openUrl(QUrl::fromLocalFile(SettingsStore::shared().filePath()));
    });
    connect(models, &QPushButton::clicked, this, [this] {
        QDesktopServices::openUrl(QUrl::fromLocalFile(m_model.models().modelsRoot()));
    });
    connect(close, &QPushButton::clicked, this, &QWidget::close);

    connect(&model, &AppModel::inputAccessChanged, this, &SettingsWindow::refresh);
    connect(&model, &AppModel::hotkeyChanged, this, &SettingsWindow::refresh);
    connect(&model.models(), &ModelStore::selectedChanged, this, &SettingsWindow::refresh);
    connect(&SettingsStore::shared(), &SettingsStore::valueChanged, this, &SettingsWindow::refresh);
    refresh();
}

void SettingsWindow::present()
{
    show();
    setWindowState((windowState() & ~Qt::WindowMinimized) | Qt::WindowActive);
    raise();
    activateWindow();
}

void SettingsWindow::refresh()
{
    QString access = m_model.inputAccessGranted()
                         ? QStringLiteral("granted")
                         : QStringLiteral("missing. %1").arg(m_model.inputAccessExplanation());
    access = access.toHtmlEscaped();
    if (const QString keyError = m_model.keyMonitorError(); !keyError.isEmpty())
        access += QStringLiteral("<br>The dictation key cannot be watched: %1")
                      .arg(keyError.toHtmlEscaped());
    m_state->setText(
        QStringLiteral("<p><b>Dictation key:</b> %1 (%2)</p>"
                       "<p><b>Speech:</b> %3</p>"
                       "<p><b>Input access:</b> %4</p>"
                       "<p>Settings are kept in <tt>%5</tt>; Vocari follows edits to that file "
                       "while it runs. Speech models are kept in <tt>%6</tt>.</p>")
            .arg(m_model.hotkey().label().toHtmlEscaped(),
                 Preferences::recordMode() == RecordMode::hold
                     ? QStringLiteral("hold to dictate")
                     : QStringLiteral("press to start and stop"),
                 m_model.selectedEngineName().toHtmlEscaped(), access,
                 SettingsStore::shared().filePath().toHtmlEscaped(),
                 m_model.models().modelsRoot().toHtmlEscaped()));
}

} // namespace vocari
