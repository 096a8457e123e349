#include "ui/SettingsView.h"

#include "ui/AboutTab.h"
#include "ui/GeneralTab.h"
#include "ui/ModelsTab.h"
#include "ui/PermissionsTab.h"
#include "ui/PopupTab.h"
#include "ui/SettingsIcons.h"
#include "ui/TextTab.h"

#include <QScrollArea>
#include <QTabWidget>
#include <QVBoxLayout>

namespace vocari {

SettingsView::SettingsView(AppModel &model, QWidget *parent) : QWidget(parent, Qt::Window)
{
    // The application's display name is added to the title by Qt: "Settings — Vocari".
    setWindowTitle(QStringLiteral("Settings"));
    setObjectName(QStringLiteral("Settings"));
    setFixedSize(kWidth, kHeight);

    m_tabs = new QTabWidget(this);
    m_tabs->setObjectName(QStringLiteral("settingsTabs"));
    m_tabs->setDocumentMode(false);
    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(8, 8, 8, 8);
    layout->addWidget(m_tabs);

    addTab(new GeneralTab(model), QStringLiteral("General"), QStringLiteral("general"));
    addTab(new TextTab(model), QStringLiteral("Text"), QStringLiteral("text"));
    addTab(new ModelsTab(model), QStringLiteral("Models"), QStringLiteral("models"));
    addTab(new PopupTab(model), QStringLiteral("Popup"), QStringLiteral("popup"));
    addTab(new PermissionsTab(model), QStringLiteral("Permissions"), QStringLiteral("permissions"));
    addTab(new AboutTab(model), QStringLiteral("About"), QStringLiteral("about"));
}

void SettingsView::addTab(QWidget *tab, const QString &title, const QString &icon)
{
    // A page that scrolls would paint the window colour over the tab pane that the other pages
    // show; letting its scroll area through makes every page look alike.
    for (QScrollArea *scroll : tab->findChildren<QScrollArea *>()) {
        scroll->viewport()->setAutoFillBackground(false);
        if (QWidget *content = scroll->widget())
            content->setAutoFillBackground(false);
    }
    if (tab->objectName().isEmpty())
        tab->setObjectName(icon + QStringLiteral("Tab"));
    m_tabs->addTab(tab, settingsIcon(icon, palette().color(QPalette::WindowText)), title);
}

void SettingsView::present()
{
    show();
    setWindowState((windowState() & ~Qt::WindowMinimized) | Qt::WindowActive);
    raise();
    activateWindow();
}

} // namespace vocari
