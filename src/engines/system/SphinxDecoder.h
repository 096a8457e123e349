#pragma once

#include "engines/system/SphinxModel.h"

#include <QLoggingCategory>
#include <QString>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

struct ps_decoder_s;

namespace vocari {

Q_DECLARE_LOGGING_CATEGORY(lcSphinx)

// One PocketSphinx decoder over 16 kHz mono 16-bit audio, with the decoder's own
// speech/silence detection. Not thread-safe: after loading, one thread uses it.
class SphinxDecoder
{
public:
    // Loads the model (several hundred milliseconds for a large vocabulary); none with a
    // one-line reason in *error when the decoder cannot be built.
    static std::unique_ptr<SphinxDecoder> load(const SphinxModel &model, QString *error = nullptr);
    ~SphinxDecoder();
    SphinxDecoder(const SphinxDecoder &) = delete;
    SphinxDecoder &operator=(const SphinxDecoder &) = delete;

    // Whether the pronunciation dictionary holds the word (compared in lower case).
    bool knowsWord(const QString &word) const;

    // Starts a new stream of audio (a dictation) from one and the same state, whatever earlier
    // streams taught the decoder: it adapts its noise estimate and cepstral mean to the audio it
    // hears, and what it learnt from another dictation (or from a beep) makes it mishear the
    // next one. Each stream starts from the noise estimate of a new stream and the model's own
    // cepstral mean; utterances of one stream still learn from each other.
    bool startStream();
    bool startUtterance();
    // Decodes more samples of the current utterance; false on a decoder error. A faint noise
    // of one step is added first: digital silence (a muted or virtual microphone gives exact
    // zeros) has no energy to take a logarithm of, and seconds of it before the words drag
    // the decoder's cepstral mean far from where speech is. The noise starts over with every
    // stream, so the same audio always gives the same words.
    bool process(std::span<const int16_t> samples);
    // Whether the samples decoded last were speech, by the decoder's own voice detection.
    bool inSpeech() const;
    // The best words so far (during an utterance) or the final words (after it ended),
    // separated by single spaces; empty when none.
    QString hypothesis() const;
    bool endUtterance();
    // Ends an utterance left open (by a dictation that was cancelled), so that the next one
    // starts afresh; false when the decoder fails to end it.
    bool endOpenUtterance();

private:
    explicit SphinxDecoder(ps_decoder_s *decoder);

    ps_decoder_s *m_decoder;
    std::vector<float> m_freshMean; // the cepstral mean the model starts with
    std::vector<int16_t> m_dithered;
    static constexpr uint32_t kNoiseSeed = 2463534242u; // any but 0, which xorshift never leaves
    uint32_t m_noise = kNoiseSeed;
    bool m_inUtterance = false;
};

} // namespace vocari
