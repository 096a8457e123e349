#include "platform/x11/X11Keyboard.h"

#include "platform/x11/X11Keymap.h"
#include "platform/x11/X11Log.h"
#include "platform/x11/XConnection.h"

#include <X11/XKBlib.h>
#include <X11/Xlib.h>
#include <X11/extensions/XInput.h>
#include <X11/extensions/XTest.h>
#include <X11/keysym.h>
#include <algorithm>
#include <optional>
#include <set>
#include <thread>

namespace vocari {

namespace {

// Before a borrowed keycode pressed moments ago is bound to another character, programs get
// this long to read the earlier presses with the symbol they were typed with.
constexpr std::chrono::milliseconds rebindPause(100);
// Keystrokes sent to the server at a time while erasing.
constexpr std::int64_t eraseBatch = 20;

// The characters of a text by code point; a lone surrogate half is skipped.
std::vector<char32_t> codePoints(const QString &text)
{
    std::vector<char32_t> points;
    for (qsizetype i = 0; i < text.size(); ++i) {
        const QChar unit = text.at(i);
        if (unit.isHighSurrogate() && i + 1 < text.size() && text.at(i + 1).isLowSurrogate()) {
            points.push_back(QChar::surrogateToUcs4(unit, text.at(i + 1)));
            ++i;
        } else if (!unit.isSurrogate()) {
            points.push_back(unit.unicode());
        }
    }
    return points;
}

bool isDown(const char keys[32], unsigned int keycode)
{
    return keycode < 256 && (keys[keycode / 8] & (1 << (keycode % 8)));
}

// The keys held on keyboards other than the XTEST one, which are the user's own hands on real
// hardware.
std::set<unsigned int> keysHeldOnPhysicalKeyboards(Display *display, int xtestKeyboard)
{
    std::set<unsigned int> held;
    int count = 0;
    XDeviceInfo *devices = XListInputDevices(display, &count);
    for (int i = 0; i < count; ++i) {
        if (devices[i].use != IsXExtensionKeyboard || int(devices[i].id) == xtestKeyboard)
            continue;
        XDevice *device = XOpenDevice(display, devices[i].id);
        if (!device)
            continue;
        if (XDeviceState *state = XQueryDeviceState(display, device)) {
            auto *inputClass = state->data;
            for (int c = 0; c < state->num_classes; ++c) {
                if (inputClass->c_class == KeyClass) {
                    const auto *keys = reinterpret_cast<const XKeyState *>(inputClass);
                    for (int keycode = 0; keycode < std::min<int>(keys->num_keys, 256); ++keycode) {
                        if (isDown(keys->keys, unsigned(keycode)))
                            held.insert(unsigned(keycode));
                    }
                }
                inputClass = reinterpret_cast<XInputClass *>(reinterpret_cast<char *>(inputClass) +
                                                             inputClass->length);
            }
            XFreeDeviceState(state);
        }
        XCloseDevice(display, device);
    }
    if (devices)
        XFreeDeviceList(devices);
    return held;
}

} // namespace

// One run of synthetic keystrokes. Keys the user holds would change them: held modifiers turn
// letters into shortcuts, and a held key cannot be pressed again (the server drops the press).
// So held modifiers and Caps Lock are lifted for the run, and so is a held key the run is about
// to press; at the end the modifiers are pressed again unless the user let go of them on the
// keyboard meanwhile. Other keys are not pressed again: that would type them. The connection
// learns which raw events the run caused, so that the key monitor ignores them.
class X11Keyboard::Posting
{
public:
    Posting(XConnection &connection, const X11Keymap &keymap, unsigned int neutralKeycode)
        : m_connection(connection), m_display(connection.display()), m_neutral(neutralKeycode)
    {
        m_firstSerial = NextRequest(m_display);
        XQueryKeymap(m_display, m_heldAtStart);
        // Letting go of a held modifier with no key since its press is a lone tap of it, and a
        // lone Alt opens the menu bar in Firefox: a neutral key comes first.
        const std::set<unsigned int> &modifiers = keymap.modifierKeycodes();
        if (std::any_of(modifiers.begin(), modifiers.end(),
                        [this](unsigned int keycode) { return isDown(m_heldAtStart, keycode); }))
            neutralTap();
        for (unsigned int keycode : modifiers)
            lift(keycode);
        m_modifiersLifted = m_lifted.size();

        XkbStateRec state{};
        XkbGetState(m_display, XkbUseCoreKbd, &state);
        if (state.locked_mods & LockMask) {
            XkbLockModifiers(m_display, XkbUseCoreKbd, LockMask, 0);
            m_relockCaps = true;
        }
        // A latched modifier (sticky keys) would apply to the first keystroke only.
        if (state.latched_mods)
            XkbLatchModifiers(m_display, XkbUseCoreKbd, state.latched_mods, 0);

        if (const auto shift = keymap.find(XK_Shift_L))
            m_shift = shift->keycode;
        else if (const auto rightShift = keymap.find(XK_Shift_R))
            m_shift = rightShift->keycode;
    }

    ~Posting()
    {
        if (m_relockCaps)
            XkbLockModifiers(m_display, XkbUseCoreKbd, LockMask, LockMask);
        if (m_modifiersLifted > 0) {
            const std::set<unsigned int> physicalAfter =
                keysHeldOnPhysicalKeyboards(m_display, m_connection.xtestKeyboardId());
            bool pressedAgain = false;
            for (size_t i = 0; i < m_modifiersLifted; ++i) {
                const unsigned int keycode = m_lifted[i];
                if (physicalAfter.contains(keycode) || !m_physicalBefore.contains(keycode)) {
                    key(keycode, true);
                    pressedAgain = true;
                }
            }
            if (pressedAgain)
                neutralTap();
        }
        const unsigned long lastSerial = NextRequest(m_display) - 1;
        XSync(m_display, False);
        m_connection.dropOwnRawKeys(std::move(m_posted), m_firstSerial, lastSerial);
    }

    Posting(const Posting &) = delete;
    Posting &operator=(const Posting &) = delete;

    bool canShift() const { return m_shift != 0; }

    // A key no program acts on, pressed and released without lifting anything.
    void neutralTap()
    {
        if (m_neutral == 0)
            return;
        key(m_neutral, true);
        key(m_neutral, false);
    }

    void press(unsigned int keycode)
    {
        lift(keycode);
        key(keycode, true);
    }

    void release(unsigned int keycode) { key(keycode, false); }

    void tap(const X11Keymap::Stroke &stroke)
    {
        if (stroke.shift)
            press(m_shift);
        press(stroke.keycode);
        release(stroke.keycode);
        if (stroke.shift)
            release(m_shift);
    }

private:
    // Releases a key the user held when the run began, once.
    void lift(unsigned int keycode)
    {
        if (!isDown(m_heldAtStart, keycode) ||
            std::find(m_lifted.begin(), m_lifted.end(), keycode) != m_lifted.end())
            return;
        if (m_lifted.empty()) {
            m_physicalBefore =
                keysHeldOnPhysicalKeyboards(m_display, m_connection.xtestKeyboardId());
        }
        m_lifted.push_back(keycode);
        key(keycode, false);
    }

    void key(unsigned int keycode, bool down)
    {
        XTestFakeKeyEvent(m_display, keycode, down ? True : False, CurrentTime);
        m_posted.push_back({keycode, down});
    }

    XConnection &m_connection;
    Display *m_display;
    unsigned int m_neutral = 0;
    unsigned long m_firstSerial = 0;
    char m_heldAtStart[32] = {};
    std::vector<unsigned int> m_lifted; // the modifiers first
    size_t m_modifiersLifted = 0;
    std::set<unsigned int> m_physicalBefore;
    bool m_relockCaps = false;
    unsigned int m_shift = 0;
    std::vector<XConnection::OwnRawKey> m_posted;
};

X11Keyboard::X11Keyboard(XConnection &connection, QObject *parent)
    : QObject(parent), m_connection(&connection)
{
    m_restoreTimer.setSingleShot(true);
    m_restoreTimer.setInterval(restoreDelayMs);
    connect(&m_restoreTimer, &QTimer::timeout, this, &X11Keyboard::restoreKeymap);
    // The keymap is put back while the connection can still reach the server.
    connect(&connection, &XConnection::aboutToClose, this, &X11Keyboard::restoreKeymap);
}

X11Keyboard::~X11Keyboard()
{
    restoreKeymap();
}

X11Keyboard &X11Keyboard::shared()
{
    static QPointer<X11Keyboard> instance;
    if (!instance) {
        XConnection &connection = XConnection::shared();
        instance = new X11Keyboard(connection, &connection);
    }
    return *instance;
}

bool X11Keyboard::ready()
{
    if (!m_connection || !m_connection->ensureOpen())
        return false;
    if (m_connection->generation() != m_generation) {
        // Bindings made through an earlier connection went with it.
        m_borrowed.clear();
        m_generation = m_connection->generation();
    }
    return true;
}

std::optional<QString> X11Keyboard::type(const QStringList &chunks)
{
    if (!ready())
        return std::nullopt;
    QString sent;
    Display *display = m_connection->display();
    const X11Keymap keymap(display);
    {
        Posting posting(*m_connection, keymap, neutralKeycode(keymap));
        for (const QString &chunk : chunks) {
            for (const char32_t character : codePoints(chunk)) {
                const unsigned long keysym = keysymForCharacter(character);
                if (keysym == 0)
                    continue;
                std::optional<X11Keymap::Stroke> stroke;
                const auto borrowed =
                    std::find_if(m_borrowed.begin(), m_borrowed.end(),
                                 [&](const Borrowed &b) { return b.keysym == keysym; });
                // The snapshot may still show a borrowed keycode with an earlier character.
                const auto key = keymap.find(keysym);
                const bool keyUsable =
                    key && (!key->shift || posting.canShift()) && !isBorrowed(key->keycode);
                if (borrowed != m_borrowed.end()) {
                    borrowed->lastPressed = std::chrono::steady_clock::now();
                    stroke = X11Keymap::Stroke{borrowed->keycode, false};
                } else if (keyUsable) {
                    stroke = key;
                } else if (const unsigned int keycode = borrowKeycode(keysym, keymap)) {
                    stroke = X11Keymap::Stroke{keycode, false};
                }
                if (stroke) {
                    posting.tap(*stroke);
                    sent += QString::fromUcs4(&character, 1);
                } else {
                    qCDebug(lcX11, "no keycode to type keysym 0x%lx", keysym);
                }
            }
            XFlush(display);
        }
    }
    if (!m_borrowed.empty())
        m_restoreTimer.start();
    return sent;
}

bool X11Keyboard::isBorrowed(unsigned int keycode) const
{
    return std::any_of(m_borrowed.begin(), m_borrowed.end(),
                       [keycode](const Borrowed &b) { return b.keycode == keycode; });
}

unsigned int X11Keyboard::borrowKeycode(unsigned long keysym, const X11Keymap &keymap)
{
    Display *display = m_connection->display();
    unsigned int keycode = 0;
    const unsigned int neutral = neutralKeycode(keymap);
    for (unsigned int candidate : keymap.unusedKeycodes()) {
        if (!isBorrowed(candidate) && candidate != neutral) {
            keycode = candidate;
            break;
        }
    }
    if (keycode == 0) {
        if (m_borrowed.empty())
            return 0; // the keymap has no free keycode at all
        const auto oldest = std::min_element(
            m_borrowed.begin(), m_borrowed.end(),
            [](const Borrowed &a, const Borrowed &b) { return a.lastPressed < b.lastPressed; });
        const auto age = std::chrono::steady_clock::now() - oldest->lastPressed;
        if (age < rebindPause) {
            // Every borrowed keycode was pressed moments ago; give programs time to read those
            // presses before one of them changes meaning.
            XSync(display, False);
            std::this_thread::sleep_for(rebindPause - age);
        }
        keycode = oldest->keycode;
        m_borrowed.erase(oldest);
    }
    // The same keysym on both levels, so that neither Shift nor Caps Lock changes it.
    KeySym symbols[2] = {keysym, keysym};
    XChangeKeyboardMapping(display, int(keycode), 2, symbols, 1);
    m_borrowed.push_back({keycode, keysym, std::chrono::steady_clock::now()});
    return keycode;
}

unsigned int X11Keyboard::neutralKeycode(const X11Keymap &keymap) const
{
    // The last spare keycode; characters are borrowed from the front of the list. One bound to
    // a character (by another program, or by us through an older snapshot) is never neutral,
    // and a keymap with a single spare keycode keeps it for typing characters it lacks.
    const std::vector<unsigned int> &unused = keymap.unusedKeycodes();
    if (unused.size() < 2)
        return 0;
    for (auto candidate = unused.rbegin(); candidate != unused.rend(); ++candidate) {
        if (!isBorrowed(*candidate))
            return *candidate;
    }
    return 0;
}

bool X11Keyboard::tapNeutralKey()
{
    if (!ready())
        return false;
    const X11Keymap keymap(m_connection->display());
    const unsigned int neutral = neutralKeycode(keymap);
    if (neutral == 0)
        return false;
    Display *display = m_connection->display();
    const unsigned long firstSerial = NextRequest(display);
    XTestFakeKeyEvent(display, neutral, True, CurrentTime);
    XTestFakeKeyEvent(display, neutral, False, CurrentTime);
    const unsigned long lastSerial = NextRequest(display) - 1;
    XSync(display, False);
    m_connection->dropOwnRawKeys({{neutral, true}, {neutral, false}}, firstSerial, lastSerial);
    return true;
}

void X11Keyboard::restoreKeymap()
{
    m_restoreTimer.stop();
    if (m_borrowed.empty())
        return;
    if (m_connection && m_connection->isOpen() && m_connection->generation() == m_generation) {
        Display *display = m_connection->display();
        for (const Borrowed &borrowed : m_borrowed) {
            KeySym nothing = NoSymbol;
            XChangeKeyboardMapping(display, int(borrowed.keycode), 1, &nothing, 1);
        }
        XFlush(display);
    }
    m_borrowed.clear();
}

bool X11Keyboard::erase(std::int64_t count)
{
    if (count <= 0)
        return true;
    if (!ready())
        return false;
    Display *display = m_connection->display();
    const X11Keymap keymap(display);
    const auto backspace = keymap.find(XK_BackSpace);
    if (!backspace) {
        qCWarning(lcX11, "The keyboard map has no BackSpace key; nothing was erased.");
        return false;
    }
    Posting posting(*m_connection, keymap, neutralKeycode(keymap));
    for (std::int64_t i = 0; i < count; ++i) {
        posting.tap(*backspace);
        if ((i + 1) % eraseBatch == 0)
            XFlush(display);
    }
    return true;
}

bool X11Keyboard::paste(Shortcut shortcut)
{
    if (!ready())
        return false;
    Display *display = m_connection->display();
    const X11Keymap keymap(display);
    const auto firstOf = [&keymap](std::initializer_list<unsigned long> keysyms) {
        for (unsigned long keysym : keysyms) {
            if (const auto stroke = keymap.find(keysym, true))
                return std::optional<unsigned int>(stroke->keycode);
        }
        return std::optional<unsigned int>();
    };

    std::vector<std::optional<unsigned int>> modifiers;
    std::optional<unsigned int> key;
    switch (shortcut) {
    case Shortcut::ctrlV:
        modifiers = {firstOf({XK_Control_L, XK_Control_R})};
        key = firstOf({XK_v, XK_V});
        break;
    case Shortcut::ctrlShiftV:
        modifiers = {firstOf({XK_Control_L, XK_Control_R}), firstOf({XK_Shift_L, XK_Shift_R})};
        key = firstOf({XK_v, XK_V});
        break;
    case Shortcut::shiftInsert:
        modifiers = {firstOf({XK_Shift_L, XK_Shift_R})};
        key = firstOf({XK_Insert, XK_KP_Insert});
        break;
    }
    const bool complete = key && std::all_of(modifiers.begin(), modifiers.end(),
                                             [](const auto &keycode) { return bool(keycode); });
    if (!complete) {
        qCWarning(lcX11, "The keyboard map lacks a key of the paste shortcut; nothing was pasted.");
        return false;
    }

    Posting posting(*m_connection, keymap, neutralKeycode(keymap));
    for (const auto &modifier : modifiers)
        posting.press(*modifier);
    posting.tap({*key, false});
    for (auto modifier = modifiers.rbegin(); modifier != modifiers.rend(); ++modifier)
        posting.release(**modifier);
    return true;
}

} // namespace vocari
