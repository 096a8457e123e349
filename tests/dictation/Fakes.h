#pragma once

// Scripted stand-ins for what a dictation talks to: a capture source, a transcriber whose
// waits the test releases, and a clock the test moves.

#include "dictation/AudioEngine.h"
#include "dictation/Clock.h"
#include "engines/Transcriber.h"

#include <QCoreApplication>
#include <atomic>
#include <coroutine>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

namespace vocari::test {

// A wait that lasts until the test opens it; waiting coroutines resume inside open().
class Gate
{
public:
    bool isOpen() const { return m_open; }
    bool hasWaiters() const { return !m_waiters.empty(); }
    void open()
    {
        m_open = true;
        for (std::coroutine_handle<> waiter : std::exchange(m_waiters, {}))
            waiter.resume();
    }

    auto operator co_await() noexcept
    {
        struct Awaiter
        {
            Gate &gate;
            bool await_ready() const noexcept { return gate.m_open; }
            void await_suspend(std::coroutine_handle<> waiter) { gate.m_waiters.push_back(waiter); }
            void await_resume() const noexcept {}
        };
        return Awaiter{*this};
    }

private:
    bool m_open = false;
    std::vector<std::coroutine_handle<>> m_waiters;
};

// A transcriber that does what the test scripted: prepare and finish complete at once or
// when their gate opens; prepare may fail; finish returns the scripted text.
class ScriptedTranscriber : public Transcriber
{
public:
    // The script.
    bool holdPrepare = false;
    std::optional<QString> prepareError;
    bool holdFinish = false;
    QString finalText;
    std::optional<QString> failureText;
    Gate prepared;
    Gate finished;

    // What happened to it.
    int prepareCalls = 0;
    int finishCalls = 0;
    int cancelCalls = 0;
    std::atomic<int> fedBuffers{0};
    // Calls of feed() that overlapped another one.
    std::atomic<int> overlappingFeeds{0};

    // The first sample of each buffer fed, in order, and the audio fed in all.
    std::vector<float> fedFirstSamples() const
    {
        const std::lock_guard guard(m_fedLock);
        return m_fedFirstSamples;
    }
    double fedSeconds() const
    {
        const std::lock_guard guard(m_fedLock);
        return m_fedSeconds;
    }

    // Thrown by failure(), which the session asks after finish() returns.
    std::optional<QString> failureThrows;

    std::optional<QString> failure() const override
    {
        if (failureThrows)
            throw TranscriberError(*failureThrows);
        return failureText;
    }

    QCoro::Task<> prepare() override
    {
        ++prepareCalls;
        if (holdPrepare)
            co_await prepared;
        if (prepareError)
            throw TranscriberError(*prepareError);
    }

    void feed(const AudioBuffer &buffer) override
    {
        if (m_feeding.exchange(true))
            ++overlappingFeeds;
        {
            const std::lock_guard guard(m_fedLock);
            m_fedFirstSamples.push_back(buffer.frameLength() ? buffer.channel(0)[0] : 0.0f);
            m_fedSeconds += buffer.durationSeconds();
        }
        ++fedBuffers;
        m_feeding = false;
    }

    QCoro::Task<QString> finish() override
    {
        ++finishCalls;
        if (holdFinish)
            co_await finished;
        co_return finalText;
    }

    void cancel() override { ++cancelCalls; }

    // Reports as an engine makes them, from whatever thread calls these.
    void reportText(const QString &text) { deliverText(text); }
    void reportCommit(const QString &text) { deliverCommit(text); }
    void reportStatus(const QString &text) { deliverStatus(text); }

    // Lets every wait finish, so that no coroutine is left suspended.
    void release()
    {
        prepared.open();
        finished.open();
    }

private:
    mutable std::mutex m_fedLock;
    std::vector<float> m_fedFirstSamples;
    double m_fedSeconds = 0;
    std::atomic<bool> m_feeding{false};
};

// A capture source the test drives: buffers are delivered when the test says so, on the
// calling thread, and device changes are announced on request.
class FakeAudioEngine : public AudioEngine
{
public:
    bool defaultInput = true;
    AudioFormat format{48000.0, 1};
    std::optional<QString> startError;
    QList<InputDevices::Device> devices{{QStringLiteral("built-in"), QStringLiteral("Built-in")}};

    int starts = 0;
    int stops = 0;
    QString startedDevice;

    bool capturing() const { return bool(m_tap); }

    bool hasDefaultInput() const override { return defaultInput; }
    QList<InputDevices::Device> inputs() const override { return devices; }
    AudioFormat inputFormat(const QString &) const override { return format; }
    void start(const QString &deviceId, Tap tap) override
    {
        ++starts;
        startedDevice = deviceId;
        if (startError)
            throw CaptureError(*startError);
        m_tap = std::move(tap);
    }
    void stop() override
    {
        ++stops;
        m_lastTap = std::exchange(m_tap, nullptr);
    }

    void deliver(const AudioBuffer &buffer)
    {
        if (m_tap)
            m_tap(buffer);
    }
    // A buffer captured just before the last stop, whose level is still on its way.
    void deliverLate(const AudioBuffer &buffer)
    {
        if (m_lastTap)
            m_lastTap(buffer);
    }
    // The stream broke and could not be opened again.
    void loseCapture()
    {
        m_tap = nullptr;
        emit captureLost();
    }
    // A device went away; `inputLeft` says whether the system still has a default input.
    void unplug(bool inputLeft)
    {
        defaultInput = inputLeft;
        emit configurationChanged();
    }

private:
    Tap m_tap;
    Tap m_lastTap;
};

// A clock that stands still until the test moves it.
class ManualClock : public Clock
{
public:
    QDateTime now() const override { return m_wall; }
    std::chrono::steady_clock::time_point steadyNow() const override { return m_steady; }
    void advance(std::chrono::milliseconds step)
    {
        m_wall = m_wall.addMSecs(step.count());
        m_steady += step;
    }

private:
    QDateTime m_wall = QDateTime(QDate(2024, 5, 1), QTime(9, 0));
    std::chrono::steady_clock::time_point m_steady{};
};

// Runs everything posted to the event loop, including what that work posts in turn.
inline void settle()
{
    for (int pass = 0; pass < 10; ++pass) {
        QCoreApplication::sendPostedEvents();
        QCoreApplication::processEvents();
    }
}

} // namespace vocari::test
