// The keyboards' devices read directly, as the hold-to-talk key where no desktop binds one.
// Each keyboard is a pipe the test writes recorded event streams into, in the kernel's own
// record format, with the scan codes, repeats and report markers a real keyboard sends.

#include "platform/evdev/EvdevKeySource.h"

#include "support/EventLoop.h"

#include <QTemporaryDir>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/input.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace std::chrono_literals;

namespace vocari {
namespace {

using test::spin;
using test::waitUntil;

// A keyboard device stood in for by a named pipe.
class RecordedKeyboard
{
public:
    explicit RecordedKeyboard(const QTemporaryDir &folder, const QString &name)
        : m_path(folder.filePath(name))
    {
        ::mkfifo(QFile::encodeName(m_path).constData(), 0600);
        // Read and write, so that opening does not wait for a reader.
        m_fd = ::open(QFile::encodeName(m_path).constData(), O_RDWR | O_CLOEXEC);
    }
    ~RecordedKeyboard() { unplug(); }

    QString path() const { return m_path; }
    // A key as the kernel reports it: the scan code, the key, then the end of the report.
    // value: 1 pressed, 0 released, 2 repeated.
    void key(std::uint16_t code, int value)
    {
        write({{{}, EV_MSC, MSC_SCAN, 0x70000 + code},
               {{}, EV_KEY, code, value},
               {{}, EV_SYN, SYN_REPORT, 0}});
    }
    // Writes the records in pieces that cut one in two, as a read may return them.
    void write(const std::vector<input_event> &events)
    {
        const auto *bytes = reinterpret_cast<const char *>(events.data());
        const std::size_t size = events.size() * sizeof(input_event);
        const std::size_t cut = std::min<std::size_t>(size, sizeof(input_event) / 2 + 3);
        ASSERT_EQ(::write(m_fd, bytes, cut), ssize_t(cut));
        spin(5ms);
        ASSERT_EQ(::write(m_fd, bytes + cut, size - cut), ssize_t(size - cut));
    }
    void unplug()
    {
        if (m_fd >= 0)
            ::close(m_fd);
        m_fd = -1;
    }

private:
    QString m_path;
    int m_fd = -1;
};

class EvdevKeys : public ::testing::Test
{
protected:
    QTemporaryDir m_folder;
    std::vector<KeyEvent> m_events;
    KeyEventSource::Sink sink()
    {
        return [this](const KeyEvent &event) {
            m_events.push_back(event);
            return true;
        };
    }
};

TEST_F(EvdevKeys, KeysOfEveryKeyboardArriveAsObservedWithTheModifiersHeld)
{
    RecordedKeyboard laptop(m_folder, QStringLiteral("laptop"));
    RecordedKeyboard usb(m_folder, QStringLiteral("usb"));
    EvdevKeySource source({laptop.path(), usb.path()});
    ASSERT_TRUE(source.open(sink())) << qPrintable(source.errorString());
    EXPECT_TRUE(source.isOpen());
    EXPECT_TRUE(source.seesEveryKey());

    // Right Alt held on one keyboard, repeating, while A is typed on the other.
    laptop.key(KEY_RIGHTALT, 1);
    laptop.key(KEY_RIGHTALT, 2);
    usb.key(KEY_A, 1);
    usb.key(KEY_A, 0);
    laptop.key(KEY_RIGHTALT, 0);
    ASSERT_TRUE(waitUntil([&] { return m_events.size() == 5; })) << m_events.size();
    EXPECT_EQ(m_events[0].keyCode, KEY_RIGHTALT);
    EXPECT_EQ(m_events[0].kind, KeyEvent::Kind::press);
    EXPECT_FALSE(m_events[0].autoRepeat);
    EXPECT_TRUE(m_events[1].autoRepeat);
    EXPECT_EQ(m_events[2].keyCode, KEY_A);
    EXPECT_EQ(m_events[2].modifiers, Modifier::alt);
    EXPECT_EQ(m_events[4].kind, KeyEvent::Kind::release);
    EXPECT_EQ(m_events[4].modifiers, 0u);
    for (const KeyEvent &event : m_events)
        EXPECT_EQ(event.route, KeyEvent::Route::observed);

    // Nothing can be kept from the window in front.
    const KeyGrab escape{KEY_ESC, 0, true};
    const std::vector<GrabFailure> refused = source.setGrabs({escape});
    ASSERT_EQ(refused.size(), 1u);
    EXPECT_EQ(refused[0].reason, GrabFailure::Reason::refused);
}

TEST_F(EvdevKeys, TheMonitorHoldsToTalkOnAModifierAloneAndEscapeCancels)
{
    RecordedKeyboard keyboard(m_folder, QStringLiteral("keyboard"));
    auto owned = std::make_unique<EvdevKeySource>(QStringList{keyboard.path()});
    HotkeyMonitor monitor(std::move(owned));
    int presses = 0, releases = 0, escapes = 0;
    bool dictating = false;
    monitor.onPress = [&] { ++presses, dictating = true; };
    monitor.onRelease = [&] { ++releases, dictating = false; };
    monitor.onEscape = [&] { ++escapes; };
    monitor.escapeActive = [&] { return dictating; };
    ASSERT_TRUE(monitor.start(Hotkey::defaultKey())) << qPrintable(monitor.errorString());

    keyboard.key(KEY_RIGHTALT, 1);
    for (int repeat = 0; repeat < 5; ++repeat)
        keyboard.key(KEY_RIGHTALT, 2);
    ASSERT_TRUE(waitUntil([&] { return presses == 1; }));
    monitor.refreshEscapeGrab();
    keyboard.key(KEY_ESC, 1);
    keyboard.key(KEY_ESC, 0);
    ASSERT_TRUE(waitUntil([&] { return escapes == 1; }));
    keyboard.key(KEY_RIGHTALT, 0);
    ASSERT_TRUE(waitUntil([&] { return releases == 1; }));
    EXPECT_EQ(presses, 1) << "repeats are not new presses";

    // A key that must be kept from other programs cannot be had this way.
    EXPECT_FALSE(monitor.start(Hotkey{KEY_F8, 0, false}));
    EXPECT_EQ(monitor.errorString(), QStringLiteral("F8 cannot be used here, as it cannot be kept "
                                                    "from other programs; choose another "
                                                    "dictation key."));
}

TEST_F(EvdevKeys, AKeyboardThatGoesAwayIsDroppedAndTheLastClosesTheSource)
{
    RecordedKeyboard first(m_folder, QStringLiteral("first"));
    RecordedKeyboard second(m_folder, QStringLiteral("second"));
    EvdevKeySource source({first.path(), second.path()});
    ASSERT_TRUE(source.open(sink()));
    first.unplug();
    second.key(KEY_B, 1);
    ASSERT_TRUE(waitUntil([&] { return m_events.size() == 1; }));
    EXPECT_TRUE(source.isOpen());
    second.unplug();
    ASSERT_TRUE(waitUntil([&] { return !source.isOpen(); }));
    EXPECT_FALSE(source.errorString().isEmpty());

    // A device that cannot be read at all says why in one line.
    EvdevKeySource missing({m_folder.filePath(QStringLiteral("nothing"))});
    EXPECT_FALSE(missing.open(sink()));
    EXPECT_TRUE(missing.errorString().contains(QStringLiteral("cannot be read")))
        << qPrintable(missing.errorString());
    EXPECT_FALSE(missing.errorString().contains(u'\n'));
}

} // namespace
} // namespace vocari
