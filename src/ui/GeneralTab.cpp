#include "ui/GeneralTab.h"

#include "app/AppModel.h"
#include "dictation/AudioEngine.h"
#include "hotkey/HotkeyRecorder.h"
#include "settings/Preferences.h"
#include "settings/SettingsStore.h"
#include "ui/FormSection.h"
#include "ui/LoginItem.h"
#include "ui/SettingsIcons.h"

#include <QCheckBox>
#include <QComboBox>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QJsonValue>
#include <QLabel>
#include <QLoggingCategory>
#include <QMenu>
#include <QPushButton>
#include <QSignalBlocker>
#include <QToolButton>
#include <QVBoxLayout>
#include <algorithm>

namespace vocari {

Q_LOGGING_CATEGORY(lcGeneralTab, "vocari.ui.general", QtInfoMsg)

namespace {

const QString kModifierAloneNote = QStringLiteral(
    "This desktop cannot bind a modifier key alone: choose a key with a letter, digit or "
    "function key, such as Alt+Space or F8.");

const QString kFooter = QStringLiteral(
    "Hold the key while you speak and release to insert the text, or switch to press once to "
    "start and again to stop. Choose a single modifier key, or click the key box and press any "
    "combination such as Alt+Space or F5.");

struct Choice
{
    QString label;
    QJsonValue value;
};

const QList<Choice> &timeLimits()
{
    static const QList<Choice> list{{QStringLiteral("Never"), 0},
                                    {QStringLiteral("1 minute"), 60},
                                    {QStringLiteral("2 minutes"), 120},
                                    {QStringLiteral("5 minutes"), 300}};
    return list;
}

const QList<Choice> &pasteShortcuts()
{
    static const QList<Choice> list{
        {QStringLiteral("Automatic"), QStringLiteral("auto")},
        {QStringLiteral("Ctrl+V"), QStringLiteral("ctrlV")},
        {QStringLiteral("Ctrl+Shift+V"), QStringLiteral("ctrlShiftV")},
        {QStringLiteral("Shift+Insert"), QStringLiteral("shiftInsert")}};
    return list;
}

void store(const char *key, const QJsonValue &value)
{
    SettingsStore::shared().setValue(QLatin1String(key), value);
}

QGroupBox *section(const QString &title, QWidget *parent)
{
    auto *box = new QGroupBox(title, parent);
    auto *form = new QFormLayout(box);
    form->setFieldGrowthPolicy(QFormLayout::AllNonFixedFieldsGrow);
    form->setLabelAlignment(Qt::AlignLeft | Qt::AlignVCenter);
    return box;
}

QFormLayout *formOf(QGroupBox *box)
{
    return static_cast<QFormLayout *>(box->layout());
}

// A labelled row whose label also names the control for screen readers and moves the focus to
// it with its mnemonic.
void addRow(QGroupBox *box, const QString &label, QWidget *field, QWidget *focusTarget = nullptr)
{
    auto *title = new QLabel(label, box);
    title->setBuddy(focusTarget ? focusTarget : field);
    if (QWidget *named = focusTarget ? focusTarget : field; named->accessibleName().isEmpty())
        named->setAccessibleName(label);
    formOf(box)->addRow(title, field);
}

QComboBox *comboBox(const QString &objectName, QWidget *parent)
{
    auto *combo = new QComboBox(parent);
    combo->setObjectName(objectName);
    // Every picker spans the field column, whatever its entries, so the column reads as one.
    combo->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
    return combo;
}

QCheckBox *checkBox(const QString &text, const QString &objectName, QWidget *parent)
{
    auto *box = new QCheckBox(text, parent);
    box->setObjectName(objectName);
    box->setAccessibleName(text);
    return box;
}

// Gives the row labels of every section one width, so that the controls of all sections start
// at the same place.
void alignLabelColumns(QWidget *content)
{
    QList<QWidget *> labels;
    for (QFormLayout *form : content->findChildren<QFormLayout *>()) {
        for (int row = 0; row < form->rowCount(); ++row) {
            if (QLayoutItem *item = form->itemAt(row, QFormLayout::LabelRole);
                item && item->widget())
                labels.append(item->widget());
        }
    }
    int width = 0;
    for (QWidget *label : std::as_const(labels))
        width = std::max(width, label->sizeHint().width());
    for (QWidget *label : std::as_const(labels))
        label->setMinimumWidth(width);
}

// Selects the entry holding `value` without announcing it as the user's choice.
void selectData(QComboBox *combo, const QVariant &value)
{
    const QSignalBlocker quiet(combo);
    combo->setCurrentIndex(combo->findData(value));
}

} // namespace

GeneralTab::GeneralTab(AppModel &model, QWidget *parent) : QWidget(parent), m_model(model)
{
    QVBoxLayout *column = scrollingColumn(this);
    column->addWidget(makeShortcutSection());
    column->addWidget(makeSpeechSection());
    column->addWidget(makeSystemSection());
    column->addStretch();
    alignLabelColumns(column->parentWidget());

    m_devices = model.dictation().audioEngine().inputs();
    connect(&model.dictation().audioEngine(), &AudioEngine::configurationChanged, this,
            &GeneralTab::reloadDevices);
    connect(&model, &AppModel::hotkeyChanged, this, &GeneralTab::showHotkey);
    connect(&SettingsStore::shared(), &SettingsStore::valueChanged, this, &GeneralTab::showSetting);

    for (const char *key :
         {SettingsKey::recordMode, SettingsKey::language, SettingsKey::inputDevice,
          SettingsKey::maxSeconds, SettingsKey::pasteShortcut, SettingsKey::sounds,
          SettingsKey::keepOnClipboard})
        showSetting(QLatin1String(key));
    showHotkey();
}

QWidget *GeneralTab::makeShortcutSection()
{
    auto *wrapper = new QWidget(this);
    auto *layout = new QVBoxLayout(wrapper);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(4);
    QGroupBox *box = section(QStringLiteral("Shortcut"), wrapper);
    layout->addWidget(box);

    // The key box with the ready-made keys beside it.
    m_recorder = new HotkeyRecorder(box);
    m_presets = new QToolButton(m_recorder);
    m_presets->setObjectName(QStringLiteral("presets"));
    m_presets->setIcon(
        settingsIcon(QStringLiteral("presets"), palette().color(QPalette::ButtonText)));
    m_presets->setToolTip(QStringLiteral("Presets"));
    m_presets->setAccessibleName(QStringLiteral("Presets"));
    m_presets->setAutoRaise(true);
    m_presets->setPopupMode(QToolButton::InstantPopup);
    m_presets->setFocusPolicy(Qt::StrongFocus);
    // The circled ellipsis says "more" by itself; the style's menu arrow would crowd it.
    m_presets->setStyleSheet(QStringLiteral("QToolButton::menu-indicator { image: none; }"));
    auto *menu = new QMenu(m_presets);
    menu->setObjectName(QStringLiteral("presetsMenu"));
    for (const Hotkey &preset : Hotkey::presets()) {
        QAction *action = menu->addAction(preset.label());
        connect(action, &QAction::triggered, this, [this, preset] { m_model.setHotkey(preset); });
    }
    m_presets->setMenu(menu);
    m_recorder->addAccessory(m_presets);
    addRow(box, QStringLiteral("Dictation key"), m_recorder, m_recorder->keyBox());

    // Shown where the desktop binds the key and cannot take a modifier key alone.
    m_keyNote = new QLabel(kModifierAloneNote, box);
    m_keyNote->setObjectName(QStringLiteral("keyNote"));
    m_keyNote->setWordWrap(true);
    FormSection::makeSecondary(m_keyNote);
    formOf(box)->addRow(QString(), m_keyNote);

    connect(m_recorder, &HotkeyRecorder::hotkeyRecorded, &m_model, &AppModel::setHotkey);
    // The model outlives the tab, so a recording cut short by closing the window still resumes
    // the key monitor.
    connect(m_recorder, &HotkeyRecorder::recordingChanged, &m_model, &AppModel::setRecordingHotkey);

    // "Recording": two buttons of which one is on, drawn as one segmented control. They are not
    // an exclusive group, which Qt would make a single stop of the Tab chain: each is reached
    // with Tab and chosen with Space.
    auto *modes = new QWidget(box);
    modes->setObjectName(QStringLiteral("recordMode"));
    auto *modesLayout = new QHBoxLayout(modes);
    modesLayout->setContentsMargins(0, 0, 0, 0);
    modesLayout->setSpacing(0);
    const QList<std::pair<RecordMode, QString>> segments{
        {RecordMode::hold, QStringLiteral("Hold to talk")},
        {RecordMode::toggle, QStringLiteral("Press to start & stop")}};
    for (const auto &[mode, text] : segments) {
        auto *button =
            new QPushButton(QString(text).replace(QLatin1Char('&'), QStringLiteral("&&")), modes);
        button->setObjectName(QStringLiteral("recordMode.") + rawValue(mode));
        button->setCheckable(true);
        button->setAutoDefault(false);
        button->setFocusPolicy(Qt::StrongFocus);
        button->setAccessibleName(text);
        button->setAccessibleDescription(QStringLiteral("Recording"));
        connect(button, &QPushButton::clicked, this, [this, mode] {
            store(SettingsKey::recordMode, rawValue(mode));
            // A click on the chosen segment turned it off; it stays on.
            showRecordMode();
        });
        m_recordModes[int(mode)] = button;
        modesLayout->addWidget(button);
    }
    modesLayout->addStretch();
    addRow(box, QStringLiteral("Recording"), modes, m_recordModes[int(RecordMode::hold)]);

    m_cancel = new QLabel(box);
    m_cancel->setObjectName(QStringLiteral("cancelHint"));
    m_cancel->setAlignment(Qt::AlignLeft | Qt::AlignVCenter);
    FormSection::makeSecondary(m_cancel, false);
    formOf(box)->addRow(QStringLiteral("Cancel"), m_cancel);

    auto *footer = new QLabel(kFooter, wrapper);
    footer->setObjectName(QStringLiteral("shortcutFooter"));
    FormSection::makeSecondary(footer);
    footer->setContentsMargins(6, 0, 6, 0);
    layout->addWidget(footer);
    return wrapper;
}

QWidget *GeneralTab::makeSpeechSection()
{
    QGroupBox *box = section(QStringLiteral("Speech"), this);

    m_language = comboBox(QStringLiteral("language"), box);
    for (const Preferences::Language &language : Preferences::languages())
        m_language->addItem(language.name, language.id);
    connect(m_language, &QComboBox::currentIndexChanged, this,
            [this] { store(SettingsKey::language, m_language->currentData().toString()); });
    addRow(box, QStringLiteral("Language (Built-in Speech)"), m_language);

    m_microphone = comboBox(QStringLiteral("microphone"), box);
    connect(m_microphone, &QComboBox::currentIndexChanged, this,
            [this] { store(SettingsKey::inputDevice, m_microphone->currentData().toString()); });
    addRow(box, QStringLiteral("Microphone"), m_microphone);

    m_maxSeconds = comboBox(QStringLiteral("maxSeconds"), box);
    for (const Choice &choice : timeLimits())
        m_maxSeconds->addItem(choice.label, choice.value.toInt());
    connect(m_maxSeconds, &QComboBox::currentIndexChanged, this,
            [this] { store(SettingsKey::maxSeconds, m_maxSeconds->currentData().toInt()); });
    addRow(box, QStringLiteral("Stop recording after"), m_maxSeconds);

    m_pasteShortcut = comboBox(QStringLiteral("pasteShortcut"), box);
    for (const Choice &choice : pasteShortcuts())
        m_pasteShortcut->addItem(choice.label, choice.value.toString());
    connect(m_pasteShortcut, &QComboBox::currentIndexChanged, this, [this] {
        store(SettingsKey::pasteShortcut, m_pasteShortcut->currentData().toString());
    });
    addRow(box, QStringLiteral("Paste with"), m_pasteShortcut);

    m_sounds = checkBox(QStringLiteral("Play sounds"), QStringLiteral("sounds"), box);
    connect(m_sounds, &QCheckBox::toggled, this, [](bool on) { store(SettingsKey::sounds, on); });
    formOf(box)->addRow(m_sounds);

    m_keepOnClipboard = checkBox(QStringLiteral("Keep dictated text on the clipboard"),
                                 QStringLiteral("keepOnClipboard"), box);
    connect(m_keepOnClipboard, &QCheckBox::toggled, this,
            [](bool on) { store(SettingsKey::keepOnClipboard, on); });
    formOf(box)->addRow(m_keepOnClipboard);
    return box;
}

QWidget *GeneralTab::makeSystemSection()
{
    QGroupBox *box = section(QStringLiteral("System"), this);
    m_openAtLogin = checkBox(QStringLiteral("Open at login"), QStringLiteral("openAtLogin"), box);
    // The state is the autostart entry itself, read once: the user may remove it by hand, and
    // the box then still says what was last chosen here.
    m_openAtLogin->setChecked(LoginItem::isEnabled());
    connect(m_openAtLogin, &QCheckBox::toggled, this, [](bool on) {
        // A failure leaves the box as the user set it; the log says what went wrong.
        QString error;
        if (!LoginItem::setEnabled(on, &error))
            qCWarning(lcGeneralTab).noquote() << error;
    });
    formOf(box)->addRow(m_openAtLogin);
    return box;
}

void GeneralTab::showSetting(const QString &key)
{
    const auto is = [&key](const char *name) { return key == QLatin1String(name); };
    if (is(SettingsKey::recordMode)) {
        showRecordMode();
    } else if (is(SettingsKey::language)) {
        showLanguage();
    } else if (is(SettingsKey::inputDevice)) {
        showMicrophones();
    } else if (is(SettingsKey::maxSeconds)) {
        showMaxSeconds();
    } else if (is(SettingsKey::pasteShortcut)) {
        showPasteShortcut();
    } else if (is(SettingsKey::sounds)) {
        const QSignalBlocker quiet(m_sounds);
        m_sounds->setChecked(Preferences::sounds());
    } else if (is(SettingsKey::keepOnClipboard)) {
        const QSignalBlocker quiet(m_keepOnClipboard);
        m_keepOnClipboard->setChecked(Preferences::keepOnClipboard());
    }
}

void GeneralTab::showRecordMode()
{
    const RecordMode mode = Preferences::recordMode();
    for (RecordMode each : kRecordModes)
        m_recordModes[int(each)]->setChecked(each == mode);
    m_cancel->setText(mode == RecordMode::hold ? kCancelHold : kCancelToggle);
}

void GeneralTab::showLanguage()
{
    selectData(m_language, Preferences::language());
}

void GeneralTab::showMicrophones()
{
    const QSignalBlocker quiet(m_microphone);
    const QString stored = Preferences::inputDevice();
    m_microphone->clear();
    m_microphone->addItem(kSystemDefault, QString());
    bool present = stored.isEmpty();
    for (const InputDevices::Device &device : std::as_const(m_devices)) {
        m_microphone->addItem(device.name, device.id);
        present = present || device.id == stored;
    }
    // A chosen device that is unplugged stays chosen, so that it is used again once it is back.
    if (!present)
        m_microphone->addItem(kNotConnected, stored);
    m_microphone->setCurrentIndex(m_microphone->findData(stored));
}

void GeneralTab::showMaxSeconds()
{
    // Anything below a second means no limit.
    const int stored = int(std::clamp<qint64>(Preferences::maxSeconds(), 0, 24 * 3600));
    const QSignalBlocker quiet(m_maxSeconds);
    // A limit set in the file that is none of the choices is shown as it is.
    for (int i = m_maxSeconds->count() - 1; i >= timeLimits().size(); --i)
        m_maxSeconds->removeItem(i);
    if (m_maxSeconds->findData(stored) < 0)
        m_maxSeconds->addItem(QStringLiteral("%1 seconds").arg(stored), stored);
    m_maxSeconds->setCurrentIndex(m_maxSeconds->findData(stored));
}

void GeneralTab::showPasteShortcut()
{
    selectData(m_pasteShortcut, Preferences::pasteShortcut());
}

void GeneralTab::showHotkey()
{
    m_recorder->setHotkey(m_model.hotkey());
    m_keyNote->setVisible(m_model.hotkey().modifierOnly && !m_model.keySourceBindsModifierAlone());
}

void GeneralTab::reloadDevices()
{
    m_devices = m_model.dictation().audioEngine().inputs();
    showMicrophones();
}

} // namespace vocari
