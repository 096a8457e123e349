#pragma once

#include <QByteArray>
#include <QString>
#include <optional>

namespace vocari {

// What was on the clipboard before a paste: the format its owner offered first, with its bytes,
// or nothing at all.
struct ClipboardContent
{
    QString type; // empty: the clipboard was empty
    QByteArray bytes;
};

// A clipboard that a program may read and set without a focused window of its own.
class ClipboardAccess
{
public:
    virtual ~ClipboardAccess() = default;
    // What is on the clipboard now; none when it cannot be read.
    virtual std::optional<ClipboardContent> save() = 0;
    virtual bool setText(const QString &text) = 0;
    // The primary selection, which xterm and urxvt paste on Shift+Insert.
    virtual bool setPrimaryText(const QString &text) = 0;
    // Puts saved content back; an empty one clears the clipboard.
    virtual bool restore(const ClipboardContent &content) = 0;
};

// The clipboard of a compositor that offers the data-control protocol, through the
// wl-clipboard programs (wl-copy and wl-paste), which speak it. wl-copy serves one format, so a
// restore brings back the format the previous owner listed first: text stays text and an image
// stays an image, but a rich-text copy comes back with its first format only.
class DataControlClipboard final : public ClipboardAccess
{
public:
    // Whether wl-copy and wl-paste are installed.
    static bool programsFound();

    std::optional<ClipboardContent> save() override;
    bool setText(const QString &text) override;
    bool setPrimaryText(const QString &text) override;
    bool restore(const ClipboardContent &content) override;

private:
    static bool copy(const QString &type, const QByteArray &bytes, bool primary = false);
};

} // namespace vocari
