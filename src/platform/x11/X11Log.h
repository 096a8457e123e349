#pragma once

#include <QLoggingCategory>

namespace vocari {

// Messages about the X display: connection, key grabs, synthetic keys.
Q_DECLARE_LOGGING_CATEGORY(lcX11)

} // namespace vocari
