// How long tidy-up and the text rules take on long dictations. The text is ordinary dictation
// with hesitations, stutters and stray spaces, repeated to the length given; the time per
// character should stay the same as the length grows.

#include "text/Polisher.h"
#include "text/TextProcessor.h"

#include <benchmark/benchmark.h>

using namespace vocari;

namespace {

QString dictation(qsizetype length)
{
    const QString sentence = QStringLiteral(
        "Um, so I think, uh, we should we should go to the market tomorrow , and then erm... "
        "talk about the the budget  for next year ?. Hmm okay that that works. ");
    QString text;
    text.reserve(length + sentence.size());
    while (text.size() < length)
        text += sentence;
    text.truncate(length);
    return text;
}

void PolisherRules(benchmark::State &state)
{
    const QString text = dictation(state.range(0));
    for (auto _ : state)
        benchmark::DoNotOptimize(Polisher::applyRules(text));
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(PolisherRules)->Arg(10'000)->Arg(40'000)->Arg(160'000)->Unit(benchmark::kMillisecond);

void TextRules(benchmark::State &state)
{
    const QString text = dictation(state.range(0));
    const QString rules =
        QStringLiteral("market = shop\nbudget => plan\nnext year = 2026\n(c) = ©");
    for (auto _ : state)
        benchmark::DoNotOptimize(TextProcessor::apply(text, true, rules, true));
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(TextRules)->Arg(10'000)->Arg(160'000)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
