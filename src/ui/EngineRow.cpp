#include "ui/EngineRow.h"

#include "models/ModelStore.h"
#include "ui/FlowLayout.h"
#include "ui/ModelIcons.h"

#include <QAction>
#include <QApplication>
#include <QContextMenuEvent>
#include <QHBoxLayout>
#include <QLabel>
#include <QMenu>
#include <QProgressBar>
#include <QPushButton>
#include <QToolButton>
#include <QVBoxLayout>
#include <algorithm>
#include <cmath>

namespace vocari {

namespace {

constexpr int kSelectIconSize = 20;
constexpr int kProgressWidth = 90;

using ModelIcons::Symbol;

// A one-line label that shortens its text where it does not fit: in the middle for a
// repository name or path (so that both ends stay), at the end for a name. The whole text is
// in its tooltip and accessible name.
class ElidedLabel : public QLabel
{
public:
    ElidedLabel(const QString &text, Qt::TextElideMode mode, QWidget *parent)
        : QLabel(parent), m_full(text), m_mode(mode)
    {
        setToolTip(text);
        setAccessibleName(text);
        setText(text);
    }
    QSize sizeHint() const override
    {
        return {fontMetrics().horizontalAdvance(m_full) + 2, QLabel::sizeHint().height()};
    }
    QSize minimumSizeHint() const override
    {
        return {fontMetrics().horizontalAdvance(QStringLiteral("W…W")),
                QLabel::minimumSizeHint().height()};
    }

protected:
    void resizeEvent(QResizeEvent *event) override
    {
        QLabel::resizeEvent(event);
        setText(fontMetrics().elidedText(m_full, m_mode, width()));
    }

private:
    QString m_full;
    Qt::TextElideMode m_mode;
};

QFont smallerFont(const QFont &base, qreal factor, QFont::Weight weight)
{
    QFont font = base;
    font.setPointSizeF(base.pointSizeF() * factor);
    font.setWeight(weight);
    return font;
}

void useSecondaryText(QWidget *widget)
{
    widget->setPalette(ModelIcons::secondaryPalette(widget->palette()));
}

// A small rounded label in the secondary colour on a faint fill: the "Custom" badge and the
// tags.
QLabel *makeCapsule(const QString &text, int horizontalPadding, int verticalPadding,
                    QWidget *parent)
{
    auto *label = new QLabel(text, parent);
    label->setFont(smallerFont(parent->font(), 0.82, QFont::Medium));
    QColor fill = parent->palette().color(QPalette::WindowText);
    fill.setAlphaF(0.09);
    const QColor textColor = ModelIcons::secondaryColor(parent->palette());
    label->setStyleSheet(QStringLiteral("QLabel { background-color: rgba(%1, %2, %3, %4); "
                                        "color: %5; border-radius: 7px; padding: %6px %7px; }")
                             .arg(fill.red())
                             .arg(fill.green())
                             .arg(fill.blue())
                             .arg(fill.alphaF())
                             .arg(textColor.name())
                             .arg(verticalPadding)
                             .arg(horizontalPadding));
    label->setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Fixed);
    return label;
}

QToolButton *makeIconButton(const QString &objectName, const QString &toolTip,
                            const QString &accessibleName, QWidget *parent)
{
    auto *button = new QToolButton(parent);
    button->setObjectName(objectName);
    button->setAutoRaise(true);
    button->setFocusPolicy(Qt::StrongFocus);
    button->setToolTip(toolTip);
    button->setAccessibleName(accessibleName);
    return button;
}

} // namespace

EngineRow::EngineRow(ModelStore &store, Engine engine, QWidget *parent)
    : QFrame(parent), m_store(store), m_engine(std::move(engine))
{
    setObjectName(m_engine.id);
    setAccessibleName(m_engine.name);
    setAccessibleDescription(m_engine.summary);

    auto *layout = new QHBoxLayout(this);
    layout->setContentsMargins(8, 4, 8, 4);
    layout->setSpacing(12);

    m_select =
        makeIconButton(QStringLiteral("select"), {}, QStringLiteral("Use ") + m_engine.name, this);
    m_select->setCheckable(true);
    m_select->setIconSize({kSelectIconSize, kSelectIconSize});
    // The check mark shows the selection; the button keeps no pressed look of its own, only a
    // ring while it has the keyboard focus.
    m_select->setStyleSheet(
        QStringLiteral("QToolButton { border: 2px solid transparent; "
                       "border-radius: 6px; padding: 1px; } "
                       "QToolButton:focus { border-color: palette(highlight); }"));
    connect(m_select, &QToolButton::clicked, this, [this] {
        m_store.setSelected(m_engine.id);
        // A click on the engine already in use changes nothing in the store, but it has
        // toggled the button.
        refresh();
    });
    layout->addWidget(m_select, 0, Qt::AlignVCenter);
    layout->addWidget(makeTextColumn(), 1);
    layout->addWidget(makeTrailing(), 0, Qt::AlignVCenter);

    updateIcons();

    const auto mine = [this](const QString &id) {
        if (id == m_engine.id)
            refresh();
    };
    connect(&m_store, &ModelStore::stateChanged, this, mine);
    connect(&m_store, &ModelStore::sizeChanged, this, mine);
    connect(&m_store, &ModelStore::selectedChanged, this, &EngineRow::refresh);
    connect(&m_store, &ModelStore::jobsChanged, this, &EngineRow::refresh);
    refresh();
}

QWidget *EngineRow::makeTextColumn()
{
    auto *column = new QWidget(this);
    auto *layout = new QVBoxLayout(column);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(2);

    auto *nameLine = new QHBoxLayout;
    nameLine->setSpacing(6);
    auto *name = new ElidedLabel(m_engine.name, Qt::ElideRight, column);
    name->setObjectName(QStringLiteral("name"));
    QFont headline = name->font();
    headline.setWeight(QFont::DemiBold);
    name->setFont(headline);
    nameLine->addWidget(name);
    if (m_engine.custom) {
        QLabel *badge = makeCapsule(QStringLiteral("Custom"), 6, 1, column);
        badge->setObjectName(QStringLiteral("badge"));
        nameLine->addWidget(badge);
    }
    nameLine->addStretch();
    layout->addLayout(nameLine);

    QLabel *summary = nullptr;
    if (m_engine.custom) {
        summary = new ElidedLabel(m_engine.summary, Qt::ElideMiddle, column);
    } else {
        summary = new QLabel(m_engine.summary, column);
        summary->setWordWrap(true);
    }
    summary->setObjectName(QStringLiteral("summary"));
    summary->setFont(smallerFont(font(), 0.92, QFont::Normal));
    useSecondaryText(summary);
    layout->addWidget(summary);

    if (m_engine.tags && !m_engine.tags->isEmpty()) {
        layout->addSpacing(3);
        // The tags wrap rather than widen the window.
        auto *tags = new QWidget(column);
        auto *flow = new FlowLayout(tags, 6, 4);
        for (const QString &tag : *m_engine.tags)
            flow->addWidget(makeCapsule(tag, 7, 2, tags));
        layout->addWidget(tags);
    }
    return column;
}

QWidget *EngineRow::makeTrailing()
{
    m_trailing = new QWidget(this);
    auto *layout = new QHBoxLayout(m_trailing);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);

    // Not installed.
    m_notInstalled = new QWidget(m_trailing);
    auto *notInstalled = new QHBoxLayout(m_notInstalled);
    notInstalled->setContentsMargins(0, 0, 0, 0);
    notInstalled->setSpacing(8);
    auto *downloadColumn = new QVBoxLayout;
    downloadColumn->setSpacing(3);
    m_download = new QPushButton(QStringLiteral("Download"), m_notInstalled);
    m_download->setObjectName(QStringLiteral("download"));
    m_download->setAccessibleName(QStringLiteral("Download ") + m_engine.name);
    m_download->setAutoDefault(false);
    connect(m_download, &QPushButton::clicked, this, [this] { m_store.install(m_engine); });
    auto *sizeCaption = new QLabel(m_engine.sizeLabel, m_notInstalled);
    sizeCaption->setObjectName(QStringLiteral("sizeCaption"));
    sizeCaption->setFont(smallerFont(font(), 0.82, QFont::Normal));
    sizeCaption->setAlignment(Qt::AlignHCenter);
    useSecondaryText(sizeCaption);
    downloadColumn->addWidget(m_download, 0, Qt::AlignHCenter);
    downloadColumn->addWidget(sizeCaption, 0, Qt::AlignHCenter);
    notInstalled->addLayout(downloadColumn);
    if (m_engine.custom) {
        m_removeButton = makeIconButton(
            QStringLiteral("remove"), QStringLiteral("Remove from list"),
            QStringLiteral("Remove %1 from list").arg(m_engine.name), m_notInstalled);
        connect(m_removeButton, &QToolButton::clicked, this, &EngineRow::remove);
        notInstalled->addWidget(m_removeButton);
    }
    layout->addWidget(m_notInstalled);

    // Downloading.
    m_downloading = new QWidget(m_trailing);
    auto *downloading = new QHBoxLayout(m_downloading);
    downloading->setContentsMargins(0, 0, 0, 0);
    downloading->setSpacing(8);
    m_progress = new QProgressBar(m_downloading);
    m_progress->setObjectName(QStringLiteral("progress"));
    m_progress->setRange(0, 1000);
    m_progress->setTextVisible(false);
    m_progress->setFixedWidth(kProgressWidth);
    m_progress->setAccessibleName(QStringLiteral("Download progress of ") + m_engine.name);
    m_percent = new QLabel(m_downloading);
    m_percent->setObjectName(QStringLiteral("percent"));
    m_percent->setFont(smallerFont(font(), 0.85, QFont::Normal));
    // Wide enough for "100%", so that the row does not shift as the digits change.
    m_percent->setMinimumWidth(m_percent->fontMetrics().horizontalAdvance(QStringLiteral("100%")));
    m_percent->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
    useSecondaryText(m_percent);
    m_cancel = makeIconButton(QStringLiteral("cancel"), QStringLiteral("Cancel download"),
                              QStringLiteral("Cancel download of ") + m_engine.name, m_downloading);
    connect(m_cancel, &QToolButton::clicked, this, [this] { m_store.cancelDownload(m_engine.id); });
    downloading->addWidget(m_progress);
    downloading->addWidget(m_percent);
    downloading->addWidget(m_cancel);
    layout->addWidget(m_downloading);

    // Installed.
    m_builtIn = new QLabel(m_engine.sizeLabel, m_trailing);
    m_builtIn->setObjectName(QStringLiteral("builtIn"));
    m_builtIn->setFont(smallerFont(font(), 0.85, QFont::Normal));
    useSecondaryText(m_builtIn);
    layout->addWidget(m_builtIn);

    m_sizeButton = new QToolButton(m_trailing);
    m_sizeButton->setObjectName(QStringLiteral("sizeMenu"));
    m_sizeButton->setAutoRaise(true);
    m_sizeButton->setFocusPolicy(Qt::StrongFocus);
    m_sizeButton->setToolButtonStyle(Qt::ToolButtonTextOnly);
    m_sizeButton->setAccessibleDescription(QStringLiteral("Opens a menu"));
    m_sizeMenu = new QMenu(m_sizeButton);
    m_sizeMenu->setObjectName(QStringLiteral("sizeMenuItems"));
    m_sizeMenu->addAction(QStringLiteral("Show in Files"), this, &EngineRow::showInFiles);
    m_sizeMenu->addSeparator();
    m_sizeMenu->addAction(removeLabel(m_engine), this, &EngineRow::remove);
    // The menu opens from a click or Space alike, without blocking the window.
    connect(m_sizeButton, &QToolButton::clicked, this, &EngineRow::openSizeMenu);
    layout->addWidget(m_sizeButton);

    return m_trailing;
}

void EngineRow::refresh()
{
    const ModelState state = m_store.state(m_engine.id);
    const bool selected = m_store.selected() == m_engine.id;
    m_select->setEnabled(state.isInstalled());
    m_select->setChecked(selected);
    m_select->setToolTip(selected ? QStringLiteral("In use") : QString());

    if (state.isDownloading()) {
        const double fraction = std::clamp(state.fraction(), 0.0, 1.0);
        m_progress->setValue(int(std::floor(fraction * m_progress->maximum())));
        m_percent->setText(percentText(fraction));
        m_progress->setAccessibleDescription(m_percent->text());
        showTrailing(m_downloading, m_cancel);
    } else if (!state.isInstalled()) {
        showTrailing(m_notInstalled, m_download);
    } else if (m_engine.source.isSystem()) {
        showTrailing(m_builtIn, nullptr);
    } else {
        const QString size = m_store.sizes().value(m_engine.id, m_engine.sizeLabel);
        m_sizeButton->setText(size);
        m_sizeButton->setAccessibleName(
            QStringLiteral("%1, %2: model options").arg(m_engine.name, size));
        showTrailing(m_sizeButton, m_sizeButton);
    }
}

void EngineRow::showTrailing(QWidget *part, QWidget *focusTarget)
{
    // A keyboard user who just pressed "Download" or the cancel button keeps the focus in
    // the row: it moves to what takes the pressed button's place.
    QWidget *focused = QApplication::focusWidget();
    const bool hadFocus = focused && m_trailing->isAncestorOf(focused) &&
                          !part->isAncestorOf(focused) && focused != part;
    for (QWidget *candidate :
         {static_cast<QWidget *>(m_notInstalled), m_downloading, static_cast<QWidget *>(m_builtIn),
          static_cast<QWidget *>(m_sizeButton)})
        candidate->setVisible(candidate == part);
    if (hadFocus)
        (focusTarget ? focusTarget : static_cast<QWidget *>(m_select))
            ->setFocus(Qt::OtherFocusReason);
}

void EngineRow::openSizeMenu()
{
    m_sizeMenu->popup(m_sizeButton->mapToGlobal(QPoint(0, m_sizeButton->height())));
}

QMenu *EngineRow::makeContextMenu(QWidget *parent)
{
    if (m_engine.source.isSystem())
        return nullptr;
    auto *menu = new QMenu(parent);
    menu->setObjectName(QStringLiteral("contextMenu"));
    if (m_store.state(m_engine.id).isInstalled())
        menu->addAction(QStringLiteral("Show in Files"), this, &EngineRow::showInFiles);
    menu->addAction(removeLabel(m_engine), this, &EngineRow::remove);
    return menu;
}

void EngineRow::contextMenuEvent(QContextMenuEvent *event)
{
    QMenu *menu = makeContextMenu(this);
    if (!menu) {
        event->ignore();
        return;
    }
    if (m_contextMenu)
        m_contextMenu->deleteLater();
    m_contextMenu = menu;
    menu->setAttribute(Qt::WA_DeleteOnClose);
    menu->popup(event->globalPos());
    event->accept();
}

void EngineRow::changeEvent(QEvent *event)
{
    QFrame::changeEvent(event);
    if (event->type() == QEvent::PaletteChange && m_select)
        updateIcons();
}

void EngineRow::updateIcons()
{
    m_select->setIcon(ModelIcons::selectIcon(palette(), kSelectIconSize));
    const QColor secondary = ModelIcons::secondaryColor(palette());
    m_cancel->setIcon(ModelIcons::icon(Symbol::cancel, secondary));
    if (m_removeButton)
        m_removeButton->setIcon(ModelIcons::icon(Symbol::remove, secondary));
}

void EngineRow::showInFiles()
{
    if (const std::optional<QString> folder = m_store.modelFolder(m_engine))
        emit showInFilesRequested(*folder);
}

void EngineRow::remove()
{
    m_store.remove(m_engine);
}

QString EngineRow::removeLabel(const Engine &engine)
{
    if (!engine.custom)
        return QStringLiteral("Delete download");
    return engine.source.isLocal() ? QStringLiteral("Remove from list")
                                   : QStringLiteral("Delete model");
}

QString EngineRow::percentText(double fraction)
{
    return QString::number(int(std::floor(std::clamp(fraction, 0.0, 1.0) * 100.0))) +
           QLatin1Char('%');
}

} // namespace vocari
