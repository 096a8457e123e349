#pragma once

#include <QProcess>
#include <QString>

namespace vocari::test {

// A private virtual X server for one test program: started on a display number it picks
// itself, stopped when this object goes.
class XvfbDisplay
{
public:
    XvfbDisplay() = default;
    ~XvfbDisplay();
    XvfbDisplay(const XvfbDisplay &) = delete;
    XvfbDisplay &operator=(const XvfbDisplay &) = delete;

    // Starts the server; false (with error()) when it cannot be started.
    bool start();
    void stop();

    // ":N", valid after a successful start.
    QString name() const { return m_name; }
    QString error() const { return m_error; }

private:
    QProcess m_server;
    QString m_name;
    QString m_error;
};

} // namespace vocari::test
