#include "ui/TabIcons.h"

// The resources live in a static library that nothing refers to by symbol, so they are
// registered by hand, once, before the first use.
static void registerTabResources()
{
    static const bool registered = [] {
        Q_INIT_RESOURCE(text_popup);
        Q_INIT_RESOURCE(about);
        return true;
    }();
    Q_UNUSED(registered);
}

namespace vocari {

QIcon tabIcon(const QString &name)
{
    registerTabResources();
    return QIcon(QStringLiteral(":/vocari/tabs/%1.svg").arg(name));
}

QString logoPath()
{
    registerTabResources();
    return QStringLiteral(":/vocari/about/vocari.svg");
}

} // namespace vocari
