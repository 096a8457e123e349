#include "ui/PermissionRow.h"

#include "ui/FormSection.h"
#include "ui/TabIcons.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QVBoxLayout>

namespace vocari {

namespace {
constexpr int kIconSize = 22;
}

PermissionRow::PermissionRow(const QString &title, const QString &detail, QWidget *parent)
    : QWidget(parent)
{
    setAccessibleName(title);
    m_layout = new QHBoxLayout(this);
    m_layout->setContentsMargins(4, 4, 4, 4);
    m_layout->setSpacing(12);

    m_icon = new QLabel(this);
    m_icon->setFixedSize(kIconSize, kIconSize);
    m_layout->addWidget(m_icon, 0, Qt::AlignTop);

    auto *text = new QVBoxLayout;
    text->setSpacing(2);
    m_title = new QLabel(title, this);
    QFont bold = m_title->font();
    bold.setBold(true);
    m_title->setFont(bold);
    text->addWidget(m_title);
    auto *about = new QLabel(detail, this);
    FormSection::makeSecondary(about);
    text->addWidget(about);
    m_note = new QLabel(this);
    m_note->setWordWrap(true);
    m_note->setTextInteractionFlags(Qt::TextSelectableByMouse);
    m_note->hide();
    text->addWidget(m_note);
    m_layout->addLayout(text, 1);

    setGranted(false);
}

QString PermissionRow::title() const
{
    return m_title->text();
}

void PermissionRow::setGranted(bool granted)
{
    m_granted = granted;
    const QString state = granted ? QStringLiteral("Granted") : QStringLiteral("Missing");
    m_icon->setPixmap(tabIcon(granted ? QStringLiteral("granted") : QStringLiteral("missing"))
                          .pixmap(QSize(kIconSize, kIconSize), devicePixelRatioF()));
    m_icon->setAccessibleName(state);
    setAccessibleDescription(state);
}

QString PermissionRow::note() const
{
    return m_note->text();
}

void PermissionRow::setNote(const QString &note)
{
    m_note->setText(note);
    m_note->setVisible(!note.isEmpty());
}

void PermissionRow::addTrailing(QWidget *widget)
{
    m_layout->addWidget(widget, 0, Qt::AlignVCenter);
}

} // namespace vocari
