#pragma once

#include "hud/HUDContent.h"

#include <QFont>
#include <QPen>
#include <QPixmap>
#include <QPointer>
#include <QTextLayout>
#include <QVariantAnimation>
#include <QWidget>
#include <array>
#include <memory>
#include <vector>

namespace vocari {

class Dictation;

// The content of the HUD panel: one dark glass shape holding a status icon or a small level
// meter, the live waveform or a line (or block) of text, and an "esc" hint while a dictation
// can be cancelled. It draws what hudContent() derives from the dictation's state and the HUD
// settings, with three small animations: levels glide to each new value over 0.08 s, the
// microphone icon pulses while listening, and the glass eases to its new size when the
// waveform gives way to text or back.
//
// Sizes are in points and the whole drawing is scaled by the "hud.scale" setting. A redraw
// for new levels reuses everything measured for the text; only the short level lists change.
class HUDView : public QWidget
{
    Q_OBJECT
public:
    explicit HUDView(QWidget *parent = nullptr);

    // Follows the dictation's state and the HUD settings from now on.
    void bind(Dictation *dictation);

    void setInputs(const HUDInputs &inputs);
    void setLevels(const QList<float> &levels);
    void setSettings(const HUDSettings &settings);
    // Whether Escape can cancel a dictation here, for the "esc" hint.
    void setEscapeCancels(bool cancels);
    // Without animations every change shows at once (for still pictures).
    void setAnimated(bool animated);

    const HUDContent &content() const { return m_content; }
    // Where the glass shape is, in this widget's coordinates, and the radius of its corners.
    QRectF glassRect() const;
    double glassCornerRadius() const;

signals:
    void glassChanged();

protected:
    void paintEvent(QPaintEvent *event) override;
    void resizeEvent(QResizeEvent *event) override;

private:
    // Everything measured for the current content, in points.
    struct Layout
    {
        QRectF glass;
        QRectF left;
        QRectF middle;
        QRectF esc;
        // The label laid out once, as drawn: cut at the head to one line in clip mode.
        std::shared_ptr<QTextLayout> text;
    };

    void refresh();
    void relayout();
    Layout measure() const;
    void updatePulse();
    void startLevelGlide();
    const QPixmap &iconPixmap(HUDIcon icon, HUDTint tint, double devicePixelRatio);
    double pointsToPixels() const { return m_settings.scale; }

    QPointer<Dictation> m_dictation;
    HUDInputs m_inputs;
    HUDSettings m_settings;
    HUDContent m_content;
    bool m_animated = true;

    QFont m_labelFont;
    QFont m_escFont;
    // Made once, so that a redraw builds no pens, brushes or text layouts of its own.
    QPen m_edgePen;
    QPen m_textPen;
    QPen m_escPen;
    QBrush m_glassBrush;
    QBrush m_sheenBrush;
    QBrush m_capsuleBrush;
    QBrush m_barBrush;
    QBrush m_meterBrush;
    QTextLayout m_escText;
    QSizeF m_escTextSize;
    Layout m_layout;
    QRectF m_glassFrom; // where a size change started from

    // Levels: the ones shown, the glide's start and its target; sized once, reused.
    std::vector<float> m_shown;
    std::vector<float> m_from;
    std::vector<float> m_to;

    QVariantAnimation m_levelGlide;
    QVariantAnimation m_pulse;
    QVariantAnimation m_resize;

    struct IconCache
    {
        QPixmap pixmap;
        double ratio = 0;
        double scale = 0;
    };
    std::array<std::array<IconCache, 3>, 5> m_icons; // by icon, then tint
};

} // namespace vocari
