#include "ProgressBar.h"

#include <algorithm>
#include <cmath>
#include <unistd.h>

namespace vocari {

ProgressBar::ProgressBar(FILE *out, QString label)
    : m_out(out), m_label(std::move(label)), m_terminal(::isatty(::fileno(out)) == 1)
{
}

QString ProgressBar::render(double fraction, int width)
{
    fraction = std::clamp(fraction, 0.0, 1.0);
    const int filled = static_cast<int>(std::floor(fraction * width));
    const int percent = static_cast<int>(std::floor(fraction * 100.0));
    return QLatin1Char('[') + QString(filled, QLatin1Char('#')) +
           QString(width - filled, QLatin1Char('.')) + QLatin1String("] ") +
           QString::number(percent).rightJustified(3) + QLatin1Char('%');
}

void ProgressBar::update(double fraction)
{
    const int percent = static_cast<int>(std::floor(std::clamp(fraction, 0.0, 1.0) * 100.0));
    if (m_terminal) {
        if (percent == m_lastPercent)
            return;
        m_lastPercent = percent;
        std::fprintf(m_out, "\r%s %s", qPrintable(m_label), qPrintable(render(fraction, 30)));
        std::fflush(m_out);
        m_drawn = true;
        return;
    }
    const int tenth = percent / 10;
    if (tenth == m_lastTenth)
        return;
    m_lastTenth = tenth;
    std::fprintf(m_out, "%s %d%%\n", qPrintable(m_label), tenth * 10);
    std::fflush(m_out);
}

void ProgressBar::finish()
{
    if (m_terminal && m_drawn) {
        std::fputc('\n', m_out);
        std::fflush(m_out);
    }
    m_drawn = false;
}

} // namespace vocari
