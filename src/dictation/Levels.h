#pragma once

#include "engines/AudioBuffer.h"

#include <QList>

namespace vocari {

// The input level of one captured buffer, in 0...1 and linear in decibels: -52 dBFS would be
// 0 and -12 dBFS is 1, with anything audible shown as at least 0.03. Only digital silence (an
// rms of 1e-7 or less), an empty buffer or one without channels gives exactly 0. Only the
// first channel counts. Safe to call on the capture thread: one pass, no allocation.
float inputLevel(const AudioBuffer &buffer);

// The recent input levels a waveform is drawn from: a fixed number of entries, oldest first.
// A louder level shows at once; a quieter one pulls the newest entry down only gradually, so
// the waveform does not flicker between words.
class LevelHistory
{
public:
    static constexpr int kLength = 28;

    LevelHistory();

    const QList<float> &values() const { return m_values; }
    // Drops the oldest entry and appends the smoothed level. Returns whether any entry changed.
    bool push(float level);
    // Every entry back to 0. Returns whether any entry changed.
    bool reset();

private:
    QList<float> m_values;
};

// Consecutive buffers of digital silence after which the microphone counts as silent.
inline constexpr int kSilentBufferLimit = 35;

// What the audio of a running dictation says about it, after each level.
struct ListeningCheck
{
    bool micSilent = false; // only digital silence for long enough: the microphone is off
    bool overTime = false;  // longer than the time limit allows: the dictation should end
};

// `silentBuffers` counts the consecutive buffers of digital silence, `listenedMs` the time since
// capture started, `maxSeconds` the time limit (below 1: none). The preview's simulated audio
// is neither a silent microphone nor bound by the time limit.
ListeningCheck checkListening(int silentBuffers, qint64 listenedMs, qint64 maxSeconds,
                              bool preview);

} // namespace vocari
