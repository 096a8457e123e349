#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace vocari {

// The shape of PCM audio. Every buffer in the program holds 32-bit float samples, one plane
// per channel, so rate and channel count are all that tell two formats apart.
struct AudioFormat
{
    double sampleRate = 0;
    int channels = 0;

    bool isValid() const { return sampleRate > 0 && channels > 0; }
    friend bool operator==(const AudioFormat &, const AudioFormat &) = default;
};

// The format every speech engine and the segmenter work in.
inline constexpr AudioFormat kEngineFormat{16000.0, 1};

// A block of captured or converted audio: planar float samples with a fixed frame capacity
// and a frame length that says how many of those frames hold audio.
class AudioBuffer
{
public:
    AudioBuffer() = default;
    AudioBuffer(AudioFormat format, uint32_t frameCapacity);

    // Copies interleaved samples (frame by frame, channel by channel) into a new buffer.
    static AudioBuffer fromInterleaved(AudioFormat format, std::span<const float> samples);
    // A one-channel buffer holding exactly these samples.
    static AudioBuffer fromMono(double sampleRate, std::span<const float> samples);

    const AudioFormat &format() const { return m_format; }
    uint32_t frameCapacity() const { return m_capacity; }
    uint32_t frameLength() const { return m_length; }
    // Clamped to the capacity.
    void setFrameLength(uint32_t frames);

    // The first frameLength() samples of one channel.
    std::span<float> channel(int index);
    std::span<const float> channel(int index) const;
    // The whole capacity of one channel, for writers that fill the buffer before setting
    // its length.
    std::span<float> channelStorage(int index);

    double durationSeconds() const;

private:
    AudioFormat m_format;
    uint32_t m_capacity = 0;
    uint32_t m_length = 0;
    std::vector<float> m_samples; // channel planes back to back, each m_capacity long
};

} // namespace vocari
