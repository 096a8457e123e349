#include "platform/audio/CaptureAssembler.h"

#include <cstdint>
#include <cstring>
#include <gtest/gtest.h>
#include <vector>

namespace vocari {
namespace {

QAudioFormat formatOf(QAudioFormat::SampleFormat sampleFormat, int channels, int rate = 48000)
{
    QAudioFormat format;
    format.setSampleFormat(sampleFormat);
    format.setChannelCount(channels);
    format.setSampleRate(rate);
    return format;
}

template <typename Sample> QByteArray bytesOf(const std::vector<Sample> &samples)
{
    return QByteArray(reinterpret_cast<const char *>(samples.data()),
                      qsizetype(samples.size() * sizeof(Sample)));
}

// Keeps a copy of every buffer the assembler hands over.
struct Collected
{
    std::vector<AudioBuffer> buffers;
    CaptureAssembler::Sink sink()
    {
        return [this](const AudioBuffer &buffer) { buffers.push_back(buffer); };
    }
};

TEST(CaptureAssemblerTest, CutsInterleavedReadsIntoPlanarBuffersOfFixedLength)
{
    // Stereo 16-bit: left counts up, right counts down, in frames 0..9.
    std::vector<int16_t> samples;
    for (int16_t f = 0; f < 10; ++f) {
        samples.push_back(int16_t(f * 1000));
        samples.push_back(int16_t(-f * 1000));
    }
    const QByteArray bytes = bytesOf(samples);
    CaptureAssembler assembler(formatOf(QAudioFormat::Int16, 2, 44100), 4);
    ASSERT_TRUE(assembler.isValid());
    EXPECT_EQ(assembler.format(), (AudioFormat{44100.0, 2}));

    // Reads that split frames and even single samples.
    Collected collected;
    assembler.append(bytes.first(3), collected.sink());
    EXPECT_TRUE(collected.buffers.empty());
    assembler.append(bytes.sliced(3, 14), collected.sink()); // up to byte 17: frame 4 is partial
    ASSERT_EQ(collected.buffers.size(), 1u);
    assembler.append(bytes.sliced(17), collected.sink());
    ASSERT_EQ(collected.buffers.size(), 2u);
    assembler.flush(collected.sink());
    ASSERT_EQ(collected.buffers.size(), 3u);
    assembler.flush(collected.sink()); // nothing left
    EXPECT_EQ(collected.buffers.size(), 3u);

    int frame = 0;
    for (const AudioBuffer &buffer : collected.buffers) {
        EXPECT_EQ(buffer.format(), (AudioFormat{44100.0, 2}));
        for (uint32_t i = 0; i < buffer.frameLength(); ++i, ++frame) {
            EXPECT_FLOAT_EQ(buffer.channel(0)[i], frame * 1000 / 32768.0f);
            EXPECT_FLOAT_EQ(buffer.channel(1)[i], -frame * 1000 / 32768.0f);
        }
    }
    EXPECT_EQ(frame, 10);
    EXPECT_EQ(collected.buffers[0].frameLength(), 4u);
    EXPECT_EQ(collected.buffers[2].frameLength(), 2u);
}

TEST(CaptureAssemblerTest, ConvertsEverySampleFormatToFullScaleFloats)
{
    const auto firstSamples = [](QAudioFormat::SampleFormat sampleFormat, const QByteArray &bytes) {
        CaptureAssembler assembler(formatOf(sampleFormat, 1), 3);
        Collected collected;
        assembler.append(bytes, collected.sink());
        EXPECT_EQ(collected.buffers.size(), 1u);
        const auto channel = collected.buffers.at(0).channel(0);
        return std::vector<float>(channel.begin(), channel.end());
    };

    EXPECT_EQ(firstSamples(QAudioFormat::UInt8, bytesOf(std::vector<uint8_t>{0, 128, 255})),
              (std::vector<float>{-1.0f, 0.0f, 127.0f / 128.0f}));
    EXPECT_EQ(firstSamples(QAudioFormat::Int16, bytesOf(std::vector<int16_t>{INT16_MIN, 0, 16384})),
              (std::vector<float>{-1.0f, 0.0f, 0.5f}));
    EXPECT_EQ(
        firstSamples(QAudioFormat::Int32, bytesOf(std::vector<int32_t>{INT32_MIN, 0, 1 << 30})),
        (std::vector<float>{-1.0f, 0.0f, 0.5f}));
    EXPECT_EQ(firstSamples(QAudioFormat::Float, bytesOf(std::vector<float>{-0.25f, 0.0f, 1.0f})),
              (std::vector<float>{-0.25f, 0.0f, 1.0f}));
}

TEST(CaptureAssemblerTest, FormatsItCannotReadDeliverNothing)
{
    Collected collected;
    const QByteArray bytes(64, '\x7f');
    for (const QAudioFormat &format :
         {formatOf(QAudioFormat::Unknown, 1), formatOf(QAudioFormat::Int16, 0),
          formatOf(QAudioFormat::Float, 2, 0)}) {
        CaptureAssembler assembler(format, 4);
        EXPECT_FALSE(assembler.isValid());
        assembler.append(bytes, collected.sink());
        assembler.flush(collected.sink());
    }
    EXPECT_TRUE(collected.buffers.empty());
}

} // namespace
} // namespace vocari
