#include "FakePortal.h"

#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusVariant>
#include <QDBusVirtualObject>
#include <QMutex>
#include <QSet>
#include <QTimer>
#include <atomic>
#include <map>

namespace vocari::test {

namespace {

const QString desktopPath = QStringLiteral("/org/freedesktop/portal/desktop");
const QString shortcutsInterface = QStringLiteral("org.freedesktop.portal.GlobalShortcuts");
const QString remoteInterface = QStringLiteral("org.freedesktop.portal.RemoteDesktop");
const QString requestInterface = QStringLiteral("org.freedesktop.portal.Request");
const QString sessionInterface = QStringLiteral("org.freedesktop.portal.Session");
const QString propertiesInterface = QStringLiteral("org.freedesktop.DBus.Properties");

QString senderPart(QString sender)
{
    return sender.remove(0, 1).replace(QLatin1Char('.'), QLatin1Char('_'));
}

} // namespace

// The object behind every path of the portal. Its state is shared with the test's thread and
// guarded by a lock; messages go out through the connection, which any thread may use.
class FakePortalObject : public QDBusVirtualObject
{
public:
    FakePortalObject(const QString &connectionName, FakePortal::Options options)
        : m_connectionName(connectionName), m_options(options)
    {
    }

    QString introspect(const QString &) const override { return {}; }
    bool handleMessage(const QDBusMessage &message, const QDBusConnection &connection) override;

    mutable QMutex lock;
    QList<FakePortal::Call> calls;
    std::vector<std::pair<QString, QString>> sessions; // path, interface
    QStringList closedSessions;                        // every Close, in order
    QSet<QString> openSessions;
    std::vector<KeysymEvent> keysyms;
    std::map<QString, uint> responses;
    std::map<QString, uint> bindResponses;
    // What each session token has bound, kept across sessions as a desktop keeps it.
    std::map<QString, QList<PortalShortcut>> boundByToken;
    std::map<QString, QString> tokenOfSession;
    QStringList silent;
    int keyReplyDelayMs = 0;
    int keysInFlight = 0;
    int mostKeysInFlight = 0;
    int keyFailuresAfter = -1; // keys refused from this many on; -1: none
    std::vector<KeysymEvent> refusedKeys;
    bool movedHandles = false;

private:
    bool handleProperty(const QDBusMessage &message, const QDBusConnection &connection);
    bool handleRequest(const QDBusMessage &message, const QDBusConnection &connection);
    // The outcome of a request: response code and results. Called with the lock held.
    std::pair<uint, QVariantMap> outcome(const FakePortal::Call &call, const QString &sender);

    QString m_connectionName;
    FakePortal::Options m_options;
    int m_tokens = 0;
};

bool FakePortalObject::handleMessage(const QDBusMessage &message, const QDBusConnection &connection)
{
    const QString interface = message.interface();
    if (interface == propertiesInterface)
        return handleProperty(message, connection);

    if (interface == sessionInterface && message.member() == QLatin1String("Close")) {
        QMutexLocker locker(&lock);
        closedSessions << message.path();
        openSessions.remove(message.path());
        connection.send(message.createReply());
        return true;
    }
    if (interface == requestInterface && message.member() == QLatin1String("Close")) {
        connection.send(message.createReply());
        return true;
    }
    if (message.path() != desktopPath)
        return false;
    if ((interface == shortcutsInterface && !m_options.globalShortcuts) ||
        (interface == remoteInterface && !m_options.remoteDesktop))
        return false;

    // A client that marshals an argument with the wrong type gets the error a real portal gives.
    static const QMap<QString, QString> signatures{
        {QStringLiteral("CreateSession"), QStringLiteral("a{sv}")},
        {QStringLiteral("BindShortcuts"), QStringLiteral("oa(sa{sv})sa{sv}")},
        {QStringLiteral("ListShortcuts"), QStringLiteral("oa{sv}")},
        {QStringLiteral("SelectDevices"), QStringLiteral("oa{sv}")},
        {QStringLiteral("Start"), QStringLiteral("osa{sv}")},
        {QStringLiteral("NotifyKeyboardKeysym"), QStringLiteral("oa{sv}iu")},
        {QStringLiteral("NotifyKeyboardKeycode"), QStringLiteral("oa{sv}iu")}};
    const auto expected = signatures.constFind(message.member());
    if (expected != signatures.constEnd() && *expected != message.signature()) {
        connection.send(
            message.createErrorReply(QStringLiteral("org.freedesktop.DBus.Error.InvalidArgs"),
                                     QStringLiteral("%1 takes (%2), not (%3)")
                                         .arg(message.member(), *expected, message.signature())));
        return true;
    }

    const bool byCode = message.member() == QLatin1String("NotifyKeyboardKeycode");
    if (interface == remoteInterface &&
        (byCode || message.member() == QLatin1String("NotifyKeyboardKeysym"))) {
        const QVariantList args = message.arguments();
        const auto value = std::uint32_t(args.value(2).toInt());
        QMutexLocker locker(&lock);
        if (keyFailuresAfter >= 0 && int(keysyms.size()) >= keyFailuresAfter) {
            refusedKeys.push_back(
                {byCode ? 0 : value, args.value(3).toUInt() == 1, byCode ? value : 0});
            connection.send(
                message.createErrorReply(QStringLiteral("org.freedesktop.DBus.Error.Failed"),
                                         QStringLiteral("The session is not ready")));
            return true;
        }
        keysyms.push_back({byCode ? 0 : value, args.value(3).toUInt() == 1, byCode ? value : 0});
        // Answered a little later, as a desktop that takes each key in turn does; a client
        // that does not wait has several keys on their way at once.
        ++keysInFlight;
        mostKeysInFlight = std::max(mostKeysInFlight, keysInFlight);
        const QDBusMessage reply = message.createReply();
        const QString name = m_connectionName;
        QTimer::singleShot(keyReplyDelayMs, this, [this, name, reply] {
            {
                QMutexLocker later(&lock);
                --keysInFlight;
            }
            QDBusConnection(name).send(reply);
        });
        return true;
    }
    if (interface == shortcutsInterface || interface == remoteInterface)
        return handleRequest(message, connection);
    return false;
}

bool FakePortalObject::handleProperty(const QDBusMessage &message,
                                      const QDBusConnection &connection)
{
    const QString target = message.arguments().value(0).toString();
    const QString name = message.arguments().value(1).toString();
    const bool present = (target == shortcutsInterface && m_options.globalShortcuts) ||
                         (target == remoteInterface && m_options.remoteDesktop);
    if (message.member() != QLatin1String("Get") || !present || name != QLatin1String("version")) {
        connection.send(message.createErrorReply(
            QStringLiteral("org.freedesktop.DBus.Error.InvalidArgs"),
            QStringLiteral("No such interface or property: %1 %2").arg(target, name)));
        return true;
    }
    connection.send(message.createReply(QVariant::fromValue(QDBusVariant(uint(2)))));
    return true;
}

bool FakePortalObject::handleRequest(const QDBusMessage &message, const QDBusConnection &connection)
{
    const QVariantList args = message.arguments();
    if (args.isEmpty())
        return false;
    FakePortal::Call call{message.interface(), message.member(), message.path(), {}, {}, {}};
    call.options = qdbus_cast<QVariantMap>(args.last());
    if (args.first().metaType() == QMetaType::fromType<QDBusObjectPath>())
        call.session = args.first().value<QDBusObjectPath>().path();
    if (call.method == QLatin1String("BindShortcuts"))
        call.shortcuts = qdbus_cast<QList<PortalShortcut>>(args.value(1));
    else if (call.method == QLatin1String("CreateSession") &&
             call.options.contains(QStringLiteral("shortcuts")))
        call.shortcuts =
            qdbus_cast<QList<PortalShortcut>>(call.options.value(QStringLiteral("shortcuts")));

    const QString sender = senderPart(message.service());
    QString request = QStringLiteral("%1/request/%2/%3")
                          .arg(desktopPath, sender,
                               call.options.value(QStringLiteral("handle_token")).toString());
    bool quiet = false;
    bool moved = false;
    std::pair<uint, QVariantMap> answer;
    {
        QMutexLocker locker(&lock);
        quiet = silent.contains(call.method);
        moved = movedHandles;
        if (moved)
            request += QStringLiteral("_moved");
        answer = outcome(call, sender);
    }
    const QDBusMessage reply = message.createReply(QVariant::fromValue(QDBusObjectPath(request)));
    QDBusMessage response =
        QDBusMessage::createSignal(request, requestInterface, QStringLiteral("Response"));
    response.setArguments({answer.first, answer.second});
    if (quiet) {
        connection.send(reply);
    } else if (moved) {
        // A portal that makes up its own path answers late enough for the client to follow.
        connection.send(reply);
        const QString name = m_connectionName;
        QTimer::singleShot(200, this, [name, response] { QDBusConnection(name).send(response); });
    } else {
        // The outcome before the reply: the hardest order for a client, which has to be
        // listening on the request path before it even knows it for sure.
        connection.send(response);
        connection.send(reply);
    }
    // Recorded once the answer is out, so that a signal the test emits after seeing the call
    // reaches the client after the answer.
    QMutexLocker locker(&lock);
    calls << call;
    return true;
}

std::pair<uint, QVariantMap> FakePortalObject::outcome(const FakePortal::Call &call,
                                                       const QString &sender)
{
    uint code = 0;
    if (const auto found = responses.find(call.method); found != responses.end())
        code = found->second;
    QVariantMap results;
    // A shortcut as the desktop describes it once bound: the trigger it was asked for.
    const auto described = [](const PortalShortcut &shortcut) {
        return PortalShortcut{
            shortcut.id,
            {{QStringLiteral("description"), shortcut.properties.value("description").toString()},
             {QStringLiteral("trigger_description"),
              shortcut.properties.value(QStringLiteral("preferred_trigger")).toString()}}};
    };
    // Binding replaces what the token had under the same ids.
    const auto keep = [this](const QString &token, const QList<PortalShortcut> &shortcuts) {
        QList<PortalShortcut> &bound = boundByToken[token];
        for (const PortalShortcut &shortcut : shortcuts) {
            bound.removeIf([&](const PortalShortcut &old) { return old.id == shortcut.id; });
            bound << shortcut;
        }
    };
    if (call.method == QLatin1String("CreateSession")) {
        const QString token = call.options.value(QStringLiteral("session_handle_token")).toString();
        const QString session = QStringLiteral("%1/session/%2/%3").arg(desktopPath, sender, token);
        // A token names one open session at a time, as the real portal has it.
        if (openSessions.contains(session) && code == 0)
            code = 2;
        if (code == 0) {
            openSessions.insert(session);
            sessions.emplace_back(session, call.interface);
            tokenOfSession[session] = token;
            if (m_options.bindsAtCreate && call.interface == shortcutsInterface) {
                QList<PortalShortcut> bound;
                for (const PortalShortcut &shortcut : call.shortcuts)
                    bound << described(shortcut);
                keep(token, bound);
            }
        }
        // As the real portal does, the handle comes as a string.
        results.insert(QStringLiteral("session_handle"), session);
    } else if (call.method == QLatin1String("ListShortcuts")) {
        results.insert(QStringLiteral("shortcuts"),
                       QVariant::fromValue(boundByToken[tokenOfSession[call.session]]));
    } else if (call.method == QLatin1String("BindShortcuts")) {
        QList<PortalShortcut> bound;
        for (const PortalShortcut &shortcut : call.shortcuts) {
            if (const auto found = bindResponses.find(shortcut.id); found != bindResponses.end())
                code = found->second;
            bound << described(shortcut);
        }
        if (code == 0)
            keep(tokenOfSession[call.session], bound);
        results.insert(QStringLiteral("shortcuts"), QVariant::fromValue(bound));
    } else if (call.method == QLatin1String("Start")) {
        results.insert(QStringLiteral("devices"), uint(1));
        results.insert(QStringLiteral("restore_token"),
                       QStringLiteral("restore-%1").arg(++m_tokens));
    }
    return {code, results};
}

FakePortal::FakePortal(const QString &busAddress, Options options)
{
    static std::atomic<int> count{0};
    m_connectionName = QStringLiteral("fake-portal-%1").arg(++count);
    QDBusConnection bus = QDBusConnection::connectToBus(busAddress, m_connectionName);
    if (!bus.isConnected())
        return;
    registerPortalShortcutTypes();
    m_object = new FakePortalObject(m_connectionName, options);
    m_running = bus.registerVirtualObject(desktopPath, m_object, QDBusConnection::SubPath);
    m_thread.start();
    m_object->moveToThread(&m_thread);
    m_running = m_running && bus.registerService(QStringLiteral("org.freedesktop.portal.Desktop"));
}

FakePortal::~FakePortal()
{
    QDBusConnection bus(m_connectionName);
    bus.unregisterService(QStringLiteral("org.freedesktop.portal.Desktop"));
    bus.unregisterObject(desktopPath, QDBusConnection::UnregisterTree);
    QDBusConnection::disconnectFromBus(m_connectionName);
    // The portal's thread ends first; joining it orders everything it did before the delete.
    m_thread.quit();
    m_thread.wait();
    delete m_object;
}

QList<FakePortal::Call> FakePortal::calls(const QString &method) const
{
    QMutexLocker locker(&m_object->lock);
    QList<Call> found;
    for (const Call &call : m_object->calls) {
        if (method.isEmpty() || call.method == method)
            found << call;
    }
    return found;
}

QStringList FakePortal::sessions(const QString &interface) const
{
    QMutexLocker locker(&m_object->lock);
    QStringList found;
    for (const auto &[path, created] : m_object->sessions) {
        if (created == interface)
            found << path;
    }
    return found;
}

QStringList FakePortal::closedSessions() const
{
    QMutexLocker locker(&m_object->lock);
    return m_object->closedSessions;
}

std::vector<KeysymEvent> FakePortal::keysyms() const
{
    QMutexLocker locker(&m_object->lock);
    return m_object->keysyms;
}

void FakePortal::setResponse(const QString &method, uint response)
{
    QMutexLocker locker(&m_object->lock);
    m_object->responses[method] = response;
}

void FakePortal::setBindResponse(const QString &shortcutId, uint response)
{
    QMutexLocker locker(&m_object->lock);
    m_object->bindResponses[shortcutId] = response;
}

void FakePortal::setKeyReplyDelay(int milliseconds)
{
    QMutexLocker locker(&m_object->lock);
    m_object->keyReplyDelayMs = milliseconds;
}

void FakePortal::refuseKeysAfter(int count)
{
    QMutexLocker locker(&m_object->lock);
    m_object->keyFailuresAfter = count;
}

int FakePortal::mostKeysInFlight() const
{
    QMutexLocker locker(&m_object->lock);
    return m_object->mostKeysInFlight;
}

std::vector<KeysymEvent> FakePortal::refusedKeys() const
{
    QMutexLocker locker(&m_object->lock);
    return m_object->refusedKeys;
}

void FakePortal::setSilent(const QString &method)
{
    QMutexLocker locker(&m_object->lock);
    m_object->silent << method;
}

void FakePortal::setMovedHandles(bool moved)
{
    QMutexLocker locker(&m_object->lock);
    m_object->movedHandles = moved;
}

void FakePortal::emitActivated(const QString &session, const QString &shortcutId)
{
    emitSignal(desktopPath, shortcutsInterface, QStringLiteral("Activated"),
               {QVariant::fromValue(QDBusObjectPath(session)), shortcutId, qulonglong(1000),
                QVariantMap()});
}

void FakePortal::emitDeactivated(const QString &session, const QString &shortcutId)
{
    emitSignal(desktopPath, shortcutsInterface, QStringLiteral("Deactivated"),
               {QVariant::fromValue(QDBusObjectPath(session)), shortcutId, qulonglong(1100),
                QVariantMap()});
}

void FakePortal::emitShortcutsChanged(const QString &session, const QString &shortcutId,
                                      const QString &triggerDescription)
{
    const QList<PortalShortcut> shortcuts{
        {shortcutId, {{QStringLiteral("trigger_description"), triggerDescription}}}};
    emitSignal(desktopPath, shortcutsInterface, QStringLiteral("ShortcutsChanged"),
               {QVariant::fromValue(QDBusObjectPath(session)), QVariant::fromValue(shortcuts)});
}

void FakePortal::closeSession(const QString &session)
{
    {
        QMutexLocker locker(&m_object->lock);
        m_object->openSessions.remove(session);
    }
    emitSignal(session, sessionInterface, QStringLiteral("Closed"), {QVariantMap()});
}

void FakePortal::emitSignal(const QString &path, const QString &interface, const QString &name,
                            const QVariantList &arguments)
{
    QDBusMessage signal = QDBusMessage::createSignal(path, interface, name);
    signal.setArguments(arguments);
    QDBusConnection(m_connectionName).send(signal);
}

} // namespace vocari::test
