#pragma once

#include <QString>
#include <QStringList>

namespace vocari {

// Puts finished text into the focused window of another program, by pasting it through the
// clipboard or by typing it, and erases live-typed text again. The caller decides which to
// use and checks input access first; the inserter reports nothing (a program that ignores the
// keys cannot be detected). Everything runs on the main thread.
namespace TextInserter {

enum class PasteKeys
{
    ctrlV,
    ctrlShiftV,
    shiftInsert
};

// Pastes the text: keeps a copy of every format on the clipboard, puts the text there, presses
// the paste shortcut and, 0.5 s later, puts the saved clipboard back (unless the
// "keepOnClipboard" setting is on, or another program has taken the clipboard meanwhile).
// Returns at once. A paste that follows another within those 0.5 s keeps the clipboard the
// user had before the first, so the user's content is what comes back in the end.
void insert(const QString &text);

// Types the text as keystrokes, in chunks of typingChunks(). Returns once every key has been
// sent. An empty text sends nothing.
void type(const QString &text);

// Presses BackSpace `count` times, erasing that many characters (grapheme clusters) before
// the cursor.
void erase(qsizetype count);

// Whether a clipboard restore is still waiting to run.
bool restorePending();

// The text cut into pieces of at most 20 UTF-16 code units; a piece that would end between the
// two halves of a surrogate pair ends one unit earlier.
QStringList typingChunks(const QString &text);

// The number of characters as the user sees them (grapheme clusters): what erase() takes.
qsizetype characterCount(const QString &text);

// The shortcut for the "pasteShortcut" setting ("auto", "ctrlV", "ctrlShiftV", "shiftInsert")
// and the focused window's WM_CLASS parts: "auto" uses Ctrl+Shift+V in terminals, which take
// Ctrl+V for themselves, and Ctrl+V everywhere else.
PasteKeys pasteKeys(const QString &setting, const QString &instanceName, const QString &className);

// Whether a WM_CLASS name belongs to a known terminal emulator ("xterm", "Gnome-terminal",
// "gnome-terminal-server", "org.wezfurlong.wezterm", "URxvt", ...).
bool isTerminal(const QString &windowClassName);

} // namespace TextInserter
} // namespace vocari
