#pragma once

#include <QLoggingCategory>

namespace vocari {

// Messages about the Wayland session: the desktop's portals, the virtual keyboard, the
// clipboard.
Q_DECLARE_LOGGING_CATEGORY(lcWayland)

} // namespace vocari
