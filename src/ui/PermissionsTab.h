#pragma once

#include "dictation/InputDevices.h"

#include <QList>
#include <QString>
#include <QWidget>

class QCheckBox;
class QPushButton;

namespace vocari {

class AppModel;
class PermissionRow;

// The settings tab that shows whether dictation has what it needs from the system: the
// microphone (with the device in use and a way to the desktop's sound settings) and input
// access (with what is missing, in plain words). It follows the application model, so a
// change shows while the tab is open.
class PermissionsTab : public QWidget
{
    Q_OBJECT
public:
    static inline const QString kFooter =
        QStringLiteral("Vocari never records unless you hold the dictation key, and audio never "
                       "leaves this computer.");

    explicit PermissionsTab(AppModel &model, QWidget *parent = nullptr);

    // Which microphone a dictation would capture from, in one sentence: the stored device
    // while it is connected, otherwise the system default (named when it is known).
    static QString deviceInUse(const QList<InputDevices::Device> &inputs, const QString &stored,
                               bool hasDefault, const QString &defaultName);

protected:
    void showEvent(QShowEvent *event) override;

private:
    void showMicrophone();
    void showInputAccess();
    void findSoundSettings();

    AppModel &m_model;
    PermissionRow *m_microphone = nullptr;
    PermissionRow *m_inputAccess = nullptr;
    QPushButton *m_soundSettings = nullptr;
    QPushButton *m_askAgain = nullptr;
    QCheckBox *m_readKeyboards = nullptr;
};

} // namespace vocari
