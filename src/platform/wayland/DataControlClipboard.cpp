#include "platform/wayland/DataControlClipboard.h"

#include "platform/wayland/WaylandConnection.h"
#include "platform/wayland/WaylandLog.h"
#include "platform/wayland/WaylandProtocols.h"

#include <QDeadlineTimer>
#include <QSocketNotifier>
#include <QTimer>
#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>
#include <wayland-client.h>

namespace vocari {

namespace {

const QString utf8Text = QStringLiteral("text/plain;charset=utf-8");
// What programs ask plain text for: the MIME names, and the X11 names that XWayland programs
// and older toolkits use.
const QStringList textTypes{utf8Text, QStringLiteral("text/plain"), QStringLiteral("UTF8_STRING"),
                            QStringLiteral("STRING"), QStringLiteral("TEXT")};

// A clipboard larger than this is not kept for a restore.
constexpr qsizetype kLargestContent = 64 * 1024 * 1024;

// Hands the bytes to a reader through a pipe that does not block, waiting for the reader at
// most `limitMs` in all: one that stops reading must not stall this program.
bool writeAll(int fd, const QByteArray &bytes, int limitMs)
{
    const QDeadlineTimer limit(limitMs);
    qsizetype done = 0;
    while (done < bytes.size()) {
        const ssize_t written = ::write(fd, bytes.constData() + done, size_t(bytes.size() - done));
        if (written > 0) {
            done += written;
            continue;
        }
        if (written < 0 && errno == EINTR)
            continue;
        if (written < 0 && errno != EAGAIN)
            return false;
        pollfd wait{fd, POLLOUT, 0};
        if (limit.hasExpired() || ::poll(&wait, 1, int(limit.remainingTime())) <= 0)
            return false;
    }
    return true;
}

} // namespace

struct DataControlClipboard::Offer
{
    wl_proxy *proxy = nullptr;
    QStringList types;
    ~Offer()
    {
        wl_proxy_marshal_flags(proxy, wl::DataControlOffer::destroy, nullptr,
                               wl_proxy_get_version(proxy), WL_MARSHAL_FLAG_DESTROY);
    }
};

struct DataControlClipboard::Source
{
    DataControlClipboard *owner = nullptr;
    wl_proxy *proxy = nullptr;
    QStringList types;
    QByteArray bytes;
    ~Source()
    {
        wl_proxy_marshal_flags(proxy, wl::DataControlSource::destroy, nullptr,
                               wl_proxy_get_version(proxy), WL_MARSHAL_FLAG_DESTROY);
    }
};

namespace {

const wl::DataControlOffer::Listener offerListener{
    [](void *data, wl_proxy *, const char *mimeType) {
        static_cast<DataControlClipboard::Offer *>(data)->types << QString::fromUtf8(mimeType);
    }};

const wl::DataControlSource::Listener sourceListener{
    [](void *data, wl_proxy *, const char *mimeType, int32_t fd) {
        auto *source = static_cast<DataControlClipboard::Source *>(data);
        source->owner->onSend(source, mimeType, fd);
    },
    [](void *data, wl_proxy *) {
        auto *source = static_cast<DataControlClipboard::Source *>(data);
        source->owner->onCancelled(source);
    }};

const wl::DataControlDevice::Listener deviceListener{
    [](void *data, wl_proxy *, wl_proxy *offer) {
        static_cast<DataControlClipboard *>(data)->onDataOffer(offer);
    },
    [](void *data, wl_proxy *, wl_proxy *offer) {
        static_cast<DataControlClipboard *>(data)->onSelection(offer, false);
    },
    [](void *data, wl_proxy *) { static_cast<DataControlClipboard *>(data)->onDeviceFinished(); },
    [](void *data, wl_proxy *, wl_proxy *offer) {
        static_cast<DataControlClipboard *>(data)->onSelection(offer, true);
    }};

} // namespace

std::unique_ptr<DataControlClipboard>
DataControlClipboard::create(std::shared_ptr<WaylandConnection> connection)
{
    if (!connection || !connection->seat())
        return nullptr;
    wl_proxy *manager = connection->bind(&wl::dataControlManager, 2);
    if (!manager)
        return nullptr;
    std::unique_ptr<DataControlClipboard> clipboard(new DataControlClipboard(connection, manager));
    // The compositor answers the new device with the clipboard as it is now.
    if (!connection->roundtrip())
        return nullptr;
    return clipboard;
}

DataControlClipboard::DataControlClipboard(std::shared_ptr<WaylandConnection> connection,
                                           wl_proxy *manager)
    : m_keepConnection(std::move(connection)), m_connection(*m_keepConnection), m_manager(manager)
{
    m_device = wl_proxy_marshal_flags(m_manager, wl::DataControlManager::getDataDevice,
                                      &wl::dataControlDevice, wl_proxy_get_version(m_manager), 0,
                                      nullptr, m_connection.seat());
    wl_proxy_add_listener(m_device,
                          reinterpret_cast<void (**)(void)>(
                              const_cast<wl::DataControlDevice::Listener *>(&deviceListener)),
                          this);
}

DataControlClipboard::~DataControlClipboard()
{
    m_selection = nullptr;
    m_ownSelection = nullptr;
    m_offers.clear();
    m_sources.clear();
    if (m_device)
        wl_proxy_marshal_flags(m_device, wl::DataControlDevice::destroy, nullptr,
                               wl_proxy_get_version(m_device), WL_MARSHAL_FLAG_DESTROY);
    wl_proxy_marshal_flags(m_manager, wl::DataControlManager::destroy, nullptr,
                           wl_proxy_get_version(m_manager), WL_MARSHAL_FLAG_DESTROY);
    m_connection.flush();
}

void DataControlClipboard::onDataOffer(wl_proxy *proxy)
{
    auto offer = std::make_unique<Offer>();
    offer->proxy = proxy;
    wl_proxy_add_listener(proxy,
                          reinterpret_cast<void (**)(void)>(
                              const_cast<wl::DataControlOffer::Listener *>(&offerListener)),
                          offer.get());
    m_offers.push_back(std::move(offer));
}

DataControlClipboard::Offer *DataControlClipboard::offerFor(wl_proxy *proxy)
{
    for (const auto &offer : m_offers)
        if (offer->proxy == proxy)
            return offer.get();
    return nullptr;
}

void DataControlClipboard::onSelection(wl_proxy *proxy, bool primary)
{
    // The primary selection is only ever set here, never read: its offers are not kept.
    if (!primary)
        m_selection = proxy ? offerFor(proxy) : nullptr;
    dropOffersExceptCurrent();
}

void DataControlClipboard::dropOffersExceptCurrent()
{
    // Each offer is announced, with its formats, just before the selection event it belongs to:
    // once that event is in, no other offer is of use.
    std::erase_if(m_offers, [this](const std::unique_ptr<Offer> &offer) {
        return offer.get() != m_selection;
    });
}

void DataControlClipboard::onDeviceFinished()
{
    qCWarning(lcWayland, "The compositor withdrew clipboard access.");
    m_withdrawn = true;
    m_selection = nullptr;
    m_offers.clear();
}

void DataControlClipboard::onSend(Source *source, const char *mimeType, int fd)
{
    Q_UNUSED(mimeType);
    ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
    const bool sent = writeAll(fd, source->bytes, kReadLimitMs);
    ::close(fd);
    if (!sent)
        qCInfo(lcWayland, "A program stopped reading the clipboard before its end.");
    ++m_fetches;
}

void DataControlClipboard::onCancelled(Source *source)
{
    if (m_ownSelection == source)
        m_ownSelection = nullptr;
    std::erase_if(m_sources, [source](const auto &kept) { return kept.get() == source; });
}

// The content of the clipboard coming through a pipe from its owner, read as it arrives.
class DataControlClipboard::Reading final : public QObject
{
public:
    Reading(QObject *parent, int fd, QString type, Saved done)
        : QObject(parent), m_fd(fd), m_type(std::move(type)), m_done(std::move(done)),
          m_notifier(fd, QSocketNotifier::Read)
    {
        connect(&m_notifier, &QSocketNotifier::activated, this, &Reading::read);
        m_limit.setSingleShot(true);
        connect(&m_limit, &QTimer::timeout, this, [this] {
            qCInfo(lcWayland).noquote()
                << "The clipboard's owner did not hand over its content in" << kReadLimitMs
                << "ms; it is not restored after the paste.";
            finish(std::nullopt);
        });
        m_limit.start(kReadLimitMs);
    }
    ~Reading() override { ::close(m_fd); }

private:
    void read()
    {
        char chunk[65536];
        for (;;) {
            const ssize_t got = ::read(m_fd, chunk, sizeof chunk);
            if (got < 0 && errno == EINTR)
                continue;
            if (got < 0 && errno == EAGAIN)
                return;
            if (got <= 0) {
                finish(got == 0 ? std::optional(ClipboardContent{m_type, m_bytes}) : std::nullopt);
                return;
            }
            m_bytes.append(chunk, got);
            if (m_bytes.size() > kLargestContent) {
                qCInfo(lcWayland, "The clipboard holds too much to be kept for after the paste.");
                finish(std::nullopt);
                return;
            }
        }
    }
    void finish(std::optional<ClipboardContent> content)
    {
        m_notifier.setEnabled(false);
        m_limit.stop();
        const Saved done = std::move(m_done);
        deleteLater();
        if (done)
            done(std::move(content));
    }

    int m_fd;
    QString m_type;
    Saved m_done;
    QByteArray m_bytes;
    QSocketNotifier m_notifier;
    QTimer m_limit;
};

void DataControlClipboard::save(Saved done)
{
    // The compositor may have news of the clipboard that the event loop has not handled yet.
    if (!m_connection.roundtrip()) {
        done(std::nullopt);
        return;
    }
    if (m_ownSelection) {
        done(ClipboardContent{m_ownSelection->types.value(0), m_ownSelection->bytes});
        return;
    }
    if (!m_selection || m_selection->types.isEmpty()) {
        done(ClipboardContent{});
        return;
    }
    const QString type = m_selection->types.first();
    int pipe[2];
    if (::pipe2(pipe, O_CLOEXEC | O_NONBLOCK) != 0) {
        done(std::nullopt);
        return;
    }
    wl_proxy_marshal_flags(m_selection->proxy, wl::DataControlOffer::receive, nullptr,
                           wl_proxy_get_version(m_selection->proxy), 0, type.toUtf8().constData(),
                           pipe[1]);
    ::close(pipe[1]);
    m_connection.flush();
    new Reading(this, pipe[0], type, std::move(done));
}

bool DataControlClipboard::own(const QStringList &types, const QByteArray &bytes, bool primary)
{
    // Set on a device the compositor withdrew, the text would reach nobody.
    if (m_connection.isLost() || m_withdrawn)
        return false;
    if (primary && wl_proxy_get_version(m_device) < 2)
        return false;
    auto source = std::make_unique<Source>();
    source->owner = this;
    source->types = types;
    source->bytes = bytes;
    source->proxy =
        wl_proxy_marshal_flags(m_manager, wl::DataControlManager::createDataSource,
                               &wl::dataControlSource, wl_proxy_get_version(m_manager), 0, nullptr);
    wl_proxy_add_listener(source->proxy,
                          reinterpret_cast<void (**)(void)>(
                              const_cast<wl::DataControlSource::Listener *>(&sourceListener)),
                          source.get());
    for (const QString &type : types)
        wl_proxy_marshal_flags(source->proxy, wl::DataControlSource::offer, nullptr,
                               wl_proxy_get_version(source->proxy), 0, type.toUtf8().constData());
    wl_proxy_marshal_flags(m_device,
                           primary ? wl::DataControlDevice::setPrimarySelection
                                   : wl::DataControlDevice::setSelection,
                           nullptr, wl_proxy_get_version(m_device), 0, source->proxy);
    if (!primary)
        m_ownSelection = source.get();
    m_sources.push_back(std::move(source));
    // Set before anything that follows, such as the paste keys, reaches the compositor.
    return m_connection.roundtrip();
}

bool DataControlClipboard::setText(const QString &text)
{
    m_fetches = 0;
    return own(textTypes, text.toUtf8(), false);
}

bool DataControlClipboard::setPrimaryText(const QString &text)
{
    return own(textTypes, text.toUtf8(), true);
}

bool DataControlClipboard::restore(const ClipboardContent &content)
{
    if (m_connection.isLost() || m_withdrawn)
        return false;
    if (content.type.isEmpty()) {
        wl_proxy_marshal_flags(m_device, wl::DataControlDevice::setSelection, nullptr,
                               wl_proxy_get_version(m_device), 0, nullptr);
        m_ownSelection = nullptr;
        return m_connection.roundtrip();
    }
    QStringList types{content.type};
    if (textTypes.contains(content.type))
        types = textTypes;
    return own(types, content.bytes, false);
}

} // namespace vocari
