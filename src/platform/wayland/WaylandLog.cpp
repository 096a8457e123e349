#include "platform/wayland/WaylandLog.h"

namespace vocari {

Q_LOGGING_CATEGORY(lcWayland, "vocari.wayland", QtInfoMsg)

} // namespace vocari
