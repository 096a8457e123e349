#include "platform/audio/CaptureAssembler.h"

#include <cstdint>
#include <cstring>

namespace vocari {

CaptureAssembler::CaptureAssembler(const QAudioFormat &format, uint32_t framesPerBuffer)
    : m_format(format), m_bufferFormat{double(format.sampleRate()), format.channelCount()},
      m_framesPerBuffer(framesPerBuffer > 0 ? framesPerBuffer : 1)
{
    switch (format.sampleFormat()) {
    case QAudioFormat::UInt8:
        m_bytesPerSample = 1;
        break;
    case QAudioFormat::Int16:
        m_bytesPerSample = 2;
        break;
    case QAudioFormat::Int32:
    case QAudioFormat::Float:
        m_bytesPerSample = 4;
        break;
    default:
        m_bytesPerSample = 0;
        break;
    }
    if (m_bytesPerSample > 0 && format.channelCount() > 0)
        m_bytesPerFrame = m_bytesPerSample * format.channelCount();
    if (isValid())
        m_buffer = AudioBuffer(m_bufferFormat, m_framesPerBuffer);
}

float CaptureAssembler::sampleAt(const char *data) const
{
    // Samples arrive in the machine's byte order, not necessarily aligned.
    switch (m_format.sampleFormat()) {
    case QAudioFormat::UInt8:
        return (float(uint8_t(*data)) - 128.0f) / 128.0f;
    case QAudioFormat::Int16: {
        int16_t value;
        std::memcpy(&value, data, sizeof value);
        return float(value) / 32768.0f;
    }
    case QAudioFormat::Int32: {
        int32_t value;
        std::memcpy(&value, data, sizeof value);
        return float(double(value) / 2147483648.0);
    }
    case QAudioFormat::Float: {
        float value;
        std::memcpy(&value, data, sizeof value);
        return value;
    }
    default:
        return 0.0f;
    }
}

void CaptureAssembler::appendFrame(const char *frame, const Sink &sink)
{
    for (int c = 0; c < m_bufferFormat.channels; ++c)
        m_buffer.channelStorage(c)[m_filled] = sampleAt(frame + c * m_bytesPerSample);
    if (++m_filled < m_framesPerBuffer)
        return;
    m_buffer.setFrameLength(m_filled);
    sink(m_buffer);
    m_filled = 0;
}

void CaptureAssembler::append(QByteArrayView bytes, const Sink &sink)
{
    if (!isValid())
        return;
    // Complete a frame left over from the previous read first.
    if (!m_partialFrame.isEmpty()) {
        const qsizetype missing = m_bytesPerFrame - m_partialFrame.size();
        m_partialFrame.append(bytes.first(std::min(missing, bytes.size())));
        bytes = bytes.sliced(std::min(missing, bytes.size()));
        if (m_partialFrame.size() < m_bytesPerFrame)
            return;
        appendFrame(m_partialFrame.constData(), sink);
        m_partialFrame.clear();
    }
    const qsizetype frames = bytes.size() / m_bytesPerFrame;
    for (qsizetype f = 0; f < frames; ++f)
        appendFrame(bytes.data() + f * m_bytesPerFrame, sink);
    m_partialFrame.append(bytes.sliced(frames * m_bytesPerFrame));
}

void CaptureAssembler::flush(const Sink &sink)
{
    if (!isValid() || m_filled == 0)
        return;
    m_buffer.setFrameLength(m_filled);
    sink(m_buffer);
    m_filled = 0;
}

} // namespace vocari
