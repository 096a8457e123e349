// How fast captured audio becomes phrases: 48 kHz stereo device buffers through the converter
// and the segmenter on one core. The "x_realtime" counter is seconds of audio handled per
// second of CPU time.

#include "engines/PCMConverter.h"
#include "engines/parakeet/Segmenter.h"

#include <benchmark/benchmark.h>

#include <cmath>
#include <numbers>
#include <random>

using namespace vocari;

namespace {

constexpr AudioFormat kDevice{48000, 2};
constexpr uint32_t kBufferFrames = 2048;
constexpr double kSeconds = 60;

// A minute of speech-like audio: 2.5 s bursts of a warbling tone with noise, then 0.8 s of
// room noise, so the segmenter cuts phrases as it would while dictating.
std::vector<AudioBuffer> dictationBuffers()
{
    std::mt19937 random(7);
    std::normal_distribution<float> noise(0.0f, 0.002f);
    const auto total = uint64_t(kSeconds * kDevice.sampleRate);
    std::vector<AudioBuffer> buffers;
    for (uint64_t first = 0; first < total; first += kBufferFrames) {
        AudioBuffer buffer(kDevice, kBufferFrames);
        for (uint32_t f = 0; f < kBufferFrames; ++f) {
            const double t = double(first + f) / kDevice.sampleRate;
            const bool speaking = std::fmod(t, 3.3) < 2.5;
            const double pitch = 180 + 60 * std::sin(2 * std::numbers::pi * 3 * t);
            const float voice =
                speaking ? float(0.2 * std::sin(2 * std::numbers::pi * pitch * t)) : 0.0f;
            for (int c = 0; c < kDevice.channels; ++c)
                buffer.channelStorage(c)[f] = voice + noise(random);
        }
        buffer.setFrameLength(kBufferFrames);
        buffers.push_back(std::move(buffer));
    }
    return buffers;
}

void ConvertAndSegment(benchmark::State &state)
{
    const auto buffers = dictationBuffers();
    int64_t phrases = 0;
    for (auto _ : state) {
        PCMConverter converter(kEngineFormat);
        Segmenter segmenter(false, [&](std::vector<float> phrase) {
            benchmark::DoNotOptimize(phrase.data());
            ++phrases;
        });
        for (const auto &buffer : buffers) {
            if (auto converted = converter.convert(buffer))
                segmenter.append(converted->channel(0));
        }
        segmenter.flush();
    }
    state.counters["x_realtime"] =
        benchmark::Counter(kSeconds * double(state.iterations()), benchmark::Counter::kIsRate);
    state.counters["phrases"] = double(phrases) / double(state.iterations());
}
BENCHMARK(ConvertAndSegment)->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime();

void ConvertOnly(benchmark::State &state)
{
    const auto buffers = dictationBuffers();
    for (auto _ : state) {
        PCMConverter converter(kEngineFormat);
        for (const auto &buffer : buffers)
            benchmark::DoNotOptimize(converter.convert(buffer));
    }
    state.counters["x_realtime"] =
        benchmark::Counter(kSeconds * double(state.iterations()), benchmark::Counter::kIsRate);
}
BENCHMARK(ConvertOnly)->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime();

} // namespace

BENCHMARK_MAIN();
