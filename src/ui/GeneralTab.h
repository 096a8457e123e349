#pragma once

#include "dictation/InputDevices.h"

#include <QList>
#include <QWidget>
#include <array>

class QCheckBox;
class QComboBox;
class QLabel;
class QPushButton;
class QToolButton;

namespace vocari {

class AppModel;
class HotkeyRecorder;

// The first tab of the settings: the dictation key and how it records, the speech input, and
// starting at login. Every control stores its setting the moment it changes and shows the
// stored value again whenever the setting changes elsewhere (the menu, or an edit of the
// settings file). The microphone list follows devices as they come and go.
class GeneralTab : public QWidget
{
    Q_OBJECT
public:
    // What the "Cancel" row says in each record mode.
    static inline const QString kCancelHold =
        QStringLiteral("Press Esc, or press the dictation key again");
    static inline const QString kCancelToggle = QStringLiteral("Press Esc");
    static inline const QString kNotConnected = QStringLiteral("Not connected");
    static inline const QString kSystemDefault = QStringLiteral("System default");

    explicit GeneralTab(AppModel &model, QWidget *parent = nullptr);

private:
    QWidget *makeShortcutSection();
    QWidget *makeSpeechSection();
    QWidget *makeSystemSection();

    // Shows the stored value of one setting in its control.
    void showSetting(const QString &key);
    void showRecordMode();
    void showLanguage();
    void showMicrophones();
    void showMaxSeconds();
    void showPasteShortcut();
    void showHotkey();
    void reloadDevices();

    AppModel &m_model;
    QList<InputDevices::Device> m_devices;

    HotkeyRecorder *m_recorder = nullptr;
    QToolButton *m_presets = nullptr;
    std::array<QPushButton *, 2> m_recordModes{}; // by RecordMode
    QLabel *m_cancel = nullptr;
    QLabel *m_keyNote = nullptr;
    QComboBox *m_language = nullptr;
    QComboBox *m_microphone = nullptr;
    QComboBox *m_maxSeconds = nullptr;
    QComboBox *m_pasteShortcut = nullptr;
    QCheckBox *m_sounds = nullptr;
    QCheckBox *m_keepOnClipboard = nullptr;
    QCheckBox *m_openAtLogin = nullptr;
};

} // namespace vocari
