#pragma once

#include <QString>
#include <vector>

struct _XDisplay;

// Direct requests to the test display, for set-ups the program itself never makes. Each opens
// its own connection to $DISPLAY.
namespace vocari::test::x11 {

// Sets how soon and how fast a held key repeats; returns the old values to restore.
struct Repeat
{
    unsigned int delayMs = 0;
    unsigned int intervalMs = 0;
};
Repeat setAutoRepeat(Repeat repeat);

// The core keyboard mapping, every keysym of every keycode.
std::vector<unsigned long> keyboardMapping();

// Whether Caps Lock is locked.
bool capsLockOn();

// Sets (or with 0, removes) _NET_ACTIVE_WINDOW on the root window, as a window manager would.
void setActiveWindowProperty(unsigned long window);

// Another client holding a key grab, until it is destroyed.
class ForeignGrab
{
public:
    ForeignGrab(const char *keysymName, unsigned int xModifiers);
    ~ForeignGrab();
    ForeignGrab(const ForeignGrab &) = delete;
    ForeignGrab &operator=(const ForeignGrab &) = delete;

private:
    _XDisplay *m_display = nullptr;
};

// Counts the core key presses of one X keycode that reach the program's shared connection,
// which are the presses its key grabs took, auto-repeats included.
class GrabbedPressCounter
{
public:
    explicit GrabbedPressCounter(unsigned int keycode);
    ~GrabbedPressCounter();
    GrabbedPressCounter(const GrabbedPressCounter &) = delete;
    GrabbedPressCounter &operator=(const GrabbedPressCounter &) = delete;

    int count() const { return m_count; }

private:
    int m_handler = 0;
    int m_count = 0;
};

inline constexpr unsigned int shiftMask = 1 << 0;
inline constexpr unsigned int lockMask = 1 << 1;
inline constexpr unsigned int controlMask = 1 << 2;
inline constexpr unsigned int mod1Mask = 1 << 3;

} // namespace vocari::test::x11
