#pragma once

#include <QLoggingCategory>

namespace vocari {

// The application's own messages: start-up, input access, the dictation key, the tray.
Q_DECLARE_LOGGING_CATEGORY(lcApp)

} // namespace vocari
