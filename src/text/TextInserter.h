#pragma once

#include <QString>
#include <QStringList>

namespace vocari {

struct ActiveWindow;

// Puts finished text into the focused window of another program, by pasting it through the
// clipboard or by typing it, and erases live-typed text again. The caller decides which to
// use and checks input access first; the inserter cannot tell whether the program took the
// keys. Everything runs on the main thread.
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
// user had before the first, so the user's content is what comes back in the end. A paste
// with Shift+Insert, which xterm and urxvt answer from the primary selection, puts the text
// on the primary selection as well and restores that the same way.
void insert(const QString &text);

// Types the text as keystrokes into the focused window, in chunks of typingChunks(). Returns
// once every key has been sent, with the number of BackSpace presses that erase what was
// typed in that window (characters that could not be typed are not counted). An empty text
// sends nothing and returns 0.
qsizetype type(const QString &text);

// Presses BackSpace `count` times.
void erase(qsizetype count);

// Whether a clipboard restore is still waiting to run.
bool restorePending();

// The text with every line break (CR LF, CR or LF) as one LF, which is typed as one Return.
QString unifiedLineBreaks(const QString &text);

// The text cut into pieces of at most 20 UTF-16 code units; a piece that would end between the
// two halves of a surrogate pair ends one unit earlier.
QStringList typingChunks(const QString &text);

// What one BackSpace takes back in a program. Qt widgets, terminals and most other programs
// delete the last code point, so a flag or a family emoji takes several. GTK deletes a whole
// grapheme cluster when it starts with a Latin, Greek, Cyrillic, kana, Hangul or symbol
// character (emoji included), and one code point of a cluster in any other script. Chromium
// deletes an emoji sequence at once and everything else one code point at a time (a combining
// mark alone). Firefox does the same, except that it takes a sequence joined by zero-width
// joiners apart: first the last joiner with what follows it, then one code point at a time
// (an emoji keeps its variation selector or skin tone with it).
enum class BackspaceRule
{
    codePoint,
    gtk,
    chromium,
    firefox
};

// The rule of the program behind a window: Chromium's or Firefox's for those browsers (whose
// own editing ignores the GTK they load), GTK for another GTK program that is not a terminal (a
// terminal hands BackSpace to the program running in it).
BackspaceRule backspaceRule(const ActiveWindow &window);

// How many BackSpace presses erase the text under the rule.
qsizetype backspaceCount(const QString &text, BackspaceRule rule);

// The shortcut for the "pasteShortcut" setting ("auto", "ctrlV", "ctrlShiftV", "shiftInsert")
// and the focused window's WM_CLASS parts. "auto" uses each terminal's own paste, as terminals
// take Ctrl+V for themselves: Shift+Insert in xterm and urxvt, Ctrl+Shift+V in the others, and
// Ctrl+V everywhere else.
PasteKeys pasteKeys(const QString &setting, const QString &instanceName, const QString &className);

// Whether a WM_CLASS name belongs to a known terminal emulator ("xterm", "Gnome-terminal",
// "gnome-terminal-server", "org.wezfurlong.wezterm", "URxvt", ...).
bool isTerminal(const QString &windowClassName);

} // namespace TextInserter
} // namespace vocari
