#pragma once

#include <QLoggingCategory>

namespace vocari {

// One informational line per transcribed phrase, plus warnings about unusable models.
Q_DECLARE_LOGGING_CATEGORY(lcParakeet)

} // namespace vocari
