#include "engines/system/SphinxDecoder.h"

#include <QFile>
#include <QLoggingCategory>
#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <pocketsphinx.h>
#include <sphinxbase/cmn.h>
#include <sphinxbase/err.h>
#include <sphinxbase/feat.h>

namespace vocari {

Q_LOGGING_CATEGORY(lcSphinx, "vocari.engine.system", QtInfoMsg)

namespace {

// PocketSphinx logs its whole configuration and every loading step. Its informational lines
// are dropped; its errors go to our own category so that a broken model can still be traced.
void forwardDecoderMessage(void *, err_lvl_t level, const char *format, ...)
{
    if (level < ERR_ERROR)
        return;
    char line[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(line, sizeof line, format, args);
    va_end(args);
    qCWarning(lcSphinx, "PocketSphinx: %s", qPrintable(QString::fromUtf8(line).trimmed()));
}

// The library's log settings are process-wide, so they are set once, before any decoder.
void quietDecoderLog()
{
    static std::once_flag once;
    std::call_once(once, [] {
        err_set_logfp(nullptr);
        err_set_callback(forwardDecoderMessage, nullptr);
    });
}

} // namespace

std::unique_ptr<SphinxDecoder> SphinxDecoder::load(const SphinxModel &model, QString *error)
{
    quietDecoderLog();
    const QByteArray hmm = QFile::encodeName(model.acousticModel);
    const QByteArray lm = QFile::encodeName(model.languageModel);
    const QByteArray dict = QFile::encodeName(model.dictionary);
    cmd_ln_t *config = cmd_ln_init(nullptr, ps_args(), TRUE, "-hmm", hmm.constData(), "-lm",
                                   lm.constData(), "-dict", dict.constData(), nullptr);
    ps_decoder_t *decoder = config ? ps_init(config) : nullptr;
    // The decoder keeps its own reference to the configuration.
    if (config)
        cmd_ln_free_r(config);
    if (!decoder) {
        if (error)
            *error = QStringLiteral("The speech model for this language could not be loaded.");
        qCWarning(lcSphinx) << "Could not load the model in" << model.acousticModel;
        return nullptr;
    }
    return std::unique_ptr<SphinxDecoder>(new SphinxDecoder(decoder));
}

namespace {

cmn_t *cepstralMean(ps_decoder_t *decoder)
{
    feat_t *features = ps_get_feat(decoder);
    return features ? features->cmn_struct : nullptr;
}

} // namespace

SphinxDecoder::SphinxDecoder(ps_decoder_s *decoder) : m_decoder(decoder)
{
    static_assert(sizeof(mfcc_t) == sizeof(float), "PocketSphinx built with fixed-point features");
    if (cmn_t *cmn = cepstralMean(m_decoder); cmn && cmn->veclen > 0)
        m_freshMean.assign(cmn->cmn_mean, cmn->cmn_mean + size_t(cmn->veclen));
}

SphinxDecoder::~SphinxDecoder()
{
    ps_free(m_decoder);
}

bool SphinxDecoder::knowsWord(const QString &word) const
{
    const QByteArray key = word.toLower().toUtf8();
    char *pronunciation = ps_lookup_word(m_decoder, key.constData());
    const bool known = pronunciation != nullptr;
    ckd_free(pronunciation);
    return known;
}

bool SphinxDecoder::startStream()
{
    // The model's own mean, held as the prior of a window of frames: the first utterance of a
    // stream then moves it only part of the way, so a short burst of noise before the words
    // cannot drag it off.
    if (cmn_t *cmn = cepstralMean(m_decoder); cmn && size_t(cmn->veclen) == m_freshMean.size())
        cmn_live_set(cmn, m_freshMean.data());
    m_noise = kNoiseSeed;
    return ps_start_stream(m_decoder) >= 0;
}

bool SphinxDecoder::startUtterance()
{
    m_inUtterance = ps_start_utt(m_decoder) >= 0;
    return m_inUtterance;
}

bool SphinxDecoder::process(std::span<const int16_t> samples)
{
    if (samples.empty())
        return true;
    m_dithered.assign(samples.begin(), samples.end());
    for (int16_t &sample : m_dithered) {
        // xorshift32: cheap, and the same sequence from the same seed.
        m_noise ^= m_noise << 13;
        m_noise ^= m_noise >> 17;
        m_noise ^= m_noise << 5;
        const int step = int(m_noise % 3) - 1;
        sample = int16_t(std::clamp(int(sample) + step, -32768, 32767));
    }
    return ps_process_raw(m_decoder, m_dithered.data(), m_dithered.size(), FALSE, FALSE) >= 0;
}

bool SphinxDecoder::inSpeech() const
{
    return ps_get_in_speech(m_decoder) != 0;
}

QString SphinxDecoder::hypothesis() const
{
    const char *words = ps_get_hyp(m_decoder, nullptr);
    return words ? QString::fromUtf8(words).simplified() : QString();
}

bool SphinxDecoder::endUtterance()
{
    m_inUtterance = false;
    return ps_end_utt(m_decoder) >= 0;
}

bool SphinxDecoder::endOpenUtterance()
{
    return !m_inUtterance || endUtterance();
}

} // namespace vocari
