#pragma once

#include <QString>
#include <QStringView>

#include <array>
#include <optional>

namespace vocari {

// The enumerations kept in settings, each stored as the name of its case.

enum class RecordMode { hold, toggle };

enum class HUDPosition {
    topLeft,
    topCenter,
    topRight,
    middleLeft,
    middleCenter,
    middleRight,
    bottomLeft,
    bottomCenter,
    bottomRight
};

enum class HUDDisplay { cursor, main };

enum class HUDTextMode { clip, full };

enum class HUDSize { small, medium, large };

// The stored name of each case, and the case a stored name stands for (none when the name is
// not one of them; names are compared exactly, case included).
QString rawValue(RecordMode value);
QString rawValue(HUDPosition value);
QString rawValue(HUDDisplay value);
QString rawValue(HUDTextMode value);
QString rawValue(HUDSize value);

template <typename Enum> std::optional<Enum> fromRawValue(QStringView raw);
template <> std::optional<RecordMode> fromRawValue<RecordMode>(QStringView raw);
template <> std::optional<HUDPosition> fromRawValue<HUDPosition>(QStringView raw);
template <> std::optional<HUDDisplay> fromRawValue<HUDDisplay>(QStringView raw);
template <> std::optional<HUDTextMode> fromRawValue<HUDTextMode>(QStringView raw);
template <> std::optional<HUDSize> fromRawValue<HUDSize>(QStringView raw);

inline constexpr std::array kRecordModes{RecordMode::hold, RecordMode::toggle};
inline constexpr std::array kHUDPositions{
    HUDPosition::topLeft,      HUDPosition::topCenter,    HUDPosition::topRight,
    HUDPosition::middleLeft,   HUDPosition::middleCenter, HUDPosition::middleRight,
    HUDPosition::bottomLeft,   HUDPosition::bottomCenter, HUDPosition::bottomRight};
inline constexpr std::array kHUDSizes{HUDSize::small, HUDSize::medium, HUDSize::large};

// Column 0 left, 1 centre, 2 right; row 0 top, 1 middle, 2 bottom.
inline int column(HUDPosition position) { return int(position) % 3; }
inline int row(HUDPosition position) { return int(position) / 3; }

// What the size picker shows for a size, and the "hud.scale" factor it stores.
QString label(HUDSize size);
double scale(HUDSize size);
// What the screen picker shows: "Screen with the cursor", "Main display".
QString label(HUDDisplay display);

} // namespace vocari
