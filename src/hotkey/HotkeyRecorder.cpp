#include "hotkey/HotkeyRecorder.h"

#include <QApplication>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

namespace vocari {

namespace {

// Lock keys toggle a state rather than being held; they are never part of a dictation key and
// pass through while recording.
constexpr std::uint16_t kNumLock = 69;
constexpr std::uint16_t kScrollLock = 70;

bool isLockKey(std::uint16_t code)
{
    return code == KeyCode::capsLock || code == kNumLock || code == kScrollLock;
}

std::uint64_t modifierBits(Qt::KeyboardModifiers modifiers)
{
    std::uint64_t bits = 0;
    if (modifiers & Qt::ShiftModifier)
        bits |= Modifier::shift;
    if (modifiers & Qt::ControlModifier)
        bits |= Modifier::control;
    if (modifiers & Qt::AltModifier)
        bits |= Modifier::alt;
    if (modifiers & Qt::MetaModifier)
        bits |= Modifier::super;
    return bits;
}

} // namespace

HotkeyRecorder::HotkeyRecorder(QWidget *parent) : QWidget(parent)
{
    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(4);

    m_keyRow = new QHBoxLayout;
    m_keyRow->setContentsMargins(0, 0, 0, 0);
    m_button = new QPushButton(this);
    m_button->setObjectName(QStringLiteral("dictationKey"));
    m_button->setAccessibleName(QStringLiteral("Dictation key"));
    m_button->setMinimumWidth(130);
    m_button->setAutoDefault(false);
    // Enter starts recording too; Space does through the button itself.
    m_button->installEventFilter(this);
    m_keyRow->addWidget(m_button);
    m_keyRow->addStretch();
    layout->addLayout(m_keyRow);

    m_hint = new QLabel(this);
    m_hint->setObjectName(QStringLiteral("dictationKeyHint"));
    if (QFont small = m_hint->font(); small.pointSizeF() > 0) {
        small.setPointSizeF(small.pointSizeF() * 0.85);
        m_hint->setFont(small);
    }
    QPalette orange = m_hint->palette();
    orange.setColor(QPalette::WindowText, QColor(214, 110, 0));
    m_hint->setPalette(orange);
    m_hint->setAlignment(Qt::AlignLeft);
    m_hint->hide();
    layout->addWidget(m_hint, 0, Qt::AlignLeft);

    setFocusProxy(m_button);
    connect(m_button, &QPushButton::clicked, this, [this] {
        if (m_recording)
            stopRecording();
        else
            startRecording();
    });
    refresh();
}

HotkeyRecorder::~HotkeyRecorder()
{
    // The filter goes with the object; the owner still hears that recording ended, so that the
    // key monitor does not stay paused.
    stopRecording();
}

void HotkeyRecorder::addAccessory(QWidget *widget)
{
    m_keyRow->insertWidget(m_keyRow->count() - 1, widget);
}

void HotkeyRecorder::setHotkey(const Hotkey &hotkey)
{
    m_hotkey = hotkey;
    refresh();
}

void HotkeyRecorder::startRecording()
{
    if (m_recording)
        return;
    m_recording = true;
    m_pendingModifier.reset();
    m_heldModifierKeys.clear();
    setHint({});
    refresh();
    emit recordingChanged(true);
    qApp->installEventFilter(this);
}

void HotkeyRecorder::stopRecording()
{
    qApp->removeEventFilter(this);
    if (!m_recording)
        return;
    m_recording = false;
    m_pendingModifier.reset();
    refresh();
    emit recordingChanged(false);
}

std::optional<std::uint16_t> HotkeyRecorder::linuxKeyCode(const QKeyEvent &event)
{
    // X11 key codes, which Qt reports as the native scan code on X11 and Wayland alike, are the
    // kernel's input event codes plus 8.
    const quint32 native = event.nativeScanCode();
    if (native <= 8 || native > 0xFFFF + 8)
        return std::nullopt;
    return std::uint16_t(native - 8);
}

bool HotkeyRecorder::eventFilter(QObject *watched, QEvent *event)
{
    const QEvent::Type type = event->type();
    if (!m_recording) {
        if (watched == m_button && type == QEvent::KeyPress) {
            auto *key = static_cast<QKeyEvent *>(event);
            if ((key->key() == Qt::Key_Return || key->key() == Qt::Key_Enter) &&
                !key->isAutoRepeat() && key->modifiers() == Qt::NoModifier) {
                startRecording();
                return true;
            }
        }
        return false;
    }
    if (type == QEvent::ShortcutOverride) {
        // Taking the override keeps shortcuts of the window from firing on the key being
        // recorded; the press that follows arrives here as a key press.
        event->accept();
        return true;
    }
    if (type == QEvent::KeyPress || type == QEvent::KeyRelease)
        return handle(*static_cast<QKeyEvent *>(event));
    return false;
}

bool HotkeyRecorder::handle(QKeyEvent &event)
{
    const std::optional<std::uint16_t> code = linuxKeyCode(event);
    if (event.type() == QEvent::KeyPress &&
        (event.key() == Qt::Key_Escape || code == KeyCode::escape)) {
        stopRecording();
        return true;
    }
    if (!code) {
        // A key whose position is unknown cannot be stored; it is kept from the window.
        return event.type() == QEvent::KeyPress;
    }
    if (isLockKey(*code))
        return false;
    if (const std::optional<std::uint64_t> flag = Hotkey::flag(*code))
        return handleModifier(event, *code, *flag);
    if (event.type() == QEvent::KeyPress)
        return handleKeyPress(event, *code);
    return false;
}

bool HotkeyRecorder::handleModifier(QKeyEvent &event, std::uint16_t code, std::uint64_t flag)
{
    if (event.isAutoRepeat())
        return true;
    if (event.type() == QEvent::KeyPress) {
        // Another modifier held with it makes a combination, never a modifier-only key.
        const bool othersHeld = (heldModifiers(event) & ~flag) != 0;
        m_heldModifierKeys.insert(code);
        if (othersHeld)
            m_pendingModifier.reset();
        else
            m_pendingModifier = code;
        return true;
    }
    m_heldModifierKeys.erase(code);
    if (m_pendingModifier == code)
        accept(Hotkey{code, 0, true});
    return true;
}

bool HotkeyRecorder::handleKeyPress(QKeyEvent &event, std::uint16_t code)
{
    if (event.isAutoRepeat())
        return true;
    m_pendingModifier.reset();
    const std::uint64_t modifiers = heldModifiers(event);
    const Hotkey candidate{code, modifiers, false};
    if (modifiers == 0 && !candidate.isStandalone()) {
        setHint(kHint);
        return true;
    }
    accept(candidate);
    return true;
}

std::uint64_t HotkeyRecorder::heldModifiers(const QKeyEvent &event) const
{
    std::uint64_t bits = modifierBits(event.modifiers());
    for (std::uint16_t key : m_heldModifierKeys)
        bits |= Hotkey::flag(key).value_or(0);
    return bits & Modifier::mask;
}

void HotkeyRecorder::accept(const Hotkey &hotkey)
{
    m_hotkey = hotkey;
    emit hotkeyRecorded(hotkey);
    stopRecording();
}

void HotkeyRecorder::setHint(const QString &hint)
{
    m_hintText = hint;
    m_hint->setText(hint);
    m_hint->setVisible(!hint.isEmpty());
    refresh();
}

void HotkeyRecorder::hideEvent(QHideEvent *event)
{
    stopRecording();
    QWidget::hideEvent(event);
}

void HotkeyRecorder::refresh()
{
    const QString shown = m_recording ? kRecordingText : m_hotkey.label();
    // A label such as "Ctrl+Alt+&" must not turn into a mnemonic.
    m_button->setText(QString(shown).replace(QLatin1Char('&'), QStringLiteral("&&")));
    m_button->setAccessibleDescription(
        m_hintText.isEmpty() ? shown : shown + QStringLiteral(". ") + m_hintText);

    // While recording the box takes the accent colour, as a selected item does.
    QPalette palette = QApplication::palette(m_button);
    if (m_recording) {
        palette.setColor(QPalette::Button, palette.color(QPalette::Highlight));
        palette.setColor(QPalette::ButtonText, palette.color(QPalette::HighlightedText));
    }
    m_button->setPalette(palette);
}

} // namespace vocari
