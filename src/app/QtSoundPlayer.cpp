#include "app/QtSoundPlayer.h"

#include "engines/WavFile.h"

#include <QSoundEffect>
#include <QUrl>

namespace vocari {

namespace {
// Feedback should be heard, not startle: well below full scale.
constexpr double kVolume = 0.6;
} // namespace

QtSoundPlayer::QtSoundPlayer(QObject *parent) : QObject(parent) {}

QtSoundPlayer::~QtSoundPlayer() = default;

QString QtSoundPlayer::resourceOf(Sound sound)
{
    switch (sound) {
    case Sound::start:
        return QStringLiteral("qrc:/vocari/sounds/start.wav");
    case Sound::done:
        return QStringLiteral("qrc:/vocari/sounds/done.wav");
    case Sound::problem:
        return QStringLiteral("qrc:/vocari/sounds/problem.wav");
    case Sound::cancelled:
        return QStringLiteral("qrc:/vocari/sounds/cancelled.wav");
    }
    return {};
}

double QtSoundPlayer::seconds(Sound sound) const
{
    // Read once: the length is asked at the start of every dictation.
    std::optional<double> &length = m_seconds[std::size_t(sound)];
    if (!length) {
        const std::optional<WavAudio> audio = WavFile::read(resourceOf(sound).mid(3));
        length = audio ? audio->durationSeconds() : 0;
    }
    return *length;
}

void QtSoundPlayer::play(Sound sound)
{
    QSoundEffect *&effect = m_effects[std::size_t(sound)];
    if (!effect) {
        effect = new QSoundEffect(this);
        effect->setSource(QUrl(resourceOf(sound)));
        effect->setVolume(kVolume);
    }
    effect->stop();
    effect->play();
}

} // namespace vocari
