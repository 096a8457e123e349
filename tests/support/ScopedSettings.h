#pragma once

#include "settings/SettingsStore.h"

#include <QTemporaryDir>

#include <memory>

namespace vocari::test {

// Points the shared settings store at an empty file in a temporary folder for the lifetime of
// this object, so that a test starts from a fresh user's defaults and leaves nothing behind.
class ScopedSettings
{
public:
    ScopedSettings();
    ~ScopedSettings();
    ScopedSettings(const ScopedSettings &) = delete;
    ScopedSettings &operator=(const ScopedSettings &) = delete;

    SettingsStore &store() { return *m_store; }
    QString folder() const { return m_dir.path(); }

private:
    QTemporaryDir m_dir;
    std::unique_ptr<SettingsStore> m_store;
    SettingsStore *m_previous = nullptr;
};

} // namespace vocari::test
