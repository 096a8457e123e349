#include "platform/wayland/WaylandDesktopServices.h"

#include "platform/wayland/Keysyms.h"
#include "platform/wayland/WaylandLog.h"
#include "settings/Preferences.h"
#include "text/TextInserter.h"

#include <algorithm>
#include <iterator>
#include <optional>

namespace vocari {

WaylandDesktopServices::WaylandDesktopServices(std::unique_ptr<KeyInjector> keys,
                                               std::unique_ptr<ClipboardAccess> clipboard,
                                               std::function<void(const QString &)> fallback)
    : m_keys(std::move(keys)), m_clipboard(std::move(clipboard)),
      m_fallbackClipboard(std::move(fallback))
{
    m_restore.setSingleShot(true);
    QObject::connect(&m_restore, &QTimer::timeout, [this] {
        // The user's content comes back only once a program has fetched the dictation: before
        // that, a slow window would paste the old content. A paste nobody fetched failed, and
        // the dictation stays on the clipboard for the user to paste. A clipboard manager that
        // copies every change counts as a fetch too, so with one running this is the delay.
        if (m_clipboard && m_clipboard->fetches() == 0) {
            if (m_restoreWaitedMs < kLongestFetchWaitMs) {
                m_restoreWaitedMs += kRestoreStepMs;
                m_restore.start(kRestoreStepMs);
                return;
            }
            qCWarning(lcWayland, "No window took the pasted text; it stays on the clipboard.");
        } else if (m_saved && m_clipboard) {
            m_clipboard->restore(*m_saved);
        }
        m_saved.reset();
    });
}

WaylandDesktopServices::~WaylandDesktopServices()
{
    // The keys first: what they still have to send refers to the clipboard and the timer.
    m_keys.reset();
}

InputAccessState WaylandDesktopServices::inputAccess()
{
    const bool ready = m_keys->ready();
    // The dictation key comes from the desktop's shortcut service, whether or not keys can be
    // sent: a dictation without input access still ends on the clipboard.
    return {ready, ready ? QString() : m_keys->errorString(), true};
}

void WaylandDesktopServices::leaveOnClipboard(const QString &text)
{
    qCWarning(lcWayland, "The text could not be put into the window; it is on the clipboard.");
    copyToClipboard(text);
}

bool WaylandDesktopServices::paste(const QString &text)
{
    m_erasable = 0;
    if (m_clipboard)
        return pasteThroughClipboard(text);
    if (!m_saidTyping) {
        qCInfo(lcWayland, "This compositor lets no program set the clipboard without a window "
                          "in front, so dictations are typed instead of pasted.");
        m_saidTyping = true;
    }
    const bool typed = typeText(text).has_value();
    if (!typed)
        leaveOnClipboard(text);
    m_erasable = 0;
    return typed;
}

bool WaylandDesktopServices::pasteThroughClipboard(const QString &text)
{
    m_erasable = 0;
    if (!m_keys->ready()) {
        // No key can reach the window: the text waits on the clipboard for the user.
        qCWarning(lcWayland).noquote()
            << "The text is on the clipboard, as keys cannot be sent:" << m_keys->errorString();
        copyToClipboard(text);
        return false;
    }
    m_pastes.push_back(text);
    if (m_saving)
        return true;
    // Within the restore delay of an earlier paste the clipboard holds that dictation; what
    // the user had before it is the content to come back.
    if (m_restore.isActive()) {
        m_restore.stop();
        pasteWaiting();
        return true;
    }
    m_saving = true;
    m_clipboard->save([this](std::optional<ClipboardContent> saved) {
        m_saving = false;
        m_saved = std::move(saved);
        pasteWaiting();
    });
    return true;
}

void WaylandDesktopServices::pasteWaiting()
{
    // What came while the user's clipboard was read goes as one paste, in the order it came:
    // two pastes in a row would both fetch the second text.
    QString text;
    for (const QString &part : m_pastes)
        text += part;
    m_pastes.clear();
    if (!text.isEmpty())
        pasteNow(text);
}

void WaylandDesktopServices::pasteNow(const QString &text)
{
    if (!m_clipboard->setText(text)) {
        // The text cannot reach the clipboard: typing it loses nothing.
        m_saved.reset();
        std::vector<KeysymEvent> events = typingKeysyms(TextInserter::unifiedLineBreaks(text));
        if (!m_keys->send(events, [this, text] { leaveOnClipboard(text); }))
            leaveOnClipboard(text);
        return;
    }
    // Which program is in front cannot be known, so no terminal's own shortcut is chosen
    // unless the settings name one. xterm and urxvt paste the primary selection.
    const TextInserter::PasteKeys keys =
        TextInserter::pasteKeys(Preferences::pasteShortcut(), QString(), QString());
    if (keys == TextInserter::PasteKeys::shiftInsert)
        m_clipboard->setPrimaryText(text);
    const bool restore = !Preferences::keepOnClipboard() && m_saved;
    if (!restore)
        m_saved.reset(); // an unreadable clipboard is not cleared: the dictation stays on it
    const bool sent = m_keys->send(pasteKeysyms(keys), [this] {
        // Nothing was pasted: the text stays on the clipboard for the user to paste.
        qCWarning(lcWayland, "The paste shortcut could not be sent; the text is on the "
                             "clipboard.");
        m_restore.stop();
        m_saved.reset();
    });
    if (!sent) {
        qCWarning(lcWayland).noquote() << "The paste shortcut could not be sent; the text is on "
                                          "the clipboard:"
                                       << m_keys->errorString();
        m_saved.reset();
        return;
    }
    if (restore) {
        m_restoreWaitedMs = 0;
        m_restore.start(kRestoreDelayMs);
    }
}

std::optional<qsizetype> WaylandDesktopServices::typeText(const QString &text)
{
    const std::vector<KeysymEvent> events = typingKeysyms(TextInserter::unifiedLineBreaks(text));
    const bool layoutLacksSome = std::any_of(
        events.begin(), events.end(), [this](const auto &e) { return !m_keys->canType(e.keysym); });
    if (layoutLacksSome && m_clipboard) {
        // The desktop would drop those characters without a word: the phrase goes by paste.
        qCInfo(lcWayland, "The keyboard layout lacks characters of the text; it is pasted.");
        return pasteThroughClipboard(text) ? std::optional<qsizetype>(0) : std::nullopt;
    }
    std::vector<KeysymEvent> typeable;
    typeable.reserve(events.size());
    std::copy_if(events.begin(), events.end(), std::back_inserter(typeable),
                 [this](const auto &e) { return m_keys->canType(e.keysym); });
    if (!typeable.empty() && !m_keys->send(typeable, [this, text] {
            // What went out of this text is unknown, so none of it is erased.
            m_erasable = 0;
            leaveOnClipboard(text);
        })) {
        qCWarning(lcWayland).noquote() << "Keys could not be sent:" << m_keys->errorString();
        return std::nullopt;
    }
    if (layoutLacksSome) {
        qCWarning(lcWayland, "The keyboard layout lacks characters of the text, and they cannot "
                             "be pasted here; the whole text is on the clipboard.");
        copyToClipboard(text);
    }
    // One BackSpace per character sent (Wayland programs, GTK 4 and Qt, take back one code
    // point each); characters that were not sent are not counted.
    return qsizetype(typeable.size() / 2);
}

qsizetype WaylandDesktopServices::type(const QString &text)
{
    if (m_saving) {
        // A paste waits for the user's clipboard: this text goes with it, after it.
        m_pastes.push_back(text);
        m_erasable = 0;
        return 0;
    }
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
    } else if (count > 0 && !m_keys->send(backspaceKeysyms(count))) {
        qCWarning(lcWayland).noquote() << "Keys could not be sent:" << m_keys->errorString();
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
