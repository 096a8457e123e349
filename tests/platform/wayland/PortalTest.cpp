#include "FakePortal.h"
#include "hotkey/HotkeyMonitor.h"
#include "platform/wayland/Keysyms.h"
#include "platform/wayland/PortalKeyInjector.h"
#include "platform/wayland/PortalRequest.h"
#include "platform/wayland/PortalSession.h"
#include "platform/wayland/PortalShortcutSource.h"
#include "support/EventLoop.h"
#include "support/MissingTool.h"
#include "support/PrivateBus.h"
#include "support/ScopedSettings.h"

#include <QDBusObjectPath>
#include <gtest/gtest.h>
#include <optional>

using namespace std::chrono_literals;

namespace vocari {
namespace {

using test::FakePortal;
using test::spin;
using test::waitUntil;

const QString shortcutsInterface = QStringLiteral("org.freedesktop.portal.GlobalShortcuts");
const QString remoteInterface = QStringLiteral("org.freedesktop.portal.RemoteDesktop");
const Hotkey rightAlt{};
const Hotkey ctrlAltSpace{KeyCode::space, Modifier::control | Modifier::alt, false};
// Long enough for any message to cross the private bus and be handled.
constexpr auto settle = 100ms;

// Messages logged while a test runs, so that a test can check what the user is told.
QStringList g_log;
QtMessageHandler g_previousHandler = nullptr;

void keepMessage(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    g_log << message;
    g_previousHandler(type, context, message);
}

// A private message bus for the test program, with a fake portal per test on it and a
// connection of the program under test.
class PortalTest : public testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        s_bus = new test::PrivateBus;
        s_address = s_bus->address();
    }
    static void TearDownTestSuite() { delete s_bus; }

    void SetUp() override
    {
        if (s_address.isEmpty())
            VOCARI_SKIP_FOR_MISSING(s_bus->problem().toStdString());
        m_fake = std::make_unique<FakePortal>(s_address, FakePortal::Options{});
        ASSERT_TRUE(m_fake->isRunning());
        m_client = QStringLiteral("client-%1").arg(++s_count);
        ASSERT_TRUE(QDBusConnection::connectToBus(s_address, m_client).isConnected());
        g_log.clear();
        g_previousHandler = qInstallMessageHandler(keepMessage);
    }
    void TearDown() override
    {
        if (g_previousHandler)
            qInstallMessageHandler(g_previousHandler);
        g_previousHandler = nullptr;
        m_fake.reset();
        if (!m_client.isEmpty())
            QDBusConnection::disconnectFromBus(m_client);
    }

    QDBusConnection bus() const { return QDBusConnection(m_client); }
    FakePortal &fake() { return *m_fake; }

    // Replaces the fake portal with one that offers only some interfaces.
    void restartPortal(FakePortal::Options options)
    {
        m_fake.reset();
        m_fake = std::make_unique<FakePortal>(s_address, options);
        ASSERT_TRUE(m_fake->isRunning());
    }

    // The calls of a method once there are at least `count` of them. The fake records a call
    // after answering it, so the client may have its answer first.
    QList<FakePortal::Call> calls(const QString &method, qsizetype count = 1)
    {
        EXPECT_TRUE(waitUntil([&] { return m_fake->calls(method).size() >= count; }))
            << method.toStdString();
        return m_fake->calls(method);
    }

    static bool logged(const QString &part)
    {
        return std::any_of(g_log.begin(), g_log.end(),
                           [&](const QString &line) { return line.contains(part); });
    }

    std::unique_ptr<FakePortal> m_fake;
    QString m_client;

    static inline test::PrivateBus *s_bus = nullptr;
    static inline QString s_address;
    static inline int s_count = 0;
};

// A key source with the monitor that owns it, counting the monitor's callbacks.
struct Watched
{
    explicit Watched(const QDBusConnection &bus)
    {
        auto owned = std::make_unique<PortalShortcutSource>(bus);
        source = owned.get();
        monitor = std::make_unique<HotkeyMonitor>(std::move(owned));
        monitor->onPress = [this] { ++presses; };
        monitor->onRelease = [this] { ++releases; };
        monitor->onEscape = [this] { ++escapes; };
        monitor->escapeActive = [this] { return cancellable; };
    }
    // Whether the desktop has answered the binding.
    bool bound() const
    {
        return !source->triggerDescription().isEmpty() || !source->bindingWarning().isEmpty();
    }

    PortalShortcutSource *source = nullptr;
    std::unique_ptr<HotkeyMonitor> monitor;
    int presses = 0;
    int releases = 0;
    int escapes = 0;
    bool cancellable = false;
};

KeyEventSource::Sink ignoreKeys()
{
    return [](const KeyEvent &) { return true; };
}

TEST_F(PortalTest, RequestsFollowTheirAnswerWhereverItComesAndGiveUpOnSilence)
{
    QObject owner;
    std::optional<PortalResponse> answer;
    const auto keep = [&answer](const PortalResponse &response) { answer = response; };

    // An answer sent before the method's reply, on the path the token makes.
    PortalRequest::start(bus(), remoteInterface, QStringLiteral("CreateSession"), {},
                         {{QStringLiteral("session_handle_token"), QStringLiteral("first")}},
                         &owner, keep);
    ASSERT_TRUE(waitUntil([&] { return answer.has_value(); }));
    EXPECT_EQ(answer->status, PortalResponse::Status::success);
    const QString session = PortalSession::handleFrom(answer->results);
    EXPECT_EQ(session, QStringLiteral("/org/freedesktop/portal/desktop/session/%1/first")
                           .arg(Portal::senderPart(bus())));
    const QString token =
        calls(QStringLiteral("CreateSession")).value(0).options.value("handle_token").toString();
    EXPECT_TRUE(token.startsWith(QStringLiteral("vocari_"))) << token.toStdString();

    // An answer on a path of the portal's own, after the reply.
    answer.reset();
    fake().setMovedHandles(true);
    PortalRequest::start(bus(), remoteInterface, QStringLiteral("CreateSession"), {}, {}, &owner,
                         keep);
    ASSERT_TRUE(waitUntil([&] { return answer.has_value(); }));
    EXPECT_EQ(answer->status, PortalResponse::Status::success);

    // No answer at all.
    answer.reset();
    fake().setSilent(QStringLiteral("SelectDevices"));
    PortalRequest::start(bus(), remoteInterface, QStringLiteral("SelectDevices"),
                         {QVariant::fromValue(QDBusObjectPath(session))}, {}, &owner, keep, 150ms);
    ASSERT_TRUE(waitUntil([&] { return answer.has_value(); }));
    EXPECT_EQ(answer->status, PortalResponse::Status::unanswered);
    EXPECT_FALSE(answer->error.isEmpty());

    // An owner that goes away takes the callback with it.
    answer.reset();
    fake().setMovedHandles(false);
    auto brief = std::make_unique<QObject>();
    PortalRequest::start(bus(), remoteInterface, QStringLiteral("CreateSession"), {}, {},
                         brief.get(), keep);
    brief.reset();
    spin(settle);
    EXPECT_FALSE(answer.has_value());
}

TEST_F(PortalTest, DictationShortcutIsBoundWithTheKeyAsPreferredTrigger)
{
    PortalShortcutSource source(bus());
    QStringList triggers;
    QObject::connect(&source, &PortalShortcutSource::triggerDescriptionChanged,
                     [&source, &triggers] { triggers << source.triggerDescription(); });

    source.watchHotkey(ctrlAltSpace);
    ASSERT_TRUE(source.open(ignoreKeys()));
    EXPECT_TRUE(source.isOpen()); // while the desktop is still asked
    ASSERT_TRUE(waitUntil([&] { return !source.triggerDescription().isEmpty(); }));
    EXPECT_EQ(source.triggerDescription(), "CTRL+ALT+space");
    EXPECT_EQ(source.bindingWarning(), QString());

    // The shortcut goes with the session, under the same token in every run, and is bound
    // only because the desktop did not list it as bound.
    const FakePortal::Call create = calls(QStringLiteral("CreateSession"), 1).value(0);
    EXPECT_FALSE(create.options.value("handle_token").toString().isEmpty());
    EXPECT_EQ(create.options.value("session_handle_token").toString(), "vocari");
    ASSERT_EQ(create.shortcuts.size(), 1);
    EXPECT_EQ(create.shortcuts[0].id, "dictate_ctrl_alt_space");
    EXPECT_EQ(create.shortcuts[0].properties.value("description").toString(),
              "Dictate with Vocari");
    EXPECT_EQ(create.shortcuts[0].properties.value("preferred_trigger").toString(),
              "CTRL+ALT+space");
    const QString first = fake().sessions(shortcutsInterface).at(0);
    EXPECT_EQ(calls(QStringLiteral("ListShortcuts"), 1).value(0).session, first);
    const FakePortal::Call bind = calls(QStringLiteral("BindShortcuts"), 1).value(0);
    EXPECT_EQ(bind.session, first);
    EXPECT_EQ(bind.shortcuts[0].id, create.shortcuts[0].id);

    // The user changes the trigger in the desktop's settings: Vocari says which key now starts
    // a dictation.
    fake().emitShortcutsChanged(first, create.shortcuts[0].id, QStringLiteral("Right Ctrl"));
    ASSERT_TRUE(waitUntil([&] { return source.triggerDescription() == "Right Ctrl"; }));
    EXPECT_EQ(triggers.last(), "Right Ctrl");
    EXPECT_EQ(source.bindingWarning(),
              QStringLiteral("The desktop starts a dictation with Right Ctrl, not Ctrl+Alt+Space: "
                             "change it in the desktop's shortcut settings, or choose that key "
                             "in Vocari."));

    // The monitor restarts with the same key: close() and open() keep the session.
    source.close();
    source.watchHotkey(ctrlAltSpace);
    ASSERT_TRUE(source.open(ignoreKeys()));
    spin(settle);
    EXPECT_EQ(fake().calls(QStringLiteral("CreateSession")).size(), 1);
    EXPECT_TRUE(fake().closedSessions().isEmpty());
    EXPECT_TRUE(source.isOpen());

    // Another key is a shortcut of its own (a desktop keeps the first key of a shortcut), bound
    // anew; the old session goes.
    source.close();
    source.watchHotkey(Hotkey{66, 0, false} /* F8 */);
    ASSERT_TRUE(source.open(ignoreKeys()));
    ASSERT_TRUE(waitUntil([&] { return source.triggerDescription() == "F8"; }));
    EXPECT_EQ(calls(QStringLiteral("BindShortcuts"), 2).value(1).shortcuts[0].id, "dictate_f8");
    EXPECT_TRUE(waitUntil([&] { return fake().closedSessions() == QStringList{first}; }));

    // Back to the first key: the desktop lists it as bound already, so it is not asked to
    // bind again, which could open its settings.
    source.close();
    source.watchHotkey(ctrlAltSpace);
    ASSERT_TRUE(source.open(ignoreKeys()));
    ASSERT_TRUE(waitUntil([&] { return source.triggerDescription() == "CTRL+ALT+space"; }));
    spin(settle);
    EXPECT_EQ(fake().calls(QStringLiteral("BindShortcuts")).size(), 2);

    // Only the dictation key itself can be grabbed, and only with its own modifiers.
    const KeyGrab own{KeyCode::space, Modifier::control | Modifier::alt, false};
    const KeyGrab other{KeyCode::space, Modifier::control, false};
    EXPECT_TRUE(source.setGrabs({own}).empty());
    const std::vector<GrabFailure> failures = source.setGrabs({own, other});
    ASSERT_EQ(failures.size(), 1u);
    EXPECT_EQ(failures[0].grab, other);
    EXPECT_EQ(failures[0].reason, GrabFailure::Reason::refused);

    // Closed for good, the session goes once the event loop runs.
    const QString last = fake().sessions(shortcutsInterface).last();
    source.close();
    EXPECT_FALSE(source.isOpen());
    EXPECT_TRUE(waitUntil([&] { return fake().closedSessions().contains(last); }));
}

TEST_F(PortalTest, AFixedTokenIsFreeAgainForTheNextSession)
{
    // A session abandoned while the desktop is still creating it is closed all the same, so
    // that the token it holds is free for the next one.
    fake().setSilent(QStringLiteral("CreateSession"));
    {
        PortalShortcutSource source(bus());
        source.watchHotkey(ctrlAltSpace);
        ASSERT_TRUE(source.open(ignoreKeys()));
        calls(QStringLiteral("CreateSession"), 1);
        source.close();
        spin(settle);
    }
    const QString predicted =
        QStringLiteral("/org/freedesktop/portal/desktop/session/%1/vocari")
            .arg(QString(bus().baseService()).remove(0, 1).replace(u'.', u'_'));
    EXPECT_TRUE(waitUntil([&] { return fake().closedSessions().contains(predicted); }))
        << fake().closedSessions().join(u' ').toStdString();

    // A new key at once: the old session under the same token is closed before the new one
    // is asked for.
    restartPortal({});
    PortalShortcutSource source(bus());
    source.watchHotkey(ctrlAltSpace);
    ASSERT_TRUE(source.open(ignoreKeys()));
    ASSERT_TRUE(waitUntil([&] { return !source.triggerDescription().isEmpty(); }));
    source.close();
    source.watchHotkey(Hotkey{66, 0, false}); // F8
    ASSERT_TRUE(source.open(ignoreKeys()));
    EXPECT_TRUE(waitUntil([&] { return source.triggerDescription() == "F8"; }))
        << qPrintable(source.errorString());
}

TEST_F(PortalTest, ADesktopThatBindsAtCreationIsNeverAskedToBind)
{
    // KDE Plasma binds what CreateSession gives and opens its settings on every BindShortcuts.
    restartPortal({.bindsAtCreate = true});
    Watched watched(bus());
    ASSERT_TRUE(watched.monitor->start(ctrlAltSpace));
    ASSERT_TRUE(waitUntil([&] { return watched.bound(); }));
    watched.cancellable = true;
    for (int dictation = 0; dictation < 2; ++dictation) {
        watched.monitor->refreshEscapeGrab();
        spin(settle);
        watched.cancellable = !watched.cancellable;
    }
    ASSERT_GE(fake().sessions(shortcutsInterface).size(), 2);
    EXPECT_TRUE(fake().calls(QStringLiteral("BindShortcuts")).isEmpty());
    EXPECT_EQ(
        fake().calls(QStringLiteral("CreateSession")).last().options.value("session_handle_token"),
        "vocari_cancel");
}

TEST_F(PortalTest, WhatTheDesktopCannotBindIsSaid)
{
    // A modifier key alone is no trigger: none is proposed, and the user learns which keys
    // work.
    Watched watched(bus());
    EXPECT_FALSE(watched.source->bindsModifierAlone());
    ASSERT_TRUE(watched.monitor->start(rightAlt));
    ASSERT_TRUE(waitUntil([&] { return watched.bound(); }));
    EXPECT_FALSE(calls(QStringLiteral("CreateSession"))
                     .value(0)
                     .shortcuts.value(0)
                     .properties.contains("preferred_trigger"));
    EXPECT_EQ(watched.source->bindingWarning(),
              QStringLiteral("The desktop cannot bind Right Alt alone as a shortcut. Desktops bind "
                             "a key with a letter, digit or function key, with or without Ctrl, "
                             "Alt, Shift or Super; or bind “vocari toggle” to a key in the "
                             "desktop's keyboard settings."));

    // A desktop's own descriptions of the key match it whatever their spelling.
    const Hotkey scrollLock{70, 0, false};
    EXPECT_EQ(PortalShortcutSource::bindingWarning(ctrlAltSpace, QStringLiteral("Ctrl+Alt+Space")),
              QString());
    EXPECT_EQ(PortalShortcutSource::bindingWarning(scrollLock, QStringLiteral("ScrollLock")),
              QString());
    EXPECT_TRUE(PortalShortcutSource::bindingWarning(ctrlAltSpace, QStringLiteral("Ctrl+Space"))
                    .startsWith(QStringLiteral("The desktop starts a dictation with Ctrl+Space")));
    EXPECT_TRUE(PortalShortcutSource::bindingWarning(ctrlAltSpace, QString())
                    .startsWith(QStringLiteral("The desktop bound no key to dictation.")));
}

TEST_F(PortalTest, ActivationsDriveTheMonitorForModifierKeysAndCombinations)
{
    for (const Hotkey &hotkey : {rightAlt, ctrlAltSpace}) {
        SCOPED_TRACE(hotkey.label().toStdString());
        Watched watched(bus());
        ASSERT_TRUE(watched.monitor->start(hotkey));
        ASSERT_TRUE(waitUntil([&] { return watched.bound(); }));
        const QString session = fake().sessions(shortcutsInterface).last();
        const QString id = calls(QStringLiteral("CreateSession")).last().shortcuts.value(0).id;

        // Held down: a second activation while down, as a repeating key gives, changes nothing.
        fake().emitActivated(session, id);
        fake().emitActivated(session, id);
        ASSERT_TRUE(waitUntil([&] { return watched.presses == 1; }));
        EXPECT_TRUE(watched.monitor->isDown());
        fake().emitDeactivated(session, id);
        ASSERT_TRUE(waitUntil([&] { return watched.releases == 1; }));
        EXPECT_EQ(watched.presses, 1);
        EXPECT_FALSE(watched.monitor->isDown());

        // Tapped twice, as toggling does.
        for (int tap = 0; tap < 2; ++tap) {
            fake().emitActivated(session, id);
            fake().emitDeactivated(session, id);
        }
        ASSERT_TRUE(waitUntil([&] { return watched.releases == 3; }));
        EXPECT_EQ(watched.presses, 3);

        // Shortcuts of other sessions and other ids are not the dictation key.
        fake().emitActivated(session + QStringLiteral("_other"), id);
        fake().emitActivated(session, QStringLiteral("cancel"));
        spin(settle);
        EXPECT_EQ(watched.presses, 3);
        EXPECT_TRUE(watched.monitor->isRunning());
    }
}

TEST_F(PortalTest, EscapeIsBoundOnlyWhileItCancels)
{
    Watched watched(bus());
    ASSERT_TRUE(watched.monitor->start(rightAlt));
    ASSERT_TRUE(waitUntil([&] { return watched.bound(); }));
    EXPECT_EQ(fake().sessions(shortcutsInterface).size(), 1);

    watched.cancellable = true;
    watched.monitor->refreshEscapeGrab();
    ASSERT_TRUE(
        waitUntil([&] { return fake().calls(QStringLiteral("BindShortcuts")).size() == 2; }));
    const FakePortal::Call bind = calls(QStringLiteral("BindShortcuts"), 2).value(1);
    const QString cancelSession = fake().sessions(shortcutsInterface).at(1);
    EXPECT_EQ(bind.session, cancelSession);
    ASSERT_EQ(bind.shortcuts.size(), 1);
    EXPECT_EQ(bind.shortcuts[0].id, "cancel");
    EXPECT_EQ(bind.shortcuts[0].properties.value("preferred_trigger").toString(), "Escape");

    fake().emitActivated(cancelSession, QStringLiteral("cancel"));
    ASSERT_TRUE(waitUntil([&] { return watched.escapes == 1; }));
    EXPECT_EQ(watched.presses, 0);

    watched.cancellable = false;
    watched.monitor->refreshEscapeGrab();
    ASSERT_TRUE(waitUntil([&] { return fake().closedSessions().contains(cancelSession); }));
    EXPECT_EQ(fake().closedSessions().size(), 1); // the dictation shortcut stays
    fake().emitActivated(cancelSession, QStringLiteral("cancel"));
    spin(settle);
    EXPECT_EQ(watched.escapes, 1);
}

TEST_F(PortalTest, EscapeTheDesktopWillNotBindIsReportedAndNotAskedForAgain)
{
    fake().setBindResponse(QStringLiteral("cancel"), 1);
    Watched watched(bus());
    watched.cancellable = true;
    ASSERT_TRUE(watched.monitor->start(rightAlt));
    ASSERT_TRUE(waitUntil([&] { return logged("Escape cannot be bound"); }));
    EXPECT_FALSE(logged("Escape cannot cancel dictation here"));

    // The next dictation: the refusal is known now and reported as the grab's failure.
    watched.cancellable = false;
    watched.monitor->refreshEscapeGrab();
    watched.cancellable = true;
    const std::vector<GrabFailure> failures =
        watched.source->setGrabs(HotkeyMonitor::grabsFor(rightAlt, true));
    ASSERT_EQ(failures.size(), 1u);
    EXPECT_EQ(failures[0].grab.keyCode, KeyCode::escape);
    EXPECT_EQ(failures[0].reason, GrabFailure::Reason::refused);
    watched.monitor->refreshEscapeGrab();
    EXPECT_TRUE(logged("Escape cannot cancel dictation here; the popup's cancel and “vocari "
                       "cancel” still work."));
    spin(settle);
    EXPECT_EQ(fake().calls(QStringLiteral("BindShortcuts")).size(), 2);
    EXPECT_TRUE(watched.monitor->isRunning()); // the dictation key is unaffected
}

TEST_F(PortalTest, DesktopWithoutGlobalShortcutsIsToldPlainly)
{
    restartPortal({/*globalShortcuts=*/false, /*remoteDesktop=*/true});
    Watched watched(bus());
    const QString expected = QStringLiteral("This desktop offers programs no global shortcuts: "
                                            "bind “vocari toggle” to a key in its keyboard "
                                            "settings.");
    // The portal is asked without waiting for it; its answer stops the monitor.
    watched.monitor->start(rightAlt);
    ASSERT_TRUE(waitUntil([&] { return !watched.monitor->isRunning(); }));
    EXPECT_EQ(watched.monitor->errorString(), expected);
    EXPECT_TRUE(logged(QStringLiteral("dictation key: none from the desktop")));
    // Known from then on: a new start fails at once.
    EXPECT_FALSE(watched.monitor->start(rightAlt));
    EXPECT_EQ(watched.monitor->errorString(), expected);
    EXPECT_TRUE(fake().calls().isEmpty());
}

TEST_F(PortalTest, RefusedShortcutIsNotAskedForAgainUntilRetried)
{
    fake().setResponse(QStringLiteral("BindShortcuts"), 1);
    PortalShortcutSource source(bus());
    source.watchHotkey(ctrlAltSpace);
    int failures = 0;
    QObject::connect(&source, &PortalShortcutSource::failed, [&failures] { ++failures; });
    ASSERT_TRUE(source.open(ignoreKeys()));
    ASSERT_TRUE(waitUntil([&] { return failures == 1; }));
    EXPECT_FALSE(source.isOpen());
    const QString error = source.errorString();
    EXPECT_TRUE(error.contains("declined")) << error.toStdString();
    EXPECT_FALSE(error.contains(QLatin1Char('\n')));
    const QString refused = fake().sessions(shortcutsInterface).at(0);
    EXPECT_TRUE(waitUntil([&] { return fake().closedSessions().contains(refused); }));

    // The application tries again every 1.5 s while the key is not watched.
    for (int attempt = 0; attempt < 3; ++attempt) {
        EXPECT_FALSE(source.open(ignoreKeys()));
        EXPECT_EQ(source.errorString(), error);
    }
    spin(settle);
    EXPECT_EQ(fake().calls(QStringLiteral("CreateSession")).size(), 1);

    fake().setResponse(QStringLiteral("BindShortcuts"), 0);
    source.retry();
    ASSERT_TRUE(source.open(ignoreKeys()));
    ASSERT_TRUE(waitUntil([&] { return !source.triggerDescription().isEmpty(); }));
    EXPECT_TRUE(source.isOpen());
    EXPECT_EQ(fake().calls(QStringLiteral("CreateSession")).size(), 2);

    // The desktop ends the session on its own: closed, and said why.
    fake().closeSession(fake().sessions(shortcutsInterface).at(1));
    ASSERT_TRUE(waitUntil([&] { return failures == 2; }));
    EXPECT_FALSE(source.isOpen());
    EXPECT_FALSE(source.errorString().isEmpty());
}

TEST_F(PortalTest, KeyboardGrantIsRememberedThroughTheRestoreToken)
{
    test::ScopedSettings settings;
    {
        PortalKeyInjector injector(bus());
        EXPECT_FALSE(injector.send(typingKeysyms(QStringLiteral("early"))));
        EXPECT_FALSE(injector.ready()); // asks the desktop
        EXPECT_FALSE(injector.errorString().isEmpty());
        ASSERT_TRUE(waitUntil([&] { return injector.ready(); }));
        EXPECT_TRUE(injector.errorString().isEmpty());
    }
    const FakePortal::Call select = calls(QStringLiteral("SelectDevices"), 1).value(0);
    EXPECT_EQ(select.session, fake().sessions(remoteInterface).at(0));
    EXPECT_EQ(select.options.value("types"), QVariant(uint(1)));
    EXPECT_EQ(select.options.value("persist_mode"), QVariant(uint(2)));
    EXPECT_FALSE(select.options.contains("restore_token"));
    EXPECT_EQ(calls(QStringLiteral("Start"), 1).value(0).session, select.session);
    EXPECT_EQ(settings.store().stringValue(PortalKeyInjector::restoreTokenKey), "restore-1");
    // The injector's end closed its session.
    EXPECT_TRUE(waitUntil([&] { return fake().closedSessions().contains(select.session); }));

    // The next run offers the token and keeps the one the desktop gives back.
    PortalKeyInjector injector(bus());
    EXPECT_FALSE(injector.ready());
    ASSERT_TRUE(waitUntil([&] { return injector.ready(); }));
    EXPECT_EQ(calls(QStringLiteral("SelectDevices"), 2)
                  .value(1)
                  .options.value("restore_token")
                  .toString(),
              "restore-1");
    EXPECT_EQ(settings.store().stringValue(PortalKeyInjector::restoreTokenKey), "restore-2");

    // The desktop ends the session (the user stopped it there): not ready, and not started
    // again behind the user's back, only when asked to.
    fake().closeSession(fake().sessions(remoteInterface).at(1));
    ASSERT_TRUE(waitUntil([&] { return injector.declined(); }));
    EXPECT_FALSE(injector.send(backspaceKeysyms(1)));
    EXPECT_FALSE(injector.ready());
    spin(settle);
    EXPECT_EQ(fake().calls(QStringLiteral("CreateSession")).size(), 2);
    injector.askAgain();
    EXPECT_FALSE(injector.ready());
    ASSERT_TRUE(waitUntil([&] { return injector.ready(); }));
    EXPECT_EQ(fake().calls(QStringLiteral("CreateSession")).size(), 3);
}

TEST_F(PortalTest, KeysGoOneAtATimeInOrder)
{
    // Each key waits for the desktop's answer to the one before: a compositor that gets them
    // all at once takes them out of order and leaves keys down.
    fake().setKeyReplyDelay(3);
    test::ScopedSettings settings;
    PortalKeyInjector injector(bus());
    injector.ready();
    ASSERT_TRUE(waitUntil([&] { return injector.ready(); }));

    const std::vector<KeysymEvent> typed = typingKeysyms(QStringLiteral("Hello, wörld 👋"));
    ASSERT_EQ(typed.size(), 2u * 14u);
    EXPECT_EQ(typed[2 * 13].keysym, 0x0101f44bu);
    ASSERT_TRUE(injector.send(typed));
    const std::vector<KeysymEvent> erase = backspaceKeysyms(14);
    ASSERT_TRUE(injector.send(erase));
    // The paste shortcut goes by input code, which every layout has.
    ASSERT_TRUE(injector.send(pasteKeysyms(TextInserter::PasteKeys::ctrlV)));

    std::vector<KeysymEvent> expected = typed;
    expected.insert(expected.end(), erase.begin(), erase.end());
    for (const KeysymEvent &key : pasteKeysyms(TextInserter::PasteKeys::ctrlV))
        expected.push_back({0, key.pressed, key.keycode});
    ASSERT_TRUE(waitUntil([&] { return fake().keysyms().size() == expected.size(); }));
    EXPECT_EQ(fake().keysyms(), expected);
    EXPECT_EQ(fake().mostKeysInFlight(), 1);
}

TEST_F(PortalTest, AKeyTheDesktopRefusesStopsTheTypingWithNoKeyLeftDown)
{
    test::ScopedSettings settings;
    PortalKeyInjector injector(bus());
    ASSERT_TRUE(waitUntil([&] { return injector.ready(); }));
    // Control and V went down; the desktop refuses V's release.
    fake().refuseKeysAfter(2);
    int told = 0;
    ASSERT_TRUE(injector.send(pasteKeysyms(TextInserter::PasteKeys::ctrlV), [&] { ++told; }));
    ASSERT_TRUE(injector.send(typingKeysyms(QStringLiteral("after")), [&] { ++told; }));
    ASSERT_TRUE(waitUntil([&] { return told == 2; })) << "both senders learn of it";
    EXPECT_FALSE(injector.sending());
    // Both keys that went down were let go, the last first, by their input codes; nothing of
    // the later text was sent.
    ASSERT_TRUE(waitUntil([&] { return fake().refusedKeys().size() == 3; }));
    const std::vector<KeysymEvent> refused = fake().refusedKeys();
    EXPECT_FALSE(refused[0].pressed);
    EXPECT_EQ(refused[1], (KeysymEvent{0, false, refused[1].keycode}));
    EXPECT_EQ(refused[2], (KeysymEvent{0, false, refused[2].keycode}));
    EXPECT_NE(refused[1].keycode, refused[2].keycode);
    EXPECT_EQ(fake().keysyms().size(), 2u);
}

TEST_F(PortalTest, DeclinedKeyboardIsNotAskedForAgainUntilRetried)
{
    test::ScopedSettings settings;
    settings.store().setValue(PortalKeyInjector::restoreTokenKey, QStringLiteral("stale"));
    fake().setResponse(QStringLiteral("Start"), 1);
    PortalKeyInjector injector(bus());
    EXPECT_FALSE(injector.ready());
    ASSERT_TRUE(waitUntil([&] { return !injector.isStarting(); }));
    EXPECT_FALSE(injector.ready());
    const QString error = injector.errorString();
    EXPECT_TRUE(error.contains("declined")) << error.toStdString();
    EXPECT_FALSE(error.contains(QLatin1Char('\n')));
    // The token that did not open the keyboard is dropped.
    EXPECT_FALSE(settings.store().contains(PortalKeyInjector::restoreTokenKey));
    EXPECT_FALSE(injector.send(typingKeysyms(QStringLiteral("x"))));
    spin(settle);
    EXPECT_EQ(fake().calls(QStringLiteral("CreateSession")).size(), 1);

    // A failure other than a refusal is not tried again at once, as the application asks
    // every few seconds; asking again does.
    fake().setResponse(QStringLiteral("Start"), 2);
    EXPECT_TRUE(injector.declined());
    injector.askAgain();
    EXPECT_FALSE(injector.ready());
    ASSERT_TRUE(waitUntil([&] { return !injector.isStarting(); }));
    EXPECT_FALSE(injector.errorString().contains("declined"));
    EXPECT_FALSE(injector.ready());
    spin(settle);
    EXPECT_EQ(fake().calls(QStringLiteral("CreateSession")).size(), 2);

    fake().setResponse(QStringLiteral("Start"), 0);
    injector.askAgain();
    EXPECT_FALSE(injector.ready());
    ASSERT_TRUE(waitUntil([&] { return injector.ready(); }));
    EXPECT_EQ(fake().calls(QStringLiteral("CreateSession")).size(), 3);
    EXPECT_TRUE(fake().keysyms().empty());
}

} // namespace
} // namespace vocari
