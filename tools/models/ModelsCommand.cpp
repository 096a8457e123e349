#include "ModelsCommand.h"

#include "ProgressBar.h"
#include "models/ModelFolders.h"
#include "models/ModelStore.h"

#include <QEventLoop>
#include <QSocketNotifier>
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <sys/socket.h>
#include <unistd.h>

namespace vocari {

namespace {

void print(FILE *out, const QString &line)
{
    std::fprintf(out, "%s\n", qPrintable(line));
    std::fflush(out);
}

QString stripTrailingSpaces(QString text)
{
    while (text.endsWith(QLatin1Char(' ')))
        text.chop(1);
    return text;
}

// Turns SIGINT and SIGTERM into a readable socket for as long as it lives, so that an
// interrupted download is cancelled (and cleaned up) instead of killing the process.
class InterruptGuard
{
public:
    InterruptGuard()
    {
        if (::socketpair(AF_UNIX, SOCK_STREAM, 0, s_pipe) != 0)
            return;
        struct sigaction action
        {
        };
        action.sa_handler = [](int) {
            const char byte = 1;
            [[maybe_unused]] const auto written = ::write(s_pipe[0], &byte, 1);
        };
        sigemptyset(&action.sa_mask);
        action.sa_flags = SA_RESTART;
        ::sigaction(SIGINT, &action, &m_previousInt);
        ::sigaction(SIGTERM, &action, &m_previousTerm);
        m_notifier.emplace(s_pipe[1], QSocketNotifier::Read);
        m_active = true;
    }
    ~InterruptGuard()
    {
        if (!m_active)
            return;
        ::sigaction(SIGINT, &m_previousInt, nullptr);
        ::sigaction(SIGTERM, &m_previousTerm, nullptr);
        m_notifier.reset();
        ::close(s_pipe[0]);
        ::close(s_pipe[1]);
    }
    QSocketNotifier *notifier() { return m_notifier ? &*m_notifier : nullptr; }

private:
    static inline int s_pipe[2] = {-1, -1};
    struct sigaction m_previousInt
    {
    };
    struct sigaction m_previousTerm
    {
    };
    std::optional<QSocketNotifier> m_notifier;
    bool m_active = false;
};

} // namespace

ModelsCommand::ModelsCommand(ModelStore &store) : m_store(store) {}

int ModelsCommand::fail(const QString &message)
{
    print(stderr, QStringLiteral("vocari-models: ") + message);
    return 1;
}

std::optional<Engine> ModelsCommand::find(const QString &id) const
{
    std::optional<Engine> engine = m_store.engine(id);
    if (!engine)
        fail(QStringLiteral("There is no engine \u201c%1\u201d; \u201cvocari-models list\u201d "
                            "shows them.")
                 .arg(id));
    return engine;
}

QString ModelsCommand::stateText(const Engine &engine) const
{
    const ModelState state = m_store.state(engine.id);
    switch (state.kind()) {
    case ModelState::Kind::Installed:
        return QStringLiteral("installed");
    case ModelState::Kind::NotInstalled:
        return QStringLiteral("not installed");
    case ModelState::Kind::Downloading:
        return QStringLiteral("downloading %1%").arg(int(state.fraction() * 100));
    }
    return {};
}

QString ModelsCommand::sizeText(const Engine &engine) const
{
    const std::optional<QString> folder = m_store.modelFolder(engine);
    if (folder && m_store.state(engine.id).isInstalled())
        return ModelFolders::diskSize(*folder);
    return engine.sizeLabel;
}

int ModelsCommand::list() const
{
    struct Row
    {
        QString mark, id, state, size, name, origin;
    };
    std::vector<Row> rows{{QString(), QStringLiteral("ID"), QStringLiteral("STATE"),
                           QStringLiteral("SIZE"), QStringLiteral("NAME"),
                           QStringLiteral("SOURCE")}};
    for (const Engine &engine : m_store.engines()) {
        QString origin;
        if (engine.source.isHub())
            origin = QStringLiteral("hub: ") + engine.source.payload();
        else if (engine.source.isLocal())
            origin = QStringLiteral("folder: ") + engine.source.payload();
        rows.push_back({engine.id == m_store.selected() ? QStringLiteral("*") : QString(),
                        engine.id, stateText(engine), sizeText(engine), engine.name, origin});
    }
    qsizetype idWidth = 0, stateWidth = 0, sizeWidth = 0, nameWidth = 0;
    for (const Row &row : rows) {
        idWidth = std::max(idWidth, row.id.size());
        stateWidth = std::max(stateWidth, row.state.size());
        sizeWidth = std::max(sizeWidth, row.size.size());
        nameWidth = std::max(nameWidth, row.name.size());
    }
    for (const Row &row : rows) {
        const QString line = row.mark.leftJustified(2) + row.id.leftJustified(idWidth + 2) +
                             row.state.leftJustified(stateWidth + 2) +
                             row.size.leftJustified(sizeWidth + 2) +
                             row.name.leftJustified(nameWidth + 2) + row.origin;
        print(stdout, stripTrailingSpaces(line));
    }
    return 0;
}

int ModelsCommand::install(const QString &id)
{
    const std::optional<Engine> engine = find(id);
    if (!engine)
        return 1;
    if (engine->source.isSystem())
        return fail(
            QStringLiteral("%1 is built in; there is nothing to download.").arg(engine->name));
    if (engine->source.isLocal())
        return fail(QStringLiteral("%1 uses a folder in place; there is nothing to download.")
                        .arg(engine->name));
    m_store.install(*engine);
    if (!m_store.isDownloading(engine->id))
        return fail(m_store.lastError().isEmpty()
                        ? QStringLiteral("The download of %1 could not start.").arg(engine->name)
                        : m_store.lastError());
    return followDownload(*engine);
}

int ModelsCommand::followDownload(const Engine &engine)
{
    ProgressBar bar(stderr, QStringLiteral("Downloading %1").arg(engine.name));
    bar.update(0.0);
    bool interrupted = false;
    QEventLoop loop;
    InterruptGuard interrupts;
    if (QSocketNotifier *notifier = interrupts.notifier()) {
        QObject::connect(notifier, &QSocketNotifier::activated, &loop, [&] {
            interrupted = true;
            m_store.cancelDownload(engine.id);
        });
    }
    QObject::connect(&m_store, &ModelStore::stateChanged, &loop, [&](const QString &id) {
        const ModelState state = m_store.state(engine.id);
        if (id == engine.id && state.isDownloading())
            bar.update(state.fraction());
    });
    QObject::connect(&m_store, &ModelStore::jobsChanged, &loop, [&] {
        if (!m_store.isDownloading(engine.id))
            loop.quit();
    });
    if (m_store.isDownloading(engine.id))
        loop.exec();
    bar.finish();

    if (!m_store.lastError().isEmpty())
        return fail(m_store.lastError());
    if (interrupted) {
        print(stderr, QStringLiteral("vocari-models: The download was cancelled; nothing was "
                                     "changed."));
        return 130;
    }
    const std::optional<QString> folder = m_store.modelFolder(engine);
    if (!m_store.state(engine.id).isInstalled()) {
        return fail(QStringLiteral("The download finished, but the model is incomplete. "
                                   "Missing: %1.")
                        .arg(ModelFolders::missingFiles(folder.value_or(QString()))
                                 .join(QStringLiteral(", "))));
    }
    print(stdout, QStringLiteral("Installed %1 (%2) in %3; it is now selected.")
                      .arg(engine.name, engine.id, folder.value_or(QString())));
    return 0;
}

int ModelsCommand::remove(const QString &id)
{
    const std::optional<Engine> engine = find(id);
    if (!engine)
        return 1;
    if (engine->source.isSystem())
        return fail(QStringLiteral("%1 is built in and can't be removed.").arg(engine->name));
    const bool installed = m_store.state(engine->id).isInstalled();
    if (!engine->custom && !installed)
        return fail(QStringLiteral("%1 isn't installed.").arg(engine->name));

    m_store.remove(*engine);
    if (engine->source.isLocal())
        print(stdout, QStringLiteral("Removed %1 from the list; its folder was left as it was.")
                          .arg(engine->name));
    else if (engine->custom)
        print(stdout, QStringLiteral("Deleted %1 and removed it from the list.").arg(engine->name));
    else
        print(stdout, QStringLiteral("Deleted the download of %1.").arg(engine->name));
    return 0;
}

int ModelsCommand::addFolder(const QString &folder, const QString &name)
{
    const size_t before = m_store.engines().size();
    m_store.addLocal(folder, name);
    if (m_store.engines().size() == before)
        return fail(m_store.lastError());
    const Engine &added = m_store.engines().back();
    print(stdout, QStringLiteral("Added %1 (%2) and selected it.").arg(added.name, added.id));
    return 0;
}

int ModelsCommand::addHub(const QString &repository, const QString &name)
{
    const size_t before = m_store.engines().size();
    m_store.addHub(repository, name);
    if (m_store.engines().size() == before)
        return fail(m_store.lastError());
    const Engine added = m_store.engines().back();
    print(stdout, QStringLiteral("Added %1 (%2).").arg(added.name, added.id));
    return followDownload(added);
}

int ModelsCommand::select(const QString &id)
{
    const std::optional<Engine> engine = find(id);
    if (!engine)
        return 1;
    if (!m_store.state(engine->id).isInstalled()) {
        if (engine->source.isLocal()) {
            const QStringList missing = ModelFolders::missingFiles(engine->source.payload());
            return fail(QStringLiteral("%1 can't be used: its folder lacks %2.")
                            .arg(engine->name, missing.join(QStringLiteral(", "))));
        }
        return fail(QStringLiteral("%1 isn't installed; \u201cvocari-models install %2\u201d "
                                   "downloads it.")
                        .arg(engine->name, engine->id));
    }
    m_store.setSelected(engine->id);
    print(stdout, QStringLiteral("Selected %1.").arg(engine->name));
    return 0;
}

} // namespace vocari
