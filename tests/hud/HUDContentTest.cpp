#include "hud/HUDContent.h"

#include <gtest/gtest.h>

namespace vocari {
namespace {

using Phase = Dictation::Phase;

HUDInputs inputs(Phase phase, QString transcript = {}, std::optional<QString> notice = {},
                 std::optional<QString> status = {}, bool micSilent = false)
{
    return {phase,     std::move(transcript), std::move(notice), std::move(status),
            micSilent, QList<float>(28, 0.5f)};
}

TEST(HUDContentTest, IconTintAndLabelFollowThePhase)
{
    const HUDSettings defaults;
    struct Case
    {
        HUDInputs in;
        HUDIcon icon;
        HUDTint tint;
        QString label;
    };
    const Case cases[] = {
        {inputs(Phase::preparing), HUDIcon::preparing, HUDTint::secondary, "Getting ready…"},
        {inputs(Phase::preparing, {}, {}, "Downloading speech model…"), HUDIcon::preparing,
         HUDTint::secondary, "Downloading speech model…"},
        {inputs(Phase::listening, "hello there"), HUDIcon::listening, HUDTint::red, "hello there"},
        {inputs(Phase::listening, "hello", {}, {}, true), HUDIcon::listening, HUDTint::red,
         "No sound from the microphone. Check Microphone access."},
        {inputs(Phase::finishing), HUDIcon::finishing, HUDTint::secondary, "Transcribing…"},
        {inputs(Phase::finishing, "hello there"), HUDIcon::finishing, HUDTint::secondary,
         "hello there"},
        {inputs(Phase::finishing, "hello", {}, "Tidying up…"), HUDIcon::finishing,
         HUDTint::secondary, "Tidying up…"},
        {inputs(Phase::idle, {}, "No speech detected."), HUDIcon::problem, HUDTint::orange,
         "No speech detected."},
        {inputs(Phase::idle, "left over", "Cancelled"), HUDIcon::cancelled, HUDTint::orange,
         "Cancelled"},
    };
    for (const Case &c : cases) {
        const HUDContent content = hudContent(c.in, defaults);
        EXPECT_EQ(content.icon, c.icon) << c.label.toStdString();
        EXPECT_EQ(content.tint, c.tint) << c.label.toStdString();
        EXPECT_EQ(content.label, c.label);
        EXPECT_EQ(content.pulse, c.in.phase == Phase::listening);
    }
}

TEST(HUDContentTest, WaveformUntilTextArrivesUnlessTextIsHidden)
{
    HUDSettings settings;
    HUDContent content = hudContent(inputs(Phase::listening), settings);
    EXPECT_TRUE(content.showWaveform);
    EXPECT_FALSE(content.showMeter);
    content = hudContent(inputs(Phase::listening, "words"), settings);
    EXPECT_FALSE(content.showWaveform);
    EXPECT_TRUE(content.showMeter);
    content = hudContent(inputs(Phase::listening, {}, {}, {}, true), settings);
    EXPECT_FALSE(content.showWaveform) << "a silent microphone shows its hint";
    EXPECT_TRUE(content.showMeter);

    settings.showText = false;
    EXPECT_TRUE(hudContent(inputs(Phase::listening, "words"), settings).showWaveform);
    EXPECT_EQ(hudContent(inputs(Phase::finishing, "words"), settings).label, "Transcribing…");
    EXPECT_FALSE(hudContent(inputs(Phase::finishing, "words"), settings).showWaveform);
}

TEST(HUDContentTest, EscHintOnlyWhileADictationCanBeCancelled)
{
    HUDSettings settings;
    for (const Phase phase : {Phase::preparing, Phase::listening, Phase::finishing})
        EXPECT_TRUE(hudContent(inputs(phase), settings).showEsc);
    EXPECT_FALSE(hudContent(inputs(Phase::idle, {}, "Cancelled"), settings).showEsc);
    settings.showEsc = false;
    for (const Phase phase : {Phase::idle, Phase::preparing, Phase::listening, Phase::finishing})
        EXPECT_FALSE(hudContent(inputs(phase), settings).showEsc);
}

TEST(HUDContentTest, FullModeShowsTheLast420CharactersAndClipModeEverything)
{
    QString text;
    for (int i = 0; i < 500; ++i)
        text.append(QChar(u'a' + i % 26));
    HUDSettings settings;
    settings.textMode = HUDTextMode::full;
    EXPECT_EQ(hudContent(inputs(Phase::listening, text), settings).label,
              QStringLiteral("…") + text.right(420));
    EXPECT_EQ(hudContent(inputs(Phase::listening, text.left(420)), settings).label, text.left(420));
    settings.textMode = HUDTextMode::clip; // the view cuts it to one line
    EXPECT_EQ(hudContent(inputs(Phase::listening, text), settings).label, text);
}

TEST(HUDContentTest, GlassLeansTowardsTheAnchor)
{
    EXPECT_EQ(hudAlignment(HUDPosition::topLeft), Qt::AlignLeft | Qt::AlignTop);
    EXPECT_EQ(hudAlignment(HUDPosition::bottomCenter), Qt::AlignHCenter | Qt::AlignBottom);
    EXPECT_EQ(hudAlignment(HUDPosition::middleRight), Qt::AlignRight | Qt::AlignVCenter);
}

} // namespace
} // namespace vocari
