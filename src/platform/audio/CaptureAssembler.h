#pragma once

#include "engines/AudioBuffer.h"

#include <QAudioFormat>
#include <QByteArray>
#include <QByteArrayView>
#include <functional>

namespace vocari {

// Turns the raw interleaved bytes that an audio source delivers, in whatever sizes it reads
// them, into planar float buffers of a fixed number of frames. Bytes of an incomplete frame
// wait for the next read.
class CaptureAssembler
{
public:
    using Sink = std::function<void(const AudioBuffer &)>;

    CaptureAssembler(const QAudioFormat &format, uint32_t framesPerBuffer);

    // Whether the format can be converted: a known sample format, channels and a rate.
    bool isValid() const { return m_bytesPerFrame > 0 && m_format.sampleRate() > 0; }
    AudioFormat format() const { return m_bufferFormat; }

    // Converts the bytes and hands every completed buffer to the sink. The buffer is reused
    // afterwards, so a sink that keeps audio copies it.
    void append(QByteArrayView bytes, const Sink &sink);
    // Hands the frames of a buffer that is not full yet to the sink, if there are any.
    void flush(const Sink &sink);

private:
    float sampleAt(const char *data) const;
    void appendFrame(const char *frame, const Sink &sink);

    QAudioFormat m_format;
    AudioFormat m_bufferFormat;
    uint32_t m_framesPerBuffer;
    int m_bytesPerSample = 0;
    int m_bytesPerFrame = 0;
    QByteArray m_partialFrame;
    AudioBuffer m_buffer;
    uint32_t m_filled = 0;
};

} // namespace vocari
