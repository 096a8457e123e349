// The real vocari program on real Wayland desktops, started headless from Debian's packages:
// KDE Plasma's compositor with its portals, sway, and GNOME Shell with its portals. The test
// speaks into a private sound server's microphone and reads what arrives in a Wayland-native
// GTK 3 or Qt field of another process.

#include "WaylandDesktops.h"

#include "VocariHome.h"
#include "platform/audio/PulseServer.h"
#include "platform/wayland/PortalKeyInjector.h"
#include "platform/x11/DesktopSupport.h"
#include "settings/SettingsStore.h"
#include "support/EventLoop.h"
#include "support/MissingTool.h"

#include <QJsonObject>
#include <QTemporaryDir>
#include <gtest/gtest.h>

using namespace std::chrono_literals;

namespace vocari::test {
namespace {

const QString kSentence = QStringLiteral("Hello, world. This is Vocari.");
// Characters no US layout has a key for, put into the dictation by a replacement rule.
const QString kBeyondTheLayout = QStringLiteral("café 👋");

QString sentenceWith(const QString &forWorld)
{
    return QString(kSentence).replace(QStringLiteral("world"), forWorld);
}

// The sound server whose microphone hears what the test plays, for the whole test program.
PulseServer *pulse()
{
    static QString error;
    static std::unique_ptr<PulseServer> server = [] {
        std::unique_ptr<PulseServer> started = PulseServer::start(&error);
        if (started && !started->addMicrophone())
            started.reset();
        return started;
    }();
    return server.get();
}

bool speak()
{
    std::unique_ptr<ChildProcess> player =
        pulse()->play(QStringLiteral(VOCARI_PARAKEET_FIXTURES "/sentence.wav"));
    return player && player->waitForExit(30s) && player->exitCode() == 0;
}

// vocari as a user of the desktop starts it, with the Parakeet test model.
std::unique_ptr<VocariHome> vocariOn(const WaylandDesktop &desktop, const QJsonObject &settings)
{
    ChildProcess::Options options;
    const QMap<QString, QString> session = desktop.sessionEnvironment();
    for (auto variable = session.begin(); variable != session.end(); ++variable) {
        if (variable.value().isEmpty())
            options.unsetEnvironment << variable.key();
        else
            options.environment.insert(variable.key(), variable.value());
    }
    options.environment.insert(QStringLiteral("PULSE_SERVER"), pulse()->address());
    options.unsetEnvironment << QStringLiteral("QT_QPA_PLATFORM");
    auto vocari = std::make_unique<VocariHome>(VocariHome::toneModelSettings(settings), options);
    vocari->installToneModel();
    return vocari;
}

// A Wayland-native field of the chosen toolkit on the desktop, with the keyboard focus.
bool startField(TestWindow &field, const WaylandDesktop &desktop, bool gtk)
{
    QMap<QString, QString> environment = desktop.sessionEnvironment();
    environment.insert(QStringLiteral("GDK_BACKEND"), QStringLiteral("wayland"));
    environment.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("wayland"));
    for (auto variable = environment.begin(); variable != environment.end(); ++variable)
        if (variable.value().isEmpty())
            variable.value() = QString(); // unset
    field.setEnvironment(environment);
    return gtk ? field.startGtk() : field.start();
}

// The clipboard as another program of the session reads it: its text, or none when empty.
std::optional<QByteArray> clipboardText(const WaylandDesktop &desktop)
{
    ChildProcess::Options options;
    options.environment = desktop.sessionEnvironment();
    options.environment.remove(QStringLiteral("DISPLAY"));
    QByteArray types;
    // KWin leaves wl-paste waiting on an empty clipboard, so it is given a short time.
    if (ChildProcess::run(QStringLiteral("wl-paste"), {QStringLiteral("--list-types")}, options,
                          &types, 2s) != 0 ||
        types.trimmed().isEmpty())
        return std::nullopt;
    QByteArray text;
    if (ChildProcess::run(QStringLiteral("wl-paste"),
                          {QStringLiteral("--no-newline"), QStringLiteral("--type"),
                           QStringLiteral("text/plain;charset=utf-8")},
                          options, &text, 2s) != 0)
        return std::nullopt;
    return text;
}

// Puts the user's own text on the clipboard, or empties it.
bool setClipboard(const WaylandDesktop &desktop, const std::optional<QString> &text)
{
    ChildProcess::Options options;
    options.environment = desktop.sessionEnvironment();
    options.environment.remove(QStringLiteral("DISPLAY"));
    if (!text)
        return ChildProcess::run(QStringLiteral("wl-copy"), {QStringLiteral("--clear")}, options) ==
               0;
    // wl-copy leaves a process of its own serving the text until another owner takes over.
    return ChildProcess::run(QStringLiteral("sh"),
                             {QStringLiteral("-c"),
                              QStringLiteral("printf %s \"$1\" | wl-copy --type "
                                             "'text/plain;charset=utf-8' >/dev/null 2>&1"),
                              QStringLiteral("sh"), *text},
                             options) == 0;
}

// The user's hand on the keyboard: keys pressed through a remote-desktop session of the
// test's own, which the desktop takes as real key presses.
class UserKeyboard
{
public:
    explicit UserKeyboard(const QDBusConnection &bus)
        : m_settings(m_folder.filePath(QStringLiteral("settings.json"))), m_keys(bus, &m_settings)
    {
    }
    bool ready()
    {
        return waitUntil([this] { return m_keys.ready(); }, 20s);
    }
    bool key(std::uint32_t code, bool pressed)
    {
        const bool sent = m_keys.send({{0, pressed, code}});
        spin(50ms);
        return sent;
    }

private:
    QTemporaryDir m_folder;
    SettingsStore m_settings;
    PortalKeyInjector m_keys;
};

constexpr std::uint32_t f8 = 66; // Linux input code

QJsonObject f8Hotkey()
{
    return QJsonObject{{QStringLiteral("keyCode"), int(f8)},
                       {QStringLiteral("modifiers"), 0},
                       {QStringLiteral("modifierOnly"), false}};
}

template <typename Desktop> class OnDesktop : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (!pulse())
            VOCARI_SKIP_FOR_MISSING(std::string("no sound server"));
        if (!Desktop::get().skipReason.isEmpty())
            VOCARI_SKIP_FOR_MISSING(Desktop::get().skipReason.toStdString());
    }
};

using OnKwin = OnDesktop<KwinDesktop>;

TEST_F(OnKwin, HeldKeyDictatesInTwoRunsWithNoDesktopWindowAndTheClipboardBack)
{
    KwinDesktop &desktop = KwinDesktop::get();
    UserKeyboard keyboard(desktop.bus());
    ASSERT_TRUE(keyboard.ready());
    TestWindow field;
    ASSERT_TRUE(startField(field, desktop, true));

    // First run: hold to talk, pasted at the release; the user's clipboard comes back.
    const QString previous = QStringLiteral("the user's own text");
    ASSERT_TRUE(setClipboard(desktop, previous));
    auto vocari = vocariOn(desktop, {{QStringLiteral("hotkey.v2"), f8Hotkey()}});
    ASSERT_TRUE(vocari->start()) << qPrintable(vocari->log());
    ASSERT_TRUE(vocari->waitForLog(QStringLiteral("the desktop binds dictation to F8")))
        << qPrintable(vocari->log());
    ASSERT_TRUE(keyboard.key(f8, true));
    spin(1500ms); // autorepeat starts while the key is held
    ASSERT_TRUE(speak());
    ASSERT_TRUE(keyboard.key(f8, false));
    EXPECT_TRUE(field.waitForText(kSentence))
        << qPrintable(field.text()) << qPrintable(vocari->log());
    EXPECT_TRUE(waitUntil([&] { return clipboardText(desktop) == previous.toUtf8(); }))
        << qPrintable(vocari->log());
    vocari->stop();

    // Second run, in a fresh start: toggle mode and live typing, with characters the layout
    // lacks, from an empty clipboard. A held key repeats its activation without ending it.
    ASSERT_TRUE(setClipboard(desktop, std::nullopt));
    vocari = vocariOn(
        desktop, {{QStringLiteral("hotkey.v2"), f8Hotkey()},
                  {QStringLiteral("recordMode"), QStringLiteral("toggle")},
                  {QStringLiteral("liveTyping"), true},
                  {QStringLiteral("replacements"), QStringLiteral("world = ") + kBeyondTheLayout}});
    ASSERT_TRUE(vocari->start()) << qPrintable(vocari->log());
    ASSERT_TRUE(vocari->waitForLog(QStringLiteral("the desktop binds dictation to F8")))
        << qPrintable(vocari->log());
    // Twice in the run: Escape's shortcut session, made anew under its fixed token for each
    // dictation, must not find the last one in its way.
    for (int dictation = 0; dictation < 2; ++dictation) {
        ASSERT_TRUE(field.clear());
        ASSERT_TRUE(keyboard.key(f8, true));
        spin(1500ms);
        ASSERT_TRUE(keyboard.key(f8, false));
        ASSERT_TRUE(speak());
        ASSERT_TRUE(keyboard.key(f8, true));
        ASSERT_TRUE(keyboard.key(f8, false));
        EXPECT_TRUE(field.waitForText(sentenceWith(kBeyondTheLayout)))
            << qPrintable(field.text()) << qPrintable(vocari->log());
        spin(4s); // past the longest wait for the paste's fetch
        EXPECT_EQ(clipboardText(desktop), std::nullopt) << qPrintable(vocari->log());
    }
    EXPECT_FALSE(vocari->log().contains(QStringLiteral("Escape cannot be bound")))
        << qPrintable(vocari->log());

    // The desktop was never asked to open its settings, or anything else.
    EXPECT_EQ(desktop.openedAddresses(), QString());
    EXPECT_FALSE(
        desktop.log(QStringLiteral("portal-kde")).contains(QStringLiteral("Wrong global")));
}

using OnSway = OnDesktop<SwayDesktop>;

class OnSwayInto : public OnSway, public ::testing::WithParamInterface<const char *>
{
};

TEST_P(OnSwayInto, PasteAndLiveTypingArriveWhole)
{
    SwayDesktop &desktop = SwayDesktop::get();
    TestWindow field;
    ASSERT_TRUE(startField(field, desktop, std::string(GetParam()) == "gtk"));
    for (const bool live : {false, true}) {
        SCOPED_TRACE(live ? "live typing" : "paste");
        ASSERT_TRUE(field.clear());
        auto vocari = vocariOn(desktop, {{QStringLiteral("liveTyping"), live},
                                         {QStringLiteral("replacements"),
                                          QStringLiteral("world = ") + kBeyondTheLayout}});
        ASSERT_TRUE(vocari->start()) << qPrintable(vocari->log());
        QByteArray said;
        ASSERT_EQ(vocari->command({QStringLiteral("start")}, &said), 0)
            << said.constData() << qPrintable(vocari->log());
        spin(1500ms);
        ASSERT_TRUE(speak());
        ASSERT_EQ(vocari->command({QStringLiteral("stop")}, &said), 0)
            << said.constData() << qPrintable(vocari->log());
        EXPECT_TRUE(field.waitForText(sentenceWith(kBeyondTheLayout)))
            << qPrintable(field.text()) << qPrintable(vocari->log());
        vocari->stop();
    }
}

INSTANTIATE_TEST_SUITE_P(Fields, OnSwayInto, ::testing::Values("gtk", "qt"));

using OnGnome = OnDesktop<GnomeDesktop>;

TEST_F(OnGnome, ToggledDictationsArriveExactlyOnceTheUserAllowsTyping)
{
    GnomeDesktop &desktop = GnomeDesktop::get();
    TestWindow field;
    ASSERT_TRUE(startField(field, desktop, true));
    auto vocari = vocariOn(desktop, {});
    ASSERT_TRUE(vocari->start()) << qPrintable(vocari->log());

    // GNOME asks at every start, and binds no key: the user is told both.
    ASSERT_TRUE(desktop.approveRemoteDesktop(20s)) << qPrintable(vocari->log());
    ASSERT_TRUE(vocari->waitForLog(QStringLiteral("the desktop granted keyboard access")))
        << qPrintable(vocari->log());
    EXPECT_TRUE(vocari->log().contains(
        QStringLiteral("it asks for keyboard access at every start of Vocari")));
    EXPECT_TRUE(vocari->waitForLog(QStringLiteral("bind \u201Cvocari toggle\u201D")))
        << qPrintable(vocari->log());

    // Every key in order and let go: the exact text, twice, with no letter doubled or stuck.
    for (int dictation = 0; dictation < 2; ++dictation) {
        ASSERT_TRUE(field.clear());
        ASSERT_EQ(vocari->command({QStringLiteral("toggle")}), 0);
        spin(1500ms);
        ASSERT_TRUE(speak());
        ASSERT_EQ(vocari->command({QStringLiteral("toggle")}), 0);
        EXPECT_TRUE(field.waitForText(kSentence))
            << qPrintable(field.text()) << qPrintable(vocari->log());
        spin(1s);
        EXPECT_EQ(field.text(), kSentence) << "a key left down repeats";
    }
}

} // namespace
} // namespace vocari::test
