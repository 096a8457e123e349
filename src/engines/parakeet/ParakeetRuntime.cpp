#include "engines/parakeet/ParakeetRuntime.h"

#include "engines/MemoryPressureMonitor.h"
#include "engines/parakeet/GreedyTdt.h"
#include "engines/parakeet/ModelSet.h"
#include "engines/parakeet/OnnxNetwork.h"
#include "engines/parakeet/ParakeetInference.h"
#include "engines/parakeet/ParakeetLog.h"

#include <QPromise>

namespace vocari {

namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// Loading that took longer than this really read the networks; shorter means they were reused.
constexpr double kLoadShownAbove = 0.05;

} // namespace

ParakeetRuntime &ParakeetRuntime::shared()
{
    // The environment is created first so that it is destroyed last, after the runtime's
    // sessions, when the program exits.
    onnxEnvironment();
    static ParakeetRuntime runtime(Options{});
    return runtime;
}

ParakeetRuntime::ParakeetRuntime(Options options) : m_options(options), m_worker("parakeet")
{
    onnxEnvironment();
    if (m_options.watchMemoryPressure) {
        m_pressure = std::make_unique<MemoryPressureMonitor>([this] { handleMemoryPressure(); });
        if (!m_pressure->isActive())
            m_pressure.reset();
    }
}

ParakeetRuntime::~ParakeetRuntime()
{
    m_pressure.reset();
}

template <typename T, typename Work> QFuture<T> ParakeetRuntime::submit(Work work)
{
    auto promise = std::make_shared<QPromise<T>>();
    QFuture<T> future = promise->future();
    promise->start();
    m_worker.post([promise, work = std::move(work)]() mutable {
        try {
            if constexpr (std::is_void_v<T>)
                work();
            else
                promise->addResult(work());
        } catch (...) {
            promise->setException(std::current_exception());
        }
        promise->finish();
    });
    return future;
}

QFuture<void> ParakeetRuntime::models(const QString &directory)
{
    return submit<void>([this, directory] { modelsNow(directory); });
}

void ParakeetRuntime::scheduleUnload()
{
    m_worker.post([this] { scheduleUnloadNow(); });
}

void ParakeetRuntime::warmUp(const QString &directory)
{
    m_worker.post([this, directory] {
        try {
            modelsNow(directory);
            scheduleUnloadNow();
        } catch (const std::exception &error) {
            // Shown when the first phrase meets the same error.
            qCDebug(lcParakeet) << "warm-up failed:" << error.what();
        }
    });
}

QFuture<void> ParakeetRuntime::unload()
{
    return submit<void>([this] { dropNow("on request"); });
}

QFuture<QString> ParakeetRuntime::transcribe(std::vector<float> samples, const QString &directory,
                                             std::stop_token stop)
{
    return submit<QString>([this, samples = std::move(samples), directory, stop] {
        return transcribeNow(samples, directory, stop).text;
    });
}

void ParakeetRuntime::transcribe(std::vector<float> samples, const QString &directory,
                                 std::stop_token stop, TranscriptionDone done)
{
    m_worker.post([this, samples = std::move(samples), directory, stop, done = std::move(done)] {
        Transcription result;
        std::exception_ptr error;
        try {
            result = transcribeNow(samples, directory, stop);
        } catch (...) {
            error = std::current_exception();
        }
        done(result, error);
    });
}

void ParakeetRuntime::handleMemoryPressure()
{
    m_worker.post([this] { dropNow("memory pressure"); });
}

bool ParakeetRuntime::watchesMemoryPressure() const
{
    return m_pressure != nullptr;
}

ParakeetRuntime::Status ParakeetRuntime::status() const
{
    std::lock_guard lock(m_statusLock);
    Status status = m_status;
    status.unloadScheduled = m_worker.hasScheduled();
    return status;
}

QString ParakeetRuntime::chunkLogLine(double audioSeconds, double inferenceSeconds,
                                      double loadSeconds)
{
    const QString load = loadSeconds > kLoadShownAbove
                             ? QString::asprintf(" (load %.2f s)", loadSeconds)
                             : QString();
    return QString::asprintf("chunk %.1f s of audio → %.2f s", audioSeconds, inferenceSeconds) +
           load;
}

std::shared_ptr<ModelSet> ParakeetRuntime::modelsNow(const QString &directory)
{
    const QString folder = canonicalModelDirectory(directory);
    if (m_loaded && m_loaded->directory == folder)
        return m_loaded;

    auto set = loadModelSet(folder);
    m_loaded = set; // the previous set, if any, is released here
    std::lock_guard lock(m_statusLock);
    m_status.loadedDirectory = folder;
    ++m_status.loads;
    return set;
}

void ParakeetRuntime::scheduleUnloadNow()
{
    m_worker.schedule(m_options.idleUnload, [this] { dropNow("idle"); });
}

void ParakeetRuntime::dropNow(const char *reason)
{
    if (!m_loaded)
        return;
    qCDebug(lcParakeet) << "unloading the speech model:" << reason;
    m_loaded.reset();
    std::lock_guard lock(m_statusLock);
    m_status.loadedDirectory.clear();
}

ParakeetRuntime::Transcription ParakeetRuntime::transcribeNow(const std::vector<float> &samples,
                                                              const QString &directory,
                                                              std::stop_token stop)
{
    throwIfCancelled(stop);
    Transcription result;
    result.audioSeconds = double(samples.size()) / 16000.0;

    const auto loadStart = Clock::now();
    const std::shared_ptr<ModelSet> set = modelsNow(directory);
    result.loadSeconds = secondsSince(loadStart);

    // No unload while the set is in use.
    m_worker.cancelScheduled();
    const auto start = Clock::now();
    try {
        result.text = decode(samples, *set, stop);
    } catch (...) {
        scheduleUnloadNow();
        throw;
    }
    result.inferenceSeconds = secondsSince(start);

    qCInfo(lcParakeet).noquote() << chunkLogLine(result.audioSeconds, result.inferenceSeconds,
                                                 result.loadSeconds);
    scheduleUnloadNow();
    return result;
}

} // namespace vocari
