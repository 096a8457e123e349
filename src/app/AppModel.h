#pragma once

#include "app/DesktopServices.h"
#include "dictation/Dictation.h"
#include "hotkey/Hotkey.h"
#include "models/ModelStore.h"

#include <QObject>
#include <QStringList>
#include <QTimer>
#include <memory>
#include <optional>

namespace vocari {

class AudioEngine;
class Clock;
class HotkeyMonitor;
class HUDController;
class KeyEventSource;

// The one object that ties the application together: it owns the dictation session, the
// model store, the global key monitor and the HUD, turns the dictation key into session
// operations by the record mode, puts the session's results into the program in front (pasted
// at the end, or typed phrase by phrase), plays the feedback sounds, keeps the input-access
// state the menu and settings show, and remembers the last dictation.
//
// Everything runs on the main thread. The desktop parts come in through Services, so the
// application chooses them for the session it runs in and tests can replace them.
class AppModel : public QObject
{
    Q_OBJECT
    Q_PROPERTY(bool inputAccessGranted READ inputAccessGranted NOTIFY inputAccessChanged)
    Q_PROPERTY(bool microphoneGranted READ microphoneGranted NOTIFY microphoneGrantedChanged)
    Q_PROPERTY(bool recording READ recording NOTIFY recordingChanged)

public:
    // How long the HUD stays after a dictation, in seconds.
    static constexpr double kHideAtOnce = 0;
    static constexpr double kHideAfterCancel = 0.7;
    static constexpr double kHideAfterNotice = 1.6;
    static constexpr double kHideAfterCopy = 2.6;
    static constexpr int kPermissionPollMs = 1500;
    // What the microphone hears of the start sound reaches it this much after the sound's own
    // length at most: the sound server's output and capture latency, and the room's echo.
    static constexpr double kStartSoundEchoSeconds = 0.4;

    // Shown when the text could only be put on the clipboard.
    static inline const QString kCopiedNotice =
        QStringLiteral("Copied to clipboard. Allow input access to paste automatically.");
    // Shown when input access is there but the paste could not reach the window.
    static inline const QString kPasteFailedNotice =
        QStringLiteral("Could not paste into the window; the text is on the clipboard.");

    struct Services
    {
        std::unique_ptr<AudioEngine> audio;
        std::unique_ptr<KeyEventSource> keys;
        std::unique_ptr<DesktopServices> desktop;
        std::unique_ptr<SoundPlayer> sounds;
        std::shared_ptr<const Clock> clock; // none: the system clock
        ModelStore::Options models;
        // Makes the transcriber of a dictation; none: the model store's.
        Dictation::TranscriberFactory makeTranscriber;
        // Which session this is and what the key and the text go through, for the settings.
        QString session;
        // Whether the settings offer to read the keyboards' devices for the dictation key.
        bool offersKeyboardReading = false;
    };

    explicit AppModel(Services services, QObject *parent = nullptr);
    ~AppModel() override;

    Dictation &dictation() { return *m_dictation; }
    ModelStore &models() { return *m_models; }
    HotkeyMonitor &monitor() { return *m_monitor; }
    HUDController &hud() { return *m_hud; }

    bool inputAccessGranted() const { return m_access.granted; }
    // What is missing for input access, in one sentence; empty when granted.
    QString inputAccessExplanation() const { return m_access.explanation; }
    // Linux desktops outside sandboxes ask no permission for the microphone.
    bool microphoneGranted() const { return m_microphoneGranted; }
    bool recording() const { return m_recording; }
    std::optional<QString> lastDictation() const { return m_lastDictation; }
    // The name of the engine a dictation would use now.
    QString selectedEngineName() const;
    // Why the dictation key cannot be watched, empty while it is.
    QString keyMonitorError() const;
    // Which session this is and what the dictation key and the text go through.
    QString sessionSummary() const { return m_session; }
    bool offersKeyboardReading() const { return m_offersKeyboardReading; }
    // The desktop's description of the key it runs dictation on, where the desktop binds it.
    QString keyTrigger() const;
    // What is wrong with the key the desktop bound; empty while all is well.
    QString keyBindingWarning() const;
    // Whether the key source can take a modifier key alone as the dictation key.
    bool keySourceBindsModifierAlone() const;

    Hotkey hotkey() const { return m_hotkey; }
    // Stores the key and restarts the monitor with it, also when the key is unchanged.
    void setHotkey(const Hotkey &hotkey);

    // Re-reads input access and starts or stops the key monitor to match.
    void refreshPermissions();
    // Whether the user declined a prompt of the desktop's for the key or for typing; asking
    // again shows those prompts once more.
    bool inputAccessDeclined() const;
    void askForInputAccessAgain();
    // The key recorder captures a new key: the monitor pauses meanwhile.
    void setRecordingHotkey(bool recording);
    // Shows the HUD with simulated levels, unless a real dictation runs.
    void previewHUD();

    // What the dictation key does, also reachable from outside (the control commands).
    void keyPressed();
    void keyReleased();
    // Starts a dictation when none runs.
    void startDictation();
    // Ends the running dictation as a release of the key does, whatever the record mode.
    void stopDictation();
    // Starts a dictation, or ends the one that is preparing or listening.
    void toggleDictation();
    void cancelDictation();

    // The live-typing state of the current dictation.
    const QStringList &typed() const { return m_typed; }
    qsizetype typedCount() const { return m_typedCount; }
    std::optional<qint64> typedWindow() const { return m_typedWindow; }

signals:
    void inputAccessChanged();
    void microphoneGrantedChanged();
    void recordingChanged();
    void lastDictationChanged();
    void hotkeyChanged();
    // The session went from idle to busy or back (the tray icon follows it).
    void activeChanged(bool active);

private:
    void install();
    void onCommit(const QString &phrase);
    void onFinished(const QString &text);
    void onCancelled();
    void onPhaseChanged();
    void onSettingChanged(const QString &key);
    void useHotkey(const Hotkey &hotkey);
    void startMonitor();
    void clearTyped();
    void play(Sound sound);
    void setLastDictation(const QString &text);
    bool active() const;

    std::unique_ptr<DesktopServices> m_desktop;
    std::unique_ptr<SoundPlayer> m_sounds;
    Dictation::TranscriberFactory m_makeTranscriber;
    std::unique_ptr<Dictation> m_dictation;
    std::unique_ptr<ModelStore> m_models;
    std::unique_ptr<HotkeyMonitor> m_monitor;
    std::unique_ptr<HUDController> m_hud;

    InputAccessState m_access;
    bool m_accessChecked = false;
    bool m_microphoneGranted = true;
    std::optional<QString> m_lastDictation;
    Hotkey m_hotkey;
    QTimer m_timer;
    QStringList m_typed;
    qsizetype m_typedCount = 0;
    std::optional<qint64> m_typedWindow; // where the first live phrase was typed
    bool m_typedElsewhere = false;       // a later phrase went to another window
    bool m_recording = false;
    bool m_wasActive = false;
    QString m_session;
    bool m_offersKeyboardReading = false;
    QString m_keyState; // the key monitor's error and declined prompts, as last reported
};

} // namespace vocari
