#include "platform/evdev/EvdevKeySource.h"

#include <QDir>
#include <QFile>
#include <QLoggingCategory>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/input.h>
#include <sys/ioctl.h>
#include <unistd.h>

Q_LOGGING_CATEGORY(lcEvdev, "vocari.evdev", QtInfoMsg)

namespace vocari {

namespace {

constexpr QLatin1StringView inputFolder("/dev/input");

QString accessHint()
{
    return QStringLiteral("Reading the keyboards needs membership of the “input” group: run "
                          "“sudo usermod -aG input $USER”, then log out and in again.");
}

bool hasKey(const unsigned char *bits, int key)
{
    return bits[key / 8] & (1 << (key % 8));
}

// Whether the device has the keys of a typing keyboard, unlike a power button or a mouse.
bool isKeyboard(int fd)
{
    unsigned char keys[KEY_MAX / 8 + 1] = {};
    if (::ioctl(fd, EVIOCGBIT(EV_KEY, sizeof keys), keys) < 0)
        return false;
    return hasKey(keys, KEY_A) && hasKey(keys, KEY_Z) && hasKey(keys, KEY_SPACE);
}

} // namespace

EvdevKeySource::EvdevKeySource(QStringList devices, QObject *parent)
    : QObject(parent), m_wanted(std::move(devices))
{
}

EvdevKeySource::~EvdevKeySource()
{
    close();
}

QStringList EvdevKeySource::keyboards(QString *error)
{
    QStringList found;
    bool refused = false;
    const QDir folder(inputFolder.toString());
    for (const QString &name : folder.entryList({QStringLiteral("event*")}, QDir::System)) {
        const QByteArray path = QFile::encodeName(folder.filePath(name));
        const int fd = ::open(path.constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        if (fd < 0) {
            refused = refused || errno == EACCES || errno == EPERM;
            continue;
        }
        if (isKeyboard(fd))
            found << folder.filePath(name);
        ::close(fd);
    }
    if (found.isEmpty() && error)
        *error = refused ? accessHint() : QStringLiteral("No keyboard was found under /dev/input.");
    return found;
}

bool EvdevKeySource::open(Sink sink)
{
    close();
    QStringList paths = m_wanted;
    if (paths.isEmpty())
        paths = keyboards(&m_error);
    for (const QString &path : paths) {
        const int fd =
            ::open(QFile::encodeName(path).constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        if (fd < 0) {
            m_error = errno == EACCES || errno == EPERM
                          ? accessHint()
                          : QStringLiteral("%1 cannot be read: %2")
                                .arg(path, QString::fromLocal8Bit(std::strerror(errno)));
            continue;
        }
        auto device = std::make_unique<Device>();
        device->fd = fd;
        device->path = path;
        device->notifier = std::make_unique<QSocketNotifier>(fd, QSocketNotifier::Read);
        Device *raw = device.get();
        connect(device->notifier.get(), &QSocketNotifier::activated, this,
                [this, raw] { readFrom(raw); });
        m_devices.push_back(std::move(device));
    }
    if (m_devices.empty())
        return false;
    qCInfo(lcEvdev, "dictation key: read from %lld keyboard device(s)",
           qlonglong(m_devices.size()));
    m_sink = std::move(sink);
    m_error.clear();
    return true;
}

void EvdevKeySource::close()
{
    ++m_generation;
    for (auto &device : m_devices)
        dispose(std::move(device));
    m_devices.clear();
    m_heldModifiers.clear();
    m_down.clear();
    m_sink = nullptr;
}

void EvdevKeySource::dispose(std::unique_ptr<Device> device)
{
    // The notifier may be the one whose signal is running: it goes once that has returned.
    device->notifier->setEnabled(false);
    device->notifier.release()->deleteLater();
    ::close(device->fd);
}

std::vector<GrabFailure> EvdevKeySource::setGrabs(const std::vector<KeyGrab> &grabs)
{
    std::vector<GrabFailure> failures;
    for (const KeyGrab &grab : grabs)
        failures.push_back({grab, GrabFailure::Reason::refused});
    return failures;
}

void EvdevKeySource::readFrom(Device *device)
{
    char buffer[64 * sizeof(input_event)];
    const unsigned generation = m_generation;
    for (;;) {
        const ssize_t got = ::read(device->fd, buffer, sizeof buffer);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0 && errno == EAGAIN)
            return;
        if (got <= 0) {
            // ENODEV: unplugged; 0: the other end of a pipe closed.
            drop(device, got == 0 ? QStringLiteral("it ended")
                                  : QString::fromLocal8Bit(std::strerror(errno)));
            return;
        }
        device->pending.append(buffer, got);
        qsizetype used = 0;
        for (; used + qsizetype(sizeof(input_event)) <= device->pending.size();
             used += sizeof(input_event)) {
            input_event event;
            std::memcpy(&event, device->pending.constData() + used, sizeof event);
            if (event.type == EV_SYN && event.code == SYN_DROPPED) {
                resynchronise(device);
            } else if (event.type == EV_KEY && event.value >= 0 && event.value <= 2) {
                if (!deliver(std::uint16_t(event.code), event.value))
                    return;
            }
            if (generation != m_generation)
                return; // the device went with a close
        }
        device->pending.remove(0, used);
    }
}

bool EvdevKeySource::deliver(std::uint16_t code, int value)
{
    const bool pressed = value != 0;
    if (pressed)
        m_down.insert(code);
    else
        m_down.erase(code);
    if (Hotkey::flag(code)) {
        if (pressed)
            m_heldModifiers.insert(code);
        else
            m_heldModifiers.erase(code);
    }
    std::uint64_t modifiers = 0;
    for (std::uint16_t held : m_heldModifiers)
        modifiers |= Hotkey::flag(held).value_or(0);
    if (!m_sink)
        return true;
    const unsigned generation = m_generation;
    // A copy: the sink may close the source while it runs.
    const Sink sink = m_sink;
    sink({pressed ? KeyEvent::Kind::press : KeyEvent::Kind::release, KeyEvent::Route::observed,
          code, modifiers, value == 2});
    return generation == m_generation;
}

void EvdevKeySource::resynchronise(Device *device)
{
    unsigned char held[KEY_MAX / 8 + 1] = {};
    if (::ioctl(device->fd, EVIOCGKEY(sizeof held), held) < 0)
        return;
    const unsigned generation = m_generation;
    for (std::uint16_t code : std::set<std::uint16_t>(m_down)) {
        if (!hasKey(held, code) && (!deliver(code, 0) || generation != m_generation))
            return;
    }
}

void EvdevKeySource::drop(Device *device, const QString &why)
{
    qCInfo(lcEvdev).noquote() << "keyboard" << device->path << "is gone:" << why;
    const auto gone = std::find_if(m_devices.begin(), m_devices.end(),
                                   [device](const auto &kept) { return kept.get() == device; });
    if (gone == m_devices.end())
        return;
    dispose(std::move(*gone));
    m_devices.erase(gone);
    if (m_devices.empty()) {
        m_error = QStringLiteral("No keyboard is left to read; Vocari looks again shortly.");
        m_sink = nullptr;
    }
}

} // namespace vocari
