#pragma once

#include <QByteArray>
#include <QMap>
#include <QString>
#include <QStringList>
#include <chrono>
#include <memory>
#include <sys/types.h>

namespace vocari::test {

// A program started with plain fork and exec. QProcess spawns in a way that ThreadSanitizer
// does not follow, after which it loses track of the parent's own locking; these tests also
// run under that sanitizer.
class ChildProcess
{
public:
    struct Options
    {
        QMap<QString, QString> environment; // added to (or replacing) this process's
        QStringList unsetEnvironment;
        QString logFile;         // standard output and error go here when set...
        bool keepOutput = false; // ...or are kept for output() when this is set
    };

    ~ChildProcess();
    ChildProcess(const ChildProcess &) = delete;
    ChildProcess &operator=(const ChildProcess &) = delete;

    // The running program, or none with the reason in *error. The program dies with this
    // process, even if the tests crash.
    static std::unique_ptr<ChildProcess> start(const QString &program, const QStringList &arguments,
                                               const Options &options, QString *error = nullptr);
    // Starts the program and waits for it; its exit code, or -1 when it could not run or did
    // not end in time. Its output goes to *output when given.
    static int run(const QString &program, const QStringList &arguments, const Options &options,
                   QByteArray *output = nullptr,
                   std::chrono::milliseconds limit = std::chrono::seconds(20));

    bool isRunning();
    pid_t pid() const { return m_pid; }
    // Waits until the program has ended; false when it is still running after the limit.
    bool waitForExit(std::chrono::milliseconds limit);
    int exitCode() const { return m_exitCode; }
    QByteArray output() const { return m_output; }
    // SIGTERM, then SIGKILL when that does not end it within a few seconds.
    void terminate();

private:
    ChildProcess() = default;
    void readOutput();

    pid_t m_pid = -1;
    int m_outputFd = -1;
    int m_exitCode = -1;
    QByteArray m_output;
};

} // namespace vocari::test
