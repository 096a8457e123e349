#include "engines/parakeet/ParakeetLog.h"

namespace vocari {

Q_LOGGING_CATEGORY(lcParakeet, "vocari.parakeet", QtInfoMsg)

} // namespace vocari
