#include "text/TextInserter.h"

#include "platform/x11/ActiveWindow.h"
#include "platform/x11/X11Keyboard.h"
#include "settings/Preferences.h"

#include <QClipboard>
#include <QGuiApplication>
#include <QLoggingCategory>
#include <QMimeData>
#include <QPointer>
#include <QTextBoundaryFinder>
#include <QTimer>
#include <array>
#include <utility>
#include <vector>

namespace vocari::TextInserter {

Q_LOGGING_CATEGORY(lcInserter, "vocari.inserter", QtInfoMsg)

namespace {

constexpr qsizetype maxChunkUnits = 20;
constexpr int restoreDelayMs = 500;

// Every format the clipboard offered, in its order, with its bytes.
using ClipboardCopy = std::vector<std::pair<QString, QByteArray>>;

struct PendingRestore
{
    QPointer<QTimer> timer;
    ClipboardCopy saved;
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
        // Qt's own name for "some image"; the real image formats are kept with their bytes.
        if (format == u"application/x-qt-image")
            continue;
        QByteArray bytes = data->data(format);
        if (!bytes.isEmpty())
            copy.emplace_back(format, std::move(bytes));
    }
    return copy;
}

void restore(const ClipboardCopy &saved)
{
    QClipboard *board = clipboard();
    // Another program copied something meanwhile: that is now the user's content.
    if (!board || !board->ownsClipboard())
        return;
    if (saved.empty()) {
        board->clear();
        return;
    }
    auto *data = new QMimeData;
    for (const auto &[format, bytes] : saved)
        data->setData(format, bytes);
    board->setMimeData(data);
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

    // Within the restore delay of an earlier paste the clipboard holds that dictation; what
    // the user had before it is the content to come back.
    PendingRestore &state = pending();
    ClipboardCopy saved;
    if (state.timer) {
        delete state.timer;
        saved = std::exchange(state.saved, {});
    } else {
        saved = copyOf(board->mimeData());
    }

    board->setText(text);
    const ActiveWindow window = ActiveWindow::current();
    X11Keyboard::shared().paste(shortcutFor(
        pasteKeys(Preferences::pasteShortcut(), window.instanceName, window.className)));

    if (Preferences::keepOnClipboard())
        return;
    auto *timer = new QTimer(QCoreApplication::instance());
    timer->setSingleShot(true);
    state.timer = timer;
    state.saved = std::move(saved);
    QObject::connect(timer, &QTimer::timeout, timer, [timer] {
        PendingRestore &restoreState = pending();
        const ClipboardCopy content = std::exchange(restoreState.saved, {});
        restoreState.timer = nullptr;
        timer->deleteLater();
        restore(content);
    });
    timer->start(restoreDelayMs);
}

void type(const QString &text)
{
    if (text.isEmpty())
        return;
    // A line break is one Return, whichever convention the text uses.
    QString lines = text;
    lines.replace(QStringLiteral("\r\n"), QStringLiteral("\n"));
    lines.replace(QChar(u'\r'), QChar(u'\n'));
    X11Keyboard::shared().type(typingChunks(lines));
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

qsizetype characterCount(const QString &text)
{
    QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, text);
    qsizetype count = 0;
    while (finder.toNextBoundary() != -1)
        ++count;
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
    return isTerminal(instanceName) || isTerminal(className) ? PasteKeys::ctrlShiftV
                                                             : PasteKeys::ctrlV;
}

} // namespace vocari::TextInserter
