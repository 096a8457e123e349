#include "platform/wayland/WtypeKeyInjector.h"

#include "platform/wayland/WaylandLog.h"

#include <QProcess>
#include <QStandardPaths>

namespace vocari {

namespace {

constexpr int kTimeoutMs = 5000;

// wtype's name for the modifier a keysym stands for, or none.
const char *modifierName(std::uint32_t keysym)
{
    switch (keysym) {
    case 0xffe1: // Shift_L
    case 0xffe2: // Shift_R
        return "shift";
    case 0xffe3: // Control_L
    case 0xffe4: // Control_R
        return "ctrl";
    case 0xffe9: // Alt_L
    case 0xffea: // Alt_R
        return "alt";
    case 0xffeb: // Super_L
    case 0xffec: // Super_R
        return "logo";
    default:
        return nullptr;
    }
}

} // namespace

WtypeKeyInjector::WtypeKeyInjector(bool compositorHasVirtualKeyboard)
    : m_virtualKeyboard(compositorHasVirtualKeyboard),
      m_program(QStandardPaths::findExecutable(QStringLiteral("wtype")))
{
}

QString WtypeKeyInjector::name() const
{
    return QStringLiteral("the compositor's virtual keyboard (wtype)");
}

bool WtypeKeyInjector::ready()
{
    if (!m_virtualKeyboard) {
        m_error = QStringLiteral("This compositor offers neither the desktop's remote-desktop "
                                 "portal nor a virtual keyboard, so Vocari cannot type here.");
        return false;
    }
    if (m_program.isEmpty())
        m_program = QStandardPaths::findExecutable(QStringLiteral("wtype"));
    if (m_program.isEmpty()) {
        m_error = QStringLiteral("Typing on this compositor needs the wtype program: install the "
                                 "\u201Cwtype\u201D package.");
        return false;
    }
    m_error.clear();
    return true;
}

QStringList WtypeKeyInjector::arguments(const std::vector<KeysymEvent> &events)
{
    QStringList arguments;
    for (const KeysymEvent &event : events) {
        if (const char *modifier = modifierName(event.keysym)) {
            arguments << (event.pressed ? QStringLiteral("-M") : QStringLiteral("-m"))
                      << QLatin1String(modifier);
            continue;
        }
        arguments << (event.pressed ? QStringLiteral("-P") : QStringLiteral("-p"))
                  << QStringLiteral("0x%1").arg(event.keysym, 8, 16, QLatin1Char('0'));
    }
    return arguments;
}

bool WtypeKeyInjector::send(const std::vector<KeysymEvent> &events)
{
    if (events.empty())
        return true;
    if (!ready())
        return false;
    QProcess wtype;
    wtype.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    wtype.start(m_program, arguments(events));
    if (!wtype.waitForStarted(kTimeoutMs)) {
        qCWarning(lcWayland).noquote() << "wtype could not start:" << wtype.errorString();
        return false;
    }
    if (!wtype.waitForFinished(kTimeoutMs)) {
        wtype.kill();
        wtype.waitForFinished();
    }
    const bool sent = wtype.exitStatus() == QProcess::NormalExit && wtype.exitCode() == 0;
    if (!sent)
        qCWarning(lcWayland, "wtype could not send the keys (exit code %d).", wtype.exitCode());
    return sent;
}

} // namespace vocari
