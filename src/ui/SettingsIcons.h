#pragma once

#include <QColor>
#include <QIcon>
#include <QString>

namespace vocari {

// The pictures of the settings window: the six tab icons ("general", "text", "models",
// "popup", "permissions", "about") and the presets button ("presets"). They are drawn as
// outlines in one colour and painted in the colour given, normally the text colour of the
// palette in use, so they read on light and dark themes alike.
QIcon settingsIcon(const QString &name, const QColor &color);

} // namespace vocari
