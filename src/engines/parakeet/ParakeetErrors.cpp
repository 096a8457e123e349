#include "engines/parakeet/ParakeetErrors.h"

#include "engines/parakeet/ParakeetLog.h"

namespace vocari {

RuntimeError::RuntimeError(Kind kind, const QString &message)
    : TranscriberError(message), m_kind(kind)
{
}

RuntimeError RuntimeError::badOutput(const QString &detail)
{
    qCWarning(lcParakeet).noquote() << "unexpected model output:" << detail;
    return RuntimeError(Kind::BadOutput,
                        QStringLiteral("The speech model returned an unexpected result."));
}

} // namespace vocari
