// The real vocari program in a Wayland session: a headless compositor (weston) with XWayland, a
// private session bus without the desktop's portals. The program must see that it runs on
// Wayland, say exactly what is missing for the dictation key and for typing, keep running, and
// still show its popup through XWayland.

#include "VocariHome.h"
#include "platform/audio/ChildProcess.h"
#include "support/EventLoop.h"
#include "support/MissingTool.h"
#include "support/PrivateBus.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <gtest/gtest.h>
#include <sys/stat.h>

using namespace std::chrono_literals;

namespace vocari::test {
namespace {

// The compositor and the bus, shared by the whole test program.
struct WaylandSession
{
    QTemporaryDir runtime; // XDG_RUNTIME_DIR: the compositor's socket lives here
    std::unique_ptr<ChildProcess> compositor;
    std::unique_ptr<ChildProcess> bus;
    QString busAddress;
    QString xDisplay; // XWayland's, as ":N"
    QString skipReason;

    static constexpr auto kSocket = "vocari-test-wayland";

    static WaylandSession &get()
    {
        static WaylandSession session;
        return session;
    }

    QString log() const
    {
        QFile file(runtime.filePath(QStringLiteral("weston.log")));
        return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
    }

private:
    WaylandSession()
    {
        ::chmod(QFile::encodeName(runtime.path()).constData(), 0700);
        // XWayland listens in the usual folder of X sockets, which only an X server makes.
        if (QDir().mkpath(QStringLiteral("/tmp/.X11-unix")))
            ::chmod("/tmp/.X11-unix", 01777);
        QString error;
        ChildProcess::Options options;
        options.environment = {{QStringLiteral("XDG_RUNTIME_DIR"), runtime.path()}};
        options.unsetEnvironment = {QStringLiteral("WAYLAND_DISPLAY"), QStringLiteral("DISPLAY")};
        compositor = ChildProcess::start(
            QStringLiteral("weston"),
            {QStringLiteral("--backend=headless-backend.so"),
             QStringLiteral("--socket=") + QLatin1String(kSocket), QStringLiteral("--xwayland"),
             QStringLiteral("--idle-time=0"),
             QStringLiteral("--log=") + runtime.filePath(QStringLiteral("weston.log"))},
            options, &error);
        const QRegularExpression listening(QStringLiteral("xserver listening on display (:\\d+)"));
        QRegularExpressionMatch match;
        if (!compositor || !waitUntil([&] {
                match = listening.match(log());
                return match.hasMatch() && QFile::exists(runtime.filePath(QLatin1String(kSocket)));
            })) {
            skipReason = QStringLiteral("weston with XWayland did not start: %1 %2")
                             .arg(error, log().right(400));
            return;
        }
        xDisplay = match.captured(1);

        const QString socket = runtime.filePath(QStringLiteral("bus"));
        busAddress = QStringLiteral("unix:path=") + socket;
        bus = ChildProcess::start(QStringLiteral("dbus-daemon"), privateBusArguments(busAddress),
                                  {}, &error);
        if (!bus || !waitUntil([&] { return QFile::exists(socket); }))
            skipReason = QStringLiteral("no session bus: %1").arg(error);
    }
};

// One user's fresh home for one start of vocari in the session. Without a sound server a
// dictation ends at once with a notice, which the popup shows.
VocariHome vocariOnWayland()
{
    const WaylandSession &session = WaylandSession::get();
    ChildProcess::Options options;
    options.environment = {
        {QStringLiteral("XDG_SESSION_TYPE"), QStringLiteral("wayland")},
        {QStringLiteral("XDG_RUNTIME_DIR"), session.runtime.path()},
        {QStringLiteral("WAYLAND_DISPLAY"), QLatin1String(WaylandSession::kSocket)},
        {QStringLiteral("DISPLAY"), session.xDisplay},
        {QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), session.busAddress},
        {QStringLiteral("PULSE_SERVER"), QStringLiteral("unix:/nonexistent")},
    };
    options.unsetEnvironment = {QStringLiteral("QT_QPA_PLATFORM")};
    return VocariHome(QJsonObject{{QStringLiteral("sounds"), false}}, options);
}

// Whether XWayland shows a window of that exact name.
bool visibleOnXWayland(const QString &name)
{
    ChildProcess::Options options;
    options.environment = {{QStringLiteral("DISPLAY"), WaylandSession::get().xDisplay}};
    QByteArray found;
    return ChildProcess::run(QStringLiteral("xdotool"),
                             {QStringLiteral("search"), QStringLiteral("--onlyvisible"),
                              QStringLiteral("--name"), u'^' + name + u'$'},
                             options, &found) == 0 &&
           !found.trimmed().isEmpty();
}

class AppOnWayland : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (!WaylandSession::get().skipReason.isEmpty())
            VOCARI_SKIP_FOR_MISSING(WaylandSession::get().skipReason.toStdString());
    }
};

TEST_F(AppOnWayland, SaysWhatIsMissingAndShowsItsPopupThroughXWayland)
{
    VocariHome vocari = vocariOnWayland();
    ASSERT_TRUE(vocari.start()) << qPrintable(vocari.log());
    const QString log = vocari.log();
    EXPECT_TRUE(log.contains(QStringLiteral("session: Wayland (XDG_SESSION_TYPE is wayland)")))
        << qPrintable(log);
    // Neither portal nor a virtual keyboard: the user is told what to do instead.
    EXPECT_TRUE(log.contains(QStringLiteral("This desktop offers programs no global shortcuts: "
                                            "bind \u201Cvocari toggle\u201D to a key in its "
                                            "keyboard settings.")))
        << qPrintable(log);
    EXPECT_TRUE(log.contains(QStringLiteral("input access: missing"))) << qPrintable(log);
    EXPECT_TRUE(log.contains(QStringLiteral("windows: XWayland"))) << qPrintable(log);

    // A dictation from the control command: without a microphone it ends with a notice, which
    // the popup shows on the XWayland display.
    ASSERT_EQ(vocari.command({QStringLiteral("start")}), 0);
    EXPECT_TRUE(waitUntil([] { return visibleOnXWayland(QStringLiteral("Vocari")); }, 5s))
        << qPrintable(vocari.log());
    spin(2500ms);
    EXPECT_TRUE(vocari.isRunning()) << qPrintable(vocari.log());
    EXPECT_EQ(vocari.command({QStringLiteral("quit")}), 0);
}

} // namespace
} // namespace vocari::test
