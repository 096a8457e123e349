#pragma once

#include "app/DesktopServices.h"
#include "platform/wayland/DataControlClipboard.h"
#include "platform/wayland/KeyInjector.h"

#include <QPointer>
#include <QTimer>
#include <deque>
#include <memory>
#include <optional>

namespace vocari {

// A Wayland session: keys go to the focused window through a KeyInjector (the desktop's
// remote-desktop portal, or a virtual keyboard), and the clipboard is set without a window of
// our own where the compositor offers a data-control protocol. Without one, a paste becomes
// typing, which needs no clipboard (said once in the log).
//
// No program may learn which window has the keyboard on Wayland, so there is no frontmost
// process; erasing live-typed text is therefore limited to what this program typed last: a
// paste or anything else sent after the typing means the erase does nothing, and an erase never
// takes more than was typed since then.
class WaylandDesktopServices final : public DesktopServices
{
public:
    // `clipboard`: none where the compositor has no data-control protocol. `fallbackClipboard`
    // copies text for the user where that is all that can be done (the windows' own clipboard,
    // which reaches Wayland programs through XWayland's bridge); none: the data-control one.
    WaylandDesktopServices(std::unique_ptr<KeyInjector> keys,
                           std::unique_ptr<ClipboardAccess> clipboard,
                           std::function<void(const QString &)> fallbackClipboard = {});
    ~WaylandDesktopServices() override;

    InputAccessState inputAccess() override;
    std::optional<qint64> frontmostWindow() override { return std::nullopt; }
    bool eraseLimitedToOwnTyping() const override { return true; }
    bool paste(const QString &text) override;
    qsizetype type(const QString &text) override;
    void erase(qsizetype count) override;
    void copyToClipboard(const QString &text) override;
    bool hasCompositor() override { return true; } // every Wayland compositor composites
    bool declined() const override { return m_keys->declined(); }
    void askAgain() override { m_keys->askAgain(); }

    KeyInjector &keys() { return *m_keys; }
    bool pastesThroughClipboard() const { return m_clipboard != nullptr; }
    bool restorePending() const { return m_restore.isActive(); }

    static constexpr int kRestoreDelayMs = 500;
    // A window that has not fetched the text by the delay is given this much longer, looked at
    // every step.
    static constexpr int kLongestFetchWaitMs = 3000;
    static constexpr int kRestoreStepMs = 100;

private:
    // Pastes once the user's clipboard is saved; false when no key can be sent, and the text
    // is left on the clipboard.
    bool pasteThroughClipboard(const QString &text);
    void pasteWaiting();
    void pasteNow(const QString &text);
    // Types the text; how many BackSpaces erase it, or none when the keys could not be sent.
    std::optional<qsizetype> typeText(const QString &text);
    void leaveOnClipboard(const QString &text);

    std::unique_ptr<KeyInjector> m_keys;
    std::unique_ptr<ClipboardAccess> m_clipboard;
    std::function<void(const QString &)> m_fallbackClipboard;
    QTimer m_restore;
    std::optional<ClipboardContent> m_saved; // what comes back when the restore runs
    int m_restoreWaitedMs = 0;
    bool m_saving = false;        // the user's clipboard is being read
    std::deque<QString> m_pastes; // texts waiting for that to be pasted
    qsizetype m_erasable = 0;     // BackSpaces that take back what was typed since anything else
    bool m_saidTyping = false;
};

} // namespace vocari
