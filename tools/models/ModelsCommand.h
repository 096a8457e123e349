#pragma once

#include "models/Engine.h"

#include <QString>
#include <optional>

namespace vocari {

class ModelStore;

// The commands of vocari-models, each over the model store: what they print and the exit
// status they end with (0 done, 1 failed, 130 interrupted). Results go to standard output,
// progress and one-line errors to standard error.
class ModelsCommand
{
public:
    explicit ModelsCommand(ModelStore &store);

    int list() const;
    int install(const QString &id);
    int remove(const QString &id);
    int addFolder(const QString &folder, const QString &name);
    int addHub(const QString &repository, const QString &name);
    int select(const QString &id);

    static int fail(const QString &message);

private:
    std::optional<Engine> find(const QString &id) const;
    // Follows the engine's running download to its end, with a progress bar; Ctrl+C cancels.
    int followDownload(const Engine &engine);
    QString stateText(const Engine &engine) const;
    QString sizeText(const Engine &engine) const;

    ModelStore &m_store;
};

} // namespace vocari
