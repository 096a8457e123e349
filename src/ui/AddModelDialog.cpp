#include "ui/AddModelDialog.h"

#include "models/ModelStore.h"
#include "ui/FormSection.h"
#include "ui/ModelIcons.h"

#include <QButtonGroup>
#include <QDialogButtonBox>
#include <QDir>
#include <QFileDialog>
#include <QFileInfo>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QRadioButton>
#include <QVBoxLayout>

namespace vocari {

namespace {

constexpr int kWidth = 480;

const QString kFooter = QStringLiteral(
    "Works with Parakeet-TDT ONNX exports: Preprocessor, Encoder, Decoder and JointDecisionv3 "
    "(.onnx) plus parakeet_v3_vocab.json, or nemo128.onnx, encoder-model, decoder_joint-model "
    "(.onnx or .int8.onnx) and vocab.txt. A folder is used in place and never copied or "
    "deleted.");

QString pickFolder(QWidget *parent)
{
    QFileDialog dialog(parent, QStringLiteral("Choose a model folder"));
    dialog.setFileMode(QFileDialog::Directory);
    dialog.setOption(QFileDialog::ShowDirsOnly);
    dialog.setLabelText(QFileDialog::Accept, QStringLiteral("Choose"));
    if (dialog.exec() != QDialog::Accepted)
        return {};
    return dialog.selectedFiles().value(0);
}

} // namespace

AddModelDialog::AddModelDialog(ModelStore &store, QWidget *parent)
    : QDialog(parent), m_store(store), m_chooseFolder(&pickFolder)
{
    setWindowTitle(QStringLiteral("Add Model"));
    setObjectName(QStringLiteral("AddModel"));
    setMinimumWidth(kWidth);

    auto *layout = new QVBoxLayout(this);
    m_form = new QFormLayout;
    m_form->setFieldGrowthPolicy(QFormLayout::AllNonFixedFieldsGrow);

    // The source: two choices side by side, moved between with the arrow keys.
    auto *sources = new QWidget(this);
    sources->setAccessibleName(QStringLiteral("Source"));
    auto *sourceLine = new QHBoxLayout(sources);
    sourceLine->setContentsMargins(0, 0, 0, 0);
    m_hubSource = new QRadioButton(QStringLiteral("Hugging Face"), sources);
    m_hubSource->setObjectName(QStringLiteral("hubSource"));
    m_folderSource = new QRadioButton(QStringLiteral("Folder on this computer"), sources);
    m_folderSource->setObjectName(QStringLiteral("folderSource"));
    auto *group = new QButtonGroup(this);
    group->addButton(m_hubSource);
    group->addButton(m_folderSource);
    m_hubSource->setChecked(true);
    sourceLine->addWidget(m_hubSource);
    sourceLine->addWidget(m_folderSource);
    sourceLine->addStretch();
    m_form->addRow(QStringLiteral("Source"), sources);
    connect(m_hubSource, &QRadioButton::toggled, this, &AddModelDialog::useSource);

    m_name = new QLineEdit(this);
    m_name->setObjectName(QStringLiteral("name"));
    m_name->setAccessibleName(QStringLiteral("Name (optional)"));
    m_form->addRow(QStringLiteral("Name (optional)"), m_name);

    m_repository = new QLineEdit(this);
    m_repository->setObjectName(QStringLiteral("repository"));
    m_repository->setAccessibleName(QStringLiteral("Repository"));
    m_repository->setPlaceholderText(QStringLiteral("owner/repository"));
    m_repository->setInputMethodHints(Qt::ImhNoPredictiveText | Qt::ImhNoAutoUppercase |
                                      Qt::ImhPreferLatin);
    m_form->addRow(QStringLiteral("Repository"), m_repository);
    connect(m_repository, &QLineEdit::textChanged, this, &AddModelDialog::update);

    m_folderButton = new QPushButton(QStringLiteral("Choose…"), this);
    m_folderButton->setObjectName(QStringLiteral("folder"));
    m_folderButton->setAccessibleName(QStringLiteral("Folder"));
    m_folderButton->setAccessibleDescription(QStringLiteral("No folder chosen"));
    m_folderButton->setAutoDefault(false);
    m_form->addRow(QStringLiteral("Folder"), m_folderButton);
    connect(m_folderButton, &QPushButton::clicked, this, &AddModelDialog::chooseFolder);
    layout->addLayout(m_form);

    QLabel *footer = footerLabel(kFooter, this);
    footer->setPalette(ModelIcons::secondaryPalette(footer->palette()));
    layout->addWidget(footer);
    layout->addSpacing(8);

    auto *buttons = new QDialogButtonBox(this);
    QPushButton *cancel = buttons->addButton(QDialogButtonBox::Cancel);
    cancel->setObjectName(QStringLiteral("cancel"));
    cancel->setAutoDefault(false);
    m_add = buttons->addButton(QString(), QDialogButtonBox::AcceptRole);
    m_add->setObjectName(QStringLiteral("add"));
    m_add->setDefault(true);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    connect(m_add, &QPushButton::clicked, this, &AddModelDialog::add);
    layout->addWidget(buttons);

    useSource(true);
    m_repository->setFocus();
}

bool AddModelDialog::canAdd() const
{
    if (m_hubSource->isChecked())
        return m_repository->text().contains(QLatin1Char('/'));
    return !m_folder.isEmpty();
}

void AddModelDialog::useSource(bool hub)
{
    // What was typed or chosen for the other source stays, in case the user switches back.
    m_form->setRowVisible(m_repository, hub);
    m_form->setRowVisible(m_folderButton, !hub);
    // "&&" shows one ampersand; a single one would mark the next letter as a shortcut.
    m_add->setText(hub ? QStringLiteral("Add && Download") : QStringLiteral("Add"));
    update();
}

void AddModelDialog::chooseFolder()
{
    const QString folder = m_chooseFolder ? m_chooseFolder(this) : QString();
    if (folder.isEmpty())
        return;
    m_folder = QDir::cleanPath(folder);
    const QString name = QFileInfo(m_folder).fileName();
    m_folderButton->setText(name.isEmpty() ? m_folder : name);
    m_folderButton->setToolTip(m_folder);
    m_folderButton->setAccessibleDescription(m_folder);
    update();
}

void AddModelDialog::update()
{
    m_add->setEnabled(canAdd());
}

void AddModelDialog::add()
{
    if (!canAdd())
        return;
    if (m_hubSource->isChecked())
        m_store.addHub(m_repository->text(), m_name->text());
    else
        m_store.addLocal(m_folder, m_name->text());
    accept();
}

} // namespace vocari
