#include "text/TextInserter.h"

#include "platform/x11/ActiveWindow.h"
#include "platform/x11/X11Keyboard.h"
#include "settings/Preferences.h"

#include <QClipboard>
#include <QFile>
#include <QGuiApplication>
#include <QLoggingCategory>
#include <QMimeData>
#include <QPointer>
#include <QRegularExpression>
#include <QTextBoundaryFinder>
#include <QTimer>
#include <array>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

namespace vocari::TextInserter {

Q_LOGGING_CATEGORY(lcInserter, "vocari.inserter", QtInfoMsg)

namespace {

constexpr qsizetype maxChunkUnits = 20;
constexpr int restoreDelayMs = 500;
// A program that has not fetched the pasted text by the restore delay (a busy terminal, say) is
// given this much longer, looking every restoreStepMs, before the user's content comes back:
// restoring first would paste the old clipboard.
constexpr int longestWaitMs = 3000;
constexpr int restoreStepMs = 100;

// The dictation on the clipboard, noting when another program fetches it.
class WatchedText final : public QMimeData
{
public:
    WatchedText(const QString &text, std::shared_ptr<bool> fetched) : m_fetched(std::move(fetched))
    {
        setText(text);
    }

protected:
    QVariant retrieveData(const QString &format, QMetaType type) const override
    {
        *m_fetched = true;
        return QMimeData::retrieveData(format, type);
    }

private:
    std::shared_ptr<bool> m_fetched;
};

// Every format the clipboard offered, in its order, with its bytes.
using ClipboardCopy = std::vector<std::pair<QString, QByteArray>>;

// What the user had before the dictation was pasted: the clipboard, and the primary selection
// when the paste went through it too.
struct PendingRestore
{
    QPointer<QTimer> timer;
    ClipboardCopy clipboard;
    std::optional<ClipboardCopy> selection;
    std::shared_ptr<bool> fetched; // whether a program has fetched the latest pasted text
    int waitedMs = 0;
};

PendingRestore &pending()
{
    static PendingRestore state;
    return state;
}

QClipboard *clipboard()
{
    if (!qobject_cast<QGuiApplication *>(QCoreApplication::instance()))
        return nullptr;
    return QGuiApplication::clipboard();
}

ClipboardCopy copyOf(const QMimeData *data)
{
    ClipboardCopy copy;
    if (!data)
        return copy;
    for (const QString &format : data->formats()) {
        // Qt's own name for "some image"; the real image formats are kept with their bytes. The
        // X selection's own targets describe the transfer, not the content, and would only
        // confuse the program the content is handed back to.
        if (format == u"application/x-qt-image" || format == u"TARGETS" || format == u"MULTIPLE" ||
            format == u"TIMESTAMP" || format == u"SAVE_TARGETS")
            continue;
        QByteArray bytes = data->data(format);
        if (!bytes.isEmpty())
            copy.emplace_back(format, std::move(bytes));
    }
    return copy;
}

void restore(const ClipboardCopy &saved, QClipboard::Mode mode)
{
    QClipboard *board = clipboard();
    // Another program took it meanwhile: that is now the user's content.
    const bool owned =
        board && (mode == QClipboard::Selection ? board->ownsSelection() : board->ownsClipboard());
    if (!owned)
        return;
    if (saved.empty()) {
        board->clear(mode);
        return;
    }
    auto *data = new QMimeData;
    for (const auto &[format, bytes] : saved)
        data->setData(format, bytes);
    board->setMimeData(data, mode);
}

X11Keyboard::Shortcut shortcutFor(PasteKeys keys)
{
    switch (keys) {
    case PasteKeys::ctrlShiftV:
        return X11Keyboard::Shortcut::ctrlShiftV;
    case PasteKeys::shiftInsert:
        return X11Keyboard::Shortcut::shiftInsert;
    case PasteKeys::ctrlV:
        break;
    }
    return X11Keyboard::Shortcut::ctrlV;
}

} // namespace

void insert(const QString &text)
{
    QClipboard *board = clipboard();
    if (!board) {
        qCWarning(lcInserter, "Cannot paste: the program has no graphical session.");
        return;
    }
    const ActiveWindow window = ActiveWindow::current();
    const PasteKeys keys =
        pasteKeys(Preferences::pasteShortcut(), window.instanceName, window.className);
    // xterm and urxvt paste the primary selection on Shift+Insert; other programs paste the
    // clipboard, so the text goes on both.
    const bool viaSelection = keys == PasteKeys::shiftInsert && board->supportsSelection();

    // Within the restore delay of an earlier paste the clipboard holds that dictation; what
    // the user had before it is the content to come back.
    PendingRestore &state = pending();
    if (state.timer) {
        delete state.timer;
    } else {
        state.clipboard = copyOf(board->mimeData());
        state.selection.reset();
        QStringList formats;
        for (const auto &entry : state.clipboard)
            formats.append(entry.first);
        qCDebug(lcInserter).noquote()
            << "clipboard kept for after the paste:" << formats.join(u' ');
    }
    if (viaSelection && !state.selection)
        state.selection = copyOf(board->mimeData(QClipboard::Selection));

    state.fetched = std::make_shared<bool>(false);
    state.waitedMs = 0;
    board->setMimeData(new WatchedText(text, state.fetched));
    if (viaSelection)
        board->setMimeData(new WatchedText(text, state.fetched), QClipboard::Selection);
    X11Keyboard::shared().paste(shortcutFor(keys));

    if (Preferences::keepOnClipboard()) {
        state = {};
        return;
    }
    auto *timer = new QTimer(QCoreApplication::instance());
    timer->setSingleShot(true);
    state.timer = timer;
    QObject::connect(timer, &QTimer::timeout, timer, [timer] {
        PendingRestore &waiting = pending();
        if (!*waiting.fetched && waiting.waitedMs < longestWaitMs) {
            waiting.waitedMs += restoreStepMs;
            timer->start(restoreStepMs);
            return;
        }
        PendingRestore saved = std::exchange(pending(), {});
        timer->deleteLater();
        restore(saved.clipboard, QClipboard::Clipboard);
        if (saved.selection)
            restore(*saved.selection, QClipboard::Selection);
    });
    timer->start(restoreDelayMs);
}

qsizetype type(const QString &text)
{
    if (text.isEmpty())
        return 0;
    const std::optional<QString> sent =
        X11Keyboard::shared().type(typingChunks(unifiedLineBreaks(text)));
    if (!sent)
        return 0;
    return backspaceCount(*sent, backspaceRule(ActiveWindow::current()));
}

void erase(qsizetype count)
{
    if (count > 0)
        X11Keyboard::shared().erase(count);
}

bool restorePending()
{
    return !pending().timer.isNull();
}

QString unifiedLineBreaks(const QString &text)
{
    QString lines = text;
    lines.replace(QStringLiteral("\r\n"), QStringLiteral("\n"));
    lines.replace(QChar(u'\r'), QChar(u'\n'));
    return lines;
}

QStringList typingChunks(const QString &text)
{
    QStringList chunks;
    qsizetype start = 0;
    while (start < text.size()) {
        qsizetype end = std::min(start + maxChunkUnits, text.size());
        if (end < text.size() && text.at(end - 1).isHighSurrogate())
            --end;
        chunks.append(text.mid(start, end - start));
        start = end;
    }
    return chunks;
}

namespace {

// Whether a WM_CLASS name starts with one of the names, in any case.
bool namedLike(const QString &windowClassName, std::initializer_list<const char *> names)
{
    const QString name = windowClassName.toLower();
    return std::any_of(names.begin(), names.end(), [&name](const char *known) {
        return name.startsWith(QLatin1String(known));
    });
}

} // namespace

BackspaceRule backspaceRule(const ActiveWindow &window)
{
    for (const QString &name : {window.className, window.instanceName}) {
        if (namedLike(name,
                      {"chromium", "google-chrome", "brave-browser", "microsoft-edge", "vivaldi"}))
            return BackspaceRule::chromium;
        if (namedLike(name, {"firefox", "librewolf", "waterfox", "thunderbird"}))
            return BackspaceRule::firefox;
    }
    if (!window.processId || isTerminal(window.instanceName) || isTerminal(window.className))
        return BackspaceRule::codePoint;
    // The program's mapped libraries tell its toolkit; a process of another user cannot be
    // read, and is taken for a program of the common rule.
    QFile maps(QStringLiteral("/proc/%1/maps").arg(*window.processId));
    if (!maps.open(QIODevice::ReadOnly))
        return BackspaceRule::codePoint;
    static const QRegularExpression gtk(QStringLiteral("/libgtk-[34]\\.so"));
    return gtk.match(QString::fromLocal8Bit(maps.readAll())).hasMatch() ? BackspaceRule::gtk
                                                                        : BackspaceRule::codePoint;
}

namespace {

// An emoji or another pictographic symbol, a regional indicator among them.
bool isPictograph(char32_t c)
{
    return (c >= 0x1F000 && c <= 0x1FAFF) || QChar::category(c) == QChar::Symbol_Other;
}

bool isSkinTone(char32_t c)
{
    return c >= 0x1F3FB && c <= 0x1F3FF;
}

// A code point that belongs to the emoji before it: a variation selector or a skin tone.
bool modifiesEmoji(char32_t c)
{
    return (c >= 0xFE00 && c <= 0xFE0F) || isSkinTone(c);
}

// A cluster shown as one emoji: it starts with a pictograph, or its base (a digit of a keycap,
// "‼" or "ℹ" with the emoji selector) is made one by what follows it.
bool isEmojiCluster(const QList<uint> &cluster)
{
    if (cluster.isEmpty())
        return false;
    if (isPictograph(cluster.front()))
        return true;
    return std::any_of(cluster.begin() + 1, cluster.end(), [](uint c) {
        return c == 0xFE0F || c == 0x20E3 || c == 0x200D || isSkinTone(c);
    });
}

// Firefox's presses for an emoji sequence: one for the last joiner and what follows it, then
// one per code point of the rest, an emoji with its selector or skin tone counting once.
qsizetype firefoxPresses(const QList<uint> &cluster)
{
    constexpr uint joiner = 0x200D;
    const qsizetype lastJoiner = cluster.lastIndexOf(joiner);
    if (lastJoiner < 0)
        return 1;
    qsizetype presses = 1;
    for (qsizetype i = 0; i < lastJoiner; ++i) {
        if (i == 0 || !modifiesEmoji(cluster[i]) || !isPictograph(cluster[i - 1]))
            ++presses;
    }
    return presses;
}

// GTK deletes a cluster at once when its first character comes from a script whose accents
// the user thinks of as part of the letter (or is an emoji or other symbol), and one code point
// at a time elsewhere (an Indic conjunct loses its parts one by one).
bool gtkDeletesWhole(char32_t first)
{
    if (first <= 0x2af)
        return true;
    switch (QChar::script(first)) {
    case QChar::Script_Latin:
    case QChar::Script_Greek:
    case QChar::Script_Cyrillic:
    case QChar::Script_Hiragana:
    case QChar::Script_Katakana:
    case QChar::Script_Hangul:
        return true;
    case QChar::Script_Common:
        return QChar::category(first) == QChar::Symbol_Other;
    default:
        return false;
    }
}

// The presses that delete one grapheme cluster under a rule other than one per code point.
qsizetype clusterPresses(const QList<uint> &cluster, BackspaceRule rule)
{
    if (rule == BackspaceRule::gtk)
        return gtkDeletesWhole(cluster.value(0)) ? 1 : cluster.size();
    if (!isEmojiCluster(cluster))
        return cluster.size();
    return rule == BackspaceRule::firefox ? firefoxPresses(cluster) : 1;
}

} // namespace

qsizetype backspaceCount(const QString &text, BackspaceRule rule)
{
    if (rule == BackspaceRule::codePoint)
        return text.toUcs4().size();
    QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, text);
    qsizetype count = 0;
    qsizetype start = 0;
    for (qsizetype end = finder.toNextBoundary(); end != -1; end = finder.toNextBoundary()) {
        count += clusterPresses(QStringView(text).mid(start, end - start).toUcs4(), rule);
        start = end;
    }
    return count;
}

bool isTerminal(const QString &windowClassName)
{
    static const std::array<QString, 11> terminals{
        QStringLiteral("xterm"),          QStringLiteral("gnome-terminal"),
        QStringLiteral("konsole"),        QStringLiteral("kitty"),
        QStringLiteral("alacritty"),      QStringLiteral("foot"),
        QStringLiteral("wezterm"),        QStringLiteral("tilix"),
        QStringLiteral("xfce4-terminal"), QStringLiteral("terminator"),
        QStringLiteral("urxvt"),
    };
    const QString name = windowClassName.toLower();
    if (name.isEmpty())
        return false;
    for (const QString &terminal : terminals) {
        // Variants name the program with a suffix ("gnome-terminal-server") or inside a
        // reverse domain name ("org.wezfurlong.wezterm").
        if (name == terminal || name.startsWith(terminal + u'-') || name.endsWith(u'.' + terminal))
            return true;
    }
    return false;
}

PasteKeys pasteKeys(const QString &setting, const QString &instanceName, const QString &className)
{
    if (setting == u"ctrlV")
        return PasteKeys::ctrlV;
    if (setting == u"ctrlShiftV")
        return PasteKeys::ctrlShiftV;
    if (setting == u"shiftInsert")
        return PasteKeys::shiftInsert;
    if (!isTerminal(instanceName) && !isTerminal(className))
        return PasteKeys::ctrlV;
    // xterm and urxvt bind no key to the clipboard; Shift+Insert pastes their selection.
    for (const QString &name : {instanceName.toLower(), className.toLower()}) {
        if (name == u"xterm" || name == u"urxvt" || name == u"rxvt-unicode")
            return PasteKeys::shiftInsert;
    }
    return PasteKeys::ctrlShiftV;
}

} // namespace vocari::TextInserter
