#include "hud/HUDContent.h"

#include "settings/Preferences.h"

namespace vocari {

namespace {

using Phase = Dictation::Phase;

const QString kCancelled = QStringLiteral("Cancelled");
const QString kMicSilent = QStringLiteral("No sound from the microphone. Check Microphone access.");
const QString kTranscribing = QStringLiteral("Transcribing…");
const QString kGettingReady = QStringLiteral("Getting ready…");

QString visibleText(const QString &transcript, HUDTextMode mode)
{
    // In clip mode the whole text goes to the view, which cuts it at the head to one line.
    if (mode == HUDTextMode::clip || transcript.size() <= kHUDFullTextLimit)
        return transcript;
    return QStringLiteral("…") + transcript.right(kHUDFullTextLimit);
}

QString label(const HUDInputs &in, const HUDSettings &settings)
{
    if (in.notice && in.phase == Phase::idle)
        return *in.notice;
    if (in.micSilent && in.phase == Phase::listening)
        return kMicSilent;
    if (in.phase == Phase::finishing) {
        if (in.statusDetail)
            return *in.statusDetail;
        if (in.transcript.isEmpty() || !settings.showText)
            return kTranscribing;
    }
    if (in.phase == Phase::preparing)
        return in.statusDetail.value_or(kGettingReady);
    return visibleText(in.transcript, settings.textMode);
}

HUDIcon icon(const HUDInputs &in)
{
    switch (in.phase) {
    case Phase::idle:
        return in.notice == kCancelled ? HUDIcon::cancelled : HUDIcon::problem;
    case Phase::preparing:
        return HUDIcon::preparing;
    case Phase::listening:
        return HUDIcon::listening;
    case Phase::finishing:
        return HUDIcon::finishing;
    }
    return HUDIcon::problem;
}

HUDTint tint(Phase phase)
{
    switch (phase) {
    case Phase::listening:
        return HUDTint::red;
    case Phase::idle:
        return HUDTint::orange;
    default:
        return HUDTint::secondary;
    }
}

} // namespace

HUDInputs HUDInputs::of(const Dictation &dictation)
{
    return {dictation.phase(),        dictation.transcript(), dictation.notice(),
            dictation.statusDetail(), dictation.micSilent(),  dictation.levels()};
}

HUDSettings HUDSettings::fromPreferences()
{
    return {Preferences::hudPosition(), Preferences::hudScale(), Preferences::hudShowText(),
            Preferences::hudShowEsc(), Preferences::hudTextMode()};
}

Qt::Alignment hudAlignment(HUDPosition position)
{
    static constexpr Qt::AlignmentFlag columns[] = {Qt::AlignLeft, Qt::AlignHCenter,
                                                    Qt::AlignRight};
    static constexpr Qt::AlignmentFlag rows[] = {Qt::AlignTop, Qt::AlignVCenter, Qt::AlignBottom};
    return columns[column(position)] | rows[row(position)];
}

HUDContent hudContent(const HUDInputs &in, const HUDSettings &settings)
{
    HUDContent content;
    const bool listening = in.phase == Phase::listening;
    content.showWaveform =
        listening && !in.micSilent && (in.transcript.isEmpty() || !settings.showText);
    content.showMeter = listening && !content.showWaveform;
    content.icon = icon(in);
    content.tint = tint(in.phase);
    content.pulse = listening;
    content.label = label(in, settings);
    content.showEsc = settings.showEsc && in.escapeCancels && in.phase != Phase::idle;
    content.alignment = hudAlignment(settings.position);
    return content;
}

} // namespace vocari
