#pragma once

#include <QObject>
#include <QPointer>
#include <QPropertyAnimation>
#include <memory>

class QScreen;
class QWidget;

namespace vocari {

class Dictation;
class HUDView;

// Owns the HUD panel: a small frameless window above every other that never takes the keyboard
// focus and lets clicks through to what lies below. It places the panel by the HUD settings on
// the screen with the pointer (or the main screen) and fades it in and out on request.
//
// Every show() and hide() moves hideToken() on, so a pending hide can tell that it is no
// longer wanted: a show() during a hide's delay or fade keeps the panel on screen.
class HUDController : public QObject
{
    Q_OBJECT
public:
    static constexpr int kFadeInMs = 180;
    static constexpr int kFadeOutMs = 220;

    explicit HUDController(QObject *parent = nullptr);
    ~HUDController() override;

    // Creates the panel with a view of that dictation; a second call replaces it.
    void attach(Dictation *dictation);
    // Places the panel for the current settings and fades it in. Does nothing without a panel
    // or a screen.
    void show();
    // Fades the panel out after the delay, unless show() or another hide() comes first.
    void hide(double afterSeconds);
    qint64 hideToken() const { return m_hideToken; }
    // The screen show() would use now, or none.
    QScreen *targetScreen() const;

    // Cuts the panel to the glass shape. Without a compositing manager a translucent window
    // shows black where it should be clear, so the window itself must have the glass's shape.
    void setShapedToGlass(bool shaped);
    // Whether Escape can cancel a dictation here; the view shows its "esc" hint only then.
    void setEscapeCancels(bool cancels);

    QWidget *panel() const { return m_panel.get(); }
    HUDView *view() const { return m_view; }

signals:
    // The panel has faded out and left the screen.
    void hidden();

private:
    void fadeTo(double opacity, int durationMs);
    void updateShape();

    std::unique_ptr<QWidget> m_panel;
    QPointer<HUDView> m_view;
    QPropertyAnimation m_fade;
    qint64 m_hideToken = 0;
    qint64 m_fadeOutToken = -1; // the hide whose fade-out runs
    bool m_shaped = false;
};

} // namespace vocari
