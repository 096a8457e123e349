#include "settings/SettingsTypes.h"

namespace vocari {

namespace {

// The case whose stored name is `raw`, among `cases`, or none.
template <typename Enum, size_t N>
std::optional<Enum> findCase(const std::array<Enum, N> &cases, QStringView raw)
{
    for (Enum value : cases) {
        if (rawValue(value) == raw)
            return value;
    }
    return std::nullopt;
}

constexpr std::array kHUDDisplays{HUDDisplay::cursor, HUDDisplay::main};
constexpr std::array kHUDTextModes{HUDTextMode::clip, HUDTextMode::full};

} // namespace

QString rawValue(RecordMode value)
{
    switch (value) {
    case RecordMode::hold:
        return QStringLiteral("hold");
    case RecordMode::toggle:
        return QStringLiteral("toggle");
    }
    return {};
}

QString rawValue(HUDPosition value)
{
    switch (value) {
    case HUDPosition::topLeft:
        return QStringLiteral("topLeft");
    case HUDPosition::topCenter:
        return QStringLiteral("topCenter");
    case HUDPosition::topRight:
        return QStringLiteral("topRight");
    case HUDPosition::middleLeft:
        return QStringLiteral("middleLeft");
    case HUDPosition::middleCenter:
        return QStringLiteral("middleCenter");
    case HUDPosition::middleRight:
        return QStringLiteral("middleRight");
    case HUDPosition::bottomLeft:
        return QStringLiteral("bottomLeft");
    case HUDPosition::bottomCenter:
        return QStringLiteral("bottomCenter");
    case HUDPosition::bottomRight:
        return QStringLiteral("bottomRight");
    }
    return {};
}

QString rawValue(HUDDisplay value)
{
    switch (value) {
    case HUDDisplay::cursor:
        return QStringLiteral("cursor");
    case HUDDisplay::main:
        return QStringLiteral("main");
    }
    return {};
}

QString rawValue(HUDTextMode value)
{
    switch (value) {
    case HUDTextMode::clip:
        return QStringLiteral("clip");
    case HUDTextMode::full:
        return QStringLiteral("full");
    }
    return {};
}

QString rawValue(HUDSize value)
{
    switch (value) {
    case HUDSize::small:
        return QStringLiteral("small");
    case HUDSize::medium:
        return QStringLiteral("medium");
    case HUDSize::large:
        return QStringLiteral("large");
    }
    return {};
}

template <> std::optional<RecordMode> fromRawValue<RecordMode>(QStringView raw)
{
    return findCase(kRecordModes, raw);
}

template <> std::optional<HUDPosition> fromRawValue<HUDPosition>(QStringView raw)
{
    return findCase(kHUDPositions, raw);
}

template <> std::optional<HUDDisplay> fromRawValue<HUDDisplay>(QStringView raw)
{
    return findCase(kHUDDisplays, raw);
}

template <> std::optional<HUDTextMode> fromRawValue<HUDTextMode>(QStringView raw)
{
    return findCase(kHUDTextModes, raw);
}

template <> std::optional<HUDSize> fromRawValue<HUDSize>(QStringView raw)
{
    return findCase(kHUDSizes, raw);
}

QString label(HUDSize size)
{
    switch (size) {
    case HUDSize::small:
        return QStringLiteral("Small");
    case HUDSize::medium:
        return QStringLiteral("Medium");
    case HUDSize::large:
        return QStringLiteral("Large");
    }
    return {};
}

double scale(HUDSize size)
{
    switch (size) {
    case HUDSize::small:
        return 0.85;
    case HUDSize::medium:
        return 1.0;
    case HUDSize::large:
        return 1.3;
    }
    return 1.0;
}

QString label(HUDDisplay display)
{
    switch (display) {
    case HUDDisplay::cursor:
        return QStringLiteral("Screen with the cursor");
    case HUDDisplay::main:
        return QStringLiteral("Main display");
    }
    return {};
}

} // namespace vocari
