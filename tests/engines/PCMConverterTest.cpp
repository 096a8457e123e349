#include "engines/PCMConverter.h"

#include <algorithm>
#include <cmath>
#include <gtest/gtest.h>
#include <numbers>

using namespace vocari;

namespace {

constexpr AudioFormat kStereo48k{48000, 2};

// A 1 kHz sine at the given rate, split into buffers of `frames` frames, identical in every
// channel except where `invertRight` flips the second channel.
std::vector<AudioBuffer> sineBuffers(AudioFormat format, int count, uint32_t frames,
                                     bool invertRight = false)
{
    std::vector<AudioBuffer> buffers;
    uint64_t n = 0;
    for (int b = 0; b < count; ++b) {
        AudioBuffer buffer(format, frames);
        for (uint32_t f = 0; f < frames; ++f, ++n) {
            const float v =
                0.5f *
                float(std::sin(2 * std::numbers::pi * 1000.0 * double(n) / format.sampleRate));
            for (int c = 0; c < format.channels; ++c)
                buffer.channelStorage(c)[f] = (invertRight && c == 1) ? -v : v;
        }
        buffer.setFrameLength(frames);
        buffers.push_back(std::move(buffer));
    }
    return buffers;
}

std::vector<float> convertAll(PCMConverter &converter, const std::vector<AudioBuffer> &buffers)
{
    std::vector<float> out;
    for (const auto &buffer : buffers) {
        const auto converted = converter.convert(buffer);
        EXPECT_TRUE(converted);
        if (!converted)
            continue;
        EXPECT_LE(converted->frameLength(), converted->frameCapacity());
        const auto samples = converted->channel(0);
        out.insert(out.end(), samples.begin(), samples.end());
    }
    return out;
}

// Largest distance between the signal and the best-fitting 1 kHz sine over [from, to).
double worstSineResidual(const std::vector<float> &x, size_t from, size_t to, double rate)
{
    const double w = 2 * std::numbers::pi * 1000.0 / rate;
    double ss = 0, sc = 0, cc = 0, xs = 0, xc = 0;
    for (size_t i = from; i < to; ++i) {
        const double s = std::sin(w * double(i)), c = std::cos(w * double(i));
        ss += s * s, sc += s * c, cc += c * c, xs += x[i] * s, xc += x[i] * c;
    }
    const double det = ss * cc - sc * sc;
    const double a = (xs * cc - xc * sc) / det, b = (xc * ss - xs * sc) / det;
    double worst = 0;
    for (size_t i = from; i < to; ++i)
        worst = std::max(
            worst, std::abs(x[i] - (a * std::sin(w * double(i)) + b * std::cos(w * double(i)))));
    return worst;
}

} // namespace

TEST(PCMConverter, ATonePassesBufferJoinsAndEmptyBuffersWithoutADiscontinuity)
{
    // Room for the rate ratio times the frames, rounded up, plus the resampler's headroom.
    EXPECT_EQ(PCMConverter::outputCapacity(kEngineFormat, {44100, 1}, 2048), 743u + 64u);
    // Four seconds of a 1 kHz tone in the 2048-frame buffers a device delivers, after an empty
    // buffer (the resampler reads a null input as the end of the stream, so an empty buffer,
    // even the very first, must not be handed to it that way): the 16 kHz output must be one
    // clean sine, with no sample lost or repeated where buffers meet.
    for (const AudioFormat format : {AudioFormat{44100, 1}, kStereo48k}) {
        SCOPED_TRACE(format.sampleRate);
        PCMConverter converter(kEngineFormat);
        const auto empty = converter.convert(AudioBuffer(format, 0));
        ASSERT_TRUE(empty);
        EXPECT_EQ(empty->frameCapacity(), 64u);
        EXPECT_EQ(empty->frameLength(), 0u);
        const auto out = convertAll(converter, sineBuffers(format, 94, 2048));
        const double expected = 94 * 2048 * 16000.0 / format.sampleRate;
        // Only what the filter still holds (its delay, well under 64 ms) may be missing.
        EXPECT_LE(double(out.size()), expected + 1);
        EXPECT_GE(double(out.size()), expected - 1024);
        // Past the filter's start-up, the signal fits one sine within a tiny error.
        ASSERT_GT(out.size(), 1000u);
        EXPECT_LT(worstSineResidual(out, 500, out.size(), 16000.0), 2e-3);
        EXPECT_TRUE(converter.convert(AudioBuffer(format, 0)));
        EXPECT_EQ(converter.converterBuilds(), 1);
    }
}

TEST(PCMConverter, SeveralChannelsAreMixedDownToTheirMean)
{
    PCMConverter opposite(kEngineFormat);
    const auto silent = convertAll(opposite, sineBuffers(kStereo48k, 10, 2048, true));
    for (float s : silent)
        ASSERT_NEAR(s, 0.0f, 1e-6);

    PCMConverter stereo(kEngineFormat), mono(kEngineFormat);
    const auto fromStereo = convertAll(stereo, sineBuffers(kStereo48k, 10, 2048));
    const auto fromMono = convertAll(mono, sineBuffers({48000, 1}, 10, 2048));
    ASSERT_EQ(fromStereo.size(), fromMono.size());
    for (size_t i = 0; i < fromMono.size(); ++i)
        ASSERT_NEAR(fromStereo[i], fromMono[i], 1e-6);
}

TEST(PCMConverter, AFormatChangeRebuildsTheConverterAndLaterBuffersReuseIt)
{
    PCMConverter converter(kEngineFormat);
    convertAll(converter, sineBuffers(kStereo48k, 3, 2048));
    convertAll(converter, sineBuffers({44100, 2}, 3, 2048));
    const auto out = convertAll(converter, sineBuffers({44100, 1}, 40, 2048));
    EXPECT_EQ(converter.converterBuilds(), 3);
    // The rebuilt converter resamples 44.1 kHz correctly and continuously.
    EXPECT_LT(worstSineResidual(out, 500, out.size(), 16000.0), 2e-3);

    // The target format itself passes through a converter of its own, unchanged.
    const auto buffer = sineBuffers(kEngineFormat, 1, 1000)[0];
    const auto same = converter.convert(buffer);
    ASSERT_TRUE(same);
    EXPECT_EQ(converter.converterBuilds(), 4);
    EXPECT_TRUE(std::ranges::equal(same->channel(0), buffer.channel(0)));
}

TEST(PCMConverter, AnUnusableFormatYieldsNothingUntilTheFormatChanges)
{
    PCMConverter converter(kEngineFormat);
    EXPECT_FALSE(converter.convert(AudioBuffer({48000, 0}, 256)));
    EXPECT_FALSE(converter.convert(AudioBuffer({48000, 0}, 256)));
    EXPECT_EQ(converter.converterBuilds(), 1)
        << "a failed build is not retried for the same format";
    EXPECT_FALSE(converter.convert(AudioBuffer({0, 1}, 256)));
    EXPECT_TRUE(converter.convert(sineBuffers(kStereo48k, 1, 256)[0]));
}
