// A small window for the X11 tests: it takes the keyboard focus and reports on standard output,
// one line each, every key event it receives and its text after every change:
//
//   ready <window id> <process id>
//   press <X keycode> <X modifier state> <auto-repeat 0|1> <percent-encoded text>
//   release <X keycode> <X modifier state> <auto-repeat 0|1> <percent-encoded text>
//   text <percent-encoded text of the editor>
//
// Options: --clipboard-text TEXT and --clipboard-png put content of both kinds on the clipboard
// at start; --paste-after MS makes Ctrl+V fetch the clipboard only that long after the keys,
// as a busy program does. Commands on standard input: "clear" empties the editor, "quit" ends the
// program.

#include <QApplication>
#include <QBuffer>
#include <QClipboard>
#include <QCommandLineParser>
#include <QImage>
#include <QKeyEvent>
#include <QMimeData>
#include <QPlainTextEdit>
#include <QSocketNotifier>
#include <QTimer>
#include <QUrl>
#include <cstdio>
#include <unistd.h>

namespace {

void report(const QByteArray &line)
{
    std::fwrite(line.constData(), 1, size_t(line.size()), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

QByteArray encoded(const QString &text)
{
    return text.isEmpty() ? QByteArray("-") : QUrl::toPercentEncoding(text);
}

// The bytes of a 2 x 2 PNG, the same in every run so the tests can compare them.
QByteArray samplePng()
{
    QImage image(2, 2, QImage::Format_RGB32);
    image.fill(QColor(10, 200, 30));
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, "PNG");
    return bytes;
}

class KeyReporter : public QObject
{
public:
    using QObject::QObject;
    int pasteAfterMs = 0;

protected:
    bool eventFilter(QObject *watched, QEvent *event) override
    {
        const QEvent::Type type = event->type();
        if (type == QEvent::KeyPress || type == QEvent::KeyRelease) {
            const auto *key = static_cast<QKeyEvent *>(event);
            if (pasteAfterMs > 0 && type == QEvent::KeyPress && key->key() == Qt::Key_V &&
                key->modifiers() == Qt::ControlModifier) {
                auto *editor = qobject_cast<QPlainTextEdit *>(watched);
                QTimer::singleShot(pasteAfterMs, editor, [editor] { editor->paste(); });
                return true;
            }
            report((type == QEvent::KeyPress ? "press " : "release ") +
                   QByteArray::number(key->nativeScanCode()) + ' ' +
                   QByteArray::number(key->nativeModifiers()) + ' ' +
                   (key->isAutoRepeat() ? "1 " : "0 ") + encoded(key->text()));
        } else if (type == QEvent::FocusIn && !m_ready) {
            m_ready = true;
            const auto *widget = static_cast<QWidget *>(watched);
            report("ready " + QByteArray::number(widget->window()->winId()) + ' ' +
                   QByteArray::number(qint64(::getpid())));
        }
        return false;
    }

private:
    bool m_ready = false;
};

} // namespace

int main(int argc, char **argv)
{
    QApplication app(argc, argv);
    QCommandLineParser parser;
    const QCommandLineOption textOption(QStringLiteral("clipboard-text"),
                                        QStringLiteral("clipboard text"), QStringLiteral("text"));
    const QCommandLineOption pngOption(QStringLiteral("clipboard-png"),
                                       QStringLiteral("put a PNG image on the clipboard"));
    const QCommandLineOption pasteAfterOption(
        QStringLiteral("paste-after"), QStringLiteral("fetch pastes late"), QStringLiteral("ms"));
    parser.addOptions({textOption, pngOption, pasteAfterOption});
    parser.process(app);

    QPlainTextEdit editor;
    editor.setWindowTitle(QStringLiteral("Vocari test window"));
    editor.resize(480, 240);
    KeyReporter reporter;
    reporter.pasteAfterMs = parser.value(pasteAfterOption).toInt();
    editor.installEventFilter(&reporter);
    QObject::connect(&editor, &QPlainTextEdit::textChanged,
                     [&editor] { report("text " + encoded(editor.toPlainText())); });

    if (parser.isSet(textOption) || parser.isSet(pngOption)) {
        auto *data = new QMimeData;
        if (parser.isSet(textOption))
            data->setText(parser.value(textOption));
        if (parser.isSet(pngOption))
            data->setData(QStringLiteral("image/png"), samplePng());
        QGuiApplication::clipboard()->setMimeData(data);
    }

    QSocketNotifier input(STDIN_FILENO, QSocketNotifier::Read);
    QObject::connect(&input, &QSocketNotifier::activated, [&editor, &input] {
        char buffer[256];
        const ssize_t count = ::read(STDIN_FILENO, buffer, sizeof(buffer));
        if (count <= 0) {
            input.setEnabled(false);
            QCoreApplication::quit();
            return;
        }
        const QByteArray commands(buffer, count);
        for (const QByteArray &command : commands.split('\n')) {
            if (command == "clear")
                editor.clear();
            else if (command == "quit")
                QCoreApplication::quit();
        }
    });

    editor.show();
    editor.activateWindow();
    editor.setFocus();
    return app.exec();
}
