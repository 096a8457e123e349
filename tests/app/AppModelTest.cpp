#include "AppFixture.h"
#include "hud/HUDController.h"
#include "hud/HUDView.h"
#include "settings/Preferences.h"

#include <QWidget>

namespace vocari::test {
namespace {

using Phase = Dictation::Phase;
using Sounds = std::vector<Sound>;

class AppModelTest : public AppFixture
{
};

TEST_F(AppModelTest, HoldModeDictationIsPastedOnRelease)
{
    next().finalText = QStringLiteral("hello world");
    press();
    EXPECT_EQ(phase(), Phase::listening);
    EXPECT_TRUE(m_model->hud().panel()->isVisible());
    EXPECT_EQ(m_sounds->played, Sounds{Sound::start});
    EXPECT_TRUE(m_keys->escapeGrabbed()) << "Escape must cancel while a dictation runs";

    release();
    EXPECT_EQ(phase(), Phase::idle);
    EXPECT_FALSE(m_keys->escapeGrabbed()) << "Escape goes back to the window when idle";
    EXPECT_EQ(m_desktop->pasted, QStringList{QStringLiteral("Hello world")});
    EXPECT_EQ(m_model->lastDictation(), QStringLiteral("Hello world"));
    EXPECT_EQ(m_sounds->played, (Sounds{Sound::start, Sound::done}));

    // With a trailing space the pasted text ends in one; the remembered text does not.
    m_settings.store().setValue(SettingsKey::trailingSpace, true);
    next().finalText = QStringLiteral("again");
    press();
    release();
    EXPECT_EQ(m_desktop->pasted.last(), QStringLiteral("Again "));
    EXPECT_EQ(m_model->lastDictation(), QStringLiteral("Again"));
}

TEST_F(AppModelTest, EmptyResultsInsertNothing)
{
    // A press too short to be speech ends silently.
    press();
    m_keys->send(KeyEvent::Kind::release, kRightAlt);
    settle();
    EXPECT_EQ(phase(), Phase::idle);
    EXPECT_EQ(m_model->dictation().notice(), std::nullopt);
    EXPECT_TRUE(m_desktop->pasted.isEmpty());
    EXPECT_EQ(m_sounds->played, Sounds{Sound::start});
    EXPECT_EQ(m_model->lastDictation(), std::nullopt);

    // Speech that gave no text: the session's notice and the problem sound.
    press();
    release();
    EXPECT_EQ(m_model->dictation().notice(), QStringLiteral("No speech detected."));
    EXPECT_EQ(m_sounds->played.back(), Sound::problem);
    EXPECT_TRUE(m_desktop->pasted.isEmpty());

    // Text that the user's rules delete entirely is not pasted either.
    m_settings.store().setValue(SettingsKey::replacements, QStringLiteral("um ="));
    next().finalText = QStringLiteral("um");
    press();
    release();
    EXPECT_TRUE(m_desktop->pasted.isEmpty());

    // A failed engine: its notice, the problem sound, and nothing inserted.
    next().prepareError = QStringLiteral("The model could not be loaded.");
    m_sounds->played.clear();
    press();
    EXPECT_EQ(phase(), Phase::idle);
    EXPECT_EQ(m_model->dictation().notice(), QStringLiteral("The model could not be loaded."));
    EXPECT_EQ(m_sounds->played, Sounds{Sound::problem});
    EXPECT_TRUE(m_desktop->pasted.isEmpty());
}

TEST_F(AppModelTest, ToggleModeStartsAndStopsOnPresses)
{
    m_settings.store().setValue(SettingsKey::recordMode, QStringLiteral("toggle"));
    next().finalText = QStringLiteral("first");
    tap();
    EXPECT_EQ(phase(), Phase::listening) << "a release does nothing in toggle mode";
    tap();
    EXPECT_EQ(m_desktop->pasted, QStringList{QStringLiteral("First")});

    // A press while the text is being finished cancels it.
    next().holdFinish = true;
    next().finalText = QStringLiteral("second");
    tap();
    tap();
    EXPECT_EQ(phase(), Phase::finishing);
    tap();
    EXPECT_EQ(phase(), Phase::idle);
    EXPECT_EQ(m_desktop->pasted.size(), 1);
    EXPECT_EQ(m_sounds->played.back(), Sound::cancelled);
}

TEST_F(AppModelTest, HoldModePressWhileFinishingCancels)
{
    next().holdFinish = true;
    next().finalText = QStringLiteral("late");
    press();
    release();
    EXPECT_EQ(phase(), Phase::finishing);
    press();
    EXPECT_EQ(phase(), Phase::idle);
    EXPECT_EQ(m_made.size(), 1u) << "the press must not start a new dictation";
    EXPECT_TRUE(m_desktop->pasted.isEmpty());
    EXPECT_EQ(m_sounds->played.back(), Sound::cancelled);
}

TEST_F(AppModelTest, LiveTypingTypesPhrasesAndNeverPastesThem)
{
    m_settings.store().setValue(SettingsKey::liveTyping, true);
    m_settings.store().setValue(SettingsKey::trailingSpace, true);
    next().finalText = QStringLiteral("hello there how are you");
    press();
    current().reportCommit(QStringLiteral("hello there"));
    current().reportCommit(QStringLiteral("how are you"));
    settle();
    EXPECT_EQ(m_desktop->typed,
              (QStringList{QStringLiteral("Hello there"), QStringLiteral(" how are you")}));
    EXPECT_EQ(m_model->typedCount(), 23);
    EXPECT_EQ(m_model->typedWindow(), 100);

    release();
    EXPECT_TRUE(m_desktop->pasted.isEmpty());
    EXPECT_EQ(m_desktop->typed.last(), QStringLiteral(" "));
    EXPECT_EQ(m_model->lastDictation(), QStringLiteral("Hello there how are you"));
    EXPECT_EQ(m_model->typedCount(), 0);
    EXPECT_EQ(m_sounds->played.back(), Sound::done);
}

TEST_F(AppModelTest, CancelErasesLiveTextOnlyInTheWindowItWasTypedInto)
{
    m_settings.store().setValue(SettingsKey::liveTyping, true);
    // A window that erases one code point per BackSpace: the emoji takes one, not two.
    m_desktop->backspaces = [](const QString &text) { return text.toUcs4().size(); };
    // Types two phrases into whatever is in front, cancels once `front` is, and lets go of the
    // key; what was erased, if anything.
    const auto cancelAfterTyping = [this](std::optional<qint64> typedInto,
                                          std::optional<qint64> front) {
        m_desktop->erased.clear();
        m_desktop->frontmost = typedInto;
        press();
        EXPECT_EQ(phase(), Phase::listening);
        current().reportCommit(QStringLiteral("smile 🙂"));
        current().reportCommit(QStringLiteral("done"));
        settle();
        m_desktop->frontmost = front;
        m_keys->escape();
        settle();
        release();
        EXPECT_EQ(phase(), Phase::idle);
        EXPECT_EQ(m_model->typedCount(), 0);
        return m_desktop->erased;
    };

    EXPECT_EQ(cancelAfterTyping(100, 100), std::vector<qsizetype>{7 + 5});
    EXPECT_EQ(m_sounds->played.back(), Sound::cancelled);
    // Another window came to the front meanwhile: nothing is erased there.
    EXPECT_TRUE(cancelAfterTyping(100, 200).empty());
    // An unknown window is never the same as another unknown one...
    EXPECT_TRUE(cancelAfterTyping(std::nullopt, std::nullopt).empty());
    EXPECT_TRUE(cancelAfterTyping(100, std::nullopt).empty());
    // ...unless the desktop erases only what it typed last anyway.
    m_desktop->limitedErase = true;
    EXPECT_EQ(cancelAfterTyping(std::nullopt, std::nullopt), std::vector<qsizetype>{7 + 5});
    EXPECT_TRUE(cancelAfterTyping(std::nullopt, 300).empty());

    // A phrase that went into another window makes the count wrong for both: back in the first
    // window, nothing is erased there either.
    m_desktop->limitedErase = false;
    m_desktop->erased.clear();
    m_desktop->frontmost = 100;
    press();
    current().reportCommit(QStringLiteral("first"));
    settle();
    m_desktop->frontmost = 200;
    current().reportCommit(QStringLiteral("second"));
    settle();
    m_desktop->frontmost = 100;
    m_keys->escape();
    settle();
    release();
    EXPECT_TRUE(m_desktop->erased.empty());
}

TEST_F(AppModelTest, WithoutInputAccessTextGoesToTheClipboard)
{
    m_settings.store().setValue(SettingsKey::liveTyping, true);
    m_desktop->access = {false, QStringLiteral("The display has no XTEST extension.")};
    m_model->refreshPermissions();
    EXPECT_FALSE(m_model->inputAccessGranted());
    EXPECT_FALSE(m_model->monitor().isRunning());

    // Started from outside, as "vocari toggle" does: live phrases are dropped, the final text
    // lands on the clipboard with the notice, and the HUD shows it.
    next().finalText = QStringLiteral("keep this");
    m_model->toggleDictation();
    settle();
    current().reportCommit(QStringLiteral("keep this"));
    settle();
    EXPECT_TRUE(m_desktop->typed.isEmpty());
    m_clock->advance(std::chrono::seconds(2));
    m_model->toggleDictation();
    settle();
    EXPECT_EQ(phase(), Phase::idle);
    EXPECT_TRUE(m_desktop->pasted.isEmpty());
    EXPECT_EQ(m_desktop->copied, QStringList{QStringLiteral("Keep this")});
    EXPECT_EQ(m_model->dictation().notice(), AppModel::kCopiedNotice);
    EXPECT_EQ(m_model->lastDictation(), QStringLiteral("Keep this"));
    EXPECT_EQ(m_sounds->played.back(), Sound::problem);
    EXPECT_TRUE(m_model->hud().panel()->isVisible());

    // Access comes back: the key works again from the next look.
    m_desktop->access = {true, {}};
    m_model->refreshPermissions();
    EXPECT_TRUE(m_model->monitor().isRunning());
}

TEST_F(AppModelTest, KeyFromTheDesktopStillWorksWhenTypingWasDeclined)
{
    // A Wayland desktop's shortcut service delivers the key though typing was declined: the
    // dictation runs from the key and its text waits on the clipboard.
    m_desktop->access = {false, QStringLiteral("Keyboard access was declined."), true};
    m_model->refreshPermissions();
    EXPECT_FALSE(m_model->inputAccessGranted());
    ASSERT_TRUE(m_model->monitor().isRunning());

    next().finalText = QStringLiteral("nothing lost");
    press();
    release();
    EXPECT_EQ(phase(), Phase::idle);
    EXPECT_TRUE(m_desktop->pasted.isEmpty());
    EXPECT_EQ(m_desktop->copied, QStringList{QStringLiteral("Nothing lost")});
    EXPECT_EQ(m_model->dictation().notice(), AppModel::kCopiedNotice);
    EXPECT_EQ(m_model->lastDictation(), QStringLiteral("Nothing lost"));

    // Access granted, but the paste's keys do not reach the window: the text stays on the
    // clipboard and the HUD says so, as without access.
    m_desktop->access = {true, {}, true};
    m_desktop->pasteWorks = false;
    m_model->refreshPermissions();
    next().finalText = QStringLiteral("still nothing lost");
    press();
    release();
    EXPECT_TRUE(m_desktop->pasted.isEmpty());
    EXPECT_EQ(m_desktop->copied.back(), QStringLiteral("Still nothing lost"));
    EXPECT_EQ(m_model->dictation().notice(), AppModel::kPasteFailedNotice)
        << "with input access, the notice says what happened instead of asking for it";
    EXPECT_EQ(m_sounds->played.back(), Sound::problem);
}

TEST_F(AppModelTest, ControlCommandsFollowTheSession)
{
    m_model->stopDictation();
    m_model->cancelDictation();
    EXPECT_TRUE(m_made.empty()) << "stop and cancel start nothing";

    next().holdPrepare = true;
    m_model->startDictation();
    settle();
    EXPECT_EQ(phase(), Phase::preparing);
    m_model->startDictation();
    EXPECT_EQ(m_made.size(), 1u) << "start while one runs starts no second";
    current().prepared.open();
    settle();
    next().finalText = QStringLiteral("unused");
    m_clock->advance(std::chrono::seconds(2));
    m_model->toggleDictation();
    settle();
    EXPECT_EQ(phase(), Phase::idle);

    m_model->toggleDictation();
    EXPECT_NE(phase(), Phase::idle);
    m_model->cancelDictation();
    settle();
    EXPECT_EQ(phase(), Phase::idle);
    EXPECT_EQ(m_sounds->played.back(), Sound::cancelled);
}

TEST_F(AppModelTest, KeyRecordingAndStoredKeyDriveTheMonitor)
{
    EXPECT_TRUE(m_model->monitor().isRunning());
    m_model->setRecordingHotkey(true);
    EXPECT_FALSE(m_model->monitor().isRunning());
    m_model->refreshPermissions();
    EXPECT_FALSE(m_model->monitor().isRunning()) << "the poll must not restart it while recording";
    m_model->setRecordingHotkey(false);
    EXPECT_TRUE(m_model->monitor().isRunning());

    // A key chosen in the settings restarts the monitor once and is announced once, so that no
    // press can fall between two restarts.
    int announced = 0;
    QObject::connect(m_model.get(), &AppModel::hotkeyChanged, [&announced] { ++announced; });
    const int opened = m_keys->opened;
    m_model->setHotkey(Hotkey{97, 0, true});
    settle();
    EXPECT_EQ(m_keys->opened - opened, 1);
    EXPECT_EQ(announced, 1);

    // A new key chosen elsewhere (an edit of the settings file) is taken at once.
    const Hotkey f5{63, 0, false};
    Preferences::setHotkey(f5);
    settle();
    EXPECT_EQ(m_model->hotkey(), f5);
    EXPECT_EQ(m_model->monitor().hotkey(), f5);
    EXPECT_TRUE(m_model->monitor().isRunning());
}

TEST_F(AppModelTest, StartSoundIsNeverHeardAsSpeech)
{
    // 0.1 s buffers, each numbered by its first sample.
    const auto buffer = [](int number) {
        std::vector<float> samples(1600, 0.01f);
        samples[0] = float(number) / 1000.0f;
        return AudioBuffer::fromMono(16000.0, samples);
    };
    m_sounds->length = 0.2;
    next().holdPrepare = true;
    press();
    m_audio->deliver(buffer(1)); // said while the engine gets ready: kept
    current().prepared.open();
    settle();
    ASSERT_EQ(phase(), Phase::listening);
    ASSERT_EQ(m_sounds->played.back(), Sound::start);
    // The sound and its echo: 0.2 s + 0.4 s of what the microphone hears next is left out.
    for (int number = 2; number <= 8; ++number)
        m_audio->deliver(buffer(number));
    settle();
    EXPECT_EQ(current().fedFirstSamples(), (std::vector<float>{0.001f, 0.008f}));

    // Without sounds nothing is left out.
    release();
    m_settings.store().setValue(SettingsKey::sounds, false);
    press();
    m_audio->deliver(buffer(1));
    m_audio->deliver(buffer(2));
    settle();
    EXPECT_EQ(current().fedFirstSamples(), (std::vector<float>{0.001f, 0.002f}));
}

TEST_F(AppModelTest, PreviewRunsOnlyWhenNoDictationDoes)
{
    m_model->previewHUD();
    EXPECT_TRUE(m_model->dictation().isDemo());
    EXPECT_TRUE(m_model->hud().panel()->isVisible());

    // A key press ends the preview and starts a real dictation.
    press();
    EXPECT_FALSE(m_model->dictation().isDemo());
    EXPECT_EQ(phase(), Phase::listening);
    m_model->previewHUD();
    EXPECT_FALSE(m_model->dictation().isDemo()) << "a preview must not replace a dictation";
}

TEST_F(AppModelTest, ActiveFollowsPhaseAndPreview)
{
    std::vector<bool> changes;
    QObject::connect(m_model.get(), &AppModel::activeChanged,
                     [&changes](bool active) { changes.push_back(active); });
    press();
    release();
    m_model->previewHUD();
    m_model->dictation().endDemo();
    settle();
    EXPECT_EQ(changes, (std::vector<bool>{true, false, true, false}));
}

} // namespace
} // namespace vocari::test
