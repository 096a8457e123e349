#pragma once

#include <QByteArray>
#include <QObject>
#include <QString>
#include <QStringList>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

struct wl_proxy;

namespace vocari {

class WaylandConnection;

// What was on the clipboard before a paste: the format its owner offered first, with its bytes,
// or nothing at all.
struct ClipboardContent
{
    QString type; // empty: the clipboard was empty
    QByteArray bytes;
    bool operator==(const ClipboardContent &) const = default;
};

// A clipboard that a program may read and set without a focused window of its own.
class ClipboardAccess
{
public:
    virtual ~ClipboardAccess() = default;
    // Reads what is on the clipboard now and hands it to `done`: at once, before returning,
    // when it is known without asking its owner (an empty clipboard, this program's own text),
    // otherwise from the event loop once the owner has handed it over. None when it cannot be
    // read in time.
    using Saved = std::function<void(std::optional<ClipboardContent>)>;
    virtual void save(Saved done) = 0;
    virtual bool setText(const QString &text) = 0;
    // The primary selection, which xterm and urxvt paste on Shift+Insert.
    virtual bool setPrimaryText(const QString &text) = 0;
    // Puts saved content back; an empty one clears the clipboard.
    virtual bool restore(const ClipboardContent &content) = 0;
    // How many times another program has fetched the text of the last setText() or
    // setPrimaryText().
    virtual int fetches() const = 0;
};

// The clipboard of a compositor that offers the wlroots data-control protocol, spoken on this
// program's own Wayland connection. The compositor announces every change of the clipboard,
// with the formats on offer, so an empty clipboard is known at once; reading content asks its
// owner for the bytes, with a short limit. Text this program sets is served from memory until
// another owner takes the clipboard. A restore brings back the format the previous owner listed
// first (plain text also under the other names of plain text): text stays text and an image
// stays an image, but a rich-text copy comes back with its first format only.
class DataControlClipboard final : public QObject, public ClipboardAccess
{
    Q_OBJECT
public:
    // None when the compositor lacks the protocol.
    static std::unique_ptr<DataControlClipboard>
    create(std::shared_ptr<WaylandConnection> connection);
    ~DataControlClipboard() override;

    void save(Saved done) override;
    bool setText(const QString &text) override;
    bool setPrimaryText(const QString &text) override;
    bool restore(const ClipboardContent &content) override;
    int fetches() const override { return m_fetches; }

    // Longest wait for the owner of the clipboard to hand over its content, and for a reader to
    // take this program's.
    static constexpr int kReadLimitMs = 500;

    // The protocol's events.
    struct Offer;
    struct Source;
    class Reading;
    void onDataOffer(wl_proxy *offer);
    void onSelection(wl_proxy *offer, bool primary);
    void onDeviceFinished();
    void onSend(Source *source, const char *mimeType, int fd);
    void onCancelled(Source *source);

private:
    DataControlClipboard(std::shared_ptr<WaylandConnection> connection, wl_proxy *manager);
    // Makes `bytes` the clipboard's (or the primary selection's) content under `types`.
    bool own(const QStringList &types, const QByteArray &bytes, bool primary);
    Offer *offerFor(wl_proxy *proxy);
    void dropOffersExceptCurrent();

    std::shared_ptr<WaylandConnection> m_keepConnection;
    WaylandConnection &m_connection;
    wl_proxy *m_manager = nullptr;
    wl_proxy *m_device = nullptr;
    std::vector<std::unique_ptr<Offer>> m_offers;
    Offer *m_selection = nullptr;
    Source *m_ownSelection = nullptr; // ours while no other program took the clipboard
    std::vector<std::unique_ptr<Source>> m_sources;
    int m_fetches = 0;
    bool m_withdrawn = false; // the compositor ended the device
};

} // namespace vocari
