#include "hud/HUDView.h"

#include "dictation/Dictation.h"
#include "hud/HUDGraphics.h"
#include "settings/SettingsStore.h"

#include <QEasingCurve>
#include <QFontMetricsF>
#include <QImage>
#include <QPainter>
#include <QPainterPath>
#include <QSvgRenderer>
#include <algorithm>
#include <cmath>
#include <numbers>
#include <span>

// The icons are compiled into this static library; nothing else refers to them, so they are
// registered by hand.
static void registerHUDResources()
{
    Q_INIT_RESOURCE(hud);
}

namespace vocari {

namespace {

// The palette: a dark glass that reads the same over light and dark windows.
const QColor kGlass(22, 22, 27, 224);
const QColor kGlassEdge(255, 255, 255, 46);
const QColor kGlassSheen(255, 255, 255, 20);
const QColor kPrimary(242, 242, 247);
const QColor kSecondary(174, 174, 186);
const QColor kRed(255, 69, 58);
const QColor kOrange(255, 159, 10);
const QColor kCapsule(255, 255, 255, 34);

// Sizes in points, before the scale.
constexpr double kPanelInset = 12;
constexpr double kPaddingX = 20;
constexpr double kPaddingY = 14;
constexpr double kSpacing = 14;
constexpr double kCornerRadius = 27;
constexpr double kLeftWidth = 20;
constexpr double kIconSize = 18;
constexpr double kMeterHeight = 18;
constexpr double kMeterBarWidth = 3;
constexpr int kMeterBars = 5;
constexpr QSizeF kWaveformSize(150, 26);
constexpr double kClipTextWidth = 260;
constexpr double kFullTextWidth = 340;
constexpr int kLabelPixels = 14;
constexpr int kEscPixels = 10;
constexpr double kEscPadX = 7;
constexpr double kEscPadY = 3;

constexpr int kLevelGlideMs = 80;
constexpr int kPulseMs = 1200;
constexpr int kResizeMs = 250;

const QString kEsc = QStringLiteral("esc");

const char *iconPath(HUDIcon icon)
{
    switch (icon) {
    case HUDIcon::cancelled:
        return ":/vocari/hud/icons/cancelled.svg";
    case HUDIcon::problem:
        return ":/vocari/hud/icons/problem.svg";
    case HUDIcon::preparing:
        return ":/vocari/hud/icons/preparing.svg";
    case HUDIcon::listening:
        return ":/vocari/hud/icons/listening.svg";
    case HUDIcon::finishing:
        return ":/vocari/hud/icons/finishing.svg";
    }
    return ":/vocari/hud/icons/problem.svg";
}

QColor tintColor(HUDTint tint)
{
    switch (tint) {
    case HUDTint::red:
        return kRed;
    case HUDTint::orange:
        return kOrange;
    case HUDTint::secondary:
        return kSecondary;
    }
    return kSecondary;
}

QFont roundedFont(int pixels, QFont::Weight weight)
{
    QFont font;
    font.setPixelSize(pixels);
    font.setWeight(weight);
    return font;
}

// Lays the text out in lines of at most `width` points (one line when negative); returns the
// size it takes.
QSizeF layOut(QTextLayout &layout, const QString &text, const QFont &font, double width)
{
    layout.setText(text);
    layout.setFont(font);
    QTextOption option(Qt::AlignLeft);
    option.setWrapMode(width < 0 ? QTextOption::NoWrap : QTextOption::WrapAtWordBoundaryOrAnywhere);
    layout.setTextOption(option);
    layout.setCacheEnabled(true);
    layout.beginLayout();
    double height = 0;
    double widest = 0;
    for (QTextLine line = layout.createLine(); line.isValid(); line = layout.createLine()) {
        // A single line still needs a width to be laid out at all: one far beyond the text.
        line.setLineWidth(width < 0 ? 1e6 : width);
        line.setPosition(QPointF(0, height));
        height += line.height();
        widest = std::max(widest, line.naturalTextWidth());
    }
    layout.endLayout();
    return {std::ceil(widest), height};
}

double lerp(double from, double to, double t)
{
    return from + (to - from) * t;
}

QRectF lerp(const QRectF &from, const QRectF &to, double t)
{
    return {lerp(from.x(), to.x(), t), lerp(from.y(), to.y(), t), lerp(from.width(), to.width(), t),
            lerp(from.height(), to.height(), t)};
}

// Places a box of that size in `area` by the alignment.
QRectF aligned(const QSizeF &size, const QRectF &area, Qt::Alignment alignment)
{
    double x = area.center().x() - size.width() / 2;
    if (alignment & Qt::AlignLeft)
        x = area.left();
    else if (alignment & Qt::AlignRight)
        x = area.right() - size.width();
    double y = area.center().y() - size.height() / 2;
    if (alignment & Qt::AlignTop)
        y = area.top();
    else if (alignment & Qt::AlignBottom)
        y = area.bottom() - size.height();
    return {QPointF(x, y), size};
}

} // namespace

HUDView::HUDView(QWidget *parent)
    : QWidget(parent), m_labelFont(roundedFont(kLabelPixels, QFont::Medium)),
      m_escFont(roundedFont(kEscPixels, QFont::DemiBold))
{
    static const bool registered = (registerHUDResources(), true);
    Q_UNUSED(registered);
    QColor bars = kPrimary;
    bars.setAlphaF(0.85f);
    m_barBrush = QBrush(bars);
    m_meterBrush = QBrush(kRed);
    m_glassBrush = QBrush(kGlass);
    m_capsuleBrush = QBrush(kCapsule);
    QLinearGradient sheen(0, 0, 0, 1);
    sheen.setCoordinateMode(QGradient::ObjectMode);
    sheen.setColorAt(0, kGlassSheen);
    sheen.setColorAt(0.5, Qt::transparent);
    m_sheenBrush = QBrush(sheen);
    m_textPen = QPen(kPrimary);
    m_escPen = QPen(kSecondary);
    m_edgePen = QPen(kGlassEdge, 1.0);
    m_escTextSize = layOut(m_escText, kEsc, m_escFont, -1);

    setAttribute(Qt::WA_TranslucentBackground);
    setAttribute(Qt::WA_TransparentForMouseEvents);
    setFocusPolicy(Qt::NoFocus);

    m_levelGlide.setDuration(kLevelGlideMs);
    m_levelGlide.setStartValue(0.0);
    m_levelGlide.setEndValue(1.0);
    connect(&m_levelGlide, &QVariantAnimation::valueChanged, this, [this](const QVariant &value) {
        const double t = value.toDouble();
        for (size_t i = 0; i < m_shown.size(); ++i)
            m_shown[i] = float(lerp(m_from[i], m_to[i], t));
        update();
    });

    m_pulse.setDuration(kPulseMs);
    m_pulse.setStartValue(0.0);
    m_pulse.setEndValue(1.0);
    m_pulse.setLoopCount(-1);
    connect(&m_pulse, &QVariantAnimation::valueChanged, this, [this] { update(); });

    m_resize.setDuration(kResizeMs);
    m_resize.setStartValue(0.0);
    m_resize.setEndValue(1.0);
    // Settles without overshoot, like a critically damped spring.
    m_resize.setEasingCurve(QEasingCurve::OutCubic);
    connect(&m_resize, &QVariantAnimation::valueChanged, this, [this] { update(); });

    refresh();
}

void HUDView::bind(Dictation *dictation)
{
    if (m_dictation)
        m_dictation->disconnect(this);
    m_dictation = dictation;
    if (!dictation)
        return;
    const auto follow = [this] {
        if (m_dictation)
            setInputs(HUDInputs::of(*m_dictation));
    };
    connect(dictation, &Dictation::phaseChanged, this, follow);
    connect(dictation, &Dictation::transcriptChanged, this, follow);
    connect(dictation, &Dictation::noticeChanged, this, follow);
    connect(dictation, &Dictation::statusDetailChanged, this, follow);
    connect(dictation, &Dictation::micSilentChanged, this, follow);
    connect(dictation, &Dictation::levelsChanged, this, [this] {
        if (m_dictation)
            setLevels(m_dictation->levels());
    });
    connect(&SettingsStore::shared(), &SettingsStore::valueChanged, this,
            [this](const QString &key) {
                if (key.startsWith(QLatin1String("hud.")))
                    setSettings(HUDSettings::fromPreferences());
            });
    setSettings(HUDSettings::fromPreferences());
    follow();
}

void HUDView::setInputs(const HUDInputs &inputs)
{
    const QList<float> levels = inputs.levels;
    const bool escapeCancels = m_inputs.escapeCancels;
    m_inputs = inputs;
    m_inputs.escapeCancels = escapeCancels;
    refresh();
    setLevels(levels);
}

void HUDView::setLevels(const QList<float> &levels)
{
    m_inputs.levels = levels;
    if (m_to.size() != size_t(levels.size())) {
        // A new number of levels: nothing to glide from.
        m_shown.assign(levels.cbegin(), levels.cend());
        m_from = m_shown;
        m_to = m_shown;
        update();
        return;
    }
    if (std::equal(m_to.cbegin(), m_to.cend(), levels.cbegin()))
        return;
    std::copy(m_shown.cbegin(), m_shown.cend(), m_from.begin());
    std::copy(levels.cbegin(), levels.cend(), m_to.begin());
    if (!m_animated) {
        std::copy(m_to.cbegin(), m_to.cend(), m_shown.begin());
        update();
        return;
    }
    m_levelGlide.stop();
    m_levelGlide.start();
}

void HUDView::setSettings(const HUDSettings &settings)
{
    if (settings == m_settings)
        return;
    m_settings = settings;
    // A hairline on screen whatever the scale.
    m_edgePen.setWidthF(1.0 / settings.scale);
    refresh();
}

void HUDView::setEscapeCancels(bool cancels)
{
    if (m_inputs.escapeCancels == cancels)
        return;
    m_inputs.escapeCancels = cancels;
    refresh();
}

void HUDView::setAnimated(bool animated)
{
    m_animated = animated;
    if (!animated) {
        m_levelGlide.stop();
        m_resize.stop();
        m_shown = m_to;
    }
    updatePulse();
    update();
}

QRectF HUDView::glassRect() const
{
    const double s = pointsToPixels();
    const QRectF glass = m_layout.glass;
    return {glass.x() * s, glass.y() * s, glass.width() * s, glass.height() * s};
}

void HUDView::refresh()
{
    const bool waveformBefore = m_content.showWaveform;
    const QRectF glassBefore =
        m_resize.state() == QAbstractAnimation::Running
            ? lerp(m_glassFrom, m_layout.glass, m_resize.currentValue().toDouble())
            : m_layout.glass;
    m_content = hudContent(m_inputs, m_settings);
    relayout();
    if (m_animated && waveformBefore != m_content.showWaveform && !glassBefore.isEmpty() &&
        isVisible()) {
        m_glassFrom = glassBefore;
        m_resize.stop();
        m_resize.start();
    }
    updatePulse();
    update();
}

void HUDView::resizeEvent(QResizeEvent *event)
{
    QWidget::resizeEvent(event);
    relayout();
}

void HUDView::relayout()
{
    const QRectF before = m_layout.glass;
    m_layout = measure();
    if (m_layout.glass != before)
        emit glassChanged();
}

double HUDView::glassCornerRadius() const
{
    return std::min(kCornerRadius, m_layout.glass.height() / 2) * pointsToPixels();
}

HUDView::Layout HUDView::measure() const
{
    const double s = pointsToPixels();
    const QRectF panel(0, 0, width() / s, height() / s);
    const QRectF inner = panel.adjusted(kPanelInset, kPanelInset, -kPanelInset, -kPanelInset);
    const bool full = m_settings.textMode == HUDTextMode::full;

    Layout layout;
    QSizeF middle;
    if (m_content.showWaveform) {
        middle = kWaveformSize;
    } else {
        const QFontMetricsF metrics(m_labelFont);
        layout.text = std::make_shared<QTextLayout>();
        if (full) {
            middle = layOut(*layout.text, m_content.label, m_labelFont, kFullTextWidth);
        } else {
            // Cut at the head, so that the newest words stay in sight.
            const QString line = metrics.elidedText(m_content.label, Qt::ElideLeft, kClipTextWidth);
            middle = layOut(*layout.text, line, m_labelFont, -1);
            middle.setWidth(std::min(middle.width(), kClipTextWidth));
        }
    }
    const QSizeF left(kLeftWidth, m_content.showMeter ? kMeterHeight : kIconSize);
    QSizeF esc;
    if (m_content.showEsc) {
        esc = {m_escTextSize.width() + 2 * kEscPadX, m_escTextSize.height() + 2 * kEscPadY};
    }

    const double rowHeight = std::max({left.height(), middle.height(), esc.height()});
    const double rowWidth =
        left.width() + kSpacing + middle.width() + (m_content.showEsc ? kSpacing + esc.width() : 0);
    const QSizeF glass(std::min(rowWidth + 2 * kPaddingX, inner.width()),
                       std::min(rowHeight + 2 * kPaddingY, inner.height()));
    layout.glass = aligned(glass, inner, m_content.alignment);

    // Items sit on the row's centre line in clip mode and at its top in full mode.
    const QRectF row(layout.glass.left() + kPaddingX, layout.glass.top() + kPaddingY,
                     layout.glass.width() - 2 * kPaddingX, layout.glass.height() - 2 * kPaddingY);
    const Qt::Alignment vertical = full ? Qt::AlignTop : Qt::AlignVCenter;
    layout.left = aligned(left, row, vertical | Qt::AlignLeft);
    const QRectF rest = row.adjusted(left.width() + kSpacing, 0, 0, 0);
    const QSizeF middleFitted(
        std::min(middle.width(),
                 std::max(0.0, rest.width() - (m_content.showEsc ? kSpacing + esc.width() : 0))),
        std::min(middle.height(), row.height()));
    layout.middle = aligned(middleFitted, rest, vertical | Qt::AlignLeft);
    if (m_content.showEsc)
        layout.esc = aligned(
            esc, QRectF(layout.middle.right() + kSpacing, row.top(), esc.width(), row.height()),
            vertical | Qt::AlignLeft);
    return layout;
}

void HUDView::updatePulse()
{
    const bool wanted = m_animated && m_content.pulse && !m_content.showMeter;
    if (wanted && m_pulse.state() != QAbstractAnimation::Running)
        m_pulse.start();
    else if (!wanted && m_pulse.state() != QAbstractAnimation::Stopped)
        m_pulse.stop();
}

const QPixmap &HUDView::iconPixmap(HUDIcon icon, HUDTint tint, double ratio)
{
    IconCache &cache = m_icons[size_t(icon)][size_t(tint)];
    if (!cache.pixmap.isNull() && cache.ratio == ratio && cache.scale == m_settings.scale)
        return cache.pixmap;
    const int pixels = int(std::ceil(kIconSize * m_settings.scale * ratio));
    QImage image(pixels, pixels, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    {
        QPainter painter(&image);
        QSvgRenderer renderer(QString::fromLatin1(iconPath(icon)));
        renderer.render(&painter);
        // The drawing is black; keep its shape and give it the tint.
        painter.setCompositionMode(QPainter::CompositionMode_SourceIn);
        painter.fillRect(image.rect(), tintColor(tint));
    }
    image.setDevicePixelRatio(ratio);
    cache = {QPixmap::fromImage(image), ratio, m_settings.scale};
    return cache.pixmap;
}

void HUDView::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.setRenderHints(QPainter::Antialiasing | QPainter::TextAntialiasing |
                           QPainter::SmoothPixmapTransform);
    painter.scale(m_settings.scale, m_settings.scale);

    double appear = 1.0;
    QRectF glass = m_layout.glass;
    if (m_resize.state() == QAbstractAnimation::Running) {
        appear = m_resize.currentValue().toDouble();
        glass = lerp(m_glassFrom, m_layout.glass, appear);
    }

    // The glass: a dark translucent rounded shape with a faint edge and sheen.
    const double radius = std::min(kCornerRadius, glass.height() / 2);
    painter.setPen(m_edgePen);
    painter.setBrush(m_glassBrush);
    painter.drawRoundedRect(glass, radius, radius);
    painter.setPen(Qt::NoPen);
    painter.setBrush(m_sheenBrush);
    painter.drawRoundedRect(glass, radius, radius);

    painter.setOpacity(appear);
    const std::span<const float> levels(m_shown);

    if (m_content.showMeter) {
        const size_t count = std::min<size_t>(kMeterBars, levels.size());
        MiniMeter::paint(painter, m_layout.left, levels.last(count), kMeterHeight, kMeterBarWidth,
                         m_meterBrush);
    } else {
        double opacity = appear;
        if (m_pulse.state() == QAbstractAnimation::Running) {
            const double phase = m_pulse.currentValue().toDouble();
            opacity *= 0.55 + 0.45 * (0.5 + 0.5 * std::cos(2 * std::numbers::pi * phase));
        }
        painter.setOpacity(opacity);
        const QPixmap &icon = iconPixmap(m_content.icon, m_content.tint, devicePixelRatioF());
        const QRectF iconRect =
            aligned(QSizeF(kIconSize, kIconSize), m_layout.left, Qt::AlignCenter);
        painter.drawPixmap(iconRect, icon, QRectF(QPointF(0, 0), icon.size()));
        painter.setOpacity(appear);
    }

    if (m_content.showWaveform) {
        Waveform::paint(painter, m_layout.middle, levels, m_barBrush);
    } else {
        painter.setFont(m_labelFont);
        painter.setPen(m_textPen);
        if (m_layout.text) {
            // A block of text taller than the panel is cut at the glass.
            const bool clip = m_settings.textMode == HUDTextMode::full;
            m_layout.text->draw(&painter, m_layout.middle.topLeft(), {},
                                clip ? m_layout.middle : QRectF());
        }
    }

    if (m_content.showEsc) {
        const double r = m_layout.esc.height() / 2;
        painter.setPen(Qt::NoPen);
        painter.setBrush(m_capsuleBrush);
        painter.drawRoundedRect(m_layout.esc, r, r);
        painter.setFont(m_escFont);
        painter.setPen(m_escPen);
        const QSizeF text = m_escTextSize;
        m_escText.draw(&painter, QPointF(m_layout.esc.center().x() - text.width() / 2,
                                         m_layout.esc.center().y() - text.height() / 2));
    }
}

} // namespace vocari
