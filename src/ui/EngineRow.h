#pragma once

#include "models/Engine.h"

#include <QFrame>
#include <QPointer>

class QLabel;
class QMenu;
class QProgressBar;
class QPushButton;
class QToolButton;
class QWidget;

namespace vocari {

class ModelStore;

// One engine in the Models tab: the button that picks it for dictation, its name (with a
// "Custom" badge for the user's own), summary and tags, and at the end what its state allows:
// "Download", the progress of a running download with a button to cancel it, or a menu under
// the size of the installed model. It follows the store's signals for its engine.
class EngineRow : public QFrame
{
    Q_OBJECT
public:
    EngineRow(ModelStore &store, Engine engine, QWidget *parent = nullptr);

    const Engine &engine() const { return m_engine; }

    // Redraws the state, the selection and the size from the store.
    void refresh();

    // The menu of the row's engine, as the context menu shows it; empty for the built-in
    // engine. The caller owns the menu.
    QMenu *makeContextMenu(QWidget *parent);

    // The text of the item that deletes or forgets an engine.
    static QString removeLabel(const Engine &engine);
    // A download's fraction as the row shows it: whole percent, rounded down.
    static QString percentText(double fraction);

signals:
    // The user asked to see the engine's model folder in the file browser.
    void showInFilesRequested(const QString &folder);

protected:
    void contextMenuEvent(QContextMenuEvent *event) override;
    void changeEvent(QEvent *event) override;

private:
    QWidget *makeTextColumn();
    QWidget *makeTrailing();
    void updateIcons();
    void showTrailing(QWidget *part, QWidget *focusTarget);
    void showInFiles();
    void remove();
    void openSizeMenu();

    ModelStore &m_store;
    const Engine m_engine;

    QToolButton *m_select = nullptr;
    QWidget *m_trailing = nullptr;
    // Not installed: "Download" over the size, and for the user's own engines a bin.
    QWidget *m_notInstalled = nullptr;
    QPushButton *m_download = nullptr;
    QToolButton *m_removeButton = nullptr;
    // Downloading: progress, percentage, cancel.
    QWidget *m_downloading = nullptr;
    QProgressBar *m_progress = nullptr;
    QLabel *m_percent = nullptr;
    QToolButton *m_cancel = nullptr;
    // Installed: "Built in" for the built-in engine, else the size with its menu.
    QLabel *m_builtIn = nullptr;
    QToolButton *m_sizeButton = nullptr;
    QMenu *m_sizeMenu = nullptr;
    QPointer<QMenu> m_contextMenu;
};

} // namespace vocari
