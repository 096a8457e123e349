#include "ui/PermissionsTab.h"

#include "app/AppModel.h"
#include "dictation/AudioEngine.h"
#include "settings/Preferences.h"
#include "settings/SettingsStore.h"
#include "ui/FormSection.h"
#include "ui/PermissionRow.h"
#include "ui/SettingBinding.h"
#include "ui/SoundSettings.h"

#include <QCheckBox>
#include <QFormLayout>
#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

namespace vocari {

namespace {

// What a user without input access can still do: the control commands need no X display.
const QString kWithoutInputAccess = QStringLiteral(
    "Meanwhile, a shortcut in your desktop's keyboard settings that runs \u201Cvocari toggle\u201D "
    "starts and stops a dictation, and the text is left on the clipboard.");

const QString kReadKeyboardsNote = QStringLiteral(
    "For a dictation key the desktop cannot bind, such as Right Alt alone: Vocari then reads "
    "every key you press, in every program, as members of the \u201Cinput\u201D group may. It "
    "acts only on the dictation key and Escape and records no keys. Takes effect when Vocari "
    "starts again.");

} // namespace

PermissionsTab::PermissionsTab(AppModel &model, QWidget *parent) : QWidget(parent), m_model(model)
{
    auto *column = new QVBoxLayout(this);
    auto *section = new FormSection(QString(), this);

    m_microphone = new PermissionRow(QStringLiteral("Microphone"),
                                     QStringLiteral("To hear you while the key is held."), section);
    m_soundSettings = new QPushButton(QStringLiteral("Open Settings"), m_microphone);
    m_soundSettings->setAccessibleName(QStringLiteral("Open Settings"));
    m_microphone->addTrailing(m_soundSettings);
    connect(m_soundSettings, &QPushButton::clicked, this, [this] {
        if (!SoundSettings::open())
            findSoundSettings(); // it went away since: say so on the button
    });
    section->addRow(m_microphone);

    m_inputAccess = new PermissionRow(
        QStringLiteral("Input access"),
        QStringLiteral("To detect the dictation key and type the text into other apps."), section);
    m_askAgain = new QPushButton(QStringLiteral("Ask Again"), m_inputAccess);
    m_askAgain->setAccessibleName(QStringLiteral("Ask again for input access"));
    m_askAgain->setToolTip(QStringLiteral("Shows the desktop's prompt for the dictation key and "
                                          "for typing once more."));
    m_inputAccess->addTrailing(m_askAgain);
    connect(m_askAgain, &QPushButton::clicked, this, [this] { m_model.askForInputAccessAgain(); });
    section->addRow(m_inputAccess);

    // Wayland only: the keyboards' devices, for the key no desktop service binds.
    m_readKeyboards = new QCheckBox(QStringLiteral("Read the keyboards directly"), section);
    m_readKeyboards->setObjectName(QStringLiteral("readKeyboards"));
    m_readKeyboards->setAccessibleDescription(kReadKeyboardsNote);
    m_readKeyboards->setChecked(Preferences::readKeyboards());
    connect(m_readKeyboards, &QCheckBox::toggled, this, [](bool on) {
        SettingsStore::shared().setValue(QLatin1String(SettingsKey::readKeyboards), on);
    });
    auto *readKeyboardsNote = new QLabel(kReadKeyboardsNote, section);
    readKeyboardsNote->setWordWrap(true);
    FormSection::makeSecondary(readKeyboardsNote);
    auto *readKeyboards = new QWidget(section);
    auto *readKeyboardsLayout = new QVBoxLayout(readKeyboards);
    readKeyboardsLayout->setContentsMargins(0, 0, 0, 0);
    readKeyboardsLayout->addWidget(m_readKeyboards);
    readKeyboardsLayout->addWidget(readKeyboardsNote);
    readKeyboards->setVisible(model.offersKeyboardReading());
    section->addRow(readKeyboards);
    section->setFooter(kFooter);
    column->addWidget(section);
    column->addStretch();

    findSoundSettings();
    connect(&model, &AppModel::microphoneGrantedChanged, this, &PermissionsTab::showMicrophone);
    connect(&model.dictation().audioEngine(), &AudioEngine::configurationChanged, this,
            &PermissionsTab::showMicrophone);
    followSetting(this, QString::fromLatin1(SettingsKey::inputDevice),
                  [this] { showMicrophone(); });

    // The key monitor's error changes with input access, the key and the key recorder.
    connect(&model, &AppModel::inputAccessChanged, this, &PermissionsTab::showInputAccess);
    connect(&model, &AppModel::hotkeyChanged, this, &PermissionsTab::showInputAccess);
    connect(&model, &AppModel::recordingChanged, this, &PermissionsTab::showInputAccess);
    showInputAccess();
}

void PermissionsTab::showEvent(QShowEvent *event)
{
    QWidget::showEvent(event);
    // A settings program may have been installed since the tab was made.
    findSoundSettings();
    showInputAccess();
}

void PermissionsTab::showMicrophone()
{
    const AudioEngine &engine = m_model.dictation().audioEngine();
    const QList<InputDevices::Device> inputs = engine.inputs();
    // The system's default device, named only when the engine lists it too.
    QString defaultName;
    const QAudioDevice systemDefault = InputDevices::route(QString());
    for (const InputDevices::Device &device : inputs) {
        if (!systemDefault.isNull() && device.id == QString::fromUtf8(systemDefault.id()))
            defaultName = device.name;
    }
    m_microphone->setGranted(m_model.microphoneGranted());
    m_microphone->setNote(
        deviceInUse(inputs, Preferences::inputDevice(), engine.hasDefaultInput(), defaultName));
}

QString PermissionsTab::deviceInUse(const QList<InputDevices::Device> &inputs,
                                    const QString &stored, bool hasDefault,
                                    const QString &defaultName)
{
    if (!stored.isEmpty()) {
        for (const InputDevices::Device &device : inputs) {
            if (device.id == stored)
                return QStringLiteral("Using \u201C%1\u201D.").arg(device.name);
        }
    }
    if (!hasDefault)
        return kNoInputMessage;
    QString sentence =
        defaultName.isEmpty()
            ? QStringLiteral("Using the system default microphone.")
            : QStringLiteral("Using the system default, \u201C%1\u201D.").arg(defaultName);
    if (!stored.isEmpty())
        sentence.prepend(QStringLiteral("The chosen microphone is not connected. "));
    return sentence;
}

void PermissionsTab::showInputAccess()
{
    const bool granted = m_model.inputAccessGranted();
    m_inputAccess->setGranted(granted);
    QStringList note;
    if (!granted) {
        QString missing = m_model.inputAccessExplanation();
        if (missing.isEmpty())
            missing = QStringLiteral("Input access is not available in this session.");
        note.append(missing);
    }
    const QString keyError = m_model.keyMonitorError();
    if (!keyError.isEmpty() && !note.contains(keyError))
        note.append(QStringLiteral("The dictation key cannot be watched: %1").arg(keyError));
    if (!granted)
        note.append(kWithoutInputAccess);
    if (!m_model.keyTrigger().isEmpty())
        note.append(
            QStringLiteral("The desktop starts a dictation with %1.").arg(m_model.keyTrigger()));
    if (!m_model.keyBindingWarning().isEmpty())
        note.append(m_model.keyBindingWarning());
    if (!m_model.sessionSummary().isEmpty())
        note.append(QStringLiteral("Session: %1.").arg(m_model.sessionSummary()));
    m_inputAccess->setNote(note.join(u'\n'));
    m_askAgain->setVisible(m_model.inputAccessDeclined());
}

void PermissionsTab::findSoundSettings()
{
    const bool found = SoundSettings::find().has_value();
    m_soundSettings->setEnabled(found);
    const QString why = found ? QString() : SoundSettings::missingMessage();
    m_soundSettings->setToolTip(found ? QStringLiteral("Opens your desktop's sound settings.")
                                      : why);
    m_soundSettings->setAccessibleDescription(found ? m_soundSettings->toolTip() : why);
}

} // namespace vocari
