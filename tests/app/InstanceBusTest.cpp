#include "app/InstanceBus.h"

#include "support/EventLoop.h"

#include <QDBusConnection>
#include <QDBusError>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QThread>
#include <future>
#include <gtest/gtest.h>
#include <memory>
#include <vector>

using namespace std::chrono_literals;

namespace vocari {
namespace {

const QString notRunning = QStringLiteral("Vocari is not running.");

TEST(ControlCommandTest, CommandLineWordsMapToTheirMethods)
{
    const std::vector<std::tuple<QString, ControlCommand, QString>> known{
        {"settings", ControlCommand::showSettings, "ShowSettings"},
        {"toggle", ControlCommand::toggle, "Toggle"},
        {"start", ControlCommand::start, "Start"},
        {"stop", ControlCommand::stop, "Stop"},
        {"cancel", ControlCommand::cancel, "Cancel"},
        {"quit", ControlCommand::quit, "Quit"},
    };
    for (const auto &[word, command, method] : known) {
        EXPECT_EQ(parseControlCommand(word), command) << word.toStdString();
        EXPECT_EQ(methodName(command), method);
    }
    for (const QString word : {"", "Toggle", "toggle ", "--toggle", "ShowSettings", "help"})
        EXPECT_EQ(parseControlCommand(word), std::nullopt) << word.toStdString();
}

// instance_holder: a Vocari running in another process, as far as the bus can tell.
class Holder
{
public:
    Holder(const QString &address, const QStringList &options = {})
    {
        m_process.start(QStringLiteral(VOCARI_INSTANCE_HOLDER), QStringList{address} + options);
    }

    ~Holder()
    {
        m_process.kill();
        m_process.waitForFinished(5000);
    }

    // The next line it prints: the outcome of its claim, then each command it handles.
    QString nextLine()
    {
        while (!m_process.canReadLine() && m_process.waitForReadyRead(5000)) {
        }
        return QString::fromUtf8(m_process.readLine()).trimmed();
    }

    QProcess &process() { return m_process; }

private:
    QProcess m_process;
};

// A message bus of this test program's own, so that the tests neither see nor disturb the
// desktop's session bus. Each connection to it stands for one process.
class InstanceBusTest : public testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        s_dir = std::make_unique<QTemporaryDir>();
        QFile config(s_dir->filePath(QStringLiteral("bus.conf")));
        if (!config.open(QIODevice::WriteOnly)) {
            s_problem = QStringLiteral("cannot write the bus configuration");
            return;
        }
        config.write(QStringLiteral(R"(<busconfig>
  <type>session</type>
  <listen>unix:dir=%1</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
)")
                         .arg(s_dir->path())
                         .toUtf8());
        config.close();

        s_daemon = std::make_unique<QProcess>();
        s_daemon->start(QStringLiteral("dbus-daemon"),
                        {QStringLiteral("--nofork"), QStringLiteral("--print-address=1"),
                         QStringLiteral("--config-file=") + config.fileName()});
        if (!s_daemon->waitForStarted(5000) || !s_daemon->waitForReadyRead(5000)) {
            s_problem = QStringLiteral("dbus-daemon did not start: ") + s_daemon->errorString() +
                        QString::fromLocal8Bit(s_daemon->readAllStandardError());
            return;
        }
        s_address = QString::fromUtf8(s_daemon->readLine()).trimmed();
    }

    static void TearDownTestSuite()
    {
        if (s_daemon) {
            s_daemon->kill();
            s_daemon->waitForFinished(5000);
        }
        s_daemon.reset();
        s_dir.reset();
    }

    void SetUp() override
    {
        if (s_address.isEmpty())
            GTEST_SKIP() << "no private message bus: " << s_problem.toStdString();
    }

    void TearDown() override
    {
        for (const QString &name : m_connections)
            QDBusConnection::disconnectFromBus(name);
    }

    // A new connection to the private bus, as a new process would open.
    QDBusConnection process()
    {
        static int count = 0;
        const QString name = QStringLiteral("process-%1").arg(++count);
        m_connections.push_back(name);
        QDBusConnection bus = QDBusConnection::connectToBus(s_address, name);
        EXPECT_TRUE(bus.isConnected()) << bus.lastError().message().toStdString();
        return bus;
    }

    // Sends from another thread, as the command-line process would, while this thread keeps
    // the owner's event loop running as the instance's main thread does.
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

    static inline QString s_address;

private:
    static inline std::unique_ptr<QTemporaryDir> s_dir;
    static inline std::unique_ptr<QProcess> s_daemon;
    static inline QString s_problem;
    std::vector<QString> m_connections;
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
    for (const ControlCommand command : all) {
        ASSERT_EQ(send(command, client), QString()) << methodName(command).toStdString();
        ASSERT_FALSE(m_received.empty());
        EXPECT_EQ(m_received.back(), command) << "answered before the handler ran";
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
    const QString outcomeA = a.nextLine();
    const QString outcomeB = b.nextLine();
    ASSERT_EQ(QSet<QString>({outcomeA, outcomeB}), QSet<QString>({"owned", "alreadyRunning"}));
    Holder &owner = outcomeA == QStringLiteral("owned") ? a : b;
    EXPECT_EQ(sendControlCommand(ControlCommand::toggle, client), QString());
    EXPECT_EQ(owner.nextLine(), QStringLiteral("Toggle"));

    owner.process().kill();
    ASSERT_TRUE(owner.process().waitForFinished(5000));
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
        ASSERT_TRUE(holder.process().waitForFinished(5000));
        EXPECT_EQ(holder.process().exitCode(), 0);
        EXPECT_TRUE(nameFreed(client));
    }
    // An instance that ends while handling a call never answers it: fine when it was asked to
    // quit, an error for anything else.
    for (const ControlCommand command : {ControlCommand::quit, ControlCommand::toggle}) {
        Holder holder(s_address, {QStringLiteral("--exit-in-handler")});
        ASSERT_EQ(holder.nextLine(), QStringLiteral("owned"));
        const QString expected = command == ControlCommand::quit
                                     ? QString()
                                     : QStringLiteral("Vocari ended before it answered.");
        EXPECT_EQ(sendControlCommand(command, client), expected);
        EXPECT_TRUE(nameFreed(client));
    }
}

TEST_F(InstanceBusTest, NoBusIsReportedInOneLineWithoutWaiting)
{
    const QDBusConnection nowhere = QDBusConnection::connectToBus(
        QStringLiteral("unix:path=/nonexistent/vocari-test-bus"), QStringLiteral("nowhere"));
    QElapsedTimer clock;
    clock.start();

    InstanceBus bus(nowhere);
    EXPECT_EQ(bus.claim(record), InstanceBus::Claim::noBus);
    EXPECT_TRUE(bus.errorString().startsWith(QStringLiteral("No session bus (")))
        << bus.errorString().toStdString();

    const QString sent = sendControlCommand(ControlCommand::toggle, nowhere);
    EXPECT_TRUE(sent.startsWith(QStringLiteral("No session bus: cannot reach a running Vocari (")))
        << sent.toStdString();
    EXPECT_TRUE(sent.contains(QStringLiteral("/nonexistent/vocari-test-bus")))
        << sent.toStdString();
    EXPECT_FALSE(sent.contains(QLatin1Char('\n')));
    EXPECT_LT(clock.elapsed(), 1000);
    QDBusConnection::disconnectFromBus(QStringLiteral("nowhere"));
}

} // namespace
} // namespace vocari
