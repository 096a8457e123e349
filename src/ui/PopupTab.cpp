#include "ui/PopupTab.h"

#include "app/AppModel.h"
#include "settings/Preferences.h"
#include "settings/SettingsStore.h"
#include "ui/FormSection.h"
#include "ui/PositionGrid.h"
#include "ui/SegmentedPicker.h"
#include "ui/SettingBinding.h"
#include "ui/TabIcons.h"

#include <QCheckBox>
#include <QComboBox>
#include <QFontDatabase>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QJsonValue>
#include <QLabel>
#include <QPushButton>
#include <QSignalBlocker>
#include <QSlider>
#include <QVBoxLayout>
#include <cmath>

namespace vocari {

namespace {

constexpr std::array kDisplays{HUDDisplay::cursor, HUDDisplay::main};
constexpr std::array kTextModes{HUDTextMode::clip, HUDTextMode::full};

QString key(const char *name)
{
    return QString::fromLatin1(name);
}

} // namespace

PopupTab::PopupTab(AppModel &model, QWidget *parent) : QWidget(parent), m_model(model)
{
    QVBoxLayout *column = scrollingColumn(this);

    // Placement.
    auto *placement = new FormSection(QStringLiteral("Placement"), this);
    m_grid = new PositionGrid(placement);
    placement->addRow(QStringLiteral("Position"), m_grid);
    connect(m_grid, &PositionGrid::chosen, this,
            [this](HUDPosition position) { store(SettingsKey::hudPosition, rawValue(position)); });

    auto *distance = new QWidget(placement);
    auto *distanceColumn = new QVBoxLayout(distance);
    distanceColumn->setContentsMargins(0, 0, 0, 0);
    distanceColumn->setSpacing(2);
    auto *sliderRow = new QHBoxLayout;
    m_margin = new QSlider(Qt::Horizontal, distance);
    m_margin->setRange(kMinMargin, kMaxMargin);
    m_margin->setPageStep(12);
    m_margin->setFixedWidth(170);
    m_margin->setAccessibleName(QStringLiteral("Distance from edge"));
    sliderRow->addWidget(m_margin);
    m_marginValue = new QLabel(distance);
    QFont digits = QFontDatabase::systemFont(QFontDatabase::FixedFont);
    m_marginValue->setFont(digits);
    m_marginValue->setForegroundRole(QPalette::PlaceholderText);
    m_marginValue->setFixedWidth(50);
    m_marginValue->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
    sliderRow->addWidget(m_marginValue);
    sliderRow->addStretch();
    distanceColumn->addLayout(sliderRow);
    m_marginCaption = new QLabel(kCentredCaption, distance);
    FormSection::makeSecondary(m_marginCaption);
    distanceColumn->addWidget(m_marginCaption);
    placement->addRow(QStringLiteral("Distance from edge"), distance);
    connect(m_margin, &QSlider::valueChanged, this,
            [this](int margin) { store(SettingsKey::hudMargin, double(margin)); });

    m_size = new SegmentedPicker(QStringLiteral("Size"), placement);
    for (const HUDSize size : kHUDSizes)
        m_size->addSegment(label(size));
    placement->addRow(QStringLiteral("Size"), m_size);
    connect(m_size, &SegmentedPicker::chosen, this, [this](int index) {
        store(SettingsKey::hudScale, scale(kHUDSizes[std::size_t(index)]));
    });

    m_display = new QComboBox(placement);
    for (const HUDDisplay display : kDisplays)
        m_display->addItem(label(display), rawValue(display));
    placement->addRow(QStringLiteral("Display"), m_display);
    connect(m_display, &QComboBox::activated, this, [this](int index) {
        store(SettingsKey::hudDisplay, m_display->itemData(index).toString());
    });
    column->addWidget(placement);

    // Content.
    auto *content = new FormSection(QStringLiteral("Content"), this);
    m_showText = new QCheckBox(QStringLiteral("Show live text while speaking"), content);
    // Whether the text shows changes nothing about where the popup appears: no preview.
    bindCheckBox(m_showText, key(SettingsKey::hudShowText), &Preferences::hudShowText,
                 [this] { m_textMode->setEnabled(m_showText->isChecked()); });
    content->addRow(m_showText);
    m_textMode = new SegmentedPicker(QStringLiteral("Long text"), content);
    m_textMode->addSegment(QStringLiteral("Clip to one line"));
    m_textMode->addSegment(QStringLiteral("Show in full"));
    content->addRow(QStringLiteral("Long text"), m_textMode);
    connect(m_textMode, &SegmentedPicker::chosen, this, [this](int index) {
        store(SettingsKey::hudTextMode, rawValue(kTextModes[std::size_t(index)]));
    });
    auto *showEsc = new QCheckBox(QStringLiteral("Show the \u201C"
                                                 "esc\u201D cancel hint"),
                                  content);
    bindCheckBox(showEsc, key(SettingsKey::hudShowEsc), &Preferences::hudShowEsc,
                 [this] { m_model.previewHUD(); });
    content->addRow(showEsc);
    column->addWidget(content);

    // Preview.
    auto *previewSection = new FormSection(QString(), this);
    auto *preview = new QPushButton(tabIcon(QStringLiteral("preview")), QStringLiteral("Preview"),
                                    previewSection);
    preview->setAccessibleName(QStringLiteral("Preview"));
    preview->setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Fixed);
    connect(preview, &QPushButton::clicked, this, [this] { m_model.previewHUD(); });
    previewSection->addRow(preview);
    column->addWidget(previewSection);
    column->addStretch();

    followSetting(this, key(SettingsKey::hudPosition), [this] { showPosition(); });
    followSetting(this, key(SettingsKey::hudMargin), [this] { showMargin(); });
    followSetting(this, key(SettingsKey::hudScale), [this] { showScale(); });
    followSetting(this, key(SettingsKey::hudDisplay), [this] { showDisplay(); });
    followSetting(this, key(SettingsKey::hudTextMode), [this] { showTextMode(); });
    followSetting(this, key(SettingsKey::hudShowText),
                  [this] { m_textMode->setEnabled(Preferences::hudShowText()); });
}

// Stores a value the user chose and shows the popup where and how it will now appear.
void PopupTab::store(const char *name, const QJsonValue &value)
{
    SettingsStore::shared().setValue(key(name), value);
    m_model.previewHUD();
}

void PopupTab::showPosition()
{
    const HUDPosition position = Preferences::hudPosition();
    m_grid->setSelection(position);
    // Centred both ways, the popup touches no edge, so the distance means nothing.
    const bool centred = position == HUDPosition::middleCenter;
    m_margin->setEnabled(!centred);
    m_marginCaption->setVisible(centred);
}

void PopupTab::showMargin()
{
    const double margin = Preferences::hudMargin();
    {
        const QSignalBlocker quiet(m_margin);
        m_margin->setValue(int(std::lround(margin)));
    }
    m_marginValue->setText(QStringLiteral("%1 pt").arg(std::lround(margin)));
}

void PopupTab::showScale()
{
    const double stored = Preferences::hudScale();
    int index = -1;
    for (std::size_t i = 0; i < kHUDSizes.size(); ++i) {
        if (std::abs(scale(kHUDSizes[i]) - stored) < 1e-9)
            index = int(i);
    }
    m_size->setCurrent(index);
}

void PopupTab::showDisplay()
{
    const QSignalBlocker quiet(m_display);
    m_display->setCurrentIndex(Preferences::hudDisplay() == HUDDisplay::main ? 1 : 0);
}

void PopupTab::showTextMode()
{
    m_textMode->setCurrent(Preferences::hudTextMode() == HUDTextMode::full ? 1 : 0);
}

} // namespace vocari
