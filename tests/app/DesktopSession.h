#pragma once

// What the end-to-end tests share: one private desktop for the whole test program (the test
// display with a window manager, a sound server whose microphone hears what is played, and a
// session bus), and a fresh home for each start of the real vocari on it.

#include "VocariHome.h"
#include "platform/audio/ChildProcess.h"
#include "platform/audio/PulseServer.h"
#include "platform/x11/DesktopSupport.h"
#include "platform/x11/XvfbDisplay.h"
#include "support/EventLoop.h"
#include "support/PrivateBus.h"

#include <QDir>
#include <QFile>
#include <QJsonObject>
#include <QTemporaryDir>

namespace vocari::test {

using namespace std::chrono_literals;

// Put into the dictation by a replacement rule for "world", so that erasing meets combining
// marks, a skin tone and a family joined by zero-width joiners.
inline const QString kHardWords = QStringLiteral("naïve 👋🏽 👨‍👩‍👧 n\u0304");

inline const QString kSentence = QStringLiteral("Hello, world. This is Vocari.");

// What the whole test program shares: the window manager, the sound server and the bus.
struct Session
{
    std::unique_ptr<ChildProcess> windowManager;
    std::unique_ptr<PulseServer> pulse;
    QTemporaryDir busFolder;
    std::unique_ptr<ChildProcess> bus;
    QString busAddress;
    QString skipReason;

    static Session &get()
    {
        static Session session;
        return session;
    }

private:
    Session()
    {
        if (!testDisplay()) {
            skipReason = noDisplayReason();
            return;
        }
        QString error;
        windowManager =
            ChildProcess::start(QStringLiteral("openbox"),
                                {QStringLiteral("--sm-disable"), QStringLiteral("--config-file"),
                                 QStringLiteral(VOCARI_OPENBOX_CONFIG)},
                                {}, &error);
        pulse = PulseServer::start(&error);
        if (!windowManager || !pulse || !pulse->addMicrophone()) {
            skipReason = QStringLiteral("no window manager or sound server: %1").arg(error);
            return;
        }
        const QString socket = busFolder.filePath(QStringLiteral("bus"));
        busAddress = QStringLiteral("unix:path=") + socket;
        bus = ChildProcess::start(QStringLiteral("dbus-daemon"), privateBusArguments(busAddress),
                                  {}, &error);
        if (!bus || !waitUntil([&] { return QFile::exists(socket); })) {
            skipReason = QStringLiteral("no session bus: %1").arg(error);
            return;
        }
        spin(500ms); // the window manager takes over the screen
    }
};

// One user's fresh home for one start of vocari on the test display.
class VocariRun : public VocariHome
{
public:
    enum class Speech
    {
        builtIn,
        toneModel // the Parakeet test model, installed as a downloaded model and selected
    };

    VocariRun(Speech speech, const QJsonObject &settings, const QString &display = {})
        : VocariHome(withDefaults(speech, settings), sessionOn(display))
    {
        if (speech == Speech::toneModel)
            installToneModel();
    }

private:
    static QJsonObject withDefaults(Speech speech, QJsonObject settings)
    {
        return speech == Speech::toneModel ? toneModelSettings(settings)
                                           : dictationSettings(settings);
    }

    static ChildProcess::Options sessionOn(const QString &display)
    {
        Session &session = Session::get();
        ChildProcess::Options options;
        options.environment = {
            {QStringLiteral("DISPLAY"),
             display.isEmpty() ? qEnvironmentVariable("DISPLAY") : display},
            {QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("xcb")},
            {QStringLiteral("PULSE_SERVER"), session.pulse ? session.pulse->address() : QString()},
            {QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), session.busAddress},
        };
        options.unsetEnvironment = {QStringLiteral("XDG_SESSION_TYPE"),
                                    QStringLiteral("WAYLAND_DISPLAY")};
        return options;
    }
};

inline QString fixtureSpeech()
{
    return QStringLiteral(VOCARI_PARAKEET_FIXTURES "/sentence.wav");
}

// Plays a sound file into the microphone and waits until it has been played.
inline bool speak(const QString &path)
{
    std::unique_ptr<ChildProcess> player = Session::get().pulse->play(path);
    return player && player->waitForExit(30s) && player->exitCode() == 0;
}

// What another program gets when it asks the display's clipboard for the format now: a GTK
// program started for the purpose, so that nothing is remembered from an earlier look.
inline QByteArray clipboardBytes(const QString &format, const QString &display = {})
{
    ChildProcess::Options reader;
    reader.environment = {
        {QStringLiteral("DISPLAY"), display.isEmpty() ? qEnvironmentVariable("DISPLAY") : display}};
    QByteArray bytes;
    const int status = ChildProcess::run(
        QStringLiteral("/usr/bin/python3"),
        {QStringLiteral("-c"),
         QStringLiteral("import sys, gi; gi.require_version('Gtk', '3.0'); "
                        "from gi.repository import Gtk, Gdk; "
                        "data = Gtk.Clipboard.get(Gdk.SELECTION_CLIPBOARD).wait_for_contents("
                        "Gdk.Atom.intern(sys.argv[1], False)); "
                        "sys.stdout.buffer.write(data.get_data() if data else b'')"),
         format},
        reader, &bytes);
    return status == 0 ? bytes : QByteArray("(no clipboard reader)");
}

} // namespace vocari::test
