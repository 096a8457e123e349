#pragma once

#include "hotkey/HotkeyMonitor.h"

#include <QObject>
#include <QSocketNotifier>
#include <QString>
#include <QStringList>
#include <memory>
#include <set>
#include <vector>

namespace vocari {

// The keyboards' own input devices (/dev/input/event*), read directly: the way to a held
// dictation key where no desktop service binds it, such as a modifier key alone on GNOME or
// KDE Plasma under Wayland. Reading them needs membership of the "input" group, and sees every
// key of every program, so it is used only where the user turned it on.
//
// Every key arrives as an observed event: nothing can be kept from the window in front, so a
// modifier key alone is the only kind of dictation key that works, and Escape cancels while it
// also reaches that window. A keyboard that goes away is dropped; when none is left the source
// closes, and the next open() looks for keyboards again.
class EvdevKeySource final : public QObject, public KeyEventSource
{
    Q_OBJECT
public:
    // `devices`: what to read; empty: every keyboard under /dev/input.
    explicit EvdevKeySource(QStringList devices = {}, QObject *parent = nullptr);
    ~EvdevKeySource() override;

    bool open(Sink sink) override;
    void close() override;
    bool isOpen() const override { return !m_devices.empty(); }
    // Nothing can be grabbed: every grab is refused.
    std::vector<GrabFailure> setGrabs(const std::vector<KeyGrab> &grabs) override;
    QString errorString() const override { return m_error; }
    bool seesEveryKey() const override { return true; }

    // The keyboards under /dev/input: devices with letter keys and a space bar.
    static QStringList keyboards(QString *error);

private:
    struct Device
    {
        int fd = -1;
        QString path;
        QByteArray pending; // the start of an event not yet read whole
        std::unique_ptr<QSocketNotifier> notifier;
    };

    void readFrom(Device *device);
    // Delivers one key; false when the sink closed or reopened the source meanwhile.
    bool deliver(std::uint16_t code, int value);
    // After the kernel dropped events: lets go of the keys the device no longer holds.
    void resynchronise(Device *device);
    void drop(Device *device, const QString &why);
    static void dispose(std::unique_ptr<Device> device);

    QStringList m_wanted;
    std::vector<std::unique_ptr<Device>> m_devices;
    std::set<std::uint16_t> m_heldModifiers;
    std::set<std::uint16_t> m_down; // keys pressed and not released, on any keyboard
    unsigned m_generation = 0;      // counts the closes, so a reader knows its device is gone
    Sink m_sink;
    QString m_error;
};

} // namespace vocari
