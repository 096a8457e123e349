#pragma once

#include "hotkey/Hotkey.h"

#include <QWidget>
#include <cstdint>
#include <optional>
#include <set>

class QHBoxLayout;
class QKeyEvent;
class QLabel;
class QPushButton;

namespace vocari {

// The settings control that chooses the dictation key by pressing it: a key box that shows the
// key's label. Clicking it (or Space or Enter on it) starts recording; the next acceptable key
// becomes the new key: a modifier pressed and released on its own, a key with modifiers, or a
// function key. A key without modifiers leaves a hint and recording goes on; Escape, a second
// click or hiding the control cancels.
//
// While it records, every key event addressed to the application's own windows comes here
// first (an application-wide event filter) and the ones it decides about never reach the
// window. Keys are told apart by their physical position, the Linux key code (a Qt key event's
// native scan code minus 8), so a key means the same in every keyboard layout. The owner hears
// when recording starts and ends through recordingChanged(), and pauses the global key monitor
// meanwhile, which would otherwise take the current dictation key away before it arrives here.
class HotkeyRecorder : public QWidget
{
    Q_OBJECT
public:
    static inline const QString kRecordingText = QStringLiteral("Press a key…");
    static inline const QString kHint =
        QStringLiteral("Add Ctrl, Alt, Shift or Super — or use a function key.");

    explicit HotkeyRecorder(QWidget *parent = nullptr);
    ~HotkeyRecorder() override;

    // Places a widget beside the key box, above the hint (such as a menu of ready-made keys).
    void addAccessory(QWidget *widget);

    Hotkey hotkey() const { return m_hotkey; }
    // Shows this key; it is not announced as recorded.
    void setHotkey(const Hotkey &hotkey);

    bool isRecording() const { return m_recording; }
    // The advice shown under the key box, empty when there is none.
    QString hint() const { return m_hintText; }
    // The key box: the control the user clicks and that carries the keyboard focus.
    QPushButton *keyBox() const { return m_button; }

    void startRecording();
    // Ends recording without changing the key.
    void stopRecording();

    // The Linux key code of a Qt key event, or none when the event carries no native code.
    static std::optional<std::uint16_t> linuxKeyCode(const QKeyEvent &event);

signals:
    // A new key was accepted; it is already shown.
    void hotkeyRecorded(const vocari::Hotkey &hotkey);
    void recordingChanged(bool recording);

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;
    void hideEvent(QHideEvent *event) override;

private:
    // Decides about one key event while recording; true when it is consumed.
    bool handle(QKeyEvent &event);
    bool handleModifier(QKeyEvent &event, std::uint16_t code, std::uint64_t flag);
    bool handleKeyPress(QKeyEvent &event, std::uint16_t code);
    // The modifier bits held now: the modifier keys seen going down while recording, and what
    // the event says was held before.
    std::uint64_t heldModifiers(const QKeyEvent &event) const;
    void accept(const Hotkey &hotkey);
    void setHint(const QString &hint);
    void refresh();

    QHBoxLayout *m_keyRow = nullptr;
    QPushButton *m_button = nullptr;
    QLabel *m_hint = nullptr;
    Hotkey m_hotkey;
    bool m_recording = false;
    // A modifier that went down alone: it becomes the key if it is released before anything
    // else is pressed.
    std::optional<std::uint16_t> m_pendingModifier;
    std::set<std::uint16_t> m_heldModifierKeys;
    QString m_hintText;
};

} // namespace vocari
