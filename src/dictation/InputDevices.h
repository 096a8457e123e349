#pragma once

#include <QAudioDevice>
#include <QList>
#include <QString>

namespace vocari {

// The system's capture devices, for the settings' device picker and for choosing where a
// dictation captures from.
namespace InputDevices {

// One capture device: its stable identifier (what the "inputDevice" setting stores) and its
// display name.
struct Device
{
    QString id;
    QString name;
    friend bool operator==(const Device &, const Device &) = default;
};

// Every capture device, in the order the system gives them.
QList<Device> list();

// The device to capture from for a stored id: that device while it exists, otherwise (an
// empty id, or a device that has gone away) the system's default input, which is a null
// device when there is none.
QAudioDevice route(const QString &id);

} // namespace InputDevices
} // namespace vocari
