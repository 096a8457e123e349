#include "hotkey/Hotkey.h"

#include <QStringList>
#include <cmath>
#include <limits>

namespace vocari {

namespace {

const QString keyJson = QStringLiteral("keyCode");
const QString modifiersJson = QStringLiteral("modifiers");
const QString modifierOnlyJson = QStringLiteral("modifierOnly");

QString unnamedKey(std::uint16_t code)
{
    return QStringLiteral("Key %1").arg(code);
}

// A JSON number that is a whole number from 0 up to, not including, `limit`; else none.
std::optional<std::uint64_t> wholeNumber(const QJsonValue &value, double limit)
{
    if (!value.isDouble())
        return std::nullopt;
    // Integers are read exactly (a double would round values beyond 2^53); only whole
    // numbers beyond the signed 64-bit range go through the double.
    const qint64 exact = value.toInteger(-1);
    if (exact >= 0) {
        if (double(exact) >= limit)
            return std::nullopt;
        return std::uint64_t(exact);
    }
    const double number = value.toDouble();
    if (!std::isfinite(number) || number < 9223372036854775808.0 || number >= limit ||
        std::trunc(number) != number)
        return std::nullopt;
    return std::uint64_t(number);
}

} // namespace

QString Hotkey::label() const
{
    if (modifierOnly) {
        const auto &names = modifierNames();
        const auto name = names.find(keyCode);
        return name != names.end() ? name->second : unnamedKey(keyCode);
    }

    // A fixed order, whatever order the modifiers were pressed in.
    static const std::pair<std::uint64_t, QString> prefixes[] = {
        {Modifier::control, QStringLiteral("Ctrl+")},
        {Modifier::alt, QStringLiteral("Alt+")},
        {Modifier::shift, QStringLiteral("Shift+")},
        {Modifier::super, QStringLiteral("Super+")},
    };
    QString text;
    for (const auto &[bit, prefix] : prefixes) {
        if (modifiers & bit)
            text += prefix;
    }
    const auto &names = keyNames();
    const auto name = names.find(keyCode);
    text += name != names.end() ? name->second : unnamedKey(keyCode);
    return text;
}

bool Hotkey::isStandalone() const
{
    return standaloneCodes().contains(keyCode);
}

QJsonObject Hotkey::toJson() const
{
    // Modifier bits fit easily in a signed 64-bit integer; anything larger can only have come
    // from a hand-made value and is kept as a number all the same.
    const QJsonValue modifierValue = modifiers <= std::uint64_t(std::numeric_limits<qint64>::max())
                                         ? QJsonValue(qint64(modifiers))
                                         : QJsonValue(double(modifiers));
    return QJsonObject{
        {keyJson, int(keyCode)},
        {modifiersJson, modifierValue},
        {modifierOnlyJson, modifierOnly},
    };
}

std::optional<Hotkey> Hotkey::fromJson(const QJsonValue &json)
{
    if (!json.isObject())
        return std::nullopt;
    const QJsonObject object = json.toObject();

    const auto code = wholeNumber(object.value(keyJson), 65536.0);
    const auto bits = wholeNumber(object.value(modifiersJson), 18446744073709551616.0);
    const QJsonValue alone = object.value(modifierOnlyJson);
    if (!code || !bits || !alone.isBool())
        return std::nullopt;
    return Hotkey{std::uint16_t(*code), *bits, alone.toBool()};
}

std::optional<std::uint64_t> Hotkey::flag(std::uint16_t modifierKey)
{
    switch (modifierKey) {
    case KeyCode::leftCtrl:
    case KeyCode::rightCtrl:
        return Modifier::control;
    case KeyCode::leftShift:
    case KeyCode::rightShift:
        return Modifier::shift;
    case KeyCode::leftAlt:
    case KeyCode::rightAlt:
        return Modifier::alt;
    case KeyCode::leftSuper:
    case KeyCode::rightSuper:
        return Modifier::super;
    default:
        return std::nullopt;
    }
}

const std::vector<Hotkey> &Hotkey::presets()
{
    static const std::vector<Hotkey> keys{
        {KeyCode::rightAlt, 0, true},
        {KeyCode::rightCtrl, 0, true},
        {KeyCode::rightSuper, 0, true},
        {KeyCode::space, Modifier::control | Modifier::alt, false},
    };
    return keys;
}

const std::map<std::uint16_t, QString> &Hotkey::modifierNames()
{
    static const std::map<std::uint16_t, QString> names{
        {KeyCode::leftCtrl, QStringLiteral("Left Ctrl")},
        {KeyCode::rightCtrl, QStringLiteral("Right Ctrl")},
        {KeyCode::leftShift, QStringLiteral("Left Shift")},
        {KeyCode::rightShift, QStringLiteral("Right Shift")},
        {KeyCode::leftAlt, QStringLiteral("Left Alt")},
        {KeyCode::rightAlt, QStringLiteral("Right Alt")},
        {KeyCode::leftSuper, QStringLiteral("Left Super")},
        {KeyCode::rightSuper, QStringLiteral("Right Super")},
    };
    return names;
}

const std::map<std::uint16_t, QString> &Hotkey::keyNames()
{
    static const std::map<std::uint16_t, QString> names = [] {
        std::map<std::uint16_t, QString> table;
        // The rows of the main block, each a run of consecutive codes.
        const auto addRow = [&table](std::uint16_t firstCode, QStringView legends) {
            for (qsizetype i = 0; i < legends.size(); ++i)
                table.emplace(std::uint16_t(firstCode + i), legends.mid(i, 1).toString());
        };
        addRow(2, u"1234567890-=");  // 2 to 13
        addRow(16, u"QWERTYUIOP[]"); // 16 to 27
        addRow(30, u"ASDFGHJKL;'`"); // 30 to 41
        addRow(43, u"\\ZXCVBNM,./"); // 43 to 53

        table.emplace(28, QStringLiteral("Return"));
        table.emplace(15, QStringLiteral("Tab"));
        table.emplace(KeyCode::space, QStringLiteral("Space"));
        table.emplace(14, QStringLiteral("Backspace"));
        table.emplace(105, QStringLiteral("←"));
        table.emplace(106, QStringLiteral("→"));
        table.emplace(108, QStringLiteral("↓"));
        table.emplace(103, QStringLiteral("↑"));

        for (int n = 1; n <= 10; ++n)
            table.emplace(std::uint16_t(58 + n), QStringLiteral("F%1").arg(n)); // 59 to 68
        table.emplace(87, QStringLiteral("F11"));
        table.emplace(88, QStringLiteral("F12"));
        for (int n = 13; n <= 19; ++n)
            table.emplace(std::uint16_t(170 + n), QStringLiteral("F%1").arg(n)); // 183 to 189
        return table;
    }();
    return names;
}

const std::set<std::uint16_t> &Hotkey::standaloneCodes()
{
    static const std::set<std::uint16_t> codes{59, 60, 61,  62,  63,  64,  65,  66,  67, 68,
                                               87, 88, 183, 184, 185, 186, 187, 188, 189};
    return codes;
}

size_t qHash(const Hotkey &hotkey, size_t seed) noexcept
{
    return qHashMulti(seed, hotkey.keyCode, quint64(hotkey.modifiers), hotkey.modifierOnly);
}

} // namespace vocari
