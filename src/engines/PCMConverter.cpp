#include "engines/PCMConverter.h"

#include <algorithm>
#include <soxr.h>

namespace vocari {

// Resamples interleaved input (already in the target channel count) into the planes of an
// output buffer. Equal rates need no filter: the samples are copied straight through.
class PCMConverter::Resampler
{
public:
    static std::unique_ptr<Resampler> create(const AudioFormat &source, const AudioFormat &target)
    {
        if (!source.isValid() || !target.isValid())
            return nullptr;
        auto resampler = std::unique_ptr<Resampler>(new Resampler(target.channels));
        if (source.sampleRate == target.sampleRate)
            return resampler;
        const soxr_io_spec_t io = soxr_io_spec(SOXR_FLOAT32_I, SOXR_FLOAT32_S);
        const soxr_runtime_spec_t runtime = soxr_runtime_spec(1);
        soxr_error_t error = nullptr;
        resampler->m_soxr = soxr_create(source.sampleRate, target.sampleRate,
                                        unsigned(target.channels), &error, &io, nullptr, &runtime);
        if (error || !resampler->m_soxr)
            return nullptr;
        return resampler;
    }

    ~Resampler()
    {
        if (m_soxr)
            soxr_delete(m_soxr);
    }

    // Feeds `frames` interleaved frames and writes what the filter yields into `out`;
    // returns the frames written, or none on a resampler error.
    std::optional<uint32_t> process(const float *input, size_t frames, AudioBuffer &out)
    {
        const size_t capacity = out.frameCapacity();
        if (!m_soxr) {
            const size_t n = std::min(frames, capacity);
            for (int c = 0; c < m_channels; ++c) {
                auto plane = out.channelStorage(c);
                for (size_t f = 0; f < n; ++f)
                    plane[f] = input[f * size_t(m_channels) + size_t(c)];
            }
            return uint32_t(n);
        }

        // The stream is never ended, so the filter keeps its history and any partly built
        // output frame for the next buffer. A null input would end it, and an empty buffer's
        // samples may well be null, so an empty input always points somewhere.
        static const float noInput = 0.0f;
        if (frames == 0)
            input = &noInput;
        size_t consumed = 0;
        size_t produced = 0;
        while (true) {
            m_planes.clear();
            for (int c = 0; c < m_channels; ++c)
                m_planes.push_back(out.channelStorage(c).data() + produced);
            size_t idone = 0;
            size_t odone = 0;
            const soxr_error_t error =
                soxr_process(m_soxr, input + consumed * size_t(m_channels), frames - consumed,
                             &idone, m_planes.data(), capacity - produced, &odone);
            if (error)
                return std::nullopt;
            consumed += idone;
            produced += odone;
            if (consumed >= frames || produced >= capacity || (idone == 0 && odone == 0))
                break;
        }
        return uint32_t(produced);
    }

private:
    explicit Resampler(int channels) : m_channels(channels) {}

    int m_channels;
    soxr_t m_soxr = nullptr;
    std::vector<float *> m_planes;
};

PCMConverter::PCMConverter(AudioFormat target) : m_target(target) {}

PCMConverter::~PCMConverter() = default;

uint32_t PCMConverter::outputCapacity(const AudioFormat &target, const AudioFormat &source,
                                      uint32_t frames)
{
    const double ratio = source.sampleRate > 0 ? target.sampleRate / source.sampleRate : 0.0;
    return uint32_t(ratio * double(frames)) + 64;
}

std::optional<AudioBuffer> PCMConverter::convert(const AudioBuffer &buffer)
{
    const AudioFormat &format = buffer.format();
    if (!m_source || *m_source != format) {
        // A new source format: the old filter goes, with whatever samples it still held.
        m_source = format;
        m_converter = Resampler::create(format, m_target);
        ++m_builds;
    }
    if (!m_converter)
        return std::nullopt;

    const uint32_t frames = buffer.frameLength();
    AudioBuffer output(m_target, outputCapacity(m_target, format, frames));

    // Bring the input to the target's channel count: the same channels interleaved, or the
    // mean of all source channels, copied to every target channel.
    const int outChannels = m_target.channels;
    m_mixed.resize(size_t(frames) * size_t(outChannels));
    if (format.channels == outChannels) {
        for (int c = 0; c < outChannels; ++c) {
            const auto plane = buffer.channel(c);
            for (uint32_t f = 0; f < frames; ++f)
                m_mixed[size_t(f) * size_t(outChannels) + size_t(c)] = plane[f];
        }
    } else {
        const float scale = 1.0f / float(format.channels);
        for (uint32_t f = 0; f < frames; ++f) {
            float sum = 0.0f;
            for (int c = 0; c < format.channels; ++c)
                sum += buffer.channel(c)[f];
            for (int c = 0; c < outChannels; ++c)
                m_mixed[size_t(f) * size_t(outChannels) + size_t(c)] = sum * scale;
        }
    }

    const auto produced = m_converter->process(m_mixed.data(), frames, output);
    if (!produced)
        return std::nullopt;
    output.setFrameLength(*produced);
    return output;
}

} // namespace vocari
