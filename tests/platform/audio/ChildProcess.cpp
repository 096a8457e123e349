#include "ChildProcess.h"

#include <QDeadlineTimer>
#include <QProcessEnvironment>
#include <QStandardPaths>
#include <QThread>
#include <csignal>
#include <fcntl.h>
#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace vocari::test {

namespace {

// A list of C strings that stays valid in the child between fork and exec.
class CStrings
{
public:
    explicit CStrings(const QStringList &items)
    {
        for (const QString &item : items)
            m_storage.push_back(item.toStdString());
        for (std::string &item : m_storage)
            m_pointers.push_back(item.data());
        m_pointers.push_back(nullptr);
    }
    char **data() { return m_pointers.data(); }

private:
    std::vector<std::string> m_storage;
    std::vector<char *> m_pointers;
};

} // namespace

ChildProcess::~ChildProcess()
{
    terminate();
    if (m_outputFd >= 0)
        ::close(m_outputFd);
}

std::unique_ptr<ChildProcess> ChildProcess::start(const QString &program,
                                                  const QStringList &arguments,
                                                  const Options &options, QString *error)
{
    const auto fail = [error](const QString &reason) {
        if (error)
            *error = reason;
        return nullptr;
    };
    const QString path = QStandardPaths::findExecutable(program);
    if (path.isEmpty())
        return fail(program + QStringLiteral(" is not installed"));

    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (auto it = options.environment.cbegin(); it != options.environment.cend(); ++it)
        environment.insert(it.key(), it.value());
    for (const QString &name : options.unsetEnvironment)
        environment.remove(name);
    CStrings argv(QStringList{path} + arguments);
    CStrings envp(environment.toStringList());
    const std::string log = options.logFile.toStdString();

    int outputPipe[2] = {-1, -1};
    if (options.keepOutput && ::pipe2(outputPipe, O_CLOEXEC) != 0)
        return fail(QStringLiteral("no pipe"));
    const pid_t parent = ::getpid();
    const pid_t pid = ::fork();
    if (pid < 0)
        return fail(QStringLiteral("fork failed"));
    if (pid == 0) {
        // Only async-signal-safe calls from here to exec.
        ::prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (::getppid() != parent)
            ::_exit(127);
        int out = -1;
        if (options.keepOutput)
            out = outputPipe[1];
        else if (!log.empty())
            out = ::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        else
            out = ::open("/dev/null", O_WRONLY);
        if (out >= 0) {
            ::dup2(out, STDOUT_FILENO);
            ::dup2(out, STDERR_FILENO);
        }
        const int in = ::open("/dev/null", O_RDONLY);
        if (in >= 0)
            ::dup2(in, STDIN_FILENO);
        ::execve(argv.data()[0], argv.data(), envp.data());
        ::_exit(127);
    }

    std::unique_ptr<ChildProcess> child(new ChildProcess);
    child->m_pid = pid;
    if (options.keepOutput) {
        ::close(outputPipe[1]);
        child->m_outputFd = outputPipe[0];
        ::fcntl(child->m_outputFd, F_SETFL, O_NONBLOCK);
    }
    return child;
}

int ChildProcess::run(const QString &program, const QStringList &arguments, const Options &options,
                      QByteArray *output, std::chrono::milliseconds limit)
{
    Options withOutput = options;
    withOutput.keepOutput = output != nullptr;
    const auto child = start(program, arguments, withOutput);
    if (!child)
        return -1;
    if (!child->waitForExit(limit))
        return -1;
    if (output)
        *output = child->output();
    return child->exitCode();
}

void ChildProcess::readOutput()
{
    if (m_outputFd < 0)
        return;
    char chunk[4096];
    for (ssize_t n; (n = ::read(m_outputFd, chunk, sizeof chunk)) > 0;)
        m_output.append(chunk, n);
}

bool ChildProcess::isRunning()
{
    if (m_pid < 0)
        return false;
    readOutput();
    int status = 0;
    const pid_t done = ::waitpid(m_pid, &status, WNOHANG);
    if (done == 0)
        return true;
    readOutput();
    m_exitCode = done == m_pid && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    m_pid = -1;
    return false;
}

bool ChildProcess::waitForExit(std::chrono::milliseconds limit)
{
    const QDeadlineTimer deadline(limit);
    while (isRunning()) {
        if (deadline.hasExpired())
            return false;
        QThread::msleep(5);
    }
    return true;
}

void ChildProcess::terminate()
{
    if (!isRunning())
        return;
    ::kill(m_pid, SIGTERM);
    if (waitForExit(std::chrono::seconds(5)))
        return;
    ::kill(m_pid, SIGKILL);
    waitForExit(std::chrono::seconds(5));
}

} // namespace vocari::test
