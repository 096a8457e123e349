#include "ui/ModelsTab.h"

#include "app/AppFixture.h"
#include "models/HubTestServer.h"
#include "models/ModelFolders.h"
#include "models/ModelTestSupport.h"
#include "ui/AccessibilityCheck.h"
#include "ui/AddModelDialog.h"
#include "ui/EngineRow.h"
#include "ui/FileBrowser.h"

#include <QAccessible>
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
using testing::ElementsAre;

namespace {

// Records what would have been shown in the file browser.
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
        ASSERT_TRUE(test::waitUntil([&] { return tab->isActiveWindow(); }));
    }

    void TearDown() override
    {
        tab.reset();
        AppFixture::TearDown();
    }

    ModelStore &store() { return m_model->models(); }
    EngineRow *row(const QString &id) { return tab->row(id); }
    template <typename T> T *control(const QString &id, const char *name)
    {
        EngineRow *engineRow = row(id);
        return engineRow ? engineRow->findChild<T *>(QString::fromLatin1(name)) : nullptr;
    }
    QPushButton *downloadButton(const QString &id) { return control<QPushButton>(id, "download"); }
    QToolButton *selectButton(const QString &id) { return control<QToolButton>(id, "select"); }
    QToolButton *cancelButton(const QString &id) { return control<QToolButton>(id, "cancel"); }
    QToolButton *sizeButton(const QString &id) { return control<QToolButton>(id, "sizeMenu"); }
    QLabel *label(const QString &id, const char *name) { return control<QLabel>(id, name); }
    QLabel *errorLabel() { return tab->findChild<QLabel *>(QStringLiteral("lastError")); }
    QString customId()
    {
        for (const Engine &engine : store().engines())
            if (engine.custom)
                return engine.id;
        return {};
    }

    void click(QAbstractButton *button)
    {
        ASSERT_TRUE(button);
        ASSERT_TRUE(button->isVisible()) << button->objectName().toStdString();
        QTest::mouseClick(button, Qt::LeftButton);
    }

    // Chooses an item of an open menu with the mouse, as the user would.
    void choose(QMenu *menu, const QString &text)
    {
        ASSERT_TRUE(menu);
        ASSERT_TRUE(test::waitUntil([&] { return menu->isVisible(); }));
        QAction *wanted = nullptr;
        for (QAction *action : menu->actions())
            if (action->text() == text)
                wanted = action;
        ASSERT_TRUE(wanted) << text.toStdString() << " not in "
                            << actionTexts(menu).join(", ").toStdString();
        QTest::mouseClick(menu, Qt::LeftButton, {}, menu->actionGeometry(wanted).center());
        // A removed engine's row goes once the click has been handled.
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }

    // The context menu of a row, opened as the keyboard's menu key opens it: from the focused
    // control inside the row, or from the row itself.
    QMenu *openContextMenu(const QString &id, QWidget *from = nullptr)
    {
        QWidget *target = from ? from : row(id);
        QContextMenuEvent event(QContextMenuEvent::Keyboard, QPoint(2, 2),
                                target->mapToGlobal(QPoint(2, 2)));
        QApplication::sendEvent(target, &event);
        return row(id)->findChild<QMenu *>(QStringLiteral("contextMenu"));
    }

    QMenu *openSizeMenu(const QString &id)
    {
        click(sizeButton(id));
        return sizeButton(id)->findChild<QMenu *>(QStringLiteral("sizeMenuItems"));
    }

    AddModelDialog *openAddModel()
    {
        click(tab->findChild<QToolButton *>(QStringLiteral("addModel")));
        AddModelDialog *dialog = tab->addModelDialog();
        EXPECT_TRUE(dialog && dialog->isVisible());
        return dialog;
    }

    // Runs the event loop until the dialog has closed and been deleted.
    bool closed(const QPointer<AddModelDialog> &dialog)
    {
        return test::waitUntil([&] { return !dialog; });
    }

    bool useFakeDownloads = true;
    test::ScopedDataHome home;
    std::shared_ptr<RecordingFiles> files = std::make_shared<RecordingFiles>();
    test::FakeDownloads fakes;
    std::unique_ptr<ModelsTab> tab;
};

} // namespace

TEST_F(ModelsTabTest, ListsTheBuiltInEnginesWithWhatTheirStateAllows)
{
    QStringList names;
    for (const Engine &engine : store().engines())
        names << row(engine.id)->findChild<QLabel *>(QStringLiteral("name"))->text();
    EXPECT_THAT(names,
                ElementsAre("Built-in Speech", "NVIDIA Parakeet Redux", "NVIDIA Parakeet Ultra"));
    EXPECT_FALSE(tab->findChild<QLabel *>(QStringLiteral("badge")));

    // The built-in engine: always installed and selectable, "Built in", no menu.
    const QString system = Engine::systemId;
    EXPECT_TRUE(selectButton(system)->isEnabled());
    EXPECT_TRUE(selectButton(system)->isChecked());
    EXPECT_EQ(accessibleName(selectButton(system)), "Use Built-in Speech");
    EXPECT_TRUE(label(system, "builtIn")->isVisible());
    EXPECT_EQ(label(system, "builtIn")->text(), "Built in");
    EXPECT_FALSE(downloadButton(system)->isVisible());
    EXPECT_EQ(openContextMenu(system), nullptr);

    // A Parakeet engine that is not installed: "Download" over its size, not selectable, no
    // bin, and only "Delete download" in its context menu.
    EXPECT_FALSE(selectButton(kUltra)->isEnabled());
    EXPECT_FALSE(selectButton(kUltra)->isChecked());
    EXPECT_TRUE(downloadButton(kUltra)->isVisible());
    EXPECT_EQ(label(kUltra, "sizeCaption")->text(), QString::fromUtf8("≈ 670 MB"));
    EXPECT_FALSE(control<QToolButton>(kUltra, "remove"));
    EXPECT_FALSE(cancelButton(kUltra)->isVisible());
    EXPECT_FALSE(sizeButton(kUltra)->isVisible());
    QMenu *menu = openContextMenu(kUltra);
    ASSERT_TRUE(menu);
    EXPECT_THAT(actionTexts(menu), ElementsAre("Delete download"));
    menu->close();

    EXPECT_FALSE(errorLabel()->isVisible());
    EXPECT_EQ(tab->findChild<QLabel *>(QStringLiteral("footer"))->text(),
              "Models run entirely on this computer. Downloads come straight from Hugging Face "
              "when you ask for them, and can be removed at any time. Parakeet transcribes each "
              "phrase after a short pause, and finishes within a second or two of you stopping.");
}

TEST_F(ModelsTabTest, ShowsDownloadProgressInWholePercentAndCancels)
{
    click(downloadButton(kUltra));
    ASSERT_EQ(fakes.made.size(), 1);
    EXPECT_TRUE(fakes.made[0]->started);
    EXPECT_EQ(fakes.made[0]->repository, kUltraRepo);
    EXPECT_FALSE(downloadButton(kUltra)->isVisible());
    auto *progress = control<QProgressBar>(kUltra, "progress");
    EXPECT_TRUE(progress->isVisible());
    EXPECT_EQ(label(kUltra, "percent")->text(), "0%");
    EXPECT_FALSE(selectButton(kUltra)->isEnabled());

    fakes.made[0]->report(0.5);
    EXPECT_EQ(label(kUltra, "percent")->text(), "50%");
    EXPECT_EQ(progress->value() * 2, progress->maximum());
    fakes.made[0]->report(0.999);
    EXPECT_EQ(label(kUltra, "percent")->text(), "99%");
    EXPECT_EQ(EngineRow::percentText(0.29), "28%"); // rounded down, as floating point has it
    EXPECT_EQ(EngineRow::percentText(1.0), "100%");

    // The cancel button is an icon alone: its tooltip and name say what it does.
    QToolButton *cancel = cancelButton(kUltra);
    EXPECT_EQ(cancel->toolTip(), "Cancel download");
    EXPECT_EQ(accessibleName(cancel), "Cancel download of NVIDIA Parakeet Ultra");
    click(cancel);
    EXPECT_EQ(store().state(kUltra), ModelState::notInstalled());
    EXPECT_TRUE(downloadButton(kUltra)->isVisible());
    EXPECT_FALSE(progress->isVisible());
    EXPECT_FALSE(errorLabel()->isVisible());
}

TEST_F(ModelsTabTest, AFinishedDownloadIsSelectedAndOffersItsFolderAndDeletion)
{
    click(downloadButton(kUltra));
    ASSERT_EQ(fakes.made.size(), 1);
    fakes.made[0]->succeed();
    const QString folder = home.modelFolder(kUltra);

    EXPECT_TRUE(selectButton(kUltra)->isEnabled());
    EXPECT_TRUE(selectButton(kUltra)->isChecked());
    EXPECT_FALSE(selectButton(Engine::systemId)->isChecked());
    EXPECT_TRUE(sizeButton(kUltra)->isVisible());
    // The measured size replaces the catalogue's estimate.
    ASSERT_TRUE(test::waitUntil([&] { return store().sizes().contains(kUltra); }));
    EXPECT_EQ(sizeButton(kUltra)->text(), store().sizes().value(kUltra));
    EXPECT_THAT(accessibleName(sizeButton(kUltra)).toStdString(),
                testing::HasSubstr("NVIDIA Parakeet Ultra"));

    QMenu *sizeMenu = openSizeMenu(kUltra);
    ASSERT_TRUE(sizeMenu);
    EXPECT_THAT(actionTexts(sizeMenu), ElementsAre("Show in Files", "—", "Delete download"));
    choose(sizeMenu, "Show in Files");
    EXPECT_THAT(files->revealed, ElementsAre(folder));

    QMenu *context = openContextMenu(kUltra);
    ASSERT_TRUE(context);
    EXPECT_THAT(actionTexts(context), ElementsAre("Show in Files", "Delete download"));
    context->close();

    // The check mark follows the user's choice.
    click(selectButton(Engine::systemId));
    EXPECT_EQ(store().selected(), Engine::systemId);
    EXPECT_FALSE(selectButton(kUltra)->isChecked());
    click(selectButton(kUltra));
    EXPECT_EQ(store().selected(), kUltra);
    // A second click on the engine in use keeps it in use.
    click(selectButton(kUltra));
    EXPECT_TRUE(selectButton(kUltra)->isChecked());
    EXPECT_EQ(store().selected(), kUltra);

    choose(openSizeMenu(kUltra), "Delete download");
    EXPECT_EQ(store().state(kUltra), ModelState::notInstalled());
    EXPECT_FALSE(QFileInfo::exists(folder));
    EXPECT_EQ(store().selected(), Engine::systemId);
    EXPECT_TRUE(selectButton(Engine::systemId)->isChecked());
    EXPECT_TRUE(downloadButton(kUltra)->isVisible());
    EXPECT_FALSE(sizeButton(kUltra)->isVisible());
}

TEST_F(ModelsTabTest, AddsAHubModelAndShowsWhyItsDownloadFailed)
{
    // "a / b" passes the dialog's own check, and the store refuses it.
    QPointer<AddModelDialog> dialog = openAddModel();
    ASSERT_TRUE(dialog);
    auto *repository = dialog->findChild<QLineEdit *>(QStringLiteral("repository"));
    auto *add = dialog->findChild<QPushButton *>(QStringLiteral("add"));
    EXPECT_EQ(repository->placeholderText(), "owner/repository");
    EXPECT_EQ(accessibleName(add), "Add & Download");
    EXPECT_FALSE(add->isEnabled());
    QTest::keyClicks(repository, "ab");
    EXPECT_FALSE(add->isEnabled());
    repository->clear();
    QTest::keyClicks(repository, "a / b");
    EXPECT_TRUE(add->isEnabled());
    click(add);
    ASSERT_TRUE(closed(dialog));
    EXPECT_EQ(store().engines().size(), 3u);
    QLabel *error = errorLabel();
    EXPECT_TRUE(error->isVisible());
    EXPECT_EQ(error->text(), "Enter a repository as owner/name, for example "
                             "istupakov/parakeet-tdt-0.6b-v3-onnx.");
    const QColor red = error->palette().color(QPalette::WindowText);
    EXPECT_GT(red.red(), 2 * red.green());
    EXPECT_GT(red.red(), 2 * red.blue());

    // The dialog opens fresh; Return adds.
    dialog = openAddModel();
    ASSERT_TRUE(dialog);
    repository = dialog->findChild<QLineEdit *>(QStringLiteral("repository"));
    EXPECT_TRUE(repository->text().isEmpty());
    QTest::keyClicks(repository, "a/b");
    QTest::keyClick(repository, Qt::Key_Return);
    ASSERT_TRUE(closed(dialog));
    const QString id = customId();
    ASSERT_TRUE(row(id));
    EXPECT_FALSE(error->isVisible());
    EXPECT_EQ(row(id)->findChild<QLabel *>(QStringLiteral("name"))->text(), "b");
    EXPECT_EQ(label(id, "badge")->text(), "Custom");
    EXPECT_EQ(label(id, "summary")->toolTip(), "a/b");
    EXPECT_TRUE(control<QProgressBar>(id, "progress")->isVisible());

    // A failed download: "Download" over "Custom", a bin, and the reason in red.
    ASSERT_EQ(fakes.made.size(), 1);
    fakes.made[0]->end(DownloadError::notFound("a/b"));
    EXPECT_TRUE(downloadButton(id)->isVisible());
    EXPECT_EQ(label(id, "sizeCaption")->text(), "Custom");
    EXPECT_TRUE(error->isVisible());
    EXPECT_EQ(error->text(), QString::fromUtf8("Couldn't find “a/b” on Hugging Face (or it "
                                               "needs a login)."));
    QMenu *context = openContextMenu(id);
    ASSERT_TRUE(context);
    EXPECT_THAT(actionTexts(context), ElementsAre("Delete model"));
    context->close();

    auto *bin = control<QToolButton>(id, "remove");
    ASSERT_TRUE(bin);
    EXPECT_EQ(bin->toolTip(), "Remove from list");
    EXPECT_EQ(accessibleName(bin), "Remove b from list");
    click(bin);
    EXPECT_TRUE(test::waitUntil([&] { return !row(id) && customId().isEmpty(); }));
    // The row goes once the click that removed its engine has been handled.
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    EXPECT_EQ(tab->findChildren<EngineRow *>().size(), 3);
}

TEST_F(ModelsTabTest, AddsAFolderThatIsUsedInPlace)
{
    const QString folder = home.path() + "/my-model";
    test::writeFakeModel(folder);

    QPointer<AddModelDialog> dialog = openAddModel();
    ASSERT_TRUE(dialog);
    auto *repository = dialog->findChild<QLineEdit *>(QStringLiteral("repository"));
    auto *add = dialog->findChild<QPushButton *>(QStringLiteral("add"));
    auto *folderButton = dialog->findChild<QPushButton *>(QStringLiteral("folder"));
    QTest::keyClicks(repository, "kept/for-later");

    // The folder source: "Add", disabled until a folder is chosen.
    click(dialog->findChild<QRadioButton *>(QStringLiteral("folderSource")));
    EXPECT_FALSE(repository->isVisible());
    EXPECT_TRUE(folderButton->isVisible());
    EXPECT_EQ(folderButton->text(), QString::fromUtf8("Choose…"));
    EXPECT_EQ(accessibleName(add), "Add");
    EXPECT_FALSE(add->isEnabled());
    // A picker the user closes without choosing changes nothing.
    dialog->setFolderChooser([](QWidget *) { return QString(); });
    click(folderButton);
    EXPECT_FALSE(add->isEnabled());
    // Switching back keeps what was typed.
    click(dialog->findChild<QRadioButton *>(QStringLiteral("hubSource")));
    EXPECT_EQ(repository->text(), "kept/for-later");
    EXPECT_EQ(accessibleName(add), "Add & Download");
    click(dialog->findChild<QRadioButton *>(QStringLiteral("folderSource")));

    dialog->setFolderChooser([&](QWidget *) { return folder; });
    click(folderButton);
    EXPECT_EQ(folderButton->text(), "my-model");
    EXPECT_TRUE(add->isEnabled());
    click(add);
    // Until its size is measured, the installed engine's menu shows "Custom".
    const QString id = customId();
    ASSERT_TRUE(row(id));
    EXPECT_EQ(sizeButton(id)->text(), "Custom");
    ASSERT_TRUE(closed(dialog));

    EXPECT_TRUE(fakes.made.isEmpty());
    EXPECT_EQ(store().selected(), id);
    EXPECT_TRUE(selectButton(id)->isChecked());
    EXPECT_FALSE(selectButton(Engine::systemId)->isChecked());
    EXPECT_TRUE(sizeButton(id)->isVisible());
    ASSERT_TRUE(test::waitUntil([&] { return store().sizes().contains(id); }));
    EXPECT_EQ(sizeButton(id)->text(), store().sizes().value(id));

    QMenu *context = openContextMenu(id, selectButton(id));
    ASSERT_TRUE(context);
    EXPECT_THAT(actionTexts(context), ElementsAre("Show in Files", "Remove from list"));
    choose(context, "Show in Files");
    EXPECT_THAT(files->revealed, ElementsAre(folder));

    choose(openContextMenu(id), "Remove from list");
    EXPECT_TRUE(test::waitUntil([&] { return !row(id); }));
    EXPECT_EQ(store().selected(), Engine::systemId);
    EXPECT_TRUE(selectButton(Engine::systemId)->isChecked());
    QStringList modelFiles = test::communityInt8Files();
    modelFiles.sort();
    EXPECT_EQ(test::filesBelow(folder), modelFiles); // used in place, never touched

    // Escape closes the dialog without adding anything.
    dialog = openAddModel();
    ASSERT_TRUE(dialog);
    QTest::keyClicks(dialog->findChild<QLineEdit *>(QStringLiteral("repository")), "c/d");
    QTest::keyClick(dialog, Qt::Key_Escape);
    ASSERT_TRUE(closed(dialog));
    EXPECT_EQ(store().engines().size(), 3u);
}

TEST_F(ModelsTabTest, ShowInFilesCreatesTheModelsFolderAndOpensIt)
{
    ASSERT_FALSE(QFileInfo::exists(home.modelsRoot()));
    click(tab->findChild<QToolButton *>(QStringLiteral("showModelsFolder")));
    EXPECT_TRUE(QFileInfo(home.modelsRoot()).isDir());
    EXPECT_THAT(files->opened, ElementsAre(home.modelsRoot()));
}

TEST_F(ModelsTabTest, EveryControlIsReachedWithTabNamedAndWorksFromTheKeyboard)
{
    // Walk the focus chain once round.
    QWidget *first = tab->findChild<QToolButton *>(QStringLiteral("showModelsFolder"));
    first->setFocus(Qt::TabFocusReason);
    ASSERT_TRUE(test::waitUntil([&] { return QApplication::focusWidget() == first; }));
    QList<QWidget *> reached;
    while (reached.size() < 40) {
        QWidget *focused = QApplication::focusWidget();
        if (reached.contains(focused))
            break;
        reached << focused;
        QTest::keyClick(focused, Qt::Key_Tab);
    }
    QStringList names;
    for (QWidget *widget : reached) {
        EXPECT_FALSE(accessibleName(widget).isEmpty()) << widget->metaObject()->className();
        names << accessibleName(widget);
    }
    EXPECT_THAT(names,
                ElementsAre("Show in Files", QString::fromUtf8("Add model…"), "Use Built-in Speech",
                            "Download NVIDIA Parakeet Redux", "Download NVIDIA Parakeet Ultra"));

    // Space on "Download" starts it; the focus moves to the cancel button, and Space there
    // cancels and brings the focus back.
    QPushButton *download = downloadButton(kUltra);
    download->setFocus(Qt::TabFocusReason);
    QTest::keyClick(download, Qt::Key_Space);
    ASSERT_EQ(fakes.made.size(), 1);
    EXPECT_EQ(QApplication::focusWidget(), cancelButton(kUltra));
    QTest::keyClick(cancelButton(kUltra), Qt::Key_Space);
    EXPECT_EQ(store().state(kUltra), ModelState::notInstalled());
    EXPECT_EQ(QApplication::focusWidget(), download);

    // Once installed, the size button takes the focus and Space opens its menu.
    QTest::keyClick(download, Qt::Key_Space);
    ASSERT_EQ(fakes.made.size(), 2);
    fakes.made[1]->succeed();
    QToolButton *size = sizeButton(kUltra);
    EXPECT_EQ(QApplication::focusWidget(), size);
    QTest::keyClick(size, Qt::Key_Space);
    QMenu *menu = size->findChild<QMenu *>(QStringLiteral("sizeMenuItems"));
    ASSERT_TRUE(test::waitUntil([&] { return menu->isVisible(); }));
    QTest::keyClick(menu, Qt::Key_Escape);
    EXPECT_TRUE(test::waitUntil([&] { return !menu->isVisible(); }));

    // The menu key on a control of the row opens the row's menu.
    QMenu *context = openContextMenu(kUltra, size);
    ASSERT_TRUE(context);
    EXPECT_TRUE(test::waitUntil([&] { return context->isVisible(); }));
    context->close();
}

TEST_F(ModelsTabTest, EveryStateOfTheRowsAndTheDialogPassesTheKeyboardCheck)
{
    EXPECT_TRUE(checkKeyboardAccess(tab.get())) << checkKeyboardAccess(tab.get());

    // Downloading (the cancel button), installed (the size menu), and a custom engine whose
    // download failed (the bin), all at once.
    click(downloadButton(kUltra));
    click(downloadButton("parakeetRedux"));
    ASSERT_EQ(fakes.made.size(), 2);
    fakes.made[1]->succeed();
    store().addHub("a/b", {});
    ASSERT_EQ(fakes.made.size(), 3);
    fakes.made[2]->end(DownloadError::network("The connection was lost."));
    ASSERT_TRUE(cancelButton(kUltra)->isVisible());
    ASSERT_TRUE(sizeButton("parakeetRedux")->isVisible());
    ASSERT_TRUE(control<QToolButton>(customId(), "remove")->isVisible());
    EXPECT_TRUE(checkKeyboardAccess(tab.get())) << checkKeyboardAccess(tab.get());

    QPointer<AddModelDialog> dialog = openAddModel();
    ASSERT_TRUE(dialog);
    EXPECT_TRUE(checkKeyboardAccess(dialog)) << checkKeyboardAccess(dialog);
    dialog->findChild<QRadioButton *>(QStringLiteral("folderSource"))->click();
    EXPECT_TRUE(checkKeyboardAccess(dialog)) << checkKeyboardAccess(dialog);
    dialog->reject();
}

// The tab against the loopback hub, with the real download.
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

    test::HubTestServer server;
    std::optional<test::ScopedEnvironment> endpoint;
};

TEST_F(ModelsTabHubTest, DownloadsCancelsDownloadsAgainSelectsAndRemoves)
{
    // One file stalls halfway, so the download stays in progress until cancelled.
    server.repository(kUltraRepo).files["encoder-model.int8.onnx"].stall = true;
    click(downloadButton(kUltra));
    QLabel *percent = label(kUltra, "percent");
    ASSERT_TRUE(test::waitUntil([&] { return store().state(kUltra).fraction() > 0.0; }));
    EXPECT_TRUE(percent->isVisible());
    EXPECT_NE(percent->text(), "0%");
    EXPECT_GT(control<QProgressBar>(kUltra, "progress")->value(), 0);

    click(cancelButton(kUltra));
    ASSERT_TRUE(test::waitUntil([&] { return store().jobs().empty(); }));
    EXPECT_TRUE(downloadButton(kUltra)->isVisible());
    EXPECT_FALSE(errorLabel()->isVisible());
    EXPECT_FALSE(QFileInfo::exists(ModelFolders::stagingFolderOf(home.modelFolder(kUltra))));

    server.repository(kUltraRepo).files["encoder-model.int8.onnx"].stall = false;
    click(downloadButton(kUltra));
    ASSERT_TRUE(test::waitUntil([&] { return store().state(kUltra).isInstalled(); }));
    EXPECT_TRUE(sizeButton(kUltra)->isVisible());
    EXPECT_TRUE(selectButton(kUltra)->isChecked());
    EXPECT_FALSE(errorLabel()->isVisible());

    click(selectButton(Engine::systemId));
    EXPECT_EQ(store().selected(), Engine::systemId);
    click(selectButton(kUltra));
    EXPECT_EQ(store().selected(), kUltra);

    choose(openSizeMenu(kUltra), "Delete download");
    EXPECT_TRUE(downloadButton(kUltra)->isVisible());
    EXPECT_FALSE(QFileInfo::exists(home.modelFolder(kUltra)));
    EXPECT_EQ(store().selected(), Engine::systemId);
}
