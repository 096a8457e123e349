#pragma once

#include <QString>
#include <QWidget>

class QCheckBox;
class QComboBox;
class QLabel;
class QPushButton;
class QSlider;

namespace vocari {

class AppModel;
class PositionGrid;
class SegmentedPicker;

// The settings tab that places and styles the popup shown while dictating: where on which
// screen, how far from the edge, how large, and what it shows. Every change of where or how
// the popup appears previews it, so the user sees the result at once; so does "Preview".
class PopupTab : public QWidget
{
    Q_OBJECT
public:
    static constexpr int kMinMargin = 12;
    static constexpr int kMaxMargin = 240;
    static inline const QString kCentredCaption =
        QStringLiteral("Not used when centered. Pick an edge or corner.");

    explicit PopupTab(AppModel &model, QWidget *parent = nullptr);

private:
    void store(const char *key, const QJsonValue &value);
    void showPosition();
    void showMargin();
    void showScale();
    void showDisplay();
    void showTextMode();

    AppModel &m_model;
    PositionGrid *m_grid = nullptr;
    QSlider *m_margin = nullptr;
    QLabel *m_marginValue = nullptr;
    QLabel *m_marginCaption = nullptr;
    SegmentedPicker *m_size = nullptr;
    QComboBox *m_display = nullptr;
    QCheckBox *m_showText = nullptr;
    SegmentedPicker *m_textMode = nullptr;
};

} // namespace vocari
