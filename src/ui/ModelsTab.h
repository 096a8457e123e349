#pragma once

#include <QPointer>
#include <QString>
#include <QWidget>
#include <map>
#include <memory>

class QLabel;
class QToolButton;
class QVBoxLayout;

namespace vocari {

class AddModelDialog;
class AppModel;
class EngineRow;
class FileBrowser;
class ModelStore;

// The Models tab of the settings: every engine of the model store as a row, where the user
// picks the engine for dictation, downloads, cancels and deletes models and removes their own;
// a button that shows the models folder, one that adds a model, the last error in red and a
// word on where models run. Everything follows the store's signals.
class ModelsTab : public QWidget
{
    Q_OBJECT
public:
    explicit ModelsTab(AppModel &model, QWidget *parent = nullptr);
    ~ModelsTab() override;

    // Where folders are shown; the desktop's file browser unless replaced (tests watch it).
    void setFileBrowser(std::shared_ptr<FileBrowser> files);

    // The row of an engine, if the store lists it.
    EngineRow *row(const QString &id) const;
    // The add-model dialog while it is open.
    AddModelDialog *addModelDialog() const;

private:
    void syncRows();
    void updateError();
    void showModelsFolder();
    void openAddModel();
    void updateIcons();

    ModelStore &m_store;
    std::shared_ptr<FileBrowser> m_files;
    QToolButton *m_showInFiles = nullptr;
    QToolButton *m_addModel = nullptr;
    QWidget *m_rowsHost = nullptr;
    QVBoxLayout *m_rows = nullptr;
    std::map<QString, QPointer<EngineRow>> m_rowsById;
    QLabel *m_error = nullptr;
    QPointer<AddModelDialog> m_dialog;
};

} // namespace vocari
