#include "hud/HUDController.h"

#include "hud/HUDPlacement.h"
#include "hud/HUDView.h"
#include "settings/Preferences.h"

#include <QCursor>
#include <QGuiApplication>
#include <QPainterPath>
#include <QRegion>
#include <QScreen>
#include <QTimer>
#include <QVBoxLayout>
#include <QWindow>

namespace vocari {

namespace {

std::unique_ptr<QWidget> makePanel()
{
    // A utility window (so X11 window managers and compositors treat it as an overlay) kept out
    // of the window manager's hands (override-redirect): never decorated, never focused, and
    // without a frame of the manager's own, which would catch the clicks the panel lets through.
    auto panel = std::make_unique<QWidget>(
        nullptr, Qt::Tool | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint |
                     Qt::X11BypassWindowManagerHint | Qt::WindowDoesNotAcceptFocus |
                     Qt::WindowTransparentForInput | Qt::NoDropShadowWindowHint);
    panel->setObjectName(QStringLiteral("VocariHUD"));
    panel->setWindowTitle(QStringLiteral("Vocari"));
    panel->setAttribute(Qt::WA_TranslucentBackground);
    panel->setAttribute(Qt::WA_ShowWithoutActivating);
    panel->setAttribute(Qt::WA_TransparentForMouseEvents);
    panel->setFocusPolicy(Qt::NoFocus);
    return panel;
}

} // namespace

HUDController::HUDController(QObject *parent) : QObject(parent)
{
    m_fade.setPropertyName("windowOpacity");
    connect(&m_fade, &QPropertyAnimation::finished, this, [this] {
        if (m_fadeOutToken != m_hideToken || !m_panel)
            return;
        m_fadeOutToken = -1;
        m_panel->hide();
        emit hidden();
    });
}

HUDController::~HUDController() = default;

void HUDController::attach(Dictation *dictation)
{
    m_fade.stop();
    m_fade.setTargetObject(nullptr);
    m_panel = makePanel();
    auto *layout = new QVBoxLayout(m_panel.get());
    layout->setContentsMargins(0, 0, 0, 0);
    m_view = new HUDView(m_panel.get());
    layout->addWidget(m_view);
    m_view->bind(dictation);
    connect(m_view, &HUDView::glassChanged, this, &HUDController::updateShape);
    m_fade.setTargetObject(m_panel.get());
}

void HUDController::setEscapeCancels(bool cancels)
{
    if (m_view)
        m_view->setEscapeCancels(cancels);
}

void HUDController::setShapedToGlass(bool shaped)
{
    m_shaped = shaped;
    updateShape();
}

void HUDController::updateShape()
{
    if (!m_panel || !m_view)
        return;
    if (!m_shaped) {
        m_panel->clearMask();
        return;
    }
    const QRectF glass = m_view->glassRect().adjusted(-1, -1, 1, 1);
    QPainterPath shape;
    const double radius = m_view->glassCornerRadius() + 1;
    shape.addRoundedRect(glass, radius, radius);
    m_panel->setMask(QRegion(shape.toFillPolygon().toPolygon()));
}

QScreen *HUDController::targetScreen() const
{
    const QList<QScreen *> screens = QGuiApplication::screens();
    QList<QRect> frames;
    for (const QScreen *screen : screens)
        frames.append(screen->geometry());
    const int index = hudScreenIndex(frames, int(screens.indexOf(QGuiApplication::primaryScreen())),
                                     QCursor::pos(), Preferences::hudDisplay());
    return index < 0 ? nullptr : screens[index];
}

void HUDController::show()
{
    ++m_hideToken;
    if (!m_panel)
        return;
    QScreen *screen = targetScreen();
    if (!screen)
        return;
    const QRect frame = hudPanelFrame(screen->availableGeometry(), Preferences::hudPosition(),
                                      Preferences::hudMargin(), Preferences::hudScale(),
                                      Preferences::hudTextMode());
    if (QWindow *window = m_panel->windowHandle(); window && window->screen() != screen)
        window->setScreen(screen);
    if (!m_panel->isVisible()) {
        m_panel->setGeometry(frame);
        m_panel->setWindowOpacity(0.0);
    } else {
        // A panel in the middle of a fade moves at once and fades on from where it is.
        const double opacity = m_panel->windowOpacity();
        m_panel->setGeometry(frame);
        if (opacity == 0.0)
            m_panel->setWindowOpacity(0.0);
    }
    m_panel->show();
    m_panel->raise();
    m_fadeOutToken = -1;
    fadeTo(1.0, kFadeInMs);
}

void HUDController::hide(double afterSeconds)
{
    const qint64 token = ++m_hideToken;
    QTimer::singleShot(int(afterSeconds * 1000), this, [this, token] {
        if (token != m_hideToken || !m_panel)
            return;
        m_fadeOutToken = token;
        fadeTo(0.0, kFadeOutMs);
    });
}

void HUDController::fadeTo(double opacity, int durationMs)
{
    m_fade.stop();
    m_fade.setDuration(durationMs);
    m_fade.setStartValue(m_panel->windowOpacity());
    m_fade.setEndValue(opacity);
    m_fade.start();
}

} // namespace vocari
