// The whole road, as a user meets it: the real vocari program on a private X display with a
// window manager, a private sound server whose microphone hears what the test plays, and a
// private session bus. The test holds the dictation key with xdotool, plays speech, and reads
// what arrives in a test window of another process.

#include "VocariHome.h"
#include "platform/audio/ChildProcess.h"
#include "platform/audio/PulseServer.h"
#include "platform/x11/DesktopSupport.h"
#include "platform/x11/XvfbDisplay.h"
#include "support/EventLoop.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <gtest/gtest.h>

using namespace std::chrono_literals;

namespace vocari::test {
namespace {

const QString kSentence = QStringLiteral("Hello, world. This is Vocari.");

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
        bus = ChildProcess::start(QStringLiteral("dbus-daemon"),
                                  {QStringLiteral("--session"), QStringLiteral("--nofork"),
                                   QStringLiteral("--address=") + busAddress},
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
        // The feedback sounds would play into the test microphone.
        settings.insert(QStringLiteral("sounds"), false);
        settings.insert(QStringLiteral("autoCapitalize"), true);
        if (speech == Speech::toneModel)
            settings.insert(QStringLiteral("engine"), QStringLiteral("parakeetRedux"));
        return settings;
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

    void installToneModel() const
    {
        const QString target = modelsPath() + QStringLiteral("/parakeetRedux");
        QDir().mkpath(target);
        const QDir source(QStringLiteral(VOCARI_PARAKEET_FIXTURES "/split"));
        for (const QString &name : source.entryList(QDir::Files))
            QFile::copy(source.filePath(name), target + u'/' + name);
    }
};

QString fixtureSpeech()
{
    return QStringLiteral(VOCARI_PARAKEET_FIXTURES "/sentence.wav");
}

// Plays a sound file into the microphone and waits until it has been played.
bool speak(const QString &path)
{
    std::unique_ptr<ChildProcess> player = Session::get().pulse->play(path);
    return player && player->waitForExit(30s) && player->exitCode() == 0;
}

// What another program gets when it asks the display's clipboard for the format now: a GTK
// program started for the purpose, so that nothing is remembered from an earlier look.
QByteArray clipboardBytes(const QString &format, const QString &display = {})
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

class AppOnDesktop : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (!Session::get().skipReason.isEmpty())
            GTEST_SKIP() << qPrintable(Session::get().skipReason);
    }

    // Presses the key (or holds it down) and speaks, as a user does. The capture opens once
    // the engine is ready, so the user waits a moment before speaking.
    static bool pressAndSpeak(const QString &press, const QString &speech = fixtureSpeech())
    {
        if (!xdotool(press))
            return false;
        spin(1500ms);
        return speak(speech);
    }
    static bool holdAndSpeak(const QString &speech = fixtureSpeech())
    {
        return pressAndSpeak(QStringLiteral("keydown Alt_R"), speech) &&
               xdotool(QStringLiteral("keyup Alt_R"));
    }
};

TEST_F(AppOnDesktop, HeldKeyPastesExactTextAndGivesTheClipboardBack)
{
    VocariRun vocari(VocariRun::Speech::toneModel, {});
    ASSERT_TRUE(vocari.start()) << qPrintable(vocari.log());
    EXPECT_TRUE(vocari.log().contains(QStringLiteral("input access: granted")));

    const QString previous = QStringLiteral("the user's own text");
    TestWindow window;
    ASSERT_TRUE(window.start(
        {QStringLiteral("--clipboard-text"), previous, QStringLiteral("--clipboard-png")}));
    const QByteArray image = clipboardBytes(QStringLiteral("image/png"));
    ASSERT_TRUE(image.startsWith("\x89PNG")) << image.constData();
    ASSERT_EQ(clipboardBytes(QStringLiteral("UTF8_STRING")), previous.toUtf8());

    ASSERT_TRUE(holdAndSpeak());
    EXPECT_TRUE(window.waitForText(kSentence))
        << qPrintable(window.text()) << qPrintable(vocari.log());

    // The clipboard holds the user's content again, both formats byte for byte.
    EXPECT_TRUE(waitUntil(
        [&] { return clipboardBytes(QStringLiteral("UTF8_STRING")) == previous.toUtf8(); }));
    EXPECT_EQ(clipboardBytes(QStringLiteral("image/png")), image) << qPrintable(vocari.log());
}

TEST_F(AppOnDesktop, ToggleModeStartsAndStopsOnTwoPresses)
{
    VocariRun vocari(VocariRun::Speech::toneModel,
                     {{QStringLiteral("recordMode"), QStringLiteral("toggle")}});
    ASSERT_TRUE(vocari.start()) << qPrintable(vocari.log());
    TestWindow window;
    ASSERT_TRUE(window.start());

    ASSERT_TRUE(pressAndSpeak(QStringLiteral("key Alt_R")));
    ASSERT_TRUE(xdotool(QStringLiteral("key Alt_R")));
    EXPECT_TRUE(window.waitForText(kSentence))
        << qPrintable(window.text()) << qPrintable(vocari.log());
}

TEST_F(AppOnDesktop, LiveTypingWhileTheKeyIsHeldAndEscapeErasesIt)
{
    VocariRun vocari(VocariRun::Speech::toneModel, {{QStringLiteral("liveTyping"), true}});
    ASSERT_TRUE(vocari.start()) << qPrintable(vocari.log());
    TestWindow window;
    ASSERT_TRUE(window.start());

    // The held Right Alt must not turn the typed letters into shortcuts.
    ASSERT_TRUE(pressAndSpeak(QStringLiteral("keydown Alt_R")));
    EXPECT_TRUE(window.waitForText(kSentence))
        << qPrintable(window.text()) << qPrintable(vocari.log());
    ASSERT_TRUE(xdotool(QStringLiteral("keyup Alt_R")));
    spin(1s);
    EXPECT_EQ(window.text(), kSentence) << "the live text must not be pasted again";

    // Escape with the key still held erases exactly what was typed, and nothing is pasted.
    ASSERT_TRUE(window.clear());
    ASSERT_TRUE(window.send(QStringLiteral("type keep")));
    ASSERT_TRUE(pressAndSpeak(QStringLiteral("keydown Alt_R")));
    ASSERT_TRUE(window.waitForText(QStringLiteral("keep") + kSentence))
        << qPrintable(window.text());
    ASSERT_TRUE(xdotool(QStringLiteral("key Escape")));
    EXPECT_TRUE(window.waitForText(QStringLiteral("keep"))) << qPrintable(window.text());
    ASSERT_TRUE(xdotool(QStringLiteral("keyup Alt_R")));
    spin(1500ms);
    EXPECT_EQ(window.text(), QStringLiteral("keep"));
}

TEST_F(AppOnDesktop, BuiltInEngineHearsSpokenWords)
{
    QTemporaryDir folder;
    const QString speech = folder.filePath(QStringLiteral("speech.wav"));
    ASSERT_EQ(
        ChildProcess::run(QStringLiteral("espeak-ng"),
                          {QStringLiteral("-v"), QStringLiteral("en-us+m1"), QStringLiteral("-s"),
                           QStringLiteral("130"), QStringLiteral("-w"), speech,
                           QStringLiteral("Please order a large pizza with extra cheese.")},
                          {}),
        0);
    VocariRun vocari(VocariRun::Speech::builtIn, {});
    ASSERT_TRUE(vocari.start()) << qPrintable(vocari.log());
    TestWindow window;
    ASSERT_TRUE(window.start());
    ASSERT_TRUE(holdAndSpeak(speech));
    EXPECT_TRUE(waitUntil([&] { return !window.text().trimmed().isEmpty(); }, 20s))
        << qPrintable(vocari.log());
}

TEST_F(AppOnDesktop, WithoutInputAccessTheTextWaitsOnTheClipboard)
{
    // A display without XTEST: no keys can be posted, so nothing can be pasted.
    XvfbDisplay bare;
    ASSERT_TRUE(
        bare.start({QStringLiteral("-screen"), QStringLiteral("0"), QStringLiteral("1024x768x24"),
                    QStringLiteral("-extension"), QStringLiteral("XTEST")}))
        << qPrintable(bare.error());
    VocariRun vocari(VocariRun::Speech::toneModel, {}, bare.name());
    ASSERT_TRUE(vocari.start()) << qPrintable(vocari.log());
    EXPECT_TRUE(vocari.log().contains(QStringLiteral("input access: missing")));

    ASSERT_EQ(vocari.command({QStringLiteral("toggle")}), 0);
    spin(1500ms);
    ASSERT_TRUE(speak(fixtureSpeech()));
    ASSERT_EQ(vocari.command({QStringLiteral("toggle")}), 0);
    ASSERT_TRUE(vocari.waitForLog(QStringLiteral("copied to the clipboard")))
        << qPrintable(vocari.log());

    // Another program on that display finds the whole text on the clipboard.
    EXPECT_EQ(clipboardBytes(QStringLiteral("UTF8_STRING"), bare.name()), kSentence.toUtf8());
}

TEST_F(AppOnDesktop, OneInstanceAnswersTheControlCommands)
{
    VocariRun vocari(VocariRun::Speech::builtIn, {});
    QByteArray output;
    // Nothing runs yet: a command says so in one line and fails.
    EXPECT_NE(vocari.command({QStringLiteral("toggle")}, &output), 0);
    EXPECT_EQ(output.trimmed().count('\n'), 0) << output.constData();
    EXPECT_TRUE(output.contains("not running")) << output.constData();

    ASSERT_TRUE(vocari.start()) << qPrintable(vocari.log());
    // Without a tray the first start says how to reach the settings.
    EXPECT_TRUE(vocari.log().contains(QStringLiteral("vocari settings")))
        << qPrintable(vocari.log());

    // A second start opens the first one's settings and ends at once.
    EXPECT_EQ(vocari.command({}, &output), 0) << output.constData();
    EXPECT_TRUE(
        waitUntil([] { return xdotool(QStringLiteral("search --onlyvisible --name Settings")); }));
    EXPECT_TRUE(vocari.isRunning());

    EXPECT_EQ(vocari.command({QStringLiteral("start")}), 0);
    EXPECT_TRUE(vocari.waitForLog(QStringLiteral("dictation started")));
    EXPECT_EQ(vocari.command({QStringLiteral("cancel")}), 0);
    EXPECT_TRUE(vocari.waitForLog(QStringLiteral("dictation cancelled")));

    EXPECT_EQ(vocari.command({QStringLiteral("quit")}), 0);
    ASSERT_TRUE(vocari.process()->waitForExit(10s));
    EXPECT_EQ(vocari.process()->exitCode(), 0) << qPrintable(vocari.log());
}

} // namespace
} // namespace vocari::test
