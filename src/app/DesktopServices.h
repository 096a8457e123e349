#pragma once

#include <QString>
#include <optional>

namespace vocari {

// Whether the program may watch the keyboard and post keys to other programs, and if not,
// one plain sentence saying what is missing.
struct InputAccessState
{
    bool granted = false;
    QString explanation;
    // The dictation key can be watched even without input access (it comes from the desktop's
    // shortcut service, not from watching the keyboard), so a dictation can still end on the
    // clipboard.
    bool keysWithoutAccess = false;
    bool operator==(const InputAccessState &) const = default;
};

// What the application model needs from the desktop session it runs in: input access, the
// program in front, putting text there, and the clipboard. The application picks the
// implementation for the session; tests stand in for it.
class DesktopServices
{
public:
    virtual ~DesktopServices() = default;

    virtual InputAccessState inputAccess() = 0;
    // The window that has the keyboard, by an id that stays the same while that window stays in
    // front; none when the desktop does not say.
    virtual std::optional<qint64> frontmostWindow() = 0;
    // Whether erase() on its own takes back only what type() sent since anything else went out,
    // which makes an erase safe where the window in front is unknown.
    virtual bool eraseLimitedToOwnTyping() const { return false; }
    // Pastes the text into the window in front through the clipboard, which gets the user's
    // own content back afterwards. False when the text could not be put into the window and
    // was left on the clipboard instead.
    virtual bool paste(const QString &text) = 0;
    // Types the text into the window in front; returns how many BackSpaces erase it there.
    virtual qsizetype type(const QString &text) = 0;
    // Presses BackSpace `count` times.
    virtual void erase(qsizetype count) = 0;
    // Replaces the clipboard's content with the text alone.
    virtual void copyToClipboard(const QString &text) = 0;
    // Whether a compositing manager runs, so that translucent windows show what lies below.
    virtual bool hasCompositor() = 0;
    // Whether the user declined input access on a prompt of the desktop's, which is not shown
    // again by itself; askAgain() shows it once more.
    virtual bool declined() const { return false; }
    virtual void askAgain() {}
};

// The four feedback sounds.
enum class Sound
{
    start,    // capture started: the user may speak
    done,     // the text was pasted, or a live dictation ended well
    problem,  // ended with a notice, or the text could only be copied
    cancelled // the dictation was cancelled
};

class SoundPlayer
{
public:
    virtual ~SoundPlayer() = default;
    virtual void play(Sound sound) = 0;
    // How long the sound lasts, in seconds; 0 when unknown.
    virtual double seconds(Sound) const { return 0; }
};

} // namespace vocari
