// Benchmarks of the Parakeet engine:
//  (a) one joint-network step (and one prediction-network step) of a model of real size;
//  (b) a whole transcription through the runtime against the same networks driven by the
//      plainest ONNX Runtime code, on the same audio: on the tiny tone networks, where fixed
//      costs show, and (b') on networks of a real model's size;
//  (c) a 2 s phrase at its real length against the same phrase padded to 15 s;
//  (d) seconds of encoder compute per second of audio for a FastConformer-sized encoder.
// The networks are written on the first run; a summary of the figures ends the output.

#include "BareOnnxTranscriber.h"
#include "BenchNetworks.h"
#include "engines/parakeet/ModelSet.h"
#include "engines/parakeet/NetworkContract.h"
#include "engines/parakeet/ParakeetInference.h"
#include "engines/parakeet/ParakeetRuntime.h"
#include "engines/parakeet/SplitStepper.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLoggingCategory>
#include <benchmark/benchmark.h>
#include <cmath>
#include <cstdio>
#include <map>
#include <numbers>
#include <random>

using namespace vocari;

namespace {

QString tones(const char *name)
{
    return bench::toneNetworks(name);
}

QString realistic(const char *name)
{
    return bench::realisticNetworks(name);
}

ModelSet &loaded(const QString &folder)
{
    static std::map<QString, std::shared_ptr<ModelSet>> sets;
    auto &set = sets[folder];
    if (!set)
        set = loadModelSet(folder);
    return *set;
}

// Speech-like audio: a few drifting tones with noise, at 16 kHz.
std::vector<float> audio(double seconds, unsigned seed = 7)
{
    std::mt19937 random(seed);
    std::normal_distribution<float> noise(0.0f, 0.02f);
    std::vector<float> out(size_t(seconds * 16000));
    for (size_t i = 0; i < out.size(); ++i) {
        const double t = double(i) / 16000;
        out[i] = float(0.2 * std::sin(2 * std::numbers::pi * (220 + 80 * std::sin(t)) * t) +
                       0.1 * std::sin(2 * std::numbers::pi * 1250 * t)) +
                 noise(random);
    }
    return out;
}

// The tone sentence of the tests (5.8 s, two phrases), synthesised from the generator's plan.
std::vector<float> toneSentence()
{
    QFile file(tones("sentence.json"));
    file.open(QIODevice::ReadOnly);
    const QJsonObject plan = QJsonDocument::fromJson(file.readAll()).object();
    const double amplitude = plan["amplitude"].toDouble();
    std::vector<float> out;
    for (const auto &value : plan["segments"].toArray()) {
        const QJsonObject segment = value.toObject();
        const double frequency = segment["tone"].toDouble(); // 0 for silence
        const double seconds = segment.contains("silence") ? segment["silence"].toDouble()
                                                           : segment["seconds"].toDouble();
        const auto n = size_t(std::lround(seconds * 16000));
        for (size_t i = 0; i < n; ++i) {
            out.push_back(
                float(amplitude * std::sin(2 * std::numbers::pi * frequency * double(i) / 16000)));
        }
    }
    return out;
}

// (a) One joint step and one prediction step on networks of a real model's size.
void BM_JointStep(benchmark::State &state)
{
    ModelSet &set = loaded(realistic("realistic"));
    Ort::RunOptions options;
    SplitStepper stepper(set, 1024, options);
    std::mt19937 random(3);
    std::normal_distribution<float> value;
    for (float &x : stepper.frame())
        x = value(random);
    stepper.start();
    for (auto _ : state)
        benchmark::DoNotOptimize(stepper.decide());
}
BENCHMARK(BM_JointStep)->Unit(benchmark::kMicrosecond);

void BM_PredictionStep(benchmark::State &state)
{
    ModelSet &set = loaded(realistic("realistic"));
    Ort::RunOptions options;
    SplitStepper stepper(set, 1024, options);
    stepper.start();
    int64_t token = 0;
    for (auto _ : state)
        stepper.accept(token++ % 8192);
}
BENCHMARK(BM_PredictionStep)->Unit(benchmark::kMicrosecond);

// (b) The runtime's transcription (worker hop, future, in-place tensors) against bare calls.
void BM_TranscribeRuntime(benchmark::State &state)
{
    static ParakeetRuntime runtime({std::chrono::hours(1), false});
    const QString folder = tones("split");
    const std::vector<float> samples = toneSentence();
    runtime.models(folder).waitForFinished();
    for (auto _ : state)
        benchmark::DoNotOptimize(runtime.transcribe(samples, folder).result());
}
// The tone networks are tiny, so other load on the machine shows: several runs, the median.
BENCHMARK(BM_TranscribeRuntime)
    ->Unit(benchmark::kMillisecond)
    ->MinTime(0.2)
    ->Repetitions(9)
    ->ReportAggregatesOnly(true);

void BM_TranscribeBareOnnx(benchmark::State &state)
{
    static BareOnnxTranscriber bare(tones("split").toStdString());
    const std::vector<float> samples = toneSentence();
    for (auto _ : state)
        benchmark::DoNotOptimize(bare.tokens(samples));
}
BENCHMARK(BM_TranscribeBareOnnx)
    ->Unit(benchmark::kMillisecond)
    ->MinTime(0.2)
    ->Repetitions(9)
    ->ReportAggregatesOnly(true);

// (b') The same comparison on the networks of a real model's size, a 5 s phrase: here the
// networks' own work dominates and what the runtime adds per step shows as a share of it.
void BM_TranscribeRuntimeRealSize(benchmark::State &state)
{
    static ParakeetRuntime runtime({std::chrono::hours(1), false});
    const QString folder = realistic("realistic");
    const std::vector<float> samples = audio(5.0);
    runtime.models(folder).waitForFinished();
    for (auto _ : state)
        benchmark::DoNotOptimize(runtime.transcribe(samples, folder).result());
}
BENCHMARK(BM_TranscribeRuntimeRealSize)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(4)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);

void BM_TranscribeBareOnnxRealSize(benchmark::State &state)
{
    static BareOnnxTranscriber bare(realistic("realistic").toStdString());
    const std::vector<float> samples = audio(5.0);
    for (auto _ : state)
        benchmark::DoNotOptimize(bare.tokens(samples));
}
BENCHMARK(BM_TranscribeBareOnnxRealSize)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(4)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);

// (c) A 2 s phrase on the realistic networks: at its real length, and padded to 15 s.
void BM_Phrase2sRealLength(benchmark::State &state)
{
    ModelSet &set = loaded(realistic("realistic"));
    const std::vector<float> samples = audio(2.0);
    for (auto _ : state)
        benchmark::DoNotOptimize(decode(samples, set));
}
BENCHMARK(BM_Phrase2sRealLength)->Unit(benchmark::kMillisecond)->Iterations(5);

void BM_Phrase2sPaddedTo15s(benchmark::State &state)
{
    ModelSet &set = loaded(realistic("realistic-fixed"));
    const std::vector<float> samples = audio(2.0);
    for (auto _ : state)
        benchmark::DoNotOptimize(decode(samples, set));
}
BENCHMARK(BM_Phrase2sPaddedTo15s)->Unit(benchmark::kMillisecond)->Iterations(2);

// (d) Features and encoder for 10 s of audio: the bulk of a real model's cost.
void BM_Encoder10s(benchmark::State &state)
{
    ModelSet &set = loaded(realistic("realistic"));
    const FrontEndNames &names = frontEndNames(set.layout.kind);
    std::vector<float> samples = audio(10.0);
    const std::array<int64_t, 2> shape{1, int64_t(samples.size())};
    const Ort::Value signal = floatTensor(samples, shape);
    IntegerInput length(ONNX_TENSOR_ELEMENT_DATA_TYPE_INT32, {1});
    length.set(int64_t(samples.size()));
    Ort::RunOptions options;
    for (auto _ : state) {
        std::array<Ort::Value, 2> features{Ort::Value(nullptr), Ort::Value(nullptr)};
        const std::array<const char *, 2> preIn{names.signal, names.signalLength};
        const std::array<const OrtValue *, 2> preValues{signal, length.value()};
        const std::array<const char *, 2> preOut{names.features, names.featuresLength};
        set.preprocessor->run(options, preIn, preValues, preOut, features);
        std::array<Ort::Value, 2> encoded{Ort::Value(nullptr), Ort::Value(nullptr)};
        const std::array<const OrtValue *, 2> encValues{features[0], features[1]};
        const std::array<const char *, 2> encOut{names.encoded, names.encodedLength};
        set.encoder->run(options, preOut, encValues, encOut, encoded);
        benchmark::DoNotOptimize(encoded[0].GetTensorData<float>());
    }
    state.counters["audio_s"] = 10.0;
}
BENCHMARK(BM_Encoder10s)->Unit(benchmark::kMillisecond)->Iterations(3);

// Keeps each benchmark's mean real time per iteration, in seconds, for the summary.
class SummaryReporter : public benchmark::ConsoleReporter
{
public:
    void ReportRuns(const std::vector<Run> &runs) override
    {
        ConsoleReporter::ReportRuns(runs);
        // Benchmarks run several times report their median; the others their one run.
        for (const Run &run : runs) {
            const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
            if ((median || run.run_type == Run::RT_Iteration) && run.iterations > 0) {
                seconds[run.run_name.function_name] =
                    run.real_accumulated_time / double(run.iterations);
            }
        }
    }
    std::map<std::string, double> seconds;
};

// The runtime and the bare code must agree before their times are compared.
void checkSameText(const QString &folder, const std::vector<float> &samples)
{
    ParakeetRuntime runtime({std::chrono::hours(1), false});
    const QString ours = runtime.transcribe(samples, folder).result();
    BareOnnxTranscriber bare(folder.toStdString());
    const QString theirs = loaded(folder).vocabulary.detokenize(bare.tokens(samples));
    if (ours != theirs || ours.isEmpty()) {
        std::fprintf(stderr, "the runtime (\"%s\") and the bare calls (\"%s\") disagree\n",
                     qPrintable(ours), qPrintable(theirs));
        std::exit(1);
    }
}

} // namespace

int main(int argc, char **argv)
{
    // One log line per phrase would bury the benchmark's own output.
    QLoggingCategory::setFilterRules(QStringLiteral("vocari.parakeet.info=false"));
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    checkSameText(tones("split"), toneSentence());
    checkSameText(realistic("realistic"), audio(5.0));

    SummaryReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();

    const auto &s = reporter.seconds;
    const auto has = [&](const char *name) { return s.count(name) > 0; };
    std::printf("\nSummary\n");
    if (has("BM_JointStep")) {
        std::printf("(a) joint step: %.0f µs", s.at("BM_JointStep") * 1e6);
        if (has("BM_PredictionStep"))
            std::printf(" (prediction step: %.0f µs)", s.at("BM_PredictionStep") * 1e6);
        std::printf("\n");
    }
    if (has("BM_TranscribeRuntime") && has("BM_TranscribeBareOnnx")) {
        std::printf("(b) runtime transcribe / bare ONNX Runtime calls: %.2f×\n",
                    s.at("BM_TranscribeRuntime") / s.at("BM_TranscribeBareOnnx"));
    }
    if (has("BM_TranscribeRuntimeRealSize") && has("BM_TranscribeBareOnnxRealSize")) {
        std::printf(
            "(b') the same on networks of real size, a 5 s phrase: %.3f× (%.0f / %.0f ms)\n",
            s.at("BM_TranscribeRuntimeRealSize") / s.at("BM_TranscribeBareOnnxRealSize"),
            s.at("BM_TranscribeRuntimeRealSize") * 1e3,
            s.at("BM_TranscribeBareOnnxRealSize") * 1e3);
    }
    if (has("BM_Phrase2sRealLength") && has("BM_Phrase2sPaddedTo15s")) {
        std::printf("(c) 2 s phrase padded to 15 s / at its real length: %.1f×\n",
                    s.at("BM_Phrase2sPaddedTo15s") / s.at("BM_Phrase2sRealLength"));
    }
    if (has("BM_Encoder10s")) {
        std::printf("(d) FastConformer-sized encoder: %.2f s of compute per second of audio\n",
                    s.at("BM_Encoder10s") / 10.0);
    }
    return 0;
}
