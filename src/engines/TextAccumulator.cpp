#include "engines/TextAccumulator.h"

namespace vocari {

QString TextAccumulator::apply(const QString &text, bool isFinal)
{
    std::lock_guard lock(m_lock);
    if (isFinal) {
        m_final += text;
        m_final += QLatin1Char(' ');
        m_volatile.clear();
    } else {
        m_volatile = text;
    }
    return m_final + m_volatile;
}

TextAccumulator::Snapshot TextAccumulator::snapshot() const
{
    std::lock_guard lock(m_lock);
    return {m_final, m_volatile};
}

} // namespace vocari
