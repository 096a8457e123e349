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

    // Starts the server with one 1024 × 768 screen, or with these arguments in its place
    // (such as two screens joined by Xinerama); false (with error()) when it cannot start.
    bool start(const QStringList &screens = {});
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
