#include "dictation/TimingLog.h"

namespace vocari {

Q_LOGGING_CATEGORY(lcTiming, "vocari.timing", QtInfoMsg)

namespace {
// Locale-independent, so the log reads the same everywhere.
QString seconds(const char *format, double value)
{
    return QString::asprintf(format, value);
}
} // namespace

qsizetype countWords(const QString &text)
{
    return text.split(u' ', Qt::SkipEmptyParts).size();
}

QString timingLine(const DictationTiming &timing)
{
    const QString tidy =
        timing.tidy ? QStringLiteral(" · tidy ") + seconds("%.2f s", *timing.tidy) : QString();
    return QStringLiteral("%1 (%2) · spoke %3 · ready %4 · transcribe %5%6 · release→insert %7 · "
                          "%8 words")
        .arg(timing.engineName, timing.live ? QStringLiteral("live") : QStringLiteral("on release"),
             seconds("%.1f s", timing.spoke), seconds("%.2f s", timing.ready),
             seconds("%.2f s", timing.transcribe), tidy, seconds("%.2f s", timing.releaseToInsert),
             QString::number(timing.words));
}

void logTiming(const DictationTiming &timing)
{
    qCInfo(lcTiming).noquote() << timingLine(timing);
}

} // namespace vocari
