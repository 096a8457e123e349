#pragma once

#include "app/DesktopServices.h"

#include <QObject>
#include <array>
#include <memory>
#include <optional>

class QSoundEffect;

namespace vocari {

// Plays the application's own feedback sounds (short WAV resources) through Qt Multimedia.
// Each sound is loaded once, on first use, and a sound that is still playing starts over.
class QtSoundPlayer final : public QObject, public SoundPlayer
{
    Q_OBJECT
public:
    explicit QtSoundPlayer(QObject *parent = nullptr);
    ~QtSoundPlayer() override;

    void play(Sound sound) override;
    double seconds(Sound sound) const override;

    // The resource a sound is played from.
    static QString resourceOf(Sound sound);

private:
    std::array<QSoundEffect *, 4> m_effects{};
    mutable std::array<std::optional<double>, 4> m_seconds;
};

} // namespace vocari
