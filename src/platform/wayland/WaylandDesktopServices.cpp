#include "platform/wayland/WaylandDesktopServices.h"

#include "platform/wayland/Keysyms.h"
#include "platform/wayland/WaylandLog.h"
#include "settings/Preferences.h"
#include "text/TextInserter.h"

#include <optional>

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

bool WaylandDesktopServices::send(const std::vector<KeysymEvent> &events)
{
    if (m_keys->send(events))
        return true;
    qCWarning(lcWayland).noquote() << "Keys could not be sent:" << m_keys->errorString();
    return false;
}

void WaylandDesktopServices::leaveOnClipboard(const QString &text)
{
    qCWarning(lcWayland, "The text could not be put into the window; it is on the clipboard.");
    copyToClipboard(text);
}

bool WaylandDesktopServices::paste(const QString &text)
{
    m_erasable = 0;
    if (!m_clipboard) {
        if (!m_saidTyping) {
            qCInfo(lcWayland, "This compositor lets no program set the clipboard without a "
                              "window in front, so dictations are typed instead of pasted.");
            m_saidTyping = true;
        }
        const bool typed = typeText(text).has_value();
        if (!typed)
            leaveOnClipboard(text);
        m_erasable = 0;
        return typed;
    }
    // Within the restore delay of an earlier paste the clipboard holds that dictation; what
    // the user had before it is the content to come back.
    if (!m_restore.isActive())
        m_saved = m_clipboard->save();
    m_restore.stop();
    if (!m_clipboard->setText(text)) {
        // The text cannot reach the clipboard: typing it loses nothing.
        m_saved.reset();
        const bool typed = typeText(text).has_value();
        if (!typed)
            leaveOnClipboard(text);
        m_erasable = 0;
        return typed;
    }
    // Which program is in front cannot be known, so no terminal's own shortcut is chosen
    // unless the settings name one. xterm and urxvt paste the primary selection.
    const TextInserter::PasteKeys keys =
        TextInserter::pasteKeys(Preferences::pasteShortcut(), QString(), QString());
    if (keys == TextInserter::PasteKeys::shiftInsert)
        m_clipboard->setPrimaryText(text);
    if (!send(pasteKeysyms(keys))) {
        // Nothing was pasted: the text stays on the clipboard for the user to paste.
        qCWarning(lcWayland, "The paste shortcut could not be sent; the text is on the "
                             "clipboard.");
        m_saved.reset();
        return false;
    }
    if (Preferences::keepOnClipboard() || !m_saved) {
        // An unreadable clipboard is not cleared: the dictation stays on it instead.
        m_saved.reset();
        return true;
    }
    m_restore.start();
    return true;
}

std::optional<qsizetype> WaylandDesktopServices::typeText(const QString &text)
{
    const std::vector<KeysymEvent> events = typingKeysyms(TextInserter::unifiedLineBreaks(text));
    if (!events.empty() && !send(events))
        return std::nullopt;
    // One BackSpace per character sent (Wayland programs, GTK 4 and Qt, take back one code
    // point each); characters that have no key were not sent and are not counted.
    return qsizetype(events.size() / 2);
}

qsizetype WaylandDesktopServices::type(const QString &text)
{
    const std::optional<qsizetype> typed = typeText(text);
    if (!typed) {
        m_erasable = 0;
        return 0;
    }
    m_erasable += *typed;
    return *typed;
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
