#include "platform/wayland/DataControlClipboard.h"

#include "platform/wayland/WaylandLog.h"

#include <QProcess>
#include <QStandardPaths>

namespace vocari {

namespace {

constexpr int kProgramTimeoutMs = 2000;

// Runs a clipboard program and returns its standard output; none when it failed, with what
// it said in *errors.
std::optional<QByteArray> run(const QString &program, const QStringList &arguments,
                              const QByteArray &input = QByteArray(), QByteArray *errors = nullptr)
{
    QProcess process;
    process.start(program, arguments);
    if (!process.waitForStarted(kProgramTimeoutMs))
        return std::nullopt;
    process.write(input);
    process.closeWriteChannel();
    if (!process.waitForFinished(kProgramTimeoutMs)) {
        process.kill();
        process.waitForFinished();
        return std::nullopt;
    }
    if (process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0) {
        if (errors)
            *errors = process.readAllStandardError();
        return std::nullopt;
    }
    return process.readAllStandardOutput();
}

} // namespace

bool DataControlClipboard::programsFound()
{
    return !QStandardPaths::findExecutable(QStringLiteral("wl-copy")).isEmpty() &&
           !QStandardPaths::findExecutable(QStringLiteral("wl-paste")).isEmpty();
}

std::optional<ClipboardContent> DataControlClipboard::save()
{
    QByteArray errors;
    const std::optional<QByteArray> types =
        run(QStringLiteral("wl-paste"), {QStringLiteral("--list-types")}, {}, &errors);
    // wl-paste fails on an empty clipboard too, saying so; an empty clipboard is content as
    // well. Any other failure leaves the clipboard unknown, and then nothing is put back.
    if (!types && errors.contains("No selection"))
        return ClipboardContent{};
    if (!types)
        return std::nullopt;
    if (types->trimmed().isEmpty())
        return ClipboardContent{};
    const QString first = QString::fromUtf8(types->split('\n').first()).trimmed();
    const std::optional<QByteArray> bytes =
        run(QStringLiteral("wl-paste"),
            {QStringLiteral("--no-newline"), QStringLiteral("--type"), first});
    if (!bytes)
        return std::nullopt;
    return ClipboardContent{first, *bytes};
}

bool DataControlClipboard::setText(const QString &text)
{
    return copy(QStringLiteral("text/plain;charset=utf-8"), text.toUtf8());
}

bool DataControlClipboard::setPrimaryText(const QString &text)
{
    return copy(QStringLiteral("text/plain;charset=utf-8"), text.toUtf8(), true);
}

bool DataControlClipboard::restore(const ClipboardContent &content)
{
    if (content.type.isEmpty())
        return run(QStringLiteral("wl-copy"), {QStringLiteral("--clear")}).has_value();
    return copy(content.type, content.bytes);
}

bool DataControlClipboard::copy(const QString &type, const QByteArray &bytes, bool primary)
{
    // wl-copy leaves a process of its own serving the clipboard until another owner takes it;
    // the command itself returns once the clipboard is set. That process must not hold our
    // pipes open, so its output goes nowhere.
    QProcess process;
    process.setStandardOutputFile(QProcess::nullDevice());
    process.setStandardErrorFile(QProcess::nullDevice());
    QStringList arguments{QStringLiteral("--type"), type};
    if (primary)
        arguments << QStringLiteral("--primary");
    process.start(QStringLiteral("wl-copy"), arguments);
    bool done = process.waitForStarted(kProgramTimeoutMs);
    if (done) {
        process.write(bytes);
        process.closeWriteChannel();
        done = process.waitForFinished(kProgramTimeoutMs) &&
               process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
    }
    if (!done)
        qCWarning(lcWayland, "wl-copy could not set the clipboard.");
    return done;
}

} // namespace vocari
