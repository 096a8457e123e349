#pragma once

#include <QLoggingCategory>
#include <QString>
#include <optional>

namespace vocari {

// One informational line per finished dictation.
Q_DECLARE_LOGGING_CATEGORY(lcTiming)

// Where the time of one dictation went, in seconds.
struct DictationTiming
{
    QString engineName;
    bool live = false;
    double spoke = 0;      // from capture start (the key press) to release
    double ready = 0;      // from key press until the engine was ready
    double transcribe = 0; // from release to the final text
    std::optional<double> tidy;
    double releaseToInsert = 0; // from release until the text was handed over
    qsizetype words = 0;
};

// The words of a text: its pieces between spaces, empty pieces left out.
qsizetype countWords(const QString &text);

// "Parakeet (on release) · spoke 3.2 s · ready 0.41 s · transcribe 0.62 s · release→insert
// 0.70 s · 7 words", with " · tidy 0.01 s" after the transcribe time when a tidy-up ran.
QString timingLine(const DictationTiming &timing);

// Writes the line to the "vocari.timing" category at info level.
void logTiming(const DictationTiming &timing);

} // namespace vocari
