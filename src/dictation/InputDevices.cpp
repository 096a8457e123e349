#include "dictation/InputDevices.h"

#include <QMediaDevices>

namespace vocari::InputDevices {

QList<Device> list()
{
    QList<Device> devices;
    const QList<QAudioDevice> inputs = QMediaDevices::audioInputs();
    devices.reserve(inputs.size());
    for (const QAudioDevice &input : inputs)
        devices.append({QString::fromUtf8(input.id()), input.description()});
    return devices;
}

QAudioDevice route(const QString &id)
{
    if (!id.isEmpty()) {
        const QByteArray wanted = id.toUtf8();
        const QList<QAudioDevice> inputs = QMediaDevices::audioInputs();
        for (const QAudioDevice &input : inputs) {
            if (input.id() == wanted)
                return input;
        }
    }
    return QMediaDevices::defaultAudioInput();
}

} // namespace vocari::InputDevices
