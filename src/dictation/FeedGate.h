#pragma once

#include "engines/AudioBuffer.h"

#include <memory>
#include <mutex>
#include <vector>

namespace vocari {

class Transcriber;

// Holds back the audio captured while the transcriber gets ready, and hands it over in capture
// order once it is. Capture starts at the key press, long before a model may be loaded; what is
// said meanwhile waits here, up to a bound (the first `limitSeconds` of it are kept, the rest is
// dropped and counted), and reaches the transcriber ahead of everything captured after.
//
// push() is called on the capture thread, open() and discard() on the main thread, drain() on
// the main thread once capture has stopped. The transcriber is fed by one thread at a time:
// the capture thread while capture runs, the caller of drain() after. No call into the
// transcriber happens under the lock.
class FeedGate
{
public:
    FeedGate(std::shared_ptr<Transcriber> transcriber, double limitSeconds);

    // One captured buffer: queued while the gate is closed, fed (after whatever is still
    // queued) once it is open, ignored after discard().
    void push(const AudioBuffer &buffer);
    // The transcriber is ready: the next push() feeds the queue first.
    void open();
    // Feeds what is still queued, if the gate is open. Only once capture has stopped.
    void drain();
    // Drops the queue; nothing is fed any more.
    void discard();
    // Leaves out the next `seconds` of audio pushed from now on (the microphone hearing the
    // program's own start sound), cutting a buffer that straddles the end.
    void skip(double seconds);

    bool isOpen() const;
    // Seconds of audio waiting, and seconds dropped because the queue was full.
    double queuedSeconds() const;
    double droppedSeconds() const;

private:
    // Takes the queue out if the gate is open.
    std::vector<AudioBuffer> takeQueue(bool &feed);

    const std::shared_ptr<Transcriber> m_transcriber;
    const double m_limitSeconds;
    mutable std::mutex m_mutex;
    std::vector<AudioBuffer> m_queue;
    double m_queuedSeconds = 0;
    double m_droppedSeconds = 0;
    double m_skipSeconds = 0;
    bool m_open = false;
    bool m_discarded = false;
};

} // namespace vocari
