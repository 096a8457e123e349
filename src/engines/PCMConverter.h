#pragma once

#include "engines/AudioBuffer.h"

#include <memory>
#include <optional>
#include <vector>

namespace vocari {

// Converts captured buffers of any rate and channel count into one target format. The
// resampler is built from the first buffer and rebuilt whenever the source format changes;
// between buffers of one format it keeps its state, so consecutive buffers join without
// clicks or gaps. Several source channels are mixed down to their mean. Used from one thread.
class PCMConverter
{
public:
    explicit PCMConverter(AudioFormat target);
    ~PCMConverter();
    PCMConverter(const PCMConverter &) = delete;
    PCMConverter &operator=(const PCMConverter &) = delete;

    const AudioFormat &target() const { return m_target; }

    // The buffer in the target format, or none when it cannot be converted (a converter that
    // could not be built for this format is not retried until the format changes).
    std::optional<AudioBuffer> convert(const AudioBuffer &buffer);

    // The output capacity for a buffer: target rate / source rate × frames, truncated, plus
    // 64 frames of headroom.
    static uint32_t outputCapacity(const AudioFormat &target, const AudioFormat &source,
                                   uint32_t frames);

    // How many converters have been built so far (one per source format change).
    int converterBuilds() const { return m_builds; }

private:
    class Resampler;

    AudioFormat m_target;
    std::unique_ptr<Resampler> m_converter;
    std::optional<AudioFormat> m_source;
    int m_builds = 0;
    std::vector<float> m_mixed; // interleaved input in the target channel count, reused
};

} // namespace vocari
