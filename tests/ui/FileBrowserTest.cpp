#include "ui/FileBrowser.h"

#include "models/ModelTestSupport.h"
#include "support/MissingTool.h"
#include "support/PrivateBus.h"

#include <QDBusConnection>
#include <QDesktopServices>
#include <QProcess>
#include <QUrl>
#include <gmock/gmock.h>

using namespace vocari;
using testing::ElementsAre;

namespace {

// A file manager on the test's own bus: it notes what it was asked to show.
class FakeFileManager : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.FileManager1")
public:
    QStringList shown;
    QStringList startupIds;

public slots:
    void ShowItems(const QStringList &uris, const QString &startupId)
    {
        shown << uris;
        startupIds << startupId;
    }
};

// Takes the place of the desktop's handler for file addresses.
class UrlRecorder : public QObject
{
    Q_OBJECT
public:
    QList<QUrl> opened;

public slots:
    void open(const QUrl &url) { opened << url; }
};

// A private message bus, so that nothing reaches the desktop's file manager.
class FileBrowserTest : public testing::Test
{
protected:
    void SetUp() override
    {
        if (m_bus.address().isEmpty())
            VOCARI_SKIP_FOR_MISSING(m_bus.problem().toStdString());
        const QString address = m_bus.address();
        ASSERT_TRUE(QDBusConnection::connectToBus(address, kClient).isConnected());
        ASSERT_TRUE(QDBusConnection::connectToBus(address, kManager).isConnected());
        QDesktopServices::setUrlHandler(QStringLiteral("file"), &urls, "open");
        test::writeFakeModel(folder.filePath("model"));
    }

    void TearDown() override
    {
        QDesktopServices::unsetUrlHandler(QStringLiteral("file"));
        QDBusConnection::disconnectFromBus(kClient);
        QDBusConnection::disconnectFromBus(kManager);
    }

    void startFileManager()
    {
        QDBusConnection bus(kManager);
        ASSERT_TRUE(bus.registerObject(QStringLiteral("/org/freedesktop/FileManager1"), &manager,
                                       QDBusConnection::ExportAllSlots));
        ASSERT_TRUE(bus.registerService(QStringLiteral("org.freedesktop.FileManager1")));
    }

    static inline const QString kClient = QStringLiteral("file-browser-test-client");
    static inline const QString kManager = QStringLiteral("file-browser-test-manager");
    test::PrivateBus m_bus;
    QTemporaryDir folder;
    FakeFileManager manager;
    UrlRecorder urls;
    FileBrowser files{kClient};
};

} // namespace

TEST_F(FileBrowserTest, RevealAsksTheFileManagerToSelectTheItem)
{
    startFileManager();
    const QString model = folder.filePath("model");
    files.reveal(model);
    ASSERT_TRUE(test::waitUntil([&] { return !manager.shown.isEmpty(); }, 5000));
    EXPECT_THAT(manager.shown, ElementsAre(QUrl::fromLocalFile(model).toString()));
    EXPECT_THAT(manager.startupIds, ElementsAre(QString()));
    test::waitUntil([] { return false; }, 100);
    EXPECT_TRUE(urls.opened.isEmpty());
}

TEST_F(FileBrowserTest, WithoutAFileManagerRevealOpensTheFolderAround)
{
    files.reveal(folder.filePath("model"));
    ASSERT_TRUE(test::waitUntil([&] { return !urls.opened.isEmpty(); }, 5000));
    EXPECT_THAT(urls.opened, ElementsAre(QUrl::fromLocalFile(folder.path())));

    // No bus at all: the folder opens at once.
    urls.opened.clear();
    FileBrowser offline(QStringLiteral("no-such-connection"));
    offline.reveal(folder.filePath("model"));
    EXPECT_THAT(urls.opened, ElementsAre(QUrl::fromLocalFile(folder.path())));

    urls.opened.clear();
    files.openFolder(folder.path());
    EXPECT_THAT(urls.opened, ElementsAre(QUrl::fromLocalFile(folder.path())));
}

#include "FileBrowserTest.moc"
