#include "app/AppLog.h"

namespace vocari {

Q_LOGGING_CATEGORY(lcApp, "vocari.app", QtInfoMsg)

} // namespace vocari
