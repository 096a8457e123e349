#include "ui/FormSection.h"

#include <QAbstractButton>
#include <QFormLayout>
#include <QGroupBox>
#include <QLabel>
#include <QScrollArea>
#include <QVBoxLayout>

namespace vocari {

namespace {

// Slightly smaller text; a font without a point size is kept as it is.
void useSmallerFont(QLabel *label)
{
    QFont font = label->font();
    if (font.pointSizeF() > 0) {
        font.setPointSizeF(font.pointSizeF() * 0.9);
        label->setFont(font);
    }
}

} // namespace

FormSection::FormSection(const QString &title, QWidget *parent) : QWidget(parent)
{
    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(4);
    m_box = new QGroupBox(title, this);
    m_form = new QFormLayout(m_box);
    m_form->setFieldGrowthPolicy(QFormLayout::AllNonFixedFieldsGrow);
    m_form->setLabelAlignment(Qt::AlignLeft | Qt::AlignVCenter);
    layout->addWidget(m_box);
    m_footer = new QLabel(this);
    makeSecondary(m_footer);
    m_footer->setContentsMargins(6, 0, 6, 0);
    m_footer->hide();
    layout->addWidget(m_footer);
}

void FormSection::addRow(const QString &label, QWidget *field)
{
    auto *title = new QLabel(label, m_box);
    title->setBuddy(field);
    if (field->accessibleName().isEmpty())
        field->setAccessibleName(label);
    m_form->addRow(title, field);
}

void FormSection::addRow(QWidget *field)
{
    // A check box or button says what it is in its text; screen readers get the same words.
    if (auto *button = qobject_cast<QAbstractButton *>(field);
        button && button->accessibleName().isEmpty())
        button->setAccessibleName(button->text());
    m_form->addRow(field);
}

void FormSection::setFooter(const QString &text)
{
    m_footer->setText(text);
    m_footer->setVisible(!text.isEmpty());
}

void FormSection::makeSecondary(QLabel *label, bool smaller)
{
    label->setWordWrap(true);
    label->setForegroundRole(QPalette::PlaceholderText);
    if (smaller)
        useSmallerFont(label);
}

QVBoxLayout *scrollingColumn(QWidget *tab)
{
    auto *scroll = new QScrollArea(tab);
    scroll->setWidgetResizable(true);
    scroll->setFrameShape(QFrame::NoFrame);
    scroll->setFocusPolicy(Qt::NoFocus);
    auto *content = new QWidget(scroll);
    auto *column = new QVBoxLayout(content);
    column->setSpacing(14);
    scroll->setWidget(content);
    auto *outer = new QVBoxLayout(tab);
    outer->setContentsMargins(0, 0, 0, 0);
    outer->addWidget(scroll);
    return column;
}

QLabel *footerLabel(const QString &text, QWidget *parent)
{
    auto *label = new QLabel(text, parent);
    label->setObjectName(QStringLiteral("footer"));
    label->setWordWrap(true);
    useSmallerFont(label);
    return label;
}

} // namespace vocari
