#include "app/AppModel.h"

#include "app/AppLog.h"
#include "dictation/AudioEngine.h"
#include "dictation/Clock.h"
#include "engines/Transcriber.h"
#include "hotkey/HotkeyMonitor.h"
#include "hud/HUDController.h"
#include "hud/HUDView.h"
#include "settings/Preferences.h"
#include "settings/SettingsStore.h"
#include "text/TextProcessor.h"

#include <QPointer>

namespace vocari {

namespace {

// Wraps a callback so that it does nothing once the model is gone.
template <typename Function> auto weakly(AppModel *model, Function function)
{
    return [guard = QPointer<AppModel>(model), function](auto &&...arguments) {
        if (guard)
            function(std::forward<decltype(arguments)>(arguments)...);
    };
}

} // namespace

AppModel::AppModel(Services services, QObject *parent)
    : QObject(parent), m_desktop(std::move(services.desktop)), m_sounds(std::move(services.sounds)),
      m_makeTranscriber(std::move(services.makeTranscriber))
{
    m_session = std::move(services.session);
    m_offersKeyboardReading = services.offersKeyboardReading;
    // 1. The session, the model store, the key monitor and the HUD.
    m_dictation = std::make_unique<Dictation>(std::move(services.audio),
                                              services.clock ? services.clock : Clock::system());
    m_models = std::make_unique<ModelStore>(std::move(services.models));
    m_monitor = std::make_unique<HotkeyMonitor>(std::move(services.keys));
    m_hud = std::make_unique<HUDController>();
    m_hotkey = Preferences::hotkey();
    if (!m_makeTranscriber) {
        m_makeTranscriber = [models = m_models.get()](bool live) {
            return std::shared_ptr<Transcriber>(models->makeTranscriber(live));
        };
    }
    install();
}

AppModel::~AppModel()
{
    m_timer.stop();
    m_monitor->stop();
    // The HUD's view watches the session: it goes first.
    m_hud.reset();
}

void AppModel::install()
{
    // 2. The HUD panel, bound to the session. Without a compositor a translucent window is
    // drawn black where it should be clear, so the panel is then cut to its glass.
    m_hud->attach(m_dictation.get());
    m_hud->setShapedToGlass(!m_desktop->hasCompositor());

    // 3. The session's callbacks.
    m_dictation->setOnCommit(weakly(this, [this](const QString &phrase) { onCommit(phrase); }));
    m_dictation->setOnFinished(weakly(this, [this](const QString &text) { onFinished(text); }));
    m_dictation->setOnListening(weakly(this, [this] {
        if (!Preferences::sounds())
            return;
        play(Sound::start);
        // A microphone near the speakers hears the sound; that must not become words.
        if (m_sounds)
            m_dictation->skipCapturedAudio(m_sounds->seconds(Sound::start) +
                                           kStartSoundEchoSeconds);
    }));
    m_dictation->setOnDemoEnded(weakly(this, [this] { m_hud->hide(kHideAtOnce); }));
    m_dictation->setOnCancelled(weakly(this, [this] { onCancelled(); }));
    connect(m_dictation.get(), &Dictation::phaseChanged, this, &AppModel::onPhaseChanged);
    connect(m_dictation.get(), &Dictation::isDemoChanged, this, &AppModel::onPhaseChanged);

    // 4. The key monitor's callbacks. Escape cancels while a dictation runs.
    m_monitor->escapeActive = [guard = QPointer<AppModel>(this)] {
        return guard && guard->m_dictation->phase() != Dictation::Phase::idle;
    };
    m_monitor->onEscape = weakly(this, [this] { m_dictation->cancel(); });
    m_monitor->onPress = weakly(this, [this] { keyPressed(); });
    m_monitor->onRelease = weakly(this, [this] { keyReleased(); });

    // A key or engine chosen elsewhere (the settings window, an edit of the file) counts at once.
    connect(&SettingsStore::shared(), &SettingsStore::valueChanged, this,
            &AppModel::onSettingChanged);
    connect(m_models.get(), &ModelStore::selectedChanged, this,
            [this] { qCInfo(lcApp).noquote() << "speech engine:" << selectedEngineName(); });

    // 5-7. There is no microphone permission to ask for; input access is checked now and the
    // monitor started when it is there.
    refreshPermissions();
    if (!m_access.granted)
        qCWarning(lcApp).noquote() << "no input access:" << m_access.explanation;

    // 8. The selected model loads in the background, so the first dictation does not wait.
    m_models->warmSelected();

    // 9. Input access can come and go (a display that restarts): look again every 1.5 s.
    m_timer.setInterval(kPermissionPollMs);
    connect(&m_timer, &QTimer::timeout, this, &AppModel::refreshPermissions);
    m_timer.start();
}

QString AppModel::selectedEngineName() const
{
    const std::optional<Engine> engine = m_models->engine(m_models->selected());
    return engine ? engine->name : Engine::defaultEngine().name;
}

QString AppModel::keyMonitorError() const
{
    return m_monitor->isRunning() ? QString() : m_monitor->errorString();
}

void AppModel::setHotkey(const Hotkey &hotkey)
{
    const bool changed = !(hotkey == m_hotkey);
    // Noted first, so that the settings change this write causes is known for our own and
    // does not restart the monitor a second time.
    m_hotkey = hotkey;
    Preferences::setHotkey(hotkey);
    useHotkey(hotkey);
    if (changed)
        emit hotkeyChanged();
}

void AppModel::useHotkey(const Hotkey &hotkey)
{
    m_hotkey = hotkey;
    // A running monitor restarts with the key by itself; a stopped one starts if it may.
    m_monitor->setHotkey(hotkey);
    if (!m_monitor->isRunning())
        startMonitor();
}

void AppModel::refreshPermissions()
{
    const InputAccessState access = m_desktop->inputAccess();
    if (!m_accessChecked || !(access == m_access)) {
        m_accessChecked = true;
        m_access = access;
        emit inputAccessChanged();
    }
    const bool watchable = m_access.granted || m_access.keysWithoutAccess;
    if (watchable && !m_monitor->isRunning() && !m_recording)
        startMonitor();
    else if (!watchable && m_monitor->isRunning())
        m_monitor->stop();

    // The key can fail, or be declined on a desktop prompt, after its monitor started: the
    // settings show that as part of input access.
    const QString keyState = keyMonitorError() + u'\n' + m_monitor->triggerDescription() + u'\n' +
                             m_monitor->bindingWarning() +
                             (inputAccessDeclined() ? QStringLiteral("\ndeclined") : QString());
    if (keyState != m_keyState) {
        m_keyState = keyState;
        emit inputAccessChanged();
    }
}

QString AppModel::keyTrigger() const
{
    return m_monitor->triggerDescription();
}

QString AppModel::keyBindingWarning() const
{
    return m_monitor->bindingWarning();
}

bool AppModel::keySourceBindsModifierAlone() const
{
    return m_monitor->bindsModifierAlone();
}

bool AppModel::inputAccessDeclined() const
{
    return m_desktop->declined() || m_monitor->declined();
}

void AppModel::askForInputAccessAgain()
{
    m_desktop->askAgain();
    if (m_monitor->declined()) {
        m_monitor->askAgain();
        m_monitor->stop();
    }
    refreshPermissions();
}

void AppModel::startMonitor()
{
    if (!(m_access.granted || m_access.keysWithoutAccess) || m_recording)
        return;
    if (m_monitor->start(m_hotkey))
        qCInfo(lcApp).noquote() << "dictation key:" << m_hotkey.label();
}

void AppModel::setRecordingHotkey(bool recording)
{
    if (m_recording != recording) {
        m_recording = recording;
        emit recordingChanged();
    }
    if (recording)
        m_monitor->stop();
    else
        startMonitor();
}

void AppModel::previewHUD()
{
    if (m_dictation->phase() != Dictation::Phase::idle && !m_dictation->isDemo())
        return;
    m_hud->show();
    m_dictation->demo();
}

void AppModel::keyPressed()
{
    m_dictation->endDemo();
    const Dictation::Phase phase = m_dictation->phase();
    if (phase == Dictation::Phase::idle)
        startDictation();
    else if (Preferences::recordMode() == RecordMode::toggle &&
             phase != Dictation::Phase::finishing)
        m_dictation->keyUp();
    else
        m_dictation->cancel();
}

void AppModel::keyReleased()
{
    if (Preferences::recordMode() == RecordMode::hold)
        m_dictation->keyUp();
}

void AppModel::startDictation()
{
    m_dictation->endDemo();
    if (m_dictation->phase() != Dictation::Phase::idle)
        return;
    m_hud->show();
    clearTyped();
    const bool live = Preferences::liveTyping();
    qCInfo(lcApp).noquote() << "dictation started:" << selectedEngineName()
                            << (live ? "(live typing)" : "(paste at the end)");
    m_dictation->keyDown(live, selectedEngineName(), m_makeTranscriber);
}

void AppModel::stopDictation()
{
    const Dictation::Phase phase = m_dictation->phase();
    if (phase == Dictation::Phase::preparing || phase == Dictation::Phase::listening)
        m_dictation->keyUp();
}

void AppModel::toggleDictation()
{
    m_dictation->endDemo();
    if (m_dictation->phase() == Dictation::Phase::idle)
        startDictation();
    else
        stopDictation();
}

void AppModel::cancelDictation()
{
    if (m_dictation->phase() != Dictation::Phase::idle)
        m_dictation->cancel();
}

void AppModel::onCommit(const QString &phrase)
{
    if (!m_access.granted)
        return;
    const QString cleaned = TextProcessor::apply(phrase, m_typed.isEmpty());
    if (cleaned.isEmpty())
        return;
    const QString text = m_typed.isEmpty() ? cleaned : u' ' + cleaned;
    // A phrase typed into another window than the first makes the count wrong for both.
    const std::optional<qint64> front = m_desktop->frontmostWindow();
    if (m_typed.isEmpty())
        m_typedWindow = front;
    else if (front != m_typedWindow)
        m_typedElsewhere = true;
    // What the window needs to erase it again, which for GTK is fewer keys than characters.
    m_typedCount += m_desktop->type(text);
    m_typed.append(cleaned);
}

void AppModel::onFinished(const QString &text)
{
    const bool hasNotice = m_dictation->notice().has_value();
    const bool sounds = Preferences::sounds();
    if (hasNotice)
        qCInfo(lcApp).noquote() << "dictation ended:" << *m_dictation->notice();

    if (!m_typed.isEmpty()) {
        // A live dictation: the phrases are in the window already.
        if (Preferences::trailingSpace())
            m_desktop->type(QStringLiteral(" "));
        setLastDictation(m_typed.join(u' '));
        clearTyped();
        m_hud->hide(hasNotice ? kHideAfterNotice : kHideAtOnce);
        if (sounds)
            play(hasNotice ? Sound::problem : Sound::done);
        return;
    }
    if (text.isEmpty()) {
        if (hasNotice && sounds)
            play(Sound::problem);
        m_hud->hide(hasNotice ? kHideAfterNotice : kHideAtOnce);
        return;
    }
    const QString cleaned = TextProcessor::apply(text, true);
    if (cleaned.isEmpty()) {
        m_hud->hide(kHideAtOnce);
        return;
    }
    setLastDictation(cleaned);

    if (m_access.granted) {
        if (m_desktop->paste(Preferences::trailingSpace() ? cleaned + u' ' : cleaned)) {
            m_hud->hide(kHideAtOnce);
            if (sounds)
                play(Sound::done);
            return;
        }
        // The keys did not reach the window: the desktop services left the text on the
        // clipboard, and the HUD says so.
        qCInfo(lcApp) << "the text could not be pasted: it was left on the clipboard";
    } else {
        // Nothing can be pasted: the text waits on the clipboard instead, and the HUD says so.
        m_desktop->copyToClipboard(cleaned);
        qCInfo(lcApp) << "no input access: the text was copied to the clipboard";
    }
    if (m_dictation->phase() == Dictation::Phase::idle)
        m_dictation->setNotice(m_access.granted ? kPasteFailedNotice : kCopiedNotice);
    if (sounds)
        play(Sound::problem);
    m_hud->show();
    m_hud->hide(kHideAfterCopy);
}

void AppModel::onCancelled()
{
    qCInfo(lcApp) << "dictation cancelled";
    // Typed text is erased only where it was typed: never into a window switched to since. An
    // unknown window is never taken for another unknown one, unless the desktop's erase can
    // only take back its own latest typing anyway.
    if (m_typedCount > 0) {
        const std::optional<qint64> front = m_desktop->frontmostWindow();
        const bool sameWindow = m_typedWindow && front == m_typedWindow && !m_typedElsewhere;
        const bool safeUnknown = !m_typedWindow && !front && m_desktop->eraseLimitedToOwnTyping();
        if (sameWindow || safeUnknown)
            m_desktop->erase(m_typedCount);
        else
            qCInfo(lcApp) << "the typed text is not erased: it may not be in the window in front";
    }
    clearTyped();
    if (Preferences::sounds())
        play(Sound::cancelled);
    m_hud->hide(kHideAfterCancel);
}

void AppModel::onPhaseChanged()
{
    // Escape is taken from other programs exactly while there is a dictation to cancel, and the
    // HUD offers it only where it can.
    m_monitor->refreshEscapeGrab();
    m_hud->setEscapeCancels(m_monitor->escapeCancels());
    const bool nowActive = active();
    if (nowActive != m_wasActive) {
        m_wasActive = nowActive;
        emit activeChanged(nowActive);
    }
}

void AppModel::onSettingChanged(const QString &key)
{
    if (key == QLatin1String(SettingsKey::hotkey)) {
        const Hotkey stored = Preferences::hotkey();
        if (!(stored == m_hotkey) && !m_recording) {
            useHotkey(stored);
            emit hotkeyChanged();
        }
    } else if (key == QLatin1String(SettingsKey::engine)) {
        const QString stored = Preferences::engine();
        if (stored != m_models->selected() && m_models->engine(stored))
            m_models->setSelected(stored);
    }
}

void AppModel::clearTyped()
{
    m_typed.clear();
    m_typedCount = 0;
    m_typedWindow.reset();
    m_typedElsewhere = false;
}

void AppModel::play(Sound sound)
{
    if (m_sounds)
        m_sounds->play(sound);
}

void AppModel::setLastDictation(const QString &text)
{
    if (m_lastDictation == text)
        return;
    m_lastDictation = text;
    emit lastDictationChanged();
}

bool AppModel::active() const
{
    return m_dictation->phase() != Dictation::Phase::idle || m_dictation->isDemo();
}

} // namespace vocari
