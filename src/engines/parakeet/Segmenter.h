#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <span>
#include <vector>

namespace vocari {

// Cuts a stream of 16 kHz mono samples into phrases at pauses. Each 20 ms frame is speech
// when its RMS energy is above an adaptive noise floor; a phrase keeps 0.3 s of audio before
// its first speech and 0.2 s after its last, is cut at a pause only once it is long enough
// (the soft limit) and always at 14 s (the hard limit), and is dropped when it holds less than
// 0.25 s up to its last speech. append() is called from the audio thread and flush() from the
// finishing task; finished phrases are emitted in order, outside the lock.
class Segmenter
{
public:
    using Emit = std::function<void(std::vector<float>)>;

    static constexpr int64_t frame = 320;       // 20 ms
    static constexpr int64_t preRoll = 4800;    // 0.3 s
    static constexpr int64_t keepTail = 3200;   // 0.2 s
    static constexpr int64_t pauseToCut = 6400; // 0.4 s
    static constexpr int64_t minSpeech = 4000;  // 0.25 s
    static constexpr int64_t hardLimit = 224000; // 14 s = 875 × 256
    static constexpr int64_t softLimitNormal = 48000; // 3 s
    static constexpr int64_t softLimitEager = 24000;  // 1.5 s
    static constexpr float initialNoiseFloor = 0.004f;
    static constexpr float minimumThreshold = 0.006f;

    Segmenter(bool eager, Emit emit);

    // Adds samples of any count and analyses every complete frame.
    void append(std::span<const float> samples);
    // Ends the stream: the unanalysed remainder joins the phrase and a last cut is made.
    void flush();

    int64_t softLimit() const { return m_softLimit; }
    // Cuts made so far, whether their phrase was emitted or discarded.
    int64_t cuts() const;
    // Samples held for the phrase being assembled.
    int64_t bufferedSamples() const;
    float noiseFloor() const;

    // A copy of the phrase being assembled, with the number of cuts made so far, taken
    // together: what a provisional transcription of the current phrase works from. None
    // before speech has been heard or while the phrase holds fewer than minSamples.
    struct Snapshot
    {
        std::vector<float> samples;
        int64_t cuts = 0;
    };
    std::optional<Snapshot> snapshot(int64_t minSamples) const;

private:
    void process(std::span<const float> frameSamples, std::vector<std::vector<float>> &out);
    void cut(std::vector<std::vector<float>> &out);
    void emitAll(std::vector<std::vector<float>> &finished);

    const int64_t m_softLimit;
    const Emit m_emit;

    mutable std::mutex m_lock;
    std::vector<float> m_segment;
    std::vector<float> m_pending;
    bool m_heardSpeech = false;
    int64_t m_silentRun = 0;
    float m_noiseFloor = initialNoiseFloor;
    int64_t m_cuts = 0;
};

} // namespace vocari
