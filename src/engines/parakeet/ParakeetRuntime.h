#pragma once

#include "engines/parakeet/SerialWorker.h"

#include <QFuture>
#include <QString>
#include <chrono>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <stop_token>
#include <vector>

namespace vocari {

struct ModelSet;
class MemoryPressureMonitor;

// The local speech model of the whole process. One worker thread runs every call as a job, in
// the order the calls were made, so loading never races with inference and one phrase is
// transcribed at a time. The networks of one model folder stay loaded while dictations follow
// each other; they are dropped after an hour without use, when the kernel reports memory
// pressure, or on request, and replaced when another folder is asked for.
//
// Every call returns at once; results arrive through a QFuture or a callback, errors as its
// exception (ModelLoadError, InferenceError, RuntimeError, TranscriptionCancelled).
class ParakeetRuntime
{
public:
    struct Options
    {
        std::chrono::milliseconds idleUnload = std::chrono::hours(1);
        bool watchMemoryPressure = true;
    };

    // One transcription with its timing.
    struct Transcription
    {
        QString text;
        double audioSeconds = 0;
        double inferenceSeconds = 0;
        double loadSeconds = 0; // finding the networks: next to nothing when already loaded
    };

    // What the runtime holds right now.
    struct Status
    {
        QString loadedDirectory; // empty when nothing is loaded
        int loads = 0;           // successful loads so far
        bool unloadScheduled = false;
    };

    // The process-wide runtime, created on first use.
    static ParakeetRuntime &shared();

    explicit ParakeetRuntime(Options options);
    ~ParakeetRuntime();
    ParakeetRuntime(const ParakeetRuntime &) = delete;
    ParakeetRuntime &operator=(const ParakeetRuntime &) = delete;

    // Makes the networks of directory the loaded set: kept when it is the same folder (no file
    // is touched), else loaded afresh, replacing the set of another folder. A failed load
    // leaves the loaded set alone. The set itself stays with the worker.
    QFuture<void> models(const QString &directory);
    // Re-arms the idle unload.
    void scheduleUnload();
    // models() followed by scheduleUnload(), errors ignored: the first phrase then finds the
    // networks loaded. Used when a dictation starts and when an engine is selected.
    void warmUp(const QString &directory);
    // Drops the loaded set, whichever folder it came from (after a model is removed). The idle
    // timer is left alone; the next call loads again.
    QFuture<void> unload();

    // Transcribes one phrase of 16 kHz mono samples with the networks of directory, logs
    // "chunk … of audio → …" and re-arms the idle unload. A stop request cancels it at the
    // next stage or joint step.
    QFuture<QString> transcribe(std::vector<float> samples, const QString &directory,
                                std::stop_token stop = {});
    // The same, calling done once on the worker thread with the result or the error (then
    // the result is empty). Results arrive in the order the calls were made.
    using TranscriptionDone = std::function<void(const Transcription &, std::exception_ptr)>;
    void transcribe(std::vector<float> samples, const QString &directory, std::stop_token stop,
                    TranscriptionDone done);

    // What the memory-pressure monitor calls: drops the loaded set on the worker.
    void handleMemoryPressure();
    bool watchesMemoryPressure() const;

    Status status() const;

    // The log line for one phrase: "chunk 3.2 s of audio → 0.41 s (load 2.87 s)"; the load part
    // only when loading took more than 0.05 s.
    static QString chunkLogLine(double audioSeconds, double inferenceSeconds, double loadSeconds);

private:
    template <typename T, typename Work> QFuture<T> submit(Work work);

    std::shared_ptr<ModelSet> modelsNow(const QString &directory);
    void scheduleUnloadNow();
    void dropNow(const char *reason);
    Transcription transcribeNow(const std::vector<float> &samples, const QString &directory,
                                std::stop_token stop);

    const Options m_options;
    mutable std::mutex m_statusLock;
    Status m_status;
    std::shared_ptr<ModelSet> m_loaded; // touched on the worker only
    SerialWorker m_worker;              // after what its jobs use, so it stops before they go
    std::unique_ptr<MemoryPressureMonitor> m_pressure; // last: stops first
};

} // namespace vocari
