#include "models/ModelStore.h"

#include "engines/Transcriber.h"
#include "engines/parakeet/ParakeetRuntime.h"
#include "engines/parakeet/ParakeetTranscriber.h"
#include "engines/system/SystemTranscriber.h"
#include "models/HubDownload.h"
#include "models/ModelFolders.h"
#include "settings/Preferences.h"
#include "settings/SettingsStore.h"
#include "text/Vocabulary.h"

#include <QDir>
#include <QFileInfo>
#include <QFutureWatcher>
#include <QJsonDocument>
#include <QLoggingCategory>
#include <QSet>
#include <QUuid>
#include <QtConcurrent>
#include <algorithm>

namespace vocari {

Q_LOGGING_CATEGORY(lcModels, "vocari.models", QtInfoMsg)

namespace {

const QString kRepositoryExample = QStringLiteral("istupakov/parakeet-tdt-0.6b-v3-onnx");

ModelDownloadFactory hubDownloads()
{
    return [](const QString &repository, const QString &folder) -> ModelDownload * {
        return new HubDownload(HubEndpoint::fromEnvironment(), repository, folder);
    };
}

} // namespace

ModelStore::ModelStore(QObject *parent) : ModelStore(Options(), parent) {}

ModelStore::ModelStore(Options options, QObject *parent)
    : QObject(parent),
      m_downloads(options.downloads ? std::move(options.downloads) : hubDownloads()),
      m_preload(options.preload), m_preloadBuiltIn(options.preloadBuiltIn),
      m_root(ModelFolders::root())
{
    m_engines = Engine::builtIn();
    for (Engine &engine : storedCustomEngines())
        m_engines.push_back(std::move(engine));

    // The stored choice is taken as it is for now; it is written back only if it falls back.
    m_selected = Preferences::engine();
    for (const Engine &engine : m_engines) {
        // A run killed in the middle of a download leaves its staging folder, or in the middle
        // of replacing a model, the old one set aside.
        if (const std::optional<QString> folder = modelFolder(engine);
            folder && engine.source.isHub())
            ModelFolders::recover(*folder);
        refresh(engine);
    }
    if (!state(m_selected).isInstalled()) {
        qCInfo(lcModels) << "the selected engine" << m_selected
                         << "is not installed; using the built-in engine";
        setSelected(Engine::systemId);
    }
}

ModelStore::~ModelStore()
{
    // Downloads still running are abandoned: each deletes its staging folder as it goes.
    for (auto &[id, download] : m_jobs) {
        if (download)
            download->disconnect(this);
    }
}

std::optional<Engine> ModelStore::engine(const QString &id) const
{
    const auto it = std::find_if(m_engines.begin(), m_engines.end(),
                                 [&](const Engine &engine) { return engine.id == id; });
    if (it == m_engines.end())
        return std::nullopt;
    return *it;
}

ModelState ModelStore::state(const QString &id) const
{
    return m_states.value(id, ModelState::notInstalled());
}

void ModelStore::setSelected(const QString &id)
{
    if (m_selected != id) {
        m_selected = id;
        emit selectedChanged();
    }
    SettingsStore::shared().setValue(QString::fromLatin1(SettingsKey::engine), id);
    warmSelected();
}

void ModelStore::cancelDownload(const QString &id)
{
    const auto it = m_jobs.find(id);
    if (it != m_jobs.end() && it->second)
        it->second->cancel();
}

std::optional<QString> ModelStore::modelFolder(const Engine &engine) const
{
    return ModelFolders::folderOf(engine, m_root);
}

QStringList ModelStore::missingFiles(const QString &folder)
{
    return ModelFolders::missingFiles(folder);
}

QString ModelStore::diskSize(const QString &folder)
{
    return ModelFolders::diskSize(folder);
}

void ModelStore::warmSelected()
{
    const Engine &engine = selectedEngine();
    const std::optional<QString> folder = modelFolder(engine);
    if (!m_preload)
        return;
    if (folder && state(engine.id).isInstalled())
        ParakeetRuntime::shared().warmUp(*folder);
    else if (m_preloadBuiltIn)
        warmSystemEngine(Preferences::language());
}

std::unique_ptr<Transcriber> ModelStore::makeTranscriber(bool live) const
{
    const Engine &engine = selectedEngine();
    const std::optional<QString> folder = modelFolder(engine);
    if (folder && state(engine.id).isInstalled())
        return std::make_unique<ParakeetTranscriber>(*folder, live);
    // The built-in engine, also while a selected Parakeet model is missing or downloading.
    return makeSystemTranscriber(Preferences::language(), Preferences::vocabulary());
}

void ModelStore::install(const Engine &engine)
{
    const std::optional<QString> folder = modelFolder(engine);
    if (!engine.source.isHub() || !folder || m_jobs.count(engine.id) > 0)
        return;

    setLastError({});
    setState(engine.id, ModelState::downloading(0.0));
    QPointer<ModelDownload> download = m_downloads(engine.source.payload(), *folder);
    if (!download)
        return;
    download->setParent(this);
    m_jobs.emplace(engine.id, download);
    connect(download, &ModelDownload::progressed, this,
            [this, id = engine.id, download](double fraction) {
                onDownloadProgress(id, download, fraction);
            });
    connect(download, &ModelDownload::finished, this,
            [this, engine, download] { onDownloadFinished(engine, download); });
    qCInfo(lcModels) << "downloading" << engine.id << "from" << engine.source.payload();
    emit jobsChanged();
    download->start();
}

void ModelStore::onDownloadProgress(const QString &id, ModelDownload *download, double fraction)
{
    // A report that comes after the download ended, or from a download that was replaced,
    // must not turn a finished state back into a download.
    const auto job = m_jobs.find(id);
    if (job == m_jobs.end() || job->second != download || !state(id).isDownloading())
        return;
    setState(id, ModelState::downloading(std::clamp(fraction, 0.0, 1.0)));
}

void ModelStore::onDownloadFinished(const Engine &engine, ModelDownload *download)
{
    const auto job = m_jobs.find(engine.id);
    if (job == m_jobs.end() || job->second != download)
        return;
    m_jobs.erase(job);
    download->deleteLater();

    const std::optional<DownloadError> error = download->error();
    // The engine may have been removed from the list while its download was ending.
    const bool known = this->engine(engine.id).has_value();
    if (!error) {
        // The runtime may still hold the networks of the model this download replaced.
        ParakeetRuntime::shared().unload();
        if (known) {
            refresh(engine);
            // A finished download selects its engine, even if the model turned out
            // incomplete; the built-in engine stands in until it is installed.
            setSelected(engine.id);
        }
    } else {
        // A failed or cancelled download leaves the folder as it was: not installed after a
        // first download, still installed when an intact model was being replaced.
        if (known)
            refresh(engine);
        if (!error->isCancelled())
            setLastError(error->message());
    }
    emit jobsChanged();
}

void ModelStore::remove(const Engine &engine)
{
    if (engine.source.isSystem())
        return;
    cancelDownload(engine.id);
    if (m_selected == engine.id)
        setSelected(Engine::systemId);
    if (engine.source.isHub()) {
        // A link in the folder's place goes itself, never what it points to; leftovers of an
        // interrupted download go too.
        if (const std::optional<QString> folder = modelFolder(engine)) {
            ModelFolders::removeEntry(*folder);
            ModelFolders::recover(*folder);
        }
    }
    if (engine.custom) {
        const auto removed = std::remove_if(m_engines.begin(), m_engines.end(),
                                            [&](const Engine &e) { return e.id == engine.id; });
        if (removed != m_engines.end()) {
            m_engines.erase(removed, m_engines.end());
            emit enginesChanged();
        }
        removeState(engine.id);
        removeSize(engine.id);
        persistCustom();
    } else {
        setState(engine.id, ModelState::notInstalled());
        removeSize(engine.id);
    }
    // The runtime may hold the networks of the deleted folder; the next dictation loads anew.
    ParakeetRuntime::shared().unload();
}

void ModelStore::addHub(const QString &repository, const QString &name)
{
    const QString trimmed = repository.trimmed();
    const QStringList pieces = trimmed.split(QLatin1Char('/'), Qt::SkipEmptyParts);
    const bool hasSpace =
        std::any_of(trimmed.begin(), trimmed.end(), [](QChar c) { return c.isSpace(); });
    if (pieces.size() != 2 || hasSpace) {
        setLastError(QStringLiteral("Enter a repository as owner/name, for example %1.")
                         .arg(kRepositoryExample));
        return;
    }
    for (const Engine &engine : m_engines) {
        if (engine.source.isHub() && engine.source.payload() == trimmed) {
            setLastError(engine.name + QStringLiteral(" already uses that repository."));
            return;
        }
    }
    Engine engine{newCustomId(),
                  name.isEmpty() ? pieces.at(1) : name,
                  trimmed,
                  QStringLiteral("Custom"),
                  Engine::Source::hub(trimmed),
                  true,
                  std::nullopt};
    registerEngine(engine);
    install(engine);
}

void ModelStore::addLocal(const QString &folder, const QString &name)
{
    const QString path = QDir::cleanPath(QFileInfo(folder).absoluteFilePath());
    const QStringList missing = missingFiles(path);
    if (!missing.isEmpty()) {
        setLastError(QStringLiteral("That folder isn't a compatible model. Missing: ") +
                     missing.join(QStringLiteral(", ")) + QLatin1Char('.'));
        return;
    }
    Engine engine{newCustomId(),
                  name.isEmpty() ? QFileInfo(path).fileName() : name,
                  path,
                  QStringLiteral("Custom"),
                  Engine::Source::local(path),
                  true,
                  std::nullopt};
    registerEngine(engine);
    refresh(engine);
    setSelected(engine.id);
}

void ModelStore::refresh(const Engine &engine)
{
    if (engine.source.isSystem()) {
        setState(engine.id, ModelState::installed());
        return;
    }
    const std::optional<QString> folder = modelFolder(engine);
    // The models folder holds only what downloads put there: a link or a file in a hub
    // engine's place is foreign and is not loaded, measured or counted as installed.
    const bool installed = folder &&
                           (!engine.source.isHub() || ModelFolders::isRealFolder(*folder)) &&
                           missingFiles(*folder).isEmpty();
    setState(engine.id, installed ? ModelState::installed() : ModelState::notInstalled());
    removeSize(engine.id);
    if (installed)
        measureSize(engine.id, *folder);
}

void ModelStore::measureSize(const QString &id, const QString &folder)
{
    auto *watcher = new QFutureWatcher<QString>(this);
    connect(watcher, &QFutureWatcher<QString>::finished, this, [this, watcher, id] {
        watcher->deleteLater();
        // Only an engine that is still installed shows a size; a removal or a new download
        // since the measurement has made it stale.
        if (state(id).isInstalled())
            setSize(id, watcher->result());
    });
    watcher->setFuture(QtConcurrent::run(&ModelFolders::diskSize, folder));
}

void ModelStore::registerEngine(const Engine &engine)
{
    setLastError({});
    m_engines.push_back(engine);
    emit enginesChanged();
    setState(engine.id, ModelState::notInstalled());
    persistCustom();
}

void ModelStore::persistCustom()
{
    std::vector<Engine> custom;
    std::copy_if(m_engines.begin(), m_engines.end(), std::back_inserter(custom),
                 [](const Engine &engine) { return engine.custom; });
    SettingsStore::shared().setValue(QString::fromLatin1(SettingsKey::customEngines),
                                     Engine::listToJsonArray(custom));
}

void ModelStore::setState(const QString &id, const ModelState &state)
{
    const auto it = m_states.constFind(id);
    if (it != m_states.constEnd() && *it == state)
        return;
    m_states.insert(id, state);
    emit stateChanged(id);
}

void ModelStore::removeState(const QString &id)
{
    if (m_states.remove(id) > 0)
        emit stateChanged(id);
}

void ModelStore::setSize(const QString &id, const QString &size)
{
    const auto it = m_sizes.constFind(id);
    if (it != m_sizes.constEnd() && *it == size)
        return;
    m_sizes.insert(id, size);
    emit sizeChanged(id);
}

void ModelStore::removeSize(const QString &id)
{
    if (m_sizes.remove(id) > 0)
        emit sizeChanged(id);
}

void ModelStore::setLastError(const QString &message)
{
    if (m_lastError == message)
        return;
    m_lastError = message;
    emit lastErrorChanged();
}

const Engine &ModelStore::selectedEngine() const
{
    const auto it = std::find_if(m_engines.begin(), m_engines.end(),
                                 [&](const Engine &engine) { return engine.id == m_selected; });
    return it != m_engines.end() ? *it : Engine::defaultEngine();
}

std::vector<Engine> ModelStore::storedCustomEngines()
{
    QJsonValue stored = Preferences::customEngines();
    // A hand-edited settings file may hold the list as JSON text instead of the value itself.
    if (stored.isString())
        stored = QJsonDocument::fromJson(stored.toString().toUtf8()).array();
    if (stored.isUndefined() || stored.isNull())
        return {};
    try {
        std::vector<Engine> engines = Engine::listFromJson(stored);
        // Only the user's own engines belong here, each id once, none taking a built-in's id:
        // the state tables and the selection go by id.
        QSet<QString> seen;
        for (const Engine &builtIn : Engine::builtIn())
            seen.insert(builtIn.id);
        std::erase_if(engines, [&](const Engine &engine) {
            const bool keep =
                engine.custom && !engine.source.isSystem() && !seen.contains(engine.id);
            seen.insert(engine.id);
            return !keep;
        });
        return engines;
    } catch (const EngineDecodeError &error) {
        // The stored text stays as it is until the next change of the list replaces it.
        qCWarning(lcModels) << "ignoring the stored custom engines:" << error.message();
        return {};
    }
}

QString ModelStore::newCustomId()
{
    return QStringLiteral("custom-") +
           QUuid::createUuid().toString(QUuid::WithoutBraces).left(8).toLower();
}

} // namespace vocari
