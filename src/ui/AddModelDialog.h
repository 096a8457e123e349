#pragma once

#include <QDialog>
#include <functional>

class QFormLayout;
class QLineEdit;
class QPushButton;
class QRadioButton;

namespace vocari {

class ModelStore;

// Adds a model of the user's own to the store: a Hugging Face repository, which is then
// downloaded, or a folder on this computer, which is used in place. It closes after handing
// the input to the store, also when the store refuses it: the store's message then shows
// under the list of engines.
class AddModelDialog : public QDialog
{
    Q_OBJECT
public:
    // Asks for a folder; returns its path, or nothing when the user changed their mind.
    using FolderChooser = std::function<QString(QWidget *parent)>;

    explicit AddModelDialog(ModelStore &store, QWidget *parent = nullptr);

    // Replaces the desktop's folder picker (tests answer without a window).
    void setFolderChooser(FolderChooser chooser) { m_chooseFolder = std::move(chooser); }

    // Whether the primary button may be pressed: a repository with a "/", or a chosen folder.
    bool canAdd() const;

private:
    void useSource(bool hub);
    void chooseFolder();
    void update();
    void add();

    ModelStore &m_store;
    FolderChooser m_chooseFolder;
    QFormLayout *m_form = nullptr;
    QRadioButton *m_hubSource = nullptr;
    QRadioButton *m_folderSource = nullptr;
    QLineEdit *m_name = nullptr;
    QLineEdit *m_repository = nullptr;
    QPushButton *m_folderButton = nullptr;
    QPushButton *m_add = nullptr;
    QString m_folder;
};

} // namespace vocari
