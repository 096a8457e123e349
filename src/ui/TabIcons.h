#pragma once

#include <QIcon>
#include <QString>

namespace vocari {

// The pictures of the Text, Popup, Permissions and About tabs, compiled into this library.

// An icon by name: "preview", "granted" or "missing".
QIcon tabIcon(const QString &name);

// The resource path of the application's logo, an SVG.
QString logoPath();

} // namespace vocari
