#include "app/InstanceBus.h"

#include "support/EventLoop.h"
#include "support/MissingTool.h"
#include "support/PrivateBus.h"

#include <QDBusConnection>
#include <QDBusError>
#include <QElapsedTimer>
#include <QProcess>
#include <QThread>
#include <future>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>

using namespace std::chrono_literals;

namespace vocari {
namespace {

using test::PrivateBus;

const QString notRunning = QStringLiteral("Vocari is not running.");

// Helper processes end with the test program, even when it crashes.
void endWithParent(QProcess &process)
{
    process.setChildProcessModifier([] { ::prctl(PR_SET_PDEATHSIG, SIGKILL); });
}

TEST(ControlCommandTest, CommandLineWordsMapToTheirMethods)
{
    const QStringList words{"settings", "toggle", "start", "stop", "cancel", "quit"};
    const QStringList methods{"ShowSettings", "Toggle", "Start", "Stop", "Cancel", "Quit"};
    for (qsizetype i = 0; i < words.size(); ++i) {
        const std::optional<ControlCommand> command = parseControlCommand(words[i]);
        ASSERT_TRUE(command) << words[i].toStdString();
        EXPECT_EQ(methodName(*command), methods[i]);
    }
    for (const QString word : {"", "Toggle", "toggle ", "--toggle", "ShowSettings"})
        EXPECT_EQ(parseControlCommand(word), std::nullopt) << word.toStdString();
}

// instance_holder: a Vocari running in a process of its own, as far as the bus can tell. It
// prints the outcome of its claim, then each command it handles, a line each.
struct Holder
{
    explicit Holder(const QString &address, const QStringList &options = {})
    {
        endWithParent(process);
        process.start(QStringLiteral(VOCARI_INSTANCE_HOLDER), QStringList{address} + options);
    }
    ~Holder()
    {
        process.kill();
        process.waitForFinished(5000);
    }
    QString nextLine()
    {
        while (!process.canReadLine() && process.waitForReadyRead(5000)) {
        }
        return QString::fromUtf8(process.readLine()).trimmed();
    }
    QProcess process;
};

// A private message bus for this test program, so that the tests neither see nor disturb the
// desktop's. Each connection to it stands for one process.
class InstanceBusTest : public testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        s_bus = new PrivateBus;
        s_address = s_bus->address();
    }
    static void TearDownTestSuite() { delete s_bus; }
    void SetUp() override
    {
        if (s_address.isEmpty())
            VOCARI_SKIP_FOR_MISSING(s_bus->problem().toStdString());
    }
    void TearDown() override
    {
        for (const QString &name : m_connections)
            QDBusConnection::disconnectFromBus(name);
    }

    // A new connection to the private bus, as a new process would open.
    QDBusConnection process()
    {
        m_connections << QStringLiteral("process-%1").arg(++s_count);
        QDBusConnection bus = QDBusConnection::connectToBus(s_address, m_connections.last());
        EXPECT_TRUE(bus.isConnected()) << bus.lastError().message().toStdString();
        return bus;
    }

    // Sends from another thread, as the command-line process would, while this thread runs the
    // owner's event loop as the instance's main thread does.
    static QString send(ControlCommand command, const QDBusConnection &bus)
    {
        auto sent =
            std::async(std::launch::async, [=] { return sendControlCommand(command, bus); });
        test::waitUntil([&] { return sent.wait_for(0s) == std::future_status::ready; });
        return sent.get();
    }

    // The bus hands a dead process's name back once it has seen the connection close.
    static bool nameFreed(const QDBusConnection &client)
    {
        return test::waitUntil(
            [&] { return sendControlCommand(ControlCommand::toggle, client) == notRunning; });
    }

    std::vector<ControlCommand> m_received;
    std::function<void(ControlCommand)> record = [this](ControlCommand command) {
        EXPECT_EQ(QThread::currentThread(), QCoreApplication::instance()->thread());
        m_received.push_back(command);
    };

    static inline PrivateBus *s_bus = nullptr;
    static inline QString s_address;
    static inline int s_count = 0;
    QStringList m_connections;
};

TEST_F(InstanceBusTest, SecondStartReachesTheFirstAndOwnsTheNameOnceTheFirstIsGone)
{
    auto first = std::make_unique<InstanceBus>(process());
    ASSERT_EQ(first->claim(record), InstanceBus::Claim::owned);

    const QDBusConnection secondProcess = process();
    InstanceBus second(secondProcess);
    std::vector<ControlCommand> secondReceived;
    const auto recordSecond = [&](ControlCommand command) { secondReceived.push_back(command); };
    EXPECT_EQ(second.claim(recordSecond), InstanceBus::Claim::alreadyRunning);
    EXPECT_EQ(send(ControlCommand::showSettings, secondProcess), QString());
    EXPECT_EQ(m_received, std::vector{ControlCommand::showSettings});

    // Destroying the owner gives the name back before the destructor returns.
    first.reset();
    EXPECT_EQ(second.claim(recordSecond), InstanceBus::Claim::owned);
    EXPECT_EQ(send(ControlCommand::toggle, process()), QString());
    EXPECT_EQ(secondReceived, std::vector{ControlCommand::toggle});
}

TEST_F(InstanceBusTest, EveryCommandIsHandledInOrderBeforeItIsAnswered)
{
    InstanceBus owner(process());
    ASSERT_EQ(owner.claim(record), InstanceBus::Claim::owned);
    const QDBusConnection client = process();

    const std::vector all{ControlCommand::showSettings, ControlCommand::toggle,
                          ControlCommand::start,        ControlCommand::stop,
                          ControlCommand::cancel,       ControlCommand::quit};
    for (size_t i = 0; i < all.size(); ++i) {
        ASSERT_EQ(send(all[i], client), QString()) << methodName(all[i]).toStdString();
        EXPECT_EQ(m_received.size(), i + 1) << "answered before the handler ran";
    }
    EXPECT_EQ(m_received, all);
}

TEST_F(InstanceBusTest, OfTwoProcessesStartingTogetherOneOwnsAndItsDeathFreesTheName)
{
    const QDBusConnection client = process();
    QElapsedTimer clock;
    clock.start();
    EXPECT_EQ(sendControlCommand(ControlCommand::toggle, client), notRunning);
    EXPECT_LT(clock.elapsed(), 1000);

    Holder a(s_address), b(s_address);
    const QString outcomeA = a.nextLine(), outcomeB = b.nextLine();
    ASSERT_EQ(QSet<QString>({outcomeA, outcomeB}), QSet<QString>({"owned", "alreadyRunning"}));
    Holder &owner = outcomeA == QStringLiteral("owned") ? a : b;
    EXPECT_EQ(sendControlCommand(ControlCommand::toggle, client), QString());
    EXPECT_EQ(owner.nextLine(), QStringLiteral("Toggle"));

    owner.process.kill();
    EXPECT_TRUE(nameFreed(client));
    InstanceBus next(process());
    EXPECT_EQ(next.claim(record), InstanceBus::Claim::owned);
}

TEST_F(InstanceBusTest, QuitEndsTheInstanceAndOnlyQuitMayGoUnanswered)
{
    const QDBusConnection client = process();
    {
        Holder holder(s_address);
        ASSERT_EQ(holder.nextLine(), QStringLiteral("owned"));
        EXPECT_EQ(sendControlCommand(ControlCommand::quit, client), QString());
        EXPECT_EQ(holder.nextLine(), QStringLiteral("Quit"));
        ASSERT_TRUE(holder.process.waitForFinished(5000));
        EXPECT_EQ(holder.process.exitCode(), 0);
        EXPECT_TRUE(nameFreed(client));
    }
    // An instance that ends while handling a call never answers it: fine when it was asked to
    // quit, an error for anything else.
    for (const ControlCommand command : {ControlCommand::quit, ControlCommand::toggle}) {
        Holder holder(s_address, {QStringLiteral("--exit-in-handler")});
        ASSERT_EQ(holder.nextLine(), QStringLiteral("owned"));
        EXPECT_EQ(sendControlCommand(command, client),
                  command == ControlCommand::quit
                      ? QString()
                      : QStringLiteral("Vocari ended before it answered."));
        EXPECT_TRUE(nameFreed(client));
    }
}

TEST_F(InstanceBusTest, NoBusIsReportedInOneLineWithoutWaiting)
{
    const QString address = QStringLiteral("unix:path=/nonexistent/vocari-test-bus");
    const QDBusConnection nowhere = QDBusConnection::connectToBus(address, "nowhere");
    m_connections << nowhere.name();
    QElapsedTimer clock;
    clock.start();

    InstanceBus bus(nowhere);
    EXPECT_EQ(bus.claim(record), InstanceBus::Claim::noBus);
    EXPECT_TRUE(bus.errorString().startsWith("No session bus ("))
        << bus.errorString().toStdString();

    const QString sent = sendControlCommand(ControlCommand::toggle, nowhere);
    EXPECT_TRUE(sent.startsWith("No session bus: cannot reach a running Vocari ("))
        << sent.toStdString();
    EXPECT_TRUE(sent.contains("/nonexistent/vocari-test-bus")) << sent.toStdString();
    EXPECT_FALSE(sent.contains('\n'));
    EXPECT_LT(clock.elapsed(), 1000);
}

} // namespace
} // namespace vocari
