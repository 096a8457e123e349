#include "ui/ModelsTab.h"

#include "app/AppModel.h"
#include "models/ModelStore.h"
#include "ui/AddModelDialog.h"
#include "ui/EngineRow.h"
#include "ui/FileBrowser.h"
#include "ui/FormSection.h"
#include "ui/ModelIcons.h"

#include <QDir>
#include <QEvent>
#include <QFrame>
#include <QHBoxLayout>
#include <QLabel>
#include <QScrollArea>
#include <QToolButton>
#include <QVBoxLayout>
#include <functional>

namespace vocari {

namespace {

const QString kFooter = QStringLiteral(
    "Models run entirely on this computer. Downloads come straight from Hugging Face when you "
    "ask for them, and can be removed at any time. Parakeet transcribes each phrase after a "
    "short pause, and finishes within a second or two of you stopping.");

QToolButton *makeHeaderButton(const QString &objectName, const QString &text, QWidget *parent)
{
    auto *button = new QToolButton(parent);
    button->setObjectName(objectName);
    button->setText(text);
    button->setAccessibleName(text);
    button->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
    button->setAutoRaise(true);
    button->setFocusPolicy(Qt::StrongFocus);
    return button;
}

// A watcher of the tab's palette: icons and colours are drawn from it.
class PaletteWatcher : public QObject
{
public:
    PaletteWatcher(QWidget *watched, std::function<void()> changed)
        : QObject(watched), m_changed(std::move(changed))
    {
        watched->installEventFilter(this);
    }
    bool eventFilter(QObject *, QEvent *event) override
    {
        if (event->type() == QEvent::PaletteChange)
            m_changed();
        return false;
    }

private:
    std::function<void()> m_changed;
};

} // namespace

ModelsTab::ModelsTab(AppModel &model, QWidget *parent)
    : QWidget(parent), m_store(model.models()), m_files(std::make_shared<FileBrowser>())
{
    setObjectName(QStringLiteral("ModelsTab"));
    auto *layout = new QVBoxLayout(this);

    auto *header = new QHBoxLayout;
    auto *title = new QLabel(QStringLiteral("Speech engines"), this);
    QFont bold = title->font();
    bold.setWeight(QFont::DemiBold);
    title->setFont(bold);
    header->addWidget(title);
    header->addStretch();
    m_showInFiles =
        makeHeaderButton(QStringLiteral("showModelsFolder"), QStringLiteral("Show in Files"), this);
    m_addModel = makeHeaderButton(QStringLiteral("addModel"), QStringLiteral("Add model…"), this);
    header->addWidget(m_showInFiles);
    header->addWidget(m_addModel);
    layout->addLayout(header);
    connect(m_showInFiles, &QToolButton::clicked, this, &ModelsTab::showModelsFolder);
    connect(m_addModel, &QToolButton::clicked, this, &ModelsTab::openAddModel);

    auto *scroll = new QScrollArea(this);
    scroll->setObjectName(QStringLiteral("engines"));
    scroll->setWidgetResizable(true);
    scroll->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    scroll->setFocusPolicy(Qt::NoFocus);
    m_rowsHost = new QWidget(scroll);
    m_rowsHost->setAccessibleName(QStringLiteral("Speech engines"));
    m_rows = new QVBoxLayout(m_rowsHost);
    m_rows->setContentsMargins(0, 0, 0, 0);
    m_rows->setSpacing(0);
    scroll->setWidget(m_rowsHost);
    layout->addWidget(scroll, 1);

    m_error = new QLabel(this);
    m_error->setObjectName(QStringLiteral("lastError"));
    m_error->setWordWrap(true);
    m_error->setTextInteractionFlags(Qt::TextSelectableByMouse);
    layout->addWidget(m_error);

    QLabel *footer = footerLabel(kFooter, this);
    layout->addWidget(footer);

    new PaletteWatcher(this, [this, footer] {
        updateIcons();
        footer->setPalette(ModelIcons::secondaryPalette(palette()));
        updateError();
    });
    footer->setPalette(ModelIcons::secondaryPalette(palette()));
    updateIcons();

    connect(&m_store, &ModelStore::enginesChanged, this, &ModelsTab::syncRows);
    connect(&m_store, &ModelStore::lastErrorChanged, this, &ModelsTab::updateError);
    syncRows();
    updateError();
}

ModelsTab::~ModelsTab() = default;

void ModelsTab::setFileBrowser(std::shared_ptr<FileBrowser> files)
{
    m_files = std::move(files);
}

EngineRow *ModelsTab::row(const QString &id) const
{
    const auto it = m_rowsById.find(id);
    return it == m_rowsById.end() ? nullptr : it->second.data();
}

AddModelDialog *ModelsTab::addModelDialog() const
{
    return m_dialog;
}

void ModelsTab::syncRows()
{
    // Rows of engines that are still listed stay as they are (with the keyboard focus);
    // rows of removed engines go once the click that removed them has been handled.
    std::map<QString, QPointer<EngineRow>> kept;
    for (const Engine &engine : m_store.engines()) {
        auto it = m_rowsById.find(engine.id);
        if (it != m_rowsById.end() && it->second) {
            kept.emplace(engine.id, it->second);
            m_rowsById.erase(it);
            continue;
        }
        auto *row = new EngineRow(m_store, engine, m_rowsHost);
        connect(row, &EngineRow::showInFilesRequested, this,
                [this](const QString &folder) { m_files->reveal(folder); });
        kept.emplace(engine.id, row);
    }
    for (auto &[id, row] : m_rowsById) {
        if (row) {
            row->hide();
            row->deleteLater();
        }
    }
    m_rowsById = std::move(kept);

    while (QLayoutItem *item = m_rows->takeAt(0)) {
        if (auto *line = qobject_cast<QFrame *>(item->widget());
            line && !qobject_cast<EngineRow *>(line))
            line->deleteLater();
        delete item;
    }
    bool first = true;
    for (const Engine &engine : m_store.engines()) {
        if (!first) {
            auto *line = new QFrame(m_rowsHost);
            line->setFrameShape(QFrame::HLine);
            line->setFrameShadow(QFrame::Sunken);
            m_rows->addWidget(line);
            line->show();
        }
        first = false;
        // Shown at once, not only when the event loop next runs: a row added while the tab is
        // open is there for the next key press.
        EngineRow *engineRow = m_rowsById.at(engine.id);
        m_rows->addWidget(engineRow);
        engineRow->show();
    }
    m_rows->addStretch();
}

void ModelsTab::updateError()
{
    const QString message = m_store.lastError();
    QPalette red = palette();
    red.setColor(QPalette::WindowText, ModelIcons::errorColor(red));
    m_error->setPalette(red);
    m_error->setText(message);
    m_error->setVisible(!message.isEmpty());
}

void ModelsTab::showModelsFolder()
{
    // The folder exists only once something was downloaded; the file browser needs it now.
    const QString root = m_store.modelsRoot();
    QDir().mkpath(root);
    m_files->openFolder(root);
}

void ModelsTab::openAddModel()
{
    if (m_dialog) {
        m_dialog->raise();
        m_dialog->activateWindow();
        return;
    }
    // A fresh dialog each time: nothing typed before is kept.
    m_dialog = new AddModelDialog(m_store, this);
    m_dialog->setAttribute(Qt::WA_DeleteOnClose);
    m_dialog->open();
}

void ModelsTab::updateIcons()
{
    const QColor accent = ModelIcons::accentColor(palette());
    m_showInFiles->setIcon(ModelIcons::icon(ModelIcons::Symbol::folder, accent));
    m_addModel->setIcon(ModelIcons::icon(ModelIcons::Symbol::add, accent));
}

} // namespace vocari
