#include "ui/ModelsTab.h"

#include "app/AppFixture.h"
#include "models/HubTestServer.h"
#include "models/ModelFolders.h"
#include "models/ModelTestSupport.h"
#include "ui/AccessibilityCheck.h"
#include "ui/AddModelDialog.h"
#include "ui/EngineRow.h"
#include "ui/FileBrowser.h"

#include <QApplication>
#include <QContextMenuEvent>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QProgressBar>
#include <QPushButton>
#include <QRadioButton>
#include <QTest>
#include <QToolButton>
#include <gmock/gmock.h>

using namespace vocari;
using test::accessibleName;
using test::checkKeyboardAccess;
using test::kUltra;
using test::kUltraRepo;
using test::waitUntil;
using testing::ElementsAre;

namespace {

struct RecordingFiles final : FileBrowser
{
    QStringList opened, revealed;
    void openFolder(const QString &folder) override { opened << folder; }
    void reveal(const QString &path) override { revealed << path; }
};

QStringList actionTexts(const QMenu *menu)
{
    QStringList texts;
    for (const QAction *action : menu->actions())
        texts << (action->isSeparator() ? QStringLiteral("—") : action->text());
    return texts;
}

const QString kSystem = Engine::systemId;

class ModelsTabTest : public test::AppFixture
{
protected:
    void SetUp() override
    {
        if (useFakeDownloads)
            m_downloads = fakes.factory();
        AppFixture::SetUp();
        tab = std::make_unique<ModelsTab>(*m_model);
        tab->setFileBrowser(files);
        tab->resize(560, 520);
        tab->show();
        tab->activateWindow();
        ASSERT_TRUE(waitUntil([&] { return tab->isActiveWindow(); }));
    }
    void TearDown() override
    {
        tab.reset();
        AppFixture::TearDown();
    }

    ModelStore &store() { return m_model->models(); }
    EngineRow *row(const QString &id) { return tab->row(id); }
    template <typename T = QToolButton> T *control(const QString &id, const char *name)
    {
        EngineRow *engineRow = row(id);
        return engineRow ? engineRow->findChild<T *>(QString::fromLatin1(name)) : nullptr;
    }
    QPushButton *download(const QString &id) { return control<QPushButton>(id, "download"); }
    QToolButton *select(const QString &id) { return control(id, "select"); }
    QToolButton *size(const QString &id) { return control(id, "sizeMenu"); }
    // Whether the row's engine can be and is selected, and which of its other controls show.
    QStringList shown(const QString &id)
    {
        QStringList names;
        if (select(id)->isEnabled())
            names << QStringLiteral("selectable");
        if (select(id)->isChecked())
            names << QStringLiteral("selected");
        for (const char *name : {"builtIn", "download", "progress", "cancel", "sizeMenu", "remove"})
            if (QWidget *widget = control<QWidget>(id, name); widget && widget->isVisible())
                names << QString::fromLatin1(name);
        return names;
    }
    QLabel *error() { return tab->findChild<QLabel *>(QStringLiteral("lastError")); }
    QString customId()
    {
        for (const Engine &engine : store().engines())
            if (engine.custom)
                return engine.id;
        return {};
    }
    template <typename T = QToolButton> T *tabChild(QObject *in, const char *name)
    {
        return in->findChild<T *>(QString::fromLatin1(name));
    }

    void click(QAbstractButton *button)
    {
        ASSERT_TRUE(button);
        ASSERT_TRUE(button->isVisible()) << button->objectName().toStdString();
        QTest::mouseClick(button, Qt::LeftButton);
    }
    void choose(QMenu *menu, const QString &text)
    {
        ASSERT_TRUE(menu);
        ASSERT_TRUE(waitUntil([&] { return menu->isVisible(); }));
        QAction *wanted = nullptr;
        for (QAction *action : menu->actions())
            if (action->text() == text)
                wanted = action;
        ASSERT_TRUE(wanted) << text.toStdString() << " not in "
                            << actionTexts(menu).join(", ").toStdString();
        QTest::mouseClick(menu, Qt::LeftButton, {}, menu->actionGeometry(wanted).center());
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }
    // As the menu key opens it.
    QMenu *contextMenu(const QString &id, QWidget *from = nullptr)
    {
        QWidget *target = from ? from : row(id);
        QContextMenuEvent event(QContextMenuEvent::Keyboard, QPoint(2, 2),
                                target->mapToGlobal(QPoint(2, 2)));
        QApplication::sendEvent(target, &event);
        return tabChild<QMenu>(row(id), "contextMenu");
    }
    QStringList contextMenuTexts(const QString &id)
    {
        QMenu *menu = contextMenu(id);
        return menu ? (menu->close(), actionTexts(menu)) : QStringList();
    }
    QMenu *sizeMenu(const QString &id)
    {
        click(size(id));
        return tabChild<QMenu>(size(id), "sizeMenuItems");
    }
    AddModelDialog *openAddModel()
    {
        click(tabChild(tab.get(), "addModel"));
        AddModelDialog *dialog = tab->addModelDialog();
        EXPECT_TRUE(dialog && dialog->isVisible());
        return dialog;
    }
    bool closed(const QPointer<AddModelDialog> &dialog)
    {
        return waitUntil([&] { return !dialog; });
    }

    bool useFakeDownloads = true;
    test::ScopedDataHome home;
    std::shared_ptr<RecordingFiles> files = std::make_shared<RecordingFiles>();
    test::FakeDownloads fakes;
    std::unique_ptr<ModelsTab> tab;
};

} // namespace

TEST_F(ModelsTabTest, RowsShowWhatTheirStateAllowsAndShowInFilesMakesTheFolder)
{
    EXPECT_THAT(shown(kSystem), ElementsAre("selectable", "selected", "builtIn"));
    EXPECT_EQ(contextMenu(kSystem), nullptr);
    EXPECT_THAT(shown(kUltra), ElementsAre("download"));
    EXPECT_THAT(contextMenuTexts(kUltra), ElementsAre("Delete download"));
    EXPECT_FALSE(error()->isVisible());

    ASSERT_FALSE(QFileInfo::exists(home.modelsRoot()));
    click(tabChild(tab.get(), "showModelsFolder"));
    EXPECT_TRUE(QFileInfo(home.modelsRoot()).isDir());
    EXPECT_THAT(files->opened, ElementsAre(home.modelsRoot()));
}

TEST_F(ModelsTabTest, TheKeyboardDownloadsShowsProgressCancelsSelectsAndDeletes)
{
    QWidget *first = tabChild(tab.get(), "showModelsFolder");
    first->setFocus(Qt::TabFocusReason);
    ASSERT_TRUE(waitUntil([&] { return QApplication::focusWidget() == first; }));
    QStringList names;
    for (QWidget *focused = first; names.size() < 40;) {
        names << accessibleName(focused);
        QTest::keyClick(focused, Qt::Key_Tab);
        if ((focused = QApplication::focusWidget()) == first)
            break;
    }
    EXPECT_THAT(names,
                ElementsAre("Show in Files", QString::fromUtf8("Add model…"), "Use Built-in Speech",
                            "Download NVIDIA Parakeet Redux", "Download NVIDIA Parakeet Ultra"));

    // Space starts the download; the focus goes to cancel and comes back when cancelled.
    QPushButton *start = download(kUltra);
    start->setFocus(Qt::TabFocusReason);
    QTest::keyClick(start, Qt::Key_Space);
    ASSERT_EQ(fakes.made.size(), 1);
    EXPECT_EQ(fakes.made[0]->repository, kUltraRepo);
    auto *progress = control<QProgressBar>(kUltra, "progress");
    auto *percent = control<QLabel>(kUltra, "percent");
    EXPECT_THAT(shown(kUltra), ElementsAre("progress", "cancel"));
    EXPECT_EQ(percent->text(), "0%");
    fakes.made[0]->report(0.5);
    EXPECT_EQ(percent->text(), "50%");
    EXPECT_EQ(progress->value() * 2, progress->maximum());
    fakes.made[0]->report(0.999);
    EXPECT_EQ(percent->text(), "99%");
    EXPECT_EQ(EngineRow::percentText(0.29), "28%");
    EXPECT_EQ(EngineRow::percentText(1.0), "100%");
    QToolButton *cancel = control(kUltra, "cancel");
    EXPECT_EQ(accessibleName(cancel), "Cancel download of NVIDIA Parakeet Ultra");
    EXPECT_EQ(QApplication::focusWidget(), cancel);
    QTest::keyClick(cancel, Qt::Key_Space);
    EXPECT_EQ(store().state(kUltra), ModelState::notInstalled());
    EXPECT_THAT(shown(kUltra), ElementsAre("download"));
    EXPECT_FALSE(error()->isVisible());
    EXPECT_EQ(QApplication::focusWidget(), start);

    // Installed: selected, the size button has the focus and its menu.
    QTest::keyClick(start, Qt::Key_Space);
    ASSERT_EQ(fakes.made.size(), 2);
    fakes.made[1]->succeed();
    const QString folder = home.modelFolder(kUltra);
    EXPECT_THAT(shown(kUltra), ElementsAre("selectable", "selected", "sizeMenu"));
    EXPECT_FALSE(select(kSystem)->isChecked());
    EXPECT_EQ(QApplication::focusWidget(), size(kUltra));
    ASSERT_TRUE(waitUntil([&] { return store().sizes().contains(kUltra); }));
    EXPECT_EQ(size(kUltra)->text(), store().sizes().value(kUltra));
    QTest::keyClick(size(kUltra), Qt::Key_Space);
    QMenu *menu = tabChild<QMenu>(size(kUltra), "sizeMenuItems");
    ASSERT_TRUE(waitUntil([&] { return menu->isVisible(); }));
    EXPECT_THAT(actionTexts(menu), ElementsAre("Show in Files", "—", "Delete download"));
    choose(menu, "Show in Files");
    EXPECT_THAT(files->revealed, ElementsAre(folder));
    QMenu *context = contextMenu(kUltra, size(kUltra));
    ASSERT_TRUE(context && waitUntil([&] { return context->isVisible(); }));
    EXPECT_THAT(actionTexts(context), ElementsAre("Show in Files", "Delete download"));
    context->close();

    click(select(kSystem));
    EXPECT_EQ(store().selected(), kSystem);
    EXPECT_FALSE(select(kUltra)->isChecked());
    for (int twice = 0; twice < 2; ++twice) { // a second click keeps it in use
        click(select(kUltra));
        EXPECT_EQ(store().selected(), kUltra);
        EXPECT_TRUE(select(kUltra)->isChecked());
    }

    choose(sizeMenu(kUltra), "Delete download");
    EXPECT_EQ(store().state(kUltra), ModelState::notInstalled());
    EXPECT_FALSE(QFileInfo::exists(folder));
    EXPECT_EQ(store().selected(), kSystem);
    EXPECT_TRUE(select(kSystem)->isChecked());
    EXPECT_THAT(shown(kUltra), ElementsAre("download"));
}

TEST_F(ModelsTabTest, AddsAHubModelAndShowsWhyItsDownloadFailed)
{
    QPointer<AddModelDialog> dialog = openAddModel();
    ASSERT_TRUE(dialog);
    auto *repository = tabChild<QLineEdit>(dialog, "repository");
    auto *add = tabChild<QPushButton>(dialog, "add");
    EXPECT_FALSE(add->isEnabled());
    QTest::keyClicks(repository, "ab");
    EXPECT_FALSE(add->isEnabled());
    repository->clear();
    QTest::keyClicks(repository, "a / b"); // passes the dialog, refused by the store
    click(add);
    ASSERT_TRUE(closed(dialog));
    EXPECT_EQ(store().engines().size(), 3u);
    EXPECT_TRUE(error()->isVisible());
    EXPECT_EQ(error()->text(), "Enter a repository as owner/name, for example "
                               "istupakov/parakeet-tdt-0.6b-v3-onnx.");
    const QColor red = error()->palette().color(QPalette::WindowText);
    EXPECT_GT(red.red(), 2 * std::max(red.green(), red.blue()));

    dialog = openAddModel();
    ASSERT_TRUE(dialog);
    repository = tabChild<QLineEdit>(dialog, "repository");
    EXPECT_TRUE(repository->text().isEmpty());
    QTest::keyClicks(repository, "a/b");
    QTest::keyClick(repository, Qt::Key_Return);
    ASSERT_TRUE(closed(dialog));
    const QString id = customId();
    ASSERT_TRUE(row(id));
    EXPECT_FALSE(error()->isVisible());
    EXPECT_EQ(tabChild<QLabel>(row(id), "name")->text(), "b");
    EXPECT_THAT(shown(id), ElementsAre("progress", "cancel"));

    ASSERT_EQ(fakes.made.size(), 1);
    fakes.made[0]->end(DownloadError::notFound("a/b"));
    EXPECT_THAT(shown(id), ElementsAre("download", "remove"));
    EXPECT_TRUE(error()->isVisible());
    EXPECT_EQ(error()->text(),
              QString::fromUtf8("Couldn't find “a/b” on Hugging Face (or it needs a login)."));
    EXPECT_THAT(contextMenuTexts(id), ElementsAre("Delete model"));

    QToolButton *bin = control(id, "remove");
    EXPECT_EQ(accessibleName(bin), "Remove b from list");
    click(bin);
    EXPECT_TRUE(waitUntil([&] { return !row(id) && customId().isEmpty(); }));
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    EXPECT_EQ(tab->findChildren<EngineRow *>().size(), 3);
}

TEST_F(ModelsTabTest, AddsAFolderThatIsUsedInPlace)
{
    const QString folder = home.path() + "/my-model";
    test::writeFakeModel(folder);

    QPointer<AddModelDialog> dialog = openAddModel();
    ASSERT_TRUE(dialog);
    auto *repository = tabChild<QLineEdit>(dialog, "repository");
    auto *add = tabChild<QPushButton>(dialog, "add");
    auto *choose = tabChild<QPushButton>(dialog, "folder");
    QTest::keyClicks(repository, "kept/for-later");
    click(tabChild<QRadioButton>(dialog, "folderSource"));
    EXPECT_FALSE(repository->isVisible());
    EXPECT_FALSE(add->isEnabled());
    dialog->setFolderChooser([](QWidget *) { return QString(); }); // closed without a choice
    click(choose);
    EXPECT_FALSE(add->isEnabled());
    click(tabChild<QRadioButton>(dialog, "hubSource"));
    EXPECT_EQ(repository->text(), "kept/for-later");
    click(tabChild<QRadioButton>(dialog, "folderSource"));

    dialog->setFolderChooser([&](QWidget *) { return folder; });
    click(choose);
    EXPECT_EQ(choose->text(), "my-model");
    click(add);
    const QString id = customId();
    ASSERT_TRUE(row(id));
    EXPECT_EQ(size(id)->text(), "Custom"); // until measured
    ASSERT_TRUE(closed(dialog));
    EXPECT_TRUE(fakes.made.isEmpty());
    EXPECT_EQ(store().selected(), id);
    EXPECT_THAT(shown(id), ElementsAre("selectable", "selected", "sizeMenu"));
    EXPECT_FALSE(select(kSystem)->isChecked());
    ASSERT_TRUE(waitUntil([&] { return store().sizes().contains(id); }));
    EXPECT_EQ(size(id)->text(), store().sizes().value(id));

    QMenu *context = contextMenu(id, select(id));
    ASSERT_TRUE(context);
    EXPECT_THAT(actionTexts(context), ElementsAre("Show in Files", "Remove from list"));
    this->choose(context, "Show in Files");
    EXPECT_THAT(files->revealed, ElementsAre(folder));
    this->choose(contextMenu(id), "Remove from list");
    EXPECT_TRUE(waitUntil([&] { return !row(id); }));
    EXPECT_EQ(store().selected(), kSystem);
    EXPECT_TRUE(select(kSystem)->isChecked());
    QStringList modelFiles = test::communityInt8Files();
    modelFiles.sort();
    EXPECT_EQ(test::filesBelow(folder), modelFiles); // never touched

    dialog = openAddModel(); // Escape adds nothing
    ASSERT_TRUE(dialog);
    QTest::keyClicks(tabChild<QLineEdit>(dialog, "repository"), "c/d");
    QTest::keyClick(dialog, Qt::Key_Escape);
    ASSERT_TRUE(closed(dialog));
    EXPECT_EQ(store().engines().size(), 3u);
}

TEST_F(ModelsTabTest, EveryStateOfTheRowsAndTheDialogPassesTheKeyboardCheck)
{
    EXPECT_TRUE(checkKeyboardAccess(tab.get())) << checkKeyboardAccess(tab.get());
    // Downloading, installed, and a failed custom download, all at once.
    click(download(kUltra));
    click(download("parakeetRedux"));
    ASSERT_EQ(fakes.made.size(), 2);
    fakes.made[1]->succeed();
    store().addHub("a/b", {});
    ASSERT_EQ(fakes.made.size(), 3);
    fakes.made[2]->end(DownloadError::network("The connection was lost."));
    ASSERT_THAT(shown(kUltra), testing::Contains("cancel"));
    ASSERT_THAT(shown("parakeetRedux"), testing::Contains("sizeMenu"));
    ASSERT_THAT(shown(customId()), testing::Contains("remove"));
    EXPECT_TRUE(checkKeyboardAccess(tab.get())) << checkKeyboardAccess(tab.get());

    QPointer<AddModelDialog> dialog = openAddModel();
    ASSERT_TRUE(dialog);
    EXPECT_TRUE(checkKeyboardAccess(dialog)) << checkKeyboardAccess(dialog);
    tabChild<QRadioButton>(dialog, "folderSource")->click();
    EXPECT_TRUE(checkKeyboardAccess(dialog)) << checkKeyboardAccess(dialog);
    dialog->reject();
}

class ModelsTabHubTest : public ModelsTabTest
{
protected:
    void SetUp() override
    {
        useFakeDownloads = false;
        ASSERT_TRUE(server.start());
        endpoint.emplace("HF_ENDPOINT", server.address());
        for (const QString &name : test::communityInt8Files())
            server.addFile(kUltraRepo, name, name.toUtf8().repeated(2000));
        ModelsTabTest::SetUp();
    }
    void stallEncoder(bool stall)
    {
        server.repository(kUltraRepo).files["encoder-model.int8.onnx"].stall = stall;
    }

    test::HubTestServer server;
    std::optional<test::ScopedEnvironment> endpoint;
};

TEST_F(ModelsTabHubTest, DownloadsCancelsDownloadsAgainSelectsAndRemoves)
{
    stallEncoder(true);
    click(download(kUltra));
    ASSERT_TRUE(waitUntil([&] { return store().state(kUltra).fraction() > 0.0; }));
    EXPECT_NE(control<QLabel>(kUltra, "percent")->text(), "0%");
    EXPECT_GT(control<QProgressBar>(kUltra, "progress")->value(), 0);
    click(control(kUltra, "cancel"));
    ASSERT_TRUE(waitUntil([&] { return store().jobs().empty(); }));
    EXPECT_THAT(shown(kUltra), ElementsAre("download"));
    EXPECT_FALSE(error()->isVisible());
    EXPECT_FALSE(QFileInfo::exists(ModelFolders::stagingFolderOf(home.modelFolder(kUltra))));

    stallEncoder(false);
    click(download(kUltra));
    ASSERT_TRUE(waitUntil([&] { return store().state(kUltra).isInstalled(); }));
    EXPECT_THAT(shown(kUltra), ElementsAre("selectable", "selected", "sizeMenu"));
    EXPECT_FALSE(error()->isVisible());
    click(select(kSystem));
    EXPECT_EQ(store().selected(), kSystem);
    click(select(kUltra));
    EXPECT_EQ(store().selected(), kUltra);

    choose(sizeMenu(kUltra), "Delete download");
    EXPECT_THAT(shown(kUltra), ElementsAre("download"));
    EXPECT_FALSE(QFileInfo::exists(home.modelFolder(kUltra)));
    EXPECT_EQ(store().selected(), kSystem);
}
