#pragma once

#include <QString>
#include <cstdio>

namespace vocari {

// A one-line download progress display. On a terminal it redraws a bar in place; into a file
// or pipe it writes a line at every tenth of the way, so that logs stay readable.
class ProgressBar
{
public:
    ProgressBar(FILE *out, QString label);

    // Shows the fraction done, from 0 to 1. It may go down when a file starts over.
    void update(double fraction);
    // Ends the line.
    void finish();

    // The bar for a fraction: "[#######.............]  35%", width characters between the
    // brackets; the percentage is truncated, so 99.9 % shows as 99.
    static QString render(double fraction, int width);

private:
    FILE *m_out;
    QString m_label;
    bool m_terminal;
    bool m_drawn = false;
    int m_lastPercent = -1;
    int m_lastTenth = -1;
};

} // namespace vocari
