#pragma once

#include <QColor>
#include <QIcon>
#include <QPalette>

namespace vocari::ModelIcons {

// The Models tab's own symbols, drawn in black and tinted when used.
enum class Symbol
{
    add,        // a plus: add a model
    cancel,     // a filled circle with a cross cut out: cancel a download
    folder,     // show a folder in the file browser
    remove,     // a bin: remove an engine from the list
    selected,   // a filled circle with a check mark cut out: the engine in use
    unselected, // an empty circle: an engine that can be chosen
};

// The symbol in one colour, sharp at 1x and 2x.
QIcon icon(Symbol symbol, const QColor &color, int size = 16);

// The select button's icon: the check mark in the accent colour when on, the empty circle in
// the secondary colour when off.
QIcon selectIcon(const QPalette &palette, int size);

// Text that stays in the background: the window text, faded.
QColor secondaryColor(const QPalette &palette);
// The palette with its window text in the secondary colour.
QPalette secondaryPalette(QPalette palette);
// The accent colour of the palette.
QColor accentColor(const QPalette &palette);
// The red of error messages, readable on light and dark windows.
QColor errorColor(const QPalette &palette);

} // namespace vocari::ModelIcons
