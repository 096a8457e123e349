#pragma once

#include "models/Engine.h"
#include "models/ModelDownload.h"
#include "models/ModelState.h"

#include <QHash>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QStringList>
#include <map>
#include <memory>
#include <optional>
#include <vector>

namespace vocari {

class Transcriber;

// The catalogue of speech engines the application owns: every engine (the built-ins, then the
// user's own), whether each is installed, downloading or not installed, the disk space of the
// installed ones, the engine selected for dictation, and the running downloads. It starts and
// cancels downloads, deletes downloaded models, adds and removes custom engines and keeps them
// in the settings, and builds the transcriber for a dictation.
//
// Lives on the main thread. Every property notifies only when its value really changes.
class ModelStore : public QObject
{
    Q_OBJECT
    Q_PROPERTY(QString selected READ selected WRITE setSelected NOTIFY selectedChanged)
    Q_PROPERTY(QString lastError READ lastError NOTIFY lastErrorChanged)

public:
    struct Options
    {
        // How hub engines are downloaded; empty: from the hub in the environment (HF_ENDPOINT,
        // HF_TOKEN) into the models folder.
        ModelDownloadFactory downloads;
        // Whether selecting an engine preloads its model (a command-line run has no use for it).
        bool preload = true;
        // Whether preloading covers the built-in engine too (the application's first dictation
        // would otherwise wait for its decoder).
        bool preloadBuiltIn = false;
    };

    // Reads the custom engines and the selection from the settings, checks every model folder
    // (under ModelFolders::root() as it is now) and falls back to the built-in engine when the
    // selected one is not installed.
    explicit ModelStore(QObject *parent = nullptr);
    explicit ModelStore(Options options, QObject *parent = nullptr);
    ~ModelStore() override;

    // Every known engine, in display order.
    const std::vector<Engine> &engines() const { return m_engines; }
    std::optional<Engine> engine(const QString &id) const;
    const QHash<QString, ModelState> &states() const { return m_states; }
    // The state of one engine; not installed for an unknown id.
    ModelState state(const QString &id) const;
    // Measured disk sizes of installed hub and local engines, formatted.
    const QHash<QString, QString> &sizes() const { return m_sizes; }
    // The last message about adding or downloading a model, empty when none.
    QString lastError() const { return m_lastError; }
    QString selected() const { return m_selected; }
    // Assigning stores the id in the settings and preloads its model, also when unchanged.
    void setSelected(const QString &id);
    // The running download of each downloading engine.
    const std::map<QString, QPointer<ModelDownload>> &jobs() const { return m_jobs; }
    bool isDownloading(const QString &id) const { return m_jobs.count(id) > 0; }
    // Cancels an engine's download, if one runs; the engine ends not installed, without a
    // message.
    void cancelDownload(const QString &id);

    // The models folder these engines' downloads go to.
    QString modelsRoot() const { return m_root; }
    // The folder an engine's model lives in: none for the built-in engine.
    std::optional<QString> modelFolder(const Engine &engine) const;

    // The items a folder lacks to be a usable model; empty when it is one.
    static QStringList missingFiles(const QString &folder);
    // The disk space a folder takes, formatted. Slow: call it off the main thread.
    static QString diskSize(const QString &folder);

    // Preloads the selected Parakeet model in the background, so that the first phrase does
    // not wait for loading.
    void warmSelected();
    // The transcriber for a dictation: Parakeet for an installed Parakeet engine, else the
    // built-in engine with the "language" setting and the user's vocabulary.
    std::unique_ptr<Transcriber> makeTranscriber(bool live) const;

    // Starts downloading a hub engine; does nothing for other engines or while it downloads.
    void install(const Engine &engine);
    // Cancels its download, deletes a downloaded model, forgets a custom engine. A local
    // folder is never touched; the built-in engine is left alone.
    void remove(const Engine &engine);
    // Adds an engine for a hub repository ("owner/name") and starts its download; the name
    // defaults to the repository's name.
    void addHub(const QString &repository, const QString &name);
    // Adds an engine that uses a model folder in place, and selects it; the name defaults to
    // the folder's name.
    void addLocal(const QString &folder, const QString &name);

signals:
    void enginesChanged();
    void stateChanged(const QString &id);
    void sizeChanged(const QString &id);
    void lastErrorChanged();
    void selectedChanged();
    // A download started or ended.
    void jobsChanged();

private:
    void refresh(const Engine &engine);
    void measureSize(const QString &id, const QString &folder);
    void registerEngine(const Engine &engine);
    void persistCustom();
    void onDownloadProgress(const QString &id, ModelDownload *download, double fraction);
    void onDownloadFinished(const Engine &engine, ModelDownload *download);

    void setState(const QString &id, const ModelState &state);
    void removeState(const QString &id);
    void setSize(const QString &id, const QString &size);
    void removeSize(const QString &id);
    void setLastError(const QString &message);
    const Engine &selectedEngine() const;
    static std::vector<Engine> storedCustomEngines();
    static QString newCustomId();

    const ModelDownloadFactory m_downloads;
    const bool m_preload;
    const bool m_preloadBuiltIn;
    const QString m_root;
    std::vector<Engine> m_engines;
    QHash<QString, ModelState> m_states;
    QHash<QString, QString> m_sizes;
    QString m_lastError;
    QString m_selected;
    std::map<QString, QPointer<ModelDownload>> m_jobs;
};

} // namespace vocari
