#include "BenchNetworks.h"

#include <QFile>
#include <QProcess>
#include <QStringList>
#include <cstdio>
#include <cstdlib>

namespace vocari::bench {

namespace {

const QString kModels = QStringLiteral(VOCARI_BENCH_MODELS);

// The version of the realistic networks the generator writes into its stamp.
constexpr auto kRealisticVersion = "complete 2";

// Runs the generator once per kind of networks; its stamp file marks a complete run of the
// expected version.
void ensure(const QStringList &arguments, const QString &stamp, const QByteArray &expected)
{
    QFile file(stamp);
    if (file.open(QIODevice::ReadOnly) && file.readAll().trimmed() == expected)
        return;
    std::fprintf(stderr, "writing the benchmark networks into %s…\n", qPrintable(arguments.last()));
    QProcess generator;
    generator.setProcessChannelMode(QProcess::ForwardedChannels);
    generator.start(QStringLiteral(VOCARI_FIXTURE_PYTHON),
                    QStringList{QStringLiteral(VOCARI_FIXTURE_SCRIPT)} + arguments);
    if (!generator.waitForFinished(-1) || generator.exitCode() != 0) {
        std::fprintf(stderr, "could not write the benchmark networks\n");
        std::exit(1);
    }
}

} // namespace

QString toneNetworks(const char *name)
{
    ensure({kModels + "/tones"}, kModels + "/tones/fixtures.stamp", "complete");
    return kModels + "/tones/" + name;
}

QString realisticNetworks(const char *name)
{
    ensure({"--bench", kModels + "/realistic"}, kModels + "/realistic/bench.stamp",
           kRealisticVersion);
    return kModels + "/realistic/" + name;
}

} // namespace vocari::bench
