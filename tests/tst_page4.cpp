#include <QtTest>

#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QTableView>
#include <QTreeWidget>

#include "common/isofixture.h"
#include "common/modal.h"
#include "iso/eltorito.h"
#include "pages/page4.h"
#include "ui/baseimagectrl.h"
#include "ui/commdialog.h"
#include "ui/foldermodel.h"
#include "ui/inputdialog.h"
#include "ui/pickers.h"

namespace {

void clickButton(CImageButton* button)
{
    QTest::mouseClick(button, Qt::LeftButton, {},
                      QPoint(button->width() / 2, button->height() / 2));
}

QStringList names(QTableView* table)
{
    QStringList texts;
    for (int row = 0; row < table->model()->rowCount(); ++row)
        texts << table->model()->index(row, 0).data().toString();
    return texts;
}

int rowOf(QTableView* table, const QString& name)
{
    return int(names(table).indexOf(name));
}

// Ticks a row the way a person does: a click on its text.
void tick(QTableView* table, const QString& name)
{
    const QRect cell = table->visualRect(table->model()->index(rowOf(table, name), 0));
    QTest::mouseClick(table->viewport(), Qt::LeftButton, {},
                      QPoint(cell.left() + 80, cell.center().y()));
}

QStringList treeTexts(const QTreeWidgetItem* item)
{
    QStringList texts;
    for (int i = 0; i < item->childCount(); ++i) {
        texts << item->child(i)->text(0);
        for (const QString& below : treeTexts(item->child(i)))
            texts << item->child(i)->text(0) + "/" + below;
    }
    return texts;
}

// Answers the next message dialog with OK, keeping its text.
void answerMessage(QString* text, bool ok = true)
{
    whenModal<CommDialog>([text, ok](CommDialog* dialog) {
        *text = dialog->Label()->text();
        clickButton(ok ? dialog->OkButton() : dialog->CancelButton());
    });
}

} // namespace

class TestPage4 final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();

    void searchFiltersAndActsOnTheRowShown();
    void renameDeleteAndAddThroughTheControls();
    void nothingTickedIsSaid_data();
    void nothingTickedIsSaid();
    void bootFileRefusedAndSaved();
    void backDestroysThePage();
    void imageThatCannotBeOpenedKeepsThePage();

private:
    void Open(const QString& image);

    QTemporaryDir m_dir;
    QTemporaryDir m_home;
    QString m_image;
    std::unique_ptr<CPage4> m_page;
    QList<QStringList> m_answers; // what the pickers answer, in order
    int m_pickerCalls = 0;
};

void TestPage4::initTestCase()
{
    qputenv("XDG_DATA_HOME", m_home.path().toUtf8());
    QVERIFY(IsoFixture::WriteTree(m_dir.filePath("src"), {{"setup/boot/x.txt", "x"},
                                                          {"setup/Boot.ini", "[boot]"},
                                                          {"setup/readme", "read"},
                                                          {"a.txt", "alpha"},
                                                          {"docs/one.txt", "1"},
                                                          {"docs/two.txt", "2"}}));
    QString error;
    m_image =
        IsoFixture::Build(m_dir.filePath("src"), m_dir.filePath("disc.iso"), "joliet", &error);
    QVERIFY2(!m_image.isEmpty(), qPrintable(error));
}

void TestPage4::init()
{
    m_pickerCalls = 0;
    PickerSeam::Set([this](PickerSeam::Kind, const QString&) {
        ++m_pickerCalls;
        return m_answers.isEmpty() ? QStringList() : m_answers.takeFirst();
    });
    m_page = std::make_unique<CPage4>();
    m_page->show();
    QVERIFY(QTest::qWaitForWindowExposed(m_page.get()));
}

void TestPage4::cleanup()
{
    m_page.reset();
    PickerSeam::Reset();
    m_answers.clear();
}

void TestPage4::Open(const QString& image)
{
    QSignalSpy loaded(m_page.get(), &CPage4::loaded);
    m_answers << QStringList{image};
    clickButton(m_page->findChild<CImageButton*>("loadiso"));
    QVERIFY(loaded.wait(60000));
    QCOMPARE(loaded.first().first().toBool(), true);
}

void TestPage4::searchFiltersAndActsOnTheRowShown()
{
    Open(m_image);
    QTableView* table = m_page->Table();
    // A person's double click: two clicks in quick succession.
    const QPoint setup =
        table->visualRect(table->model()->index(rowOf(table, "setup"), 1)).center();
    QTest::mouseClick(table->viewport(), Qt::LeftButton, {}, setup);
    QTest::mouseDClick(table->viewport(), Qt::LeftButton, {}, setup);
    QCOMPARE(m_page->CurrentFolder()->name, QString("setup"));
    QCOMPARE(m_page->Tree()->currentItem()->text(0), QString("setup"));

    QTest::keyClicks(m_page->Search(), "BOOT");
    QStringList shown = names(table);
    shown.sort();
    QCOMPARE(shown, (QStringList{"Boot.ini", "boot"}));

    // With only "readme" shown, its row is the one renamed, not the folder's
    // first child.
    m_page->Search()->clear();
    QTest::keyClicks(m_page->Search(), " ME ");
    QCOMPARE(names(table), QStringList{"readme"});
    tick(table, "readme");
    whenModal<CInputDialog>([](CInputDialog* dialog) {
        QCOMPARE(dialog->GetInputText(), QString("readme"));
        dialog->SetInputText("readme.txt");
        clickButton(dialog->OkButton());
    });
    clickButton(m_page->findChild<CImageButton*>("rename"));
    QCOMPARE(names(table), QStringList{"readme.txt"});
    QVERIFY(m_page->Session()->Contents().Find("setup\\readme.txt"));
    QVERIFY(m_page->Session()->Contents().Find("setup\\boot"));
}

void TestPage4::renameDeleteAndAddThroughTheControls()
{
    Open(m_image);
    QTableView* table = m_page->Table();
    // Delete two ticked rows, the folder's tree item going with it.
    tick(table, "docs");
    tick(table, "a.txt");
    clickButton(m_page->findChild<CImageButton*>("delete_2"));
    QCOMPARE(names(table), QStringList{"setup"});
    QCOMPARE(treeTexts(m_page->Tree()->topLevelItem(0)), (QStringList{"setup", "setup/boot"}));

    // Add a file and a folder with a subfolder from the picker.
    QVERIFY(IsoFixture::WriteTree(m_dir.filePath("local"),
                                  {{"new.txt", "n"}, {"pack/inner/deep.txt", "d"}}));
    m_answers << QStringList{m_dir.filePath("local/new.txt"), m_dir.filePath("local/pack")};
    clickButton(m_page->findChild<CImageButton*>("add"));
    QCOMPARE(names(table), (QStringList{"setup", "new.txt", "pack"}));
    QCOMPARE(treeTexts(m_page->Tree()->topLevelItem(0)),
             (QStringList{"setup", "setup/boot", "pack", "pack/inner"}));

    // Rename the added folder: its tree item follows.
    tick(table, "pack");
    whenModal<CInputDialog>([](CInputDialog* dialog) {
        dialog->SetInputText("renamed");
        clickButton(dialog->OkButton());
    });
    clickButton(m_page->findChild<CImageButton*>("rename"));
    QCOMPARE(names(table), (QStringList{"setup", "new.txt", "renamed"}));
    QCOMPARE(m_page->Tree()->topLevelItem(0)->child(1)->text(0), QString("renamed"));

    // A name that is taken is refused with a message and changes nothing.
    tick(table, "renamed");
    whenModal<CInputDialog>([](CInputDialog* dialog) {
        dialog->SetInputText("setup");
        clickButton(dialog->OkButton());
    });
    QString said;
    QTimer::singleShot(0, [&] { answerMessage(&said); });
    clickButton(m_page->findChild<CImageButton*>("rename"));
    QTRY_VERIFY(!said.isEmpty());
    QVERIFY(said.contains("already"));
    QCOMPARE(names(table), (QStringList{"setup", "new.txt", "renamed"}));
    // The session's own tests follow such edits into the change list and the saved image.
    QVERIFY(m_page->Session()->Contents().Find("renamed\\inner\\deep.txt"));
}

void TestPage4::nothingTickedIsSaid_data()
{
    QTest::addColumn<QString>("button");
    QTest::newRow("rename") << "rename";
    QTest::newRow("delete") << "delete_2";
    QTest::newRow("export") << "export_2";
}

// With no row ticked the button says so and touches nothing.
void TestPage4::nothingTickedIsSaid()
{
    QFETCH(QString, button);
    Open(m_image);
    QString said;
    answerMessage(&said);
    clickButton(m_page->findChild<CImageButton*>(button));
    QVERIFY(!said.isEmpty());
    QCOMPARE(m_pickerCalls, 1); // only the image was asked for
    QCOMPARE(m_page->Model()->rowCount(), 3);
}

// The page says how the save goes, refuses to take away a boot file with the
// file named, and says the save succeeded only once it has.
void TestPage4::bootFileRefusedAndSaved()
{
    const QString source = m_dir.filePath("boot-src");
    QVERIFY(IsoFixture::WriteTree(
        source, {{"isolinux/loader.bin", QByteArray(2048, 'L')}, {"f.txt", "f"}}));
    const QString image = m_dir.filePath("bootable.iso");
    QProcess builder;
    builder.start("genisoimage", {"-quiet", "-R", "-o", image, "-b", "isolinux/loader.bin",
                                  "-no-emul-boot", "-boot-load-size", "4", source});
    QVERIFY(builder.waitForFinished(60000) && builder.exitCode() == 0);

    Open(image);
    QVERIFY(m_page->Status()->isVisible());
    QVERIFY(m_page->Status()->text().contains("xorriso"));
    QTableView* table = m_page->Table();
    tick(table, "isolinux");
    QString said;
    answerMessage(&said);
    clickButton(m_page->findChild<CImageButton*>("delete_2"));
    QVERIFY2(said.contains("/isolinux/loader.bin"), qPrintable(said));
    QVERIFY(names(table).contains("isolinux"));

    const QString output = m_dir.filePath("saved.iso");
    m_answers << QStringList{output};
    QSignalSpy saved(m_page.get(), &CPage4::saveDone);
    QString finished;
    whenModal<CommDialog>([&finished](CommDialog* dialog) {
        finished = dialog->Label()->text();
        clickButton(dialog->OkButton());
    });
    clickButton(m_page->findChild<CImageButton*>("save"));
    QVERIFY(saved.wait(60000) || saved.count() == 1);
    QCOMPARE(saved.first().first().toBool(), true);
    QCOMPARE(finished, QString("Save ISO file successfully!"));
    const std::optional<ElTorito::Catalog> catalog = ElTorito::ReadFile(output);
    QVERIFY(catalog && catalog->entries.size() == 1);
}

void TestPage4::backDestroysThePage()
{
    Open(m_image);
    QPointer<CPage4> page = m_page.release();
    clickButton(page->findChild<CImageButton*>("back"));
    QTRY_VERIFY(page.isNull());
}

// Opening an image that cannot be read leaves the image that was open as it
// was, with its tree and its table.
void TestPage4::imageThatCannotBeOpenedKeepsThePage()
{
    Open(m_image);
    const QStringList tree = treeTexts(m_page->Tree()->topLevelItem(0));
    QFile broken(m_dir.filePath("broken.iso"));
    QVERIFY(broken.open(QIODevice::WriteOnly) && broken.write(QByteArray(70000, 'x')) > 0);
    broken.close();

    QSignalSpy loaded(m_page.get(), &CPage4::loaded);
    QString said;
    answerMessage(&said);
    m_answers << QStringList{broken.fileName()};
    clickButton(m_page->findChild<CImageButton*>("loadiso"));
    QVERIFY(loaded.wait(60000));
    QCOMPARE(loaded.first().first().toBool(), false);
    QTRY_VERIFY(said.startsWith("The image could not be opened."));
    QCOMPARE(m_page->Tree()->topLevelItem(0)->text(0), QString("disc.iso"));
    QCOMPARE(treeTexts(m_page->Tree()->topLevelItem(0)), tree);
    QVERIFY(m_page->findChild<CImageButton*>("loadiso")->isEnabled());
}

QTEST_MAIN(TestPage4)
#include "tst_page4.moc"
