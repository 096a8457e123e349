#pragma once

#include "engines/system/IdleTimer.h"
#include "engines/system/SphinxModel.h"

#include <QString>
#include <chrono>
#include <memory>
#include <mutex>

namespace vocari {

class MemoryPressureMonitor;
class SphinxDecoder;

// Keeps the PocketSphinx decoder of the last language loaded between dictations, so that a
// dictation does not lose its first half second of speech to loading the model. One cache
// serves the whole process. A decoder is lent to one transcriber at a time and comes back
// when the transcriber lets go of it; it is dropped after an hour without use, when the
// kernel reports memory pressure, or when another language is asked for. Thread-safe.
class SphinxDecoderCache : public std::enable_shared_from_this<SphinxDecoderCache>
{
public:
    struct Options
    {
        std::chrono::milliseconds idleUnload = std::chrono::hours(1);
        bool watchMemoryPressure = true;
        std::unique_ptr<IdleTimer> timer; // none: a timer thread of the cache's own
    };

    struct Status
    {
        bool cached = false; // a decoder waits in the cache for the next dictation
        int loads = 0;       // decoders loaded so far
        bool unloadScheduled = false;
    };

    // The process-wide cache, created on first use.
    static std::shared_ptr<SphinxDecoderCache> shared();
    static std::shared_ptr<SphinxDecoderCache> create(Options options);
    ~SphinxDecoderCache();

    // A decoder for the model, kept until the last copy of the pointer goes: the cached one
    // when it was loaded from the same files and is not lent out, else a newly loaded one,
    // which becomes the cached one. None, with a one-line reason in *error, when the model
    // cannot be loaded. Takes several hundred milliseconds when it loads.
    std::shared_ptr<SphinxDecoder> acquire(const SphinxModel &model, QString *error = nullptr);

    // Drops the cached decoder; one lent out is not taken back. What memory pressure does.
    void unload();
    Status status() const;

private:
    explicit SphinxDecoderCache(Options options);
    std::shared_ptr<SphinxDecoder> lend(std::unique_ptr<SphinxDecoder> decoder,
                                        uint64_t generation);
    void giveBack(std::unique_ptr<SphinxDecoder> decoder, uint64_t generation);
    void scheduleUnloadLocked();
    void cancelUnloadLocked();
    void unloadIfIdle(uint64_t idleToken);

    const std::chrono::milliseconds m_idleUnload;
    mutable std::mutex m_lock;
    SphinxModel m_model;                   // what the current generation was loaded from
    std::unique_ptr<SphinxDecoder> m_idle; // the cached decoder while nobody uses it
    // Changes whenever the cached model is given up; a decoder lent out before is then not
    // taken back.
    uint64_t m_generation = 0;
    uint64_t m_idleToken = 0; // tells a timer call that came too late from the current one
    Status m_status;
    std::unique_ptr<IdleTimer> m_timer;
    std::unique_ptr<MemoryPressureMonitor> m_pressure; // last: stops first
};

} // namespace vocari
