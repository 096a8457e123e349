#pragma once

#include "engines/system/SphinxModel.h"

#include <QLoggingCategory>
#include <QString>
#include <cstdint>
#include <memory>
#include <span>

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

    bool startUtterance();
    // Decodes more samples of the current utterance; false on a decoder error.
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
    bool m_inUtterance = false;
};

} // namespace vocari
