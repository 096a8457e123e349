#include "engines/system/SphinxDecoderCache.h"

#include "engines/MemoryPressureMonitor.h"
#include "engines/system/SphinxDecoder.h"

namespace vocari {

std::shared_ptr<SphinxDecoderCache> SphinxDecoderCache::shared()
{
    static const std::shared_ptr<SphinxDecoderCache> cache = create(Options{});
    return cache;
}

std::shared_ptr<SphinxDecoderCache> SphinxDecoderCache::create(Options options)
{
    return std::shared_ptr<SphinxDecoderCache>(new SphinxDecoderCache(std::move(options)));
}

SphinxDecoderCache::SphinxDecoderCache(Options options)
    : m_idleUnload(options.idleUnload),
      m_timer(options.timer ? std::move(options.timer) : makeThreadIdleTimer())
{
    if (options.watchMemoryPressure) {
        m_pressure = std::make_unique<MemoryPressureMonitor>([this] {
            qCDebug(lcSphinx) << "memory pressure: dropping the cached speech model";
            unload();
        });
        if (!m_pressure->isActive())
            m_pressure.reset();
    }
}

SphinxDecoderCache::~SphinxDecoderCache() = default;

std::shared_ptr<SphinxDecoder> SphinxDecoderCache::acquire(const SphinxModel &model, QString *error)
{
    {
        std::lock_guard lock(m_lock);
        if (m_idle && m_model == model) {
            // In use from now on, so it cannot be unloaded until it comes back.
            cancelUnloadLocked();
            m_status.cached = false;
            return lend(std::move(m_idle), m_generation);
        }
    }

    // Loading takes long, so it happens outside the lock; a second caller meanwhile loads a
    // decoder of its own.
    std::unique_ptr<SphinxDecoder> decoder = SphinxDecoder::load(model, error);
    if (!decoder)
        return nullptr;
    std::unique_ptr<SphinxDecoder> replaced; // released after the lock
    std::lock_guard lock(m_lock);
    ++m_status.loads;
    if (!(m_model == model)) {
        // Another language: the decoder kept for the old one goes, and one lent out for it is
        // not taken back.
        replaced = std::move(m_idle);
        m_status.cached = false;
        cancelUnloadLocked();
        m_model = model;
        ++m_generation;
    }
    return lend(std::move(decoder), m_generation);
}

std::shared_ptr<SphinxDecoder> SphinxDecoderCache::lend(std::unique_ptr<SphinxDecoder> decoder,
                                                        uint64_t generation)
{
    return std::shared_ptr<SphinxDecoder>(
        decoder.release(), [cache = weak_from_this(), generation](SphinxDecoder *lent) {
            std::unique_ptr<SphinxDecoder> owned(lent);
            if (const auto self = cache.lock())
                self->giveBack(std::move(owned), generation);
        });
}

void SphinxDecoderCache::giveBack(std::unique_ptr<SphinxDecoder> decoder, uint64_t generation)
{
    // A decoder that cannot end its utterance is in no state for another dictation.
    if (!decoder->endOpenUtterance())
        return;
    // Whatever is not kept is released when the function returns, after the lock.
    std::lock_guard lock(m_lock);
    if (generation != m_generation)
        return;
    if (!m_idle) {
        m_idle = std::move(decoder);
        m_status.cached = true;
    }
    scheduleUnloadLocked();
}

void SphinxDecoderCache::scheduleUnloadLocked()
{
    const uint64_t token = ++m_idleToken;
    m_status.unloadScheduled = true;
    m_timer->start(m_idleUnload, [cache = weak_from_this(), token] {
        if (const auto self = cache.lock())
            self->unloadIfIdle(token);
    });
}

void SphinxDecoderCache::cancelUnloadLocked()
{
    ++m_idleToken;
    m_status.unloadScheduled = false;
    m_timer->stop();
}

void SphinxDecoderCache::unloadIfIdle(uint64_t idleToken)
{
    std::unique_ptr<SphinxDecoder> dropped; // released after the lock
    std::lock_guard lock(m_lock);
    // A call that was already under way when the timer was stopped or restarted.
    if (idleToken != m_idleToken)
        return;
    if (m_idle)
        qCDebug(lcSphinx) << "unused for" << m_idleUnload.count() / 60000
                          << "minutes: dropping the cached speech model";
    dropped = std::move(m_idle);
    m_status.cached = false;
    m_status.unloadScheduled = false;
}

void SphinxDecoderCache::unload()
{
    std::unique_ptr<SphinxDecoder> dropped; // released after the lock
    std::lock_guard lock(m_lock);
    dropped = std::move(m_idle);
    m_status.cached = false;
    cancelUnloadLocked();
    ++m_generation;
}

SphinxDecoderCache::Status SphinxDecoderCache::status() const
{
    std::lock_guard lock(m_lock);
    return m_status;
}

} // namespace vocari
