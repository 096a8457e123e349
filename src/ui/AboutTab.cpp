#include "ui/AboutTab.h"

#include "ui/FormSection.h"
#include "ui/TabIcons.h"

#include <QDesktopServices>
#include <QHBoxLayout>
#include <QLabel>
#include <QPainter>
#include <QPixmap>
#include <QPushButton>
#include <QSvgRenderer>
#include <QVBoxLayout>

namespace vocari {

namespace {

constexpr int kLogoSize = 96;
constexpr int kDescriptionWidth = 320;

// The logo drawn at the screen's pixel density, so it stays sharp on a high-density display.
QPixmap logo(qreal pixelRatio)
{
    QPixmap pixmap(QSize(kLogoSize, kLogoSize) * pixelRatio);
    pixmap.setDevicePixelRatio(pixelRatio);
    pixmap.fill(Qt::transparent);
    QSvgRenderer renderer(logoPath());
    QPainter painter(&pixmap);
    renderer.render(&painter, QRectF(0, 0, kLogoSize, kLogoSize));
    return pixmap;
}

QLabel *centred(const QString &text, QWidget *parent)
{
    auto *label = new QLabel(text, parent);
    label->setAlignment(Qt::AlignHCenter);
    return label;
}

} // namespace

AboutTab::AboutTab(AppModel &, QWidget *parent) : AboutTab(parent) {}

AboutTab::AboutTab(QWidget *parent) : QWidget(parent)
{
    auto *column = new QVBoxLayout(this);
    column->setSpacing(10);
    column->addStretch();

    auto *picture = new QLabel(this);
    picture->setPixmap(logo(devicePixelRatioF()));
    picture->setFixedSize(kLogoSize, kLogoSize);
    picture->setAccessibleName(QStringLiteral("Vocari logo"));
    column->addWidget(picture, 0, Qt::AlignHCenter);

    QLabel *name = centred(QStringLiteral("Vocari"), this);
    QFont title = name->font();
    title.setBold(true);
    if (title.pointSizeF() > 0)
        title.setPointSizeF(title.pointSizeF() * 1.6);
    name->setFont(title);
    column->addWidget(name);

    QLabel *versionLine = centred(QStringLiteral("Version %1").arg(version()), this);
    versionLine->setForegroundRole(QPalette::PlaceholderText);
    versionLine->setTextInteractionFlags(Qt::TextSelectableByMouse);
    column->addWidget(versionLine);

    column->addSpacing(6);
    QLabel *description = centred(kDescription, this);
    description->setForegroundRole(QPalette::PlaceholderText);
    description->setWordWrap(true);
    description->setFixedWidth(kDescriptionWidth);
    // A centred item gets its height from the size hint, which knows nothing of the wrapping.
    description->setMinimumHeight(description->heightForWidth(kDescriptionWidth));
    column->addWidget(description, 0, Qt::AlignHCenter);

    // The credit line: muted words, then the project's address as a link. The link is a flat
    // button so that Tab reaches it and Enter or Space opens it.
    auto *credit = new QHBoxLayout;
    credit->setSpacing(4);
    credit->addStretch();
    QLabel *madeBy = centred(QStringLiteral("Made in the open by its contributors:"), this);
    madeBy->setForegroundRole(QPalette::PlaceholderText);
    credit->addWidget(madeBy, 0, Qt::AlignVCenter);
    const QUrl page = projectPage();
    auto *link = new QPushButton(page.host() + page.path(), this);
    link->setFlat(true);
    link->setAutoDefault(true);
    link->setCursor(Qt::PointingHandCursor);
    link->setAccessibleName(QStringLiteral("Project page"));
    link->setAccessibleDescription(page.toString());
    link->setToolTip(page.toString());
    QPalette accent = link->palette();
    accent.setColor(QPalette::ButtonText, accent.color(QPalette::Link));
    link->setPalette(accent);
    QFont underlined = link->font();
    underlined.setUnderline(true);
    link->setFont(underlined);
    connect(link, &QPushButton::clicked, this, [page] { QDesktopServices::openUrl(page); });
    credit->addWidget(link, 0, Qt::AlignVCenter);
    credit->addStretch();
    column->addLayout(credit);

    column->addStretch();
}

QString AboutTab::version()
{
#ifdef VOCARI_VERSION
    return QStringLiteral(VOCARI_VERSION);
#else
    return QStringLiteral("1");
#endif
}

QUrl AboutTab::projectPage()
{
    return QUrl(QStringLiteral("https://github.com/vocari/vocari"));
}

} // namespace vocari
