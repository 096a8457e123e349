#pragma once

#include <QObject>
#include <QPointer>
#include <QSocketNotifier>
#include <QString>
#include <functional>
#include <map>
#include <optional>
#include <vector>

// Xlib's own types, declared here so that its macros (None, KeyPress, Bool, Status...) stay out
// of every header that Qt code includes.
struct _XDisplay;
union _XEvent;

namespace vocari {

// The program's own connection to the X server, shared by the key monitor, the text inserter
// and the window queries. It checks the extensions they rely on (XInput 2 for watching keys,
// XTEST for synthetic keys), reads events on the main thread whenever the connection's socket
// has data, and survives the server going away: the connection is then marked broken, its
// users see it closed, and the next ensureOpen() tries again.
class XConnection : public QObject
{
    Q_OBJECT
public:
    // A connection to the named display; an empty name means $DISPLAY. Nothing is opened until
    // ensureOpen().
    explicit XConnection(const QString &displayName = QString(), QObject *parent = nullptr);
    ~XConnection() override;
    XConnection(const XConnection &) = delete;
    XConnection &operator=(const XConnection &) = delete;

    // The connection to $DISPLAY that the whole program uses, created on first use and deleted
    // with the application object.
    static XConnection &shared();

    // Opens the display if it is not open (or reopens it after it broke). True when a usable
    // connection exists; otherwise errorString() says why in one line.
    bool ensureOpen();
    bool isOpen() const;
    QString errorString() const { return m_error; }
    // Counts the connections made so far, so that users can tell a fresh connection from the
    // one they set up their grabs and keymap changes on.
    int generation() const { return m_generation; }

    _XDisplay *display() const { return m_display; }
    unsigned long rootWindow() const;
    int xinputOpcode() const { return m_xinputOpcode; }
    // The device id of the keyboard through which XTEST events arrive, or -1.
    int xtestKeyboardId() const { return m_xtestKeyboard; }

    // Sends the requests made inside `requests`, waits until the server has handled them and
    // returns the X error code of the first one that failed, or 0 when none did.
    int checked(const std::function<void()> &requests);
    // Like checked(), but reports every failed request: its serial (NextRequest() before it was
    // made) and X error code. None when the connection is not usable.
    struct RequestError
    {
        unsigned long serial = 0;
        int code = 0;
    };
    std::optional<std::vector<RequestError>> checkedEach(const std::function<void()> &requests);
    // Waits for the server to handle everything sent so far, handles the events that arrived
    // meanwhile and waits again for what their handlers sent.
    void sync();

    // Asks for the raw key events of every keyboard on the root window. Counted, so that each
    // user turns its own interest on and off.
    void watchRawKeys(bool on);

    // Event handlers are called on the main thread for every event read from the server (with
    // the XInput data of generic events already fetched). They may add or remove handlers.
    using EventHandler = std::function<void(_XEvent &event)>;
    int addEventHandler(EventHandler handler);
    void removeEventHandler(int id);

    // Raw key events that the program caused itself by pressing or releasing a key through
    // XTEST between two request serials. They are dropped before any handler sees them, so
    // that a modifier the text inserter lifts for a moment does not look like the user letting
    // go of it.
    struct OwnRawKey
    {
        unsigned int keycode;
        bool press;
    };
    void dropOwnRawKeys(std::vector<OwnRawKey> keys, unsigned long firstSerial,
                        unsigned long lastSerial);

    // Reads and handles every event that has arrived.
    void processPendingEvents();

signals:
    // The connection is about to be closed while still usable: the last chance to undo changes
    // made on the server.
    void aboutToClose();
    // The server went away or closed the connection.
    void connectionLost();

private:
    friend struct XConnectionErrors;

    bool open();
    void close();
    void markBroken();
    void applyRawKeySelection();
    bool isOwnRawKey(_XEvent &event);
    void dispatch(_XEvent &event);
    void processIfQueued();

    QString m_displayName;
    _XDisplay *m_display = nullptr;
    bool m_broken = false;
    QString m_error;
    int m_generation = 0;
    int m_xinputOpcode = -1;
    int m_xtestKeyboard = -1;
    QSocketNotifier *m_notifier = nullptr;
    int m_rawKeyWatchers = 0;

    std::map<int, EventHandler> m_handlers;
    int m_nextHandlerId = 1;

    struct OwnRawKeys
    {
        std::vector<OwnRawKey> keys;
        unsigned long firstSerial = 0;
        unsigned long lastSerial = 0;
    };
    std::vector<OwnRawKeys> m_ownRawKeys;

    // Error trapping for checked(): every error at or after this serial is kept.
    bool m_trapping = false;
    unsigned long m_trapSerial = 0;
    std::vector<RequestError> m_trappedErrors;
};

} // namespace vocari
