#include "platform/wayland/WaylandDesktopServices.h"

#include "platform/wayland/Keysyms.h"
#include "platform/wayland/WaylandLog.h"
#include "settings/Preferences.h"
#include "text/TextInserter.h"

namespace vocari {

WaylandDesktopServices::WaylandDesktopServices(std::unique_ptr<KeyInjector> keys,
                                               std::unique_ptr<ClipboardAccess> clipboard,
                                               std::function<void(const QString &)> fallback)
    : m_keys(std::move(keys)), m_clipboard(std::move(clipboard)),
      m_fallbackClipboard(std::move(fallback))
{
    m_restore.setSingleShot(true);
    m_restore.setInterval(kRestoreDelayMs);
    QObject::connect(&m_restore, &QTimer::timeout, [this] {
        if (m_saved && m_clipboard)
            m_clipboard->restore(*m_saved);
        m_saved.reset();
    });
}

WaylandDesktopServices::~WaylandDesktopServices() = default;

InputAccessState WaylandDesktopServices::inputAccess()
{
    const bool ready = m_keys->ready();
    // The dictation key comes from the desktop's shortcut service, whether or not keys can be
    // sent: a dictation without input access still ends on the clipboard.
    return {ready, ready ? QString() : m_keys->errorString(), true};
}

void WaylandDesktopServices::send(const std::vector<KeysymEvent> &events)
{
    if (!m_keys->send(events))
        qCWarning(lcWayland).noquote() << "Keys could not be sent:" << m_keys->errorString();
}

void WaylandDesktopServices::paste(const QString &text)
{
    if (!m_clipboard) {
        if (!m_saidTyping) {
            qCInfo(lcWayland, "This compositor lets no program set the clipboard without a "
                              "window in front, so dictations are typed instead of pasted.");
            m_saidTyping = true;
        }
        type(text);
        m_erasable = 0;
        return;
    }
    // Within the restore delay of an earlier paste the clipboard holds that dictation; what
    // the user had before it is the content to come back.
    if (!m_restore.isActive())
        m_saved = m_clipboard->save();
    m_restore.stop();
    if (!m_clipboard->setText(text)) {
        // The text cannot reach the clipboard: typing it loses nothing.
        type(text);
        m_erasable = 0;
        return;
    }
    // Which program is in front cannot be known, so no terminal's own shortcut is chosen
    // unless the settings name one.
    const QString setting = Preferences::pasteShortcut();
    send(pasteKeysyms(TextInserter::pasteKeys(setting, QString(), QString())));
    m_erasable = 0;
    if (Preferences::keepOnClipboard()) {
        m_saved.reset();
        return;
    }
    if (m_saved)
        m_restore.start();
}

qsizetype WaylandDesktopServices::type(const QString &text)
{
    if (text.isEmpty())
        return 0;
    QString lines = text;
    lines.replace(QStringLiteral("\r\n"), QStringLiteral("\n"));
    lines.replace(QChar(u'\r'), QChar(u'\n'));
    if (!m_keys->send(typingKeysyms(lines))) {
        qCWarning(lcWayland).noquote() << "The text could not be typed:" << m_keys->errorString();
        m_erasable = 0;
        return 0;
    }
    // Wayland programs (GTK 4, Qt) take back one code point per BackSpace.
    const qsizetype count =
        TextInserter::backspaceCount(lines, TextInserter::BackspaceRule::codePoint);
    m_erasable += count;
    return count;
}

void WaylandDesktopServices::erase(qsizetype count)
{
    // Only what was typed since anything else went out is known to be in the window still.
    if (count > m_erasable) {
        qCInfo(lcWayland, "The typed text is not erased: other keys were sent since.");
    } else if (count > 0) {
        send(backspaceKeysyms(count));
    }
    m_erasable = 0;
}

void WaylandDesktopServices::copyToClipboard(const QString &text)
{
    m_restore.stop();
    m_saved.reset();
    if (m_clipboard && m_clipboard->setText(text))
        return;
    if (m_fallbackClipboard)
        m_fallbackClipboard(text);
}

} // namespace vocari
