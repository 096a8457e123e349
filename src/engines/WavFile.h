#pragma once

#include "engines/AudioBuffer.h"

#include <QString>

#include <optional>
#include <span>
#include <vector>

namespace vocari {

// Audio read from a WAV file: its format and every sample as float in [-1, 1], interleaved.
struct WavAudio
{
    AudioFormat format;
    std::vector<float> samples;

    uint32_t frames() const
    {
        return format.channels > 0 ? uint32_t(samples.size() / size_t(format.channels)) : 0;
    }
    double durationSeconds() const { return format.sampleRate > 0 ? frames() / format.sampleRate : 0; }
    // The frames [first, first + count) as a planar buffer, clipped to the end of the audio.
    AudioBuffer slice(uint32_t first, uint32_t count) const;
};

// Reads and writes RIFF/WAVE files: integer PCM of 8, 16, 24 or 32 bits and IEEE float of 32
// or 64 bits, plain or extensible headers, any rate and channel count.
namespace WavFile {

// The audio, or none with a one-line reason in *error.
std::optional<WavAudio> read(const QString &path, QString *error = nullptr);
// Writes 16-bit PCM (samples clipped to [-1, 1]); false with a reason in *error on failure.
bool write(const QString &path, const AudioFormat &format, std::span<const float> interleaved,
           QString *error = nullptr);

} // namespace WavFile
} // namespace vocari
