#pragma once

// An application model on scripted parts: a keyboard the test presses, a desktop that records
// what would reach the window in front, a microphone and a transcriber the test drives.

#include "app/AppModel.h"
#include "dictation/Fakes.h"
#include "hotkey/HotkeyMonitor.h"
#include "support/EventLoop.h"
#include "support/ScopedSettings.h"

#include <gtest/gtest.h>

namespace vocari::test {

struct ScriptedKeys final : KeyEventSource
{
    Sink sink;
    std::vector<KeyGrab> grabs;

    int opened = 0;
    bool open(Sink newSink) override
    {
        ++opened;
        sink = std::move(newSink);
        return true;
    }
    void close() override
    {
        sink = nullptr;
        grabs.clear();
    }
    bool isOpen() const override { return bool(sink); }
    bool refuseEscape = false; // the desktop will not let Escape be taken
    std::vector<GrabFailure> setGrabs(const std::vector<KeyGrab> &wanted) override
    {
        grabs = wanted;
        std::vector<GrabFailure> failures;
        for (const KeyGrab &grab : wanted) {
            if (refuseEscape && grab.keyCode == 1)
                failures.push_back({grab, GrabFailure::Reason::refused, false, 0});
        }
        return failures;
    }
    QString errorString() const override { return {}; }
    QString trigger; // what the desktop says it bound the key to
    QString triggerDescription() const override { return trigger; }
    QString warning; // what is wrong with what the desktop bound
    QString bindingWarning() const override { return warning; }

    void send(KeyEvent::Kind kind, std::uint16_t code,
              KeyEvent::Route route = KeyEvent::Route::observed)
    {
        if (sink)
            sink(KeyEvent{kind, route, code, 0, false});
    }
    // Escape as its grab delivers it.
    void escape() { send(KeyEvent::Kind::press, 1, KeyEvent::Route::grabbed); }
    bool escapeGrabbed() const
    {
        return std::any_of(grabs.begin(), grabs.end(),
                           [](const KeyGrab &grab) { return grab.keyCode == 1; });
    }
};

struct RecordingDesktop final : DesktopServices
{
    InputAccessState access{true, {}};
    std::optional<qint64> frontmost = 100;
    QStringList pasted;
    QStringList typed;
    std::vector<qsizetype> erased;
    QStringList copied;
    // How many BackSpaces erase a typed text: by default one per UTF-16 unit.
    std::function<qsizetype(const QString &)> backspaces = [](const QString &text) {
        return text.size();
    };

    InputAccessState inputAccess() override { return access; }
    std::optional<qint64> frontmostWindow() override { return frontmost; }
    bool limitedErase = false; // erases only its own latest typing, as on Wayland
    bool eraseLimitedToOwnTyping() const override { return limitedErase; }
    bool pasteWorks = true;
    bool paste(const QString &text) override
    {
        if (!pasteWorks)
            copied.append(text);
        else
            pasted.append(text);
        return pasteWorks;
    }
    qsizetype type(const QString &text) override
    {
        typed.append(text);
        return backspaces(text);
    }
    void erase(qsizetype count) override { erased.push_back(count); }
    void copyToClipboard(const QString &text) override { copied.append(text); }
    bool hasCompositor() override { return false; }

    // A desktop prompt for input access the user turned down.
    bool wasDeclined = false;
    int askedAgain = 0;
    bool declined() const override { return wasDeclined; }
    void askAgain() override
    {
        ++askedAgain;
        wasDeclined = false;
    }
};

struct RecordingSounds final : SoundPlayer
{
    std::vector<Sound> played;
    double length = 0; // of every sound, in seconds
    void play(Sound sound) override { played.push_back(sound); }
    double seconds(Sound) const override { return length; }
};

class AppFixture : public ::testing::Test
{
protected:
    static constexpr std::uint16_t kRightAlt = 100;

    void SetUp() override
    {
        m_settings.store().setValue(QStringLiteral("sounds"), true);
        m_settings.store().setValue(QStringLiteral("autoCapitalize"), true);
        makeModel();
    }

    void TearDown() override
    {
        for (const auto &transcriber : m_made)
            transcriber->release();
        // A preview sleeps in steps of 50 ms: the last step must run out for it to end.
        m_model->dictation().endDemo();
        settle();
        spin(std::chrono::milliseconds(80));
        m_model.reset();
        settle();
    }

    // Whether the model is made for a session that may read the keyboards' devices.
    bool m_offersKeyboardReading = false;

    void makeModel()
    {
        AppModel::Services services;
        auto audio = std::make_unique<FakeAudioEngine>();
        auto keys = std::make_unique<ScriptedKeys>();
        auto desktop = std::make_unique<RecordingDesktop>();
        auto sounds = std::make_unique<RecordingSounds>();
        m_audio = audio.get();
        m_keys = keys.get();
        m_desktop = desktop.get();
        m_sounds = sounds.get();
        services.audio = std::move(audio);
        services.keys = std::move(keys);
        services.desktop = std::move(desktop);
        services.sounds = std::move(sounds);
        services.clock = m_clock;
        services.models.preload = false;
        services.models.downloads = m_downloads;
        services.offersKeyboardReading = m_offersKeyboardReading;
        services.makeTranscriber = [this](bool) {
            auto made =
                m_next ? std::exchange(m_next, nullptr) : std::make_shared<ScriptedTranscriber>();
            m_made.push_back(made);
            return made;
        };
        m_model = std::make_unique<AppModel>(std::move(services));
    }

    // The transcriber the next dictation gets.
    ScriptedTranscriber &next()
    {
        if (!m_next)
            m_next = std::make_shared<ScriptedTranscriber>();
        return *m_next;
    }
    ScriptedTranscriber &current() { return *m_made.back(); }
    Dictation::Phase phase() { return m_model->dictation().phase(); }

    void press()
    {
        m_keys->send(KeyEvent::Kind::press, kRightAlt);
        settle();
    }
    // A press and release of the key, as toggle mode takes it.
    void tap()
    {
        press();
        release();
    }
    void release()
    {
        m_clock->advance(std::chrono::seconds(2)); // long enough to count as speech
        m_keys->send(KeyEvent::Kind::release, kRightAlt);
        settle();
    }

    ScopedSettings m_settings;
    // How the model store downloads hub engines; empty: from the hub in HF_ENDPOINT. Set it
    // before SetUp() (or call makeModel() again).
    ModelDownloadFactory m_downloads;
    std::shared_ptr<ManualClock> m_clock = std::make_shared<ManualClock>();
    FakeAudioEngine *m_audio = nullptr;
    ScriptedKeys *m_keys = nullptr;
    RecordingDesktop *m_desktop = nullptr;
    RecordingSounds *m_sounds = nullptr;
    std::unique_ptr<AppModel> m_model;
    std::shared_ptr<ScriptedTranscriber> m_next;
    std::vector<std::shared_ptr<ScriptedTranscriber>> m_made;
};

} // namespace vocari::test
