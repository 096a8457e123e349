#include "support/ScopedSettings.h"

namespace vocari::test {

ScopedSettings::ScopedSettings()
    : m_store(std::make_unique<SettingsStore>(m_dir.filePath(QStringLiteral("settings.json"))))
{
    m_previous = SettingsStore::setShared(m_store.get());
}

ScopedSettings::~ScopedSettings()
{
    SettingsStore::setShared(m_previous);
}

} // namespace vocari::test
