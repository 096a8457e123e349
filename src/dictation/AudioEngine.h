#pragma once

#include "dictation/InputDevices.h"
#include "engines/AudioBuffer.h"

#include <QList>
#include <QObject>
#include <QString>
#include <functional>
#include <stdexcept>

namespace vocari {

// Why capture could not start, in words for the user.
class CaptureError : public std::runtime_error
{
public:
    explicit CaptureError(const QString &message) : std::runtime_error(message.toStdString()) {}
    QString message() const { return QString::fromStdString(what()); }
};

// The text shown when there is no usable input at all.
inline const QString kNoInputMessage = QStringLiteral("No input: no microphone found.");

// The audio capture of the whole application: one object for the program's lifetime, started
// for each dictation and stopped at its end. Every buffer goes to a tap on the capture thread.
// All functions are called on the main thread.
class AudioEngine : public QObject
{
    Q_OBJECT
public:
    using Tap = std::function<void(const AudioBuffer &)>;

    using QObject::QObject;
    ~AudioEngine() override = default;

    // Whether the system has a default capture device right now.
    virtual bool hasDefaultInput() const = 0;
    // The capture devices, in the order the system gives them.
    virtual QList<InputDevices::Device> inputs() const = 0;
    // The format capture would use for that device id; an empty or unknown id means the
    // default input. A format without channels or rate means there is nothing to capture from.
    virtual AudioFormat inputFormat(const QString &deviceId) const = 0;
    // Starts capture on that device (falling back to the default input) and calls the tap on
    // the capture thread with each buffer, in capture order. Throws CaptureError.
    virtual void start(const QString &deviceId, Tap tap) = 0;
    // Stops capture and drops the tap. Once it returns the tap is never called again.
    virtual void stop() = 0;

signals:
    // The set of capture devices or the default device changed.
    void configurationChanged();
    // Capture stopped for good while running: the stream broke and could not be opened again
    // (the device is gone, or keeps failing). Nothing more will be captured until the next
    // start().
    void captureLost();
};

} // namespace vocari
