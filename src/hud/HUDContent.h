#pragma once

#include "dictation/Dictation.h"
#include "settings/SettingsTypes.h"

#include <QList>
#include <QString>
#include <Qt>
#include <optional>

namespace vocari {

// What the HUD draws is a pure function of the dictation's observable state and five settings.
// This is that function, kept apart from painting so that every rule can be checked directly.

// The part of a dictation's state that the HUD shows.
struct HUDInputs
{
    Dictation::Phase phase = Dictation::Phase::idle;
    QString transcript;
    std::optional<QString> notice;
    std::optional<QString> statusDetail;
    bool micSilent = false;
    QList<float> levels;
    // Whether Escape can cancel on this desktop; the hint never promises what cannot work.
    bool escapeCancels = true;

    static HUDInputs of(const Dictation &dictation);
};

// The HUD's own settings.
struct HUDSettings
{
    HUDPosition position = HUDPosition::bottomCenter;
    double scale = 1.0;
    bool showText = true;
    bool showEsc = true;
    HUDTextMode textMode = HUDTextMode::clip;

    static HUDSettings fromPreferences();
    bool operator==(const HUDSettings &) const = default;
};

enum class HUDIcon
{
    cancelled, // a cross in a circle
    problem,   // an exclamation mark in a circle
    preparing, // an arrow down into a circle
    listening, // a microphone
    finishing, // a text cursor
};

enum class HUDTint
{
    red,       // listening
    orange,    // a notice at rest
    secondary, // getting ready or finishing
};

// The longest transcript shown whole in full mode; longer ones show their end after "…".
inline constexpr int kHUDFullTextLimit = 420;

struct HUDContent
{
    bool showWaveform = false; // the live waveform instead of the text
    bool showMeter = false;    // the small level meter instead of the icon
    HUDIcon icon = HUDIcon::problem;
    HUDTint tint = HUDTint::orange;
    bool pulse = false; // the icon pulses while the microphone is live
    QString label;
    bool showEsc = false;
    Qt::Alignment alignment; // where the glass sits inside the panel
};

HUDContent hudContent(const HUDInputs &inputs, const HUDSettings &settings);

// The glass shape's place in the panel for a position: towards the anchor.
Qt::Alignment hudAlignment(HUDPosition position);

} // namespace vocari
