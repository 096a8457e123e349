#include "engines/AudioBuffer.h"

#include <algorithm>

namespace vocari {

AudioBuffer::AudioBuffer(AudioFormat format, uint32_t frameCapacity)
    : m_format(format), m_capacity(frameCapacity),
      m_samples(size_t(std::max(format.channels, 0)) * frameCapacity, 0.0f)
{
}

AudioBuffer AudioBuffer::fromInterleaved(AudioFormat format, std::span<const float> samples)
{
    const int channels = std::max(format.channels, 1);
    const auto frames = uint32_t(samples.size() / size_t(channels));
    AudioBuffer buffer(format, frames);
    for (int c = 0; c < format.channels; ++c) {
        auto plane = buffer.channelStorage(c);
        for (uint32_t f = 0; f < frames; ++f)
            plane[f] = samples[size_t(f) * size_t(channels) + size_t(c)];
    }
    buffer.setFrameLength(frames);
    return buffer;
}

AudioBuffer AudioBuffer::fromMono(double sampleRate, std::span<const float> samples)
{
    AudioBuffer buffer({sampleRate, 1}, uint32_t(samples.size()));
    std::copy(samples.begin(), samples.end(), buffer.channelStorage(0).begin());
    buffer.setFrameLength(uint32_t(samples.size()));
    return buffer;
}

void AudioBuffer::setFrameLength(uint32_t frames)
{
    m_length = std::min(frames, m_capacity);
}

std::span<float> AudioBuffer::channel(int index)
{
    return channelStorage(index).first(m_length);
}

std::span<const float> AudioBuffer::channel(int index) const
{
    return {m_samples.data() + size_t(index) * m_capacity, m_length};
}

std::span<float> AudioBuffer::channelStorage(int index)
{
    return {m_samples.data() + size_t(index) * m_capacity, m_capacity};
}

double AudioBuffer::durationSeconds() const
{
    return m_format.sampleRate > 0 ? m_length / m_format.sampleRate : 0.0;
}

} // namespace vocari
