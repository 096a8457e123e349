#include "hud/HUDController.h"

#include "dictation/Fakes.h"
#include "hud/HUDPlacement.h"
#include "hud/HUDView.h"
#include "settings/Preferences.h"
#include "support/EventLoop.h"
#include "support/ScopedSettings.h"

#include <QFile>
#include <QGuiApplication>
#include <QScreen>
#include <QWidget>
#include <gtest/gtest.h>

using namespace std::chrono_literals;

namespace vocari::test {
namespace {

using Phase = Dictation::Phase;

// The resident memory of this process, in KiB.
long residentKiB()
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray &line : status.readAll().split('\n')) {
        if (line.startsWith("VmRSS:"))
            return line.mid(6).trimmed().split(' ').value(0).toLong();
    }
    return -1;
}

class HUDControllerTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_dictation = std::make_unique<Dictation>(std::make_unique<FakeAudioEngine>(),
                                                  std::make_shared<ManualClock>());
        m_hud.attach(m_dictation.get());
    }

    ScopedSettings m_settings;
    std::unique_ptr<Dictation> m_dictation;
    HUDController m_hud;
};

TEST_F(HUDControllerTest, ShowPlacesThePanelByTheSettingsAndFadesItIn)
{
    m_settings.store().setValue(SettingsKey::hudPosition, QStringLiteral("topRight"));
    m_settings.store().setValue(SettingsKey::hudScale, 1.3);
    m_settings.store().setValue(SettingsKey::hudTextMode, QStringLiteral("full"));
    QScreen *screen = m_hud.targetScreen();
    ASSERT_NE(screen, nullptr);
    const qint64 token = m_hud.hideToken();
    m_hud.show();
    EXPECT_EQ(m_hud.hideToken(), token + 1);
    QWidget *panel = m_hud.panel();
    ASSERT_TRUE(panel->isVisible());
    EXPECT_EQ(panel->geometry(), hudPanelFrame(screen->availableGeometry(), HUDPosition::topRight,
                                               56, 1.3, HUDTextMode::full));
    EXPECT_TRUE(panel->windowFlags() & Qt::WindowDoesNotAcceptFocus);
    EXPECT_TRUE(panel->windowFlags() & Qt::WindowTransparentForInput);
    EXPECT_TRUE(panel->windowFlags() & Qt::WindowStaysOnTopHint);
    ASSERT_TRUE(waitUntil([&] { return panel->windowOpacity() == 1.0; }));
    // The view follows the settings that were stored meanwhile.
    EXPECT_EQ(m_hud.view()->content().alignment, Qt::AlignRight | Qt::AlignTop);
}

TEST_F(HUDControllerTest, ShowDuringAHidesDelayKeepsThePanel)
{
    int hidden = 0;
    QObject::connect(&m_hud, &HUDController::hidden, [&] { ++hidden; });
    m_hud.show();
    m_hud.hide(0.3);
    spin(100ms);
    m_hud.show(); // within the delay: the old hide must do nothing when it fires
    spin(700ms);
    EXPECT_TRUE(m_hud.panel()->isVisible());
    EXPECT_EQ(hidden, 0);

    // A hide that runs to its end fades the panel out and takes it off the screen; a later
    // hide replaces an earlier one.
    m_hud.hide(5.0);
    m_hud.hide(0.0);
    ASSERT_TRUE(waitUntil([&] { return hidden == 1; }));
    EXPECT_FALSE(m_hud.panel()->isVisible());
    EXPECT_EQ(m_hud.panel()->windowOpacity(), 0.0);
    spin(300ms);
    EXPECT_EQ(hidden, 1);
}

TEST_F(HUDControllerTest, ViewFollowsTheDictation)
{
    m_hud.show();
    m_dictation->demo(); // the preview: listening, levels moving
    EXPECT_EQ(m_hud.view()->content().icon, HUDIcon::listening);
    EXPECT_TRUE(m_hud.view()->content().showWaveform);
    m_dictation->cancel();
    EXPECT_EQ(m_hud.view()->content().icon, HUDIcon::cancelled);
    EXPECT_EQ(m_hud.view()->content().label, QStringLiteral("Cancelled"));
    EXPECT_FALSE(m_hud.view()->content().showEsc);
    spin(80ms); // the preview's loop wakes from its 50 ms sleep and ends
}

TEST_F(HUDControllerTest, ThousandsOfShowsAndHidesDoNotGrowMemory)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer holds freed memory back, so resident memory says nothing";
#endif
    QList<float> levels(28, 0.0f);
    const auto cycle = [&](int n) {
        m_hud.show();
        for (int step = 0; step < 5; ++step) {
            levels[(n + step) % levels.size()] = float((n * 7 + step) % 10) / 10.0f;
            m_hud.view()->setLevels(levels);
        }
        m_hud.hide(0.0);
        QCoreApplication::processEvents();
    };
    for (int n = 0; n < 1000; ++n) // warm up caches and pools
        cycle(n);
    const long before = residentKiB();
    for (int n = 0; n < 10000; ++n)
        cycle(n);
    const long after = residentKiB();
    ASSERT_GT(before, 0);
    std::printf("resident memory over 10000 show/hide cycles: %ld KiB -> %ld KiB\n", before, after);
    EXPECT_LT(after - before, 1024) << "grew by " << (after - before) << " KiB";
}

} // namespace
} // namespace vocari::test
