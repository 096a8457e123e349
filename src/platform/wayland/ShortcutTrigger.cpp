#include "platform/wayland/ShortcutTrigger.h"

#include <QStringList>
#include <map>

namespace vocari {

namespace {

const std::map<std::uint16_t, QString> &usKeysymNames()
{
    static const std::map<std::uint16_t, QString> names = [] {
        std::map<std::uint16_t, QString> table;
        // Runs of consecutive key codes, one keysym name each.
        const auto addRun = [&table](std::uint16_t firstCode, const QStringList &run) {
            for (qsizetype i = 0; i < run.size(); ++i)
                table.emplace(std::uint16_t(firstCode + i), run[i]);
        };
        addRun(1, {"Escape", "1", "2", "3", "4", "5", "6", "7", "8", "9", "0", "minus", "equal",
                   "BackSpace", "Tab"});
        addRun(16, {"q", "w", "e", "r", "t", "y", "u", "i", "o", "p", "bracketleft", "bracketright",
                    "Return", "Control_L"});
        addRun(30, {"a", "s", "d", "f", "g", "h", "j", "k", "l", "semicolon", "apostrophe", "grave",
                    "Shift_L", "backslash"});
        addRun(44, {"z", "x", "c", "v", "b", "n", "m", "comma", "period", "slash", "Shift_R",
                    "KP_Multiply", "Alt_L", "space", "Caps_Lock"});
        for (int n = 1; n <= 10; ++n)
            table.emplace(std::uint16_t(58 + n), QStringLiteral("F%1").arg(n)); // 59 to 68
        addRun(69, {"Num_Lock", "Scroll_Lock"});
        addRun(87, {"F11", "F12"});
        addRun(96, {"KP_Enter", "Control_R", "KP_Divide", "Print", "Alt_R"});
        addRun(102,
               {"Home", "Up", "Prior", "Left", "Right", "End", "Down", "Next", "Insert", "Delete"});
        addRun(113, {"XF86AudioMute", "XF86AudioLowerVolume", "XF86AudioRaiseVolume"});
        table.emplace(119, QStringLiteral("Pause"));
        addRun(125, {"Super_L", "Super_R", "Menu"});
        for (int n = 13; n <= 19; ++n)
            table.emplace(std::uint16_t(170 + n), QStringLiteral("F%1").arg(n)); // 183 to 189
        return table;
    }();
    return names;
}

} // namespace

QString usKeysymName(std::uint16_t keyCode)
{
    const auto &names = usKeysymNames();
    const auto name = names.find(keyCode);
    return name == names.end() ? QString() : name->second;
}

QString shortcutTrigger(const Hotkey &hotkey)
{
    const QString key = usKeysymName(hotkey.keyCode);
    if (key.isEmpty() || hotkey.modifierOnly)
        return key;
    static const std::pair<std::uint64_t, const char *> prefixes[] = {
        {Modifier::control, "CTRL"},
        {Modifier::alt, "ALT"},
        {Modifier::shift, "SHIFT"},
        {Modifier::super, "LOGO"},
    };
    QStringList parts;
    for (const auto &[bit, name] : prefixes) {
        if (hotkey.modifiers & bit)
            parts << QLatin1String(name);
    }
    parts << key;
    return parts.join(QLatin1Char('+'));
}

bool triggerNamesKey(const QString &description, const Hotkey &hotkey)
{
    static const std::map<QString, std::uint64_t> modifierNames{
        {QStringLiteral("ctrl"), Modifier::control},
        {QStringLiteral("control"), Modifier::control},
        {QStringLiteral("primary"), Modifier::control},
        {QStringLiteral("alt"), Modifier::alt},
        {QStringLiteral("shift"), Modifier::shift},
        {QStringLiteral("logo"), Modifier::super},
        {QStringLiteral("super"), Modifier::super},
        {QStringLiteral("meta"), Modifier::super},
        {QStringLiteral("win"), Modifier::super},
    };
    QStringList parts = description.trimmed().toLower().split(u'+');
    // A plus key itself ends the description with an empty part.
    if (parts.size() > 1 && parts.last().isEmpty()) {
        parts.removeLast();
        parts.last() = QStringLiteral("plus");
    }
    if (parts.isEmpty())
        return false;
    // Desktops write some names without the underscore ("ScrollLock").
    const QString key = parts.takeLast().trimmed().remove(u'_');
    std::uint64_t modifiers = 0;
    for (const QString &part : parts) {
        const auto found = modifierNames.find(part.trimmed());
        if (found == modifierNames.end())
            return false;
        modifiers |= found->second;
    }
    const QString expected = usKeysymName(hotkey.keyCode).toLower().remove(u'_');
    return !expected.isEmpty() && key == expected &&
           modifiers == (hotkey.modifiers &
                         (Modifier::control | Modifier::alt | Modifier::shift | Modifier::super));
}

} // namespace vocari
