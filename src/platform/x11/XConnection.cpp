#include "platform/x11/XConnection.h"

#include "platform/x11/X11Log.h"

#include <QAbstractEventDispatcher>
#include <QCoreApplication>
#include <algorithm>
#include <cstring>

// Xlib last: its macros must not meet Qt's headers.
#include <X11/XKBlib.h>
#include <X11/Xlib.h>
#include <X11/extensions/XInput2.h>
#include <X11/extensions/XTest.h>

namespace vocari {

Q_LOGGING_CATEGORY(lcX11, "vocari.x11", QtInfoMsg)

// Xlib's error handlers are global to the process. These route the errors of the program's own
// connections to them and leave every other connection (Qt's, for one) to the handler that was
// installed before.
struct XConnectionErrors
{
    static inline XErrorHandler previousError = nullptr;
    static inline XIOErrorHandler previousIOError = nullptr;
    static inline std::vector<XConnection *> connections;

    static XConnection *find(Display *display)
    {
        for (XConnection *connection : connections) {
            if (connection->m_display == display)
                return connection;
        }
        return nullptr;
    }

    static int onError(Display *display, XErrorEvent *error)
    {
        if (XConnection *connection = find(display)) {
            if (connection->m_trapping && error->serial >= connection->m_trapSerial) {
                connection->m_trappedErrors.push_back({error->serial, error->error_code});
            } else {
                qCDebug(lcX11, "X error %d for request %d.%d", error->error_code,
                        error->request_code, error->minor_code);
            }
            return 0;
        }
        return previousError ? previousError(display, error) : 0;
    }

    static int onIOError(Display *display)
    {
        if (XConnection *connection = find(display)) {
            connection->markBroken();
            return 0;
        }
        return previousIOError ? previousIOError(display) : 0;
    }

    // Called by Xlib after the I/O error handler; by returning instead of exiting it keeps the
    // program alive with a connection that is merely unusable.
    static void onIOErrorExit(Display *, void *connection)
    {
        static_cast<XConnection *>(connection)->markBroken();
    }

    // (Re)installs the handlers; someone who replaced them in the meantime becomes the handler
    // for the connections that are not ours.
    static void install()
    {
        const XErrorHandler error = XSetErrorHandler(onError);
        if (error != onError)
            previousError = error;
        const XIOErrorHandler ioError = XSetIOErrorHandler(onIOError);
        if (ioError != onIOError)
            previousIOError = ioError;
    }
};

XConnection::XConnection(const QString &displayName, QObject *parent)
    : QObject(parent), m_displayName(displayName)
{
}

XConnection::~XConnection()
{
    close();
}

XConnection &XConnection::shared()
{
    static QPointer<XConnection> instance;
    if (!instance)
        instance = new XConnection(QString(), QCoreApplication::instance());
    return *instance;
}

bool XConnection::isOpen() const
{
    return m_display && !m_broken;
}

bool XConnection::ensureOpen()
{
    if (isOpen())
        return true;
    close();
    return open();
}

bool XConnection::open()
{
    const QByteArray name =
        m_displayName.isEmpty() ? qgetenv("DISPLAY") : m_displayName.toLocal8Bit();
    if (name.isEmpty()) {
        m_error = QStringLiteral("No X display: the DISPLAY variable is not set.");
        return false;
    }

    XConnectionErrors::install();
    Display *display = XOpenDisplay(name.constData());
    if (!display) {
        m_error = QStringLiteral("Cannot connect to the X display \"%1\".")
                      .arg(QString::fromLocal8Bit(name));
        return false;
    }
    m_display = display;
    m_broken = false;
    ++m_generation;
    XConnectionErrors::connections.push_back(this);
    XSetIOErrorExitHandler(display, XConnectionErrors::onIOErrorExit, this);

    // XInput 2.2: raw key events of slave devices reach root-window listeners even while
    // some client holds a grab, which the dictation key relies on.
    int opcode = 0, event = 0, error = 0;
    int major = 2, minor = 2;
    if (!XQueryExtension(display, "XInputExtension", &opcode, &event, &error) ||
        XIQueryVersion(display, &major, &minor) != Success || major < 2) {
        m_error = QStringLiteral("The X server lacks XInput 2, so the dictation key cannot be "
                                 "watched.");
        close();
        return false;
    }
    m_xinputOpcode = opcode;

    int testEvent = 0, testError = 0, testMajor = 0, testMinor = 0;
    if (!XTestQueryExtension(display, &testEvent, &testError, &testMajor, &testMinor)) {
        m_error = QStringLiteral("The X server lacks the XTEST extension, so text cannot be "
                                 "typed.");
        close();
        return false;
    }

    int xkbOpcode = 0, xkbEvent = 0, xkbError = 0;
    int xkbMajor = XkbMajorVersion, xkbMinor = XkbMinorVersion;
    if (!XkbQueryExtension(display, &xkbOpcode, &xkbEvent, &xkbError, &xkbMajor, &xkbMinor)) {
        m_error = QStringLiteral("The X server lacks the XKEYBOARD extension, so keys cannot be "
                                 "read.");
        close();
        return false;
    }
    // Auto-repeat then arrives as repeated presses without releases in between, so a held key
    // can be told from one pressed again.
    Bool detectable = False;
    XkbSetDetectableAutoRepeat(display, True, &detectable);

    int deviceCount = 0;
    XIDeviceInfo *devices = XIQueryDevice(display, XIAllDevices, &deviceCount);
    m_xtestKeyboard = -1;
    for (int i = 0; i < deviceCount; ++i) {
        if (devices[i].use == XISlaveKeyboard && std::strstr(devices[i].name, "XTEST")) {
            m_xtestKeyboard = devices[i].deviceid;
            break;
        }
    }
    if (devices)
        XIFreeDeviceInfo(devices);

    m_error.clear();
    m_notifier = new QSocketNotifier(ConnectionNumber(display), QSocketNotifier::Read, this);
    connect(m_notifier, &QSocketNotifier::activated, this, &XConnection::processPendingEvents);
    // Replies to our own requests can bring events into Xlib's queue without the socket
    // becoming readable again; they are handled before the event loop goes to sleep.
    if (auto *dispatcher = QAbstractEventDispatcher::instance(thread())) {
        connect(dispatcher, &QAbstractEventDispatcher::aboutToBlock, this,
                &XConnection::processIfQueued, Qt::UniqueConnection);
    }
    if (m_rawKeyWatchers > 0)
        applyRawKeySelection();
    XFlush(display);
    return true;
}

void XConnection::close()
{
    if (isOpen())
        emit aboutToClose();
    delete m_notifier;
    m_notifier = nullptr;
    if (m_display) {
        Display *display = m_display;
        // Closing a broken connection must not reach the I/O error path again.
        auto &list = XConnectionErrors::connections;
        list.erase(std::remove(list.begin(), list.end(), this), list.end());
        m_display = nullptr;
        XCloseDisplay(display);
    }
    m_ownRawKeys.clear();
    m_xinputOpcode = -1;
    m_xtestKeyboard = -1;
}

void XConnection::markBroken()
{
    if (m_broken)
        return;
    m_broken = true;
    m_error = QStringLiteral("The connection to the X display was lost.");
    if (m_notifier)
        m_notifier->setEnabled(false);
    qCWarning(lcX11) << m_error;
    // Xlib is in the middle of a call; the connection is closed once it has returned.
    QMetaObject::invokeMethod(
        this,
        [this] {
            if (!m_broken || !m_display)
                return;
            close();
            emit connectionLost();
        },
        Qt::QueuedConnection);
}

unsigned long XConnection::rootWindow() const
{
    return isOpen() ? DefaultRootWindow(m_display) : 0;
}

int XConnection::checked(const std::function<void()> &requests)
{
    const auto errors = checkedEach(requests);
    if (!errors)
        return BadImplementation;
    return errors->empty() ? 0 : errors->front().code;
}

std::optional<std::vector<XConnection::RequestError>>
XConnection::checkedEach(const std::function<void()> &requests)
{
    if (!isOpen())
        return std::nullopt;
    XConnectionErrors::install();
    m_trapping = true;
    m_trapSerial = NextRequest(m_display);
    m_trappedErrors.clear();
    requests();
    XSync(m_display, False);
    m_trapping = false;
    if (m_broken)
        return std::nullopt;
    return std::move(m_trappedErrors);
}

void XConnection::sync()
{
    if (!isOpen())
        return;
    XSync(m_display, False);
    processPendingEvents();
    // Whatever the handlers asked for (such as handing back a grab) is done too.
    if (isOpen())
        XSync(m_display, False);
}

void XConnection::watchRawKeys(bool on)
{
    const int before = m_rawKeyWatchers;
    m_rawKeyWatchers = std::max(0, m_rawKeyWatchers + (on ? 1 : -1));
    if ((before > 0) != (m_rawKeyWatchers > 0) && isOpen())
        applyRawKeySelection();
}

void XConnection::applyRawKeySelection()
{
    unsigned char bits[XIMaskLen(XI_LASTEVENT)] = {};
    if (m_rawKeyWatchers > 0) {
        XISetMask(bits, XI_RawKeyPress);
        XISetMask(bits, XI_RawKeyRelease);
    }
    // All devices, not only the master keyboard: a master's raw events stop while any client
    // holds a keyboard grab, its slaves' do not.
    XIEventMask mask{XIAllDevices, int(sizeof(bits)), bits};
    XISelectEvents(m_display, DefaultRootWindow(m_display), &mask, 1);
    XFlush(m_display);
}

int XConnection::addEventHandler(EventHandler handler)
{
    const int id = m_nextHandlerId++;
    m_handlers.emplace(id, std::move(handler));
    return id;
}

void XConnection::removeEventHandler(int id)
{
    m_handlers.erase(id);
}

void XConnection::dropOwnRawKeys(std::vector<OwnRawKey> keys, unsigned long firstSerial,
                                 unsigned long lastSerial)
{
    if (!keys.empty())
        m_ownRawKeys.push_back({std::move(keys), firstSerial, lastSerial});
}

bool XConnection::isOwnRawKey(XEvent &event)
{
    if (m_ownRawKeys.empty() ||
        (event.xcookie.evtype != XI_RawKeyPress && event.xcookie.evtype != XI_RawKeyRelease))
        return false;
    const auto *raw = static_cast<const XIRawEvent *>(event.xcookie.data);
    // Only the XTEST slave's own copy counts; the master's copy is ignored by every user.
    if (raw->sourceid != m_xtestKeyboard || raw->deviceid != raw->sourceid)
        return false;
    const bool press = event.xcookie.evtype == XI_RawKeyPress;
    for (OwnRawKeys &range : m_ownRawKeys) {
        if (raw->serial < range.firstSerial || raw->serial > range.lastSerial)
            continue;
        const auto match = std::find_if(range.keys.begin(), range.keys.end(), [&](auto &key) {
            return key.keycode == unsigned(raw->detail) && key.press == press;
        });
        if (match != range.keys.end()) {
            range.keys.erase(match);
            return true;
        }
    }
    return false;
}

void XConnection::dispatch(XEvent &event)
{
    // A copy of the ids: handlers may add or remove handlers while they run.
    std::vector<int> ids;
    ids.reserve(m_handlers.size());
    for (const auto &entry : m_handlers)
        ids.push_back(entry.first);
    for (int id : ids) {
        const auto handler = m_handlers.find(id);
        if (handler == m_handlers.end())
            continue;
        const EventHandler call = handler->second; // survives its own removal
        call(event);
        if (!isOpen())
            return;
    }
}

void XConnection::processPendingEvents()
{
    QPointer<XConnection> alive(this);
    while (alive && isOpen() && XPending(m_display) > 0) {
        Display *display = m_display;
        XEvent event;
        XNextEvent(display, &event);
        const bool withData = event.type == GenericEvent &&
                              event.xcookie.extension == m_xinputOpcode &&
                              XGetEventData(display, &event.xcookie);
        if (!withData || !isOwnRawKey(event))
            dispatch(event);
        if (withData && alive && m_display == display)
            XFreeEventData(display, &event.xcookie);
    }
    if (!alive || !isOpen())
        return;
    // Every event caused by a request older than the last one the server answered has been
    // read by now.
    const unsigned long answered = LastKnownRequestProcessed(m_display);
    m_ownRawKeys.erase(std::remove_if(m_ownRawKeys.begin(), m_ownRawKeys.end(),
                                      [answered](const OwnRawKeys &range) {
                                          return range.keys.empty() || range.lastSerial < answered;
                                      }),
                       m_ownRawKeys.end());
}

void XConnection::processIfQueued()
{
    if (isOpen() && XEventsQueued(m_display, QueuedAlready) > 0)
        processPendingEvents();
}

} // namespace vocari
