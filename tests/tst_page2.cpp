#include <QtTest>

#include <QDialogButtonBox>
#include <QLabel>
#include <QListView>
#include <QMimeData>
#include <QTableView>
#include <QTreeWidget>

#include "common/craftedimage.h"
#include "common/isofixture.h"
#include "common/modal.h"
#include "pages/page2.h"
#include "ui/baseimagectrl.h"
#include "ui/commdialog.h"
#include "ui/filelistwidgets.h"
#include "ui/foldermodel.h"
#include "ui/gerneraldialog.h"
#include "ui/pickers.h"
#include "ui/progressdialog.h"

namespace {

// A person's double click: two clicks in quick succession on the same cell.
void doubleClick(QTableView* table, QPoint at)
{
    QTest::mouseClick(table->viewport(), Qt::LeftButton, {}, at);
    QTest::mouseDClick(table->viewport(), Qt::LeftButton, {}, at);
}

void clickButton(CImageButton* button)
{
    QTest::mouseClick(button, Qt::LeftButton, {},
                      QPoint(button->width() / 2, button->height() / 2));
}

// What the table shows, as a person reads it.
QStringList column(QTableView* table, int column)
{
    QStringList texts;
    for (int row = 0; row < table->model()->rowCount(); ++row)
        texts << table->model()->index(row, column).data().toString();
    return texts;
}

QList<bool> ticks(QTableView* table)
{
    QList<bool> states;
    for (int row = 0; row < table->model()->rowCount(); ++row)
        states << (table->model()->index(row, 0).data(Qt::CheckStateRole).toInt() == Qt::Checked);
    return states;
}

QPoint cellPoint(QTableView* table, int row, int x)
{
    const QRect rect = table->visualRect(table->model()->index(row, 0));
    return QPoint(x, rect.center().y());
}

} // namespace

class TestPage2 final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();

    void opensImageAndBrowses();
    void rowClicksAndHeaderTick();
    void droppedImageOpens();
    void extractNeedsTickedRows();
    void extractsTickedEntriesFromNestedFolder();
    void imageThatCannotBeReadGivesThePageBack();
    void craftedNamesStayOutOfReach();
    void folderPickerSelectsSeveralFolders();

private:
    void openImage(const QString& path, bool expectSuccess = true);

    QTemporaryDir m_dir;
    QString m_image;
    QString m_crafted;
    std::unique_ptr<CPage2> m_page;
    QStringList m_answers; // what the pickers answer, in order
};

void TestPage2::initTestCase()
{
    const QString source = m_dir.filePath("src");
    QVERIFY(IsoFixture::WriteTree(source, {{"setup.exe", QByteArray(1536, 'x')},
                                           {"docs/x/a.txt", "alpha"},
                                           {"docs/x/sub/b.txt", "bee"},
                                           {"docs/readme.txt", "read"}}));
    QString error;
    m_image = IsoFixture::Build(source, m_dir.filePath("disc.iso"), "joliet", &error);
    QVERIFY2(!m_image.isEmpty(), qPrintable(error));
    m_crafted = CraftedImage::Build(m_dir.path(),
                                    {{"../../notes.txt", "from the image"}, {"plain.txt", "plain"}},
                                    m_dir.filePath("crafted.iso"), &error);
    QVERIFY2(!m_crafted.isEmpty(), qPrintable(error));
}

void TestPage2::init()
{
    PickerSeam::Set([this](PickerSeam::Kind, const QString&) {
        return m_answers.isEmpty() ? QStringList() : QStringList{m_answers.takeFirst()};
    });
    m_page = std::make_unique<CPage2>();
    m_page->show();
    QVERIFY(QTest::qWaitForWindowExposed(m_page.get()));
}

void TestPage2::cleanup()
{
    m_page.reset();
    PickerSeam::Reset();
    m_answers.clear();
}

void TestPage2::openImage(const QString& path, bool expectSuccess)
{
    QSignalSpy listed(m_page.get(), &CPage2::listingFinished);
    m_answers << path;
    if (!expectSuccess) {
        whenModal<CommDialog>([](CommDialog* dialog) {
            QVERIFY(dialog->Label()->text().startsWith("The image could not be opened."));
            clickButton(dialog->OkButton());
        });
    }
    clickButton(m_page->findChild<CImageButton*>("loadiso"));
    QVERIFY(listed.wait(60000) || listed.count() == 1);
    QCOMPARE(listed.first().at(0).toBool(), expectSuccess);
}

void TestPage2::opensImageAndBrowses()
{
    openImage(m_image);
    QTreeWidget* tree = m_page->Tree();
    QTableView* table = m_page->Table();
    QCOMPARE(tree->topLevelItemCount(), 1);
    QCOMPARE(tree->topLevelItem(0)->text(0), QString("disc.iso"));
    QCOMPARE(column(table, 0), (QStringList{"docs", "setup.exe"}));
    QCOMPARE(table->model()->index(0, 0).data(Qt::UserRole).toInt(), CFolderModel::FolderMark);
    QVERIFY(table->model()->index(1, 0).data(Qt::UserRole).isNull());

    // Double-clicking a folder opens it, and the tree follows.
    doubleClick(table, cellPoint(table, 0, 60));
    QCOMPARE(column(table, 0), (QStringList{"readme.txt", "x"}));
    QCOMPARE(tree->currentItem()->text(0), QString("docs"));
    // Double-clicking a file changes nothing.
    doubleClick(table, cellPoint(table, 0, 60));
    QCOMPARE(column(table, 0), (QStringList{"readme.txt", "x"}));

    // The top tree item shows the root again.
    const QRect top = tree->visualItemRect(tree->topLevelItem(0));
    QTest::mouseClick(tree->viewport(), Qt::LeftButton, {}, top.center());
    QCOMPARE(column(table, 0), (QStringList{"docs", "setup.exe"}));

    // By keys: Down moves, Space ticks the current row, Enter opens a folder.
    table->setFocus();
    table->setCurrentIndex(table->model()->index(0, 0));
    QTest::keyClick(table, Qt::Key_Down);
    QTest::keyClick(table, Qt::Key_Space);
    QCOMPARE(ticks(table), (QList<bool>{false, true}));
    QTest::keyClick(table, Qt::Key_Up);
    QTest::keyClick(table, Qt::Key_Return);
    QCOMPARE(column(table, 0), (QStringList{"readme.txt", "x"}));
}

void TestPage2::rowClicksAndHeaderTick()
{
    openImage(m_image);
    QTableView* table = m_page->Table();
    // A click on the row's text ticks it; a second one unticks it.
    QTest::mouseClick(table->viewport(), Qt::LeftButton, {}, cellPoint(table, 1, 100));
    QCOMPARE(ticks(table), (QList<bool>{false, true}));
    QTest::mouseClick(table->viewport(), Qt::LeftButton, {}, cellPoint(table, 1, 100));
    QCOMPARE(ticks(table), (QList<bool>{false, false}));
    // A click on the box itself ticks the row once, not twice.
    const QRect box = table->visualRect(table->model()->index(0, 0));
    QTest::mouseClick(table->viewport(), Qt::LeftButton, {},
                      QPoint(box.left() + 10, box.center().y()));
    QCOMPARE(ticks(table), (QList<bool>{true, false}));
    m_page->slotSelectAll(false);

    // The header's box ticks every row, then unticks them all.
    SCheckBoxHeaderView* header = m_page->Header();
    QSignalSpy changed(header, &SCheckBoxHeaderView::checkStausChange);
    QTest::mouseClick(header->viewport(), Qt::LeftButton, {}, QPoint(10, header->height() / 2));
    QCOMPARE(ticks(table), (QList<bool>{true, true}));
    QTest::mouseClick(header->viewport(), Qt::LeftButton, {}, QPoint(10, header->height() / 2));
    QCOMPARE(ticks(table), (QList<bool>{false, false}));
    QCOMPARE(changed.count(), 2);
}

// An image dropped from a file manager opens as Open image would open it.
void TestPage2::droppedImageOpens()
{
    QSignalSpy listed(m_page.get(), &CPage2::listingFinished);
    QMimeData data;
    data.setUrls({QUrl::fromLocalFile(m_image)});
    QDragEnterEvent enter(QPoint(300, 200), Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(m_page.get(), &enter);
    QVERIFY(enter.isAccepted());
    QDropEvent drop(QPointF(300, 200), Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(m_page.get(), &drop);
    QVERIFY(listed.wait(60000) || listed.count() == 1);
    QVERIFY(listed.first().at(0).toBool());
    QCOMPARE(m_page->Tree()->topLevelItem(0)->text(0), QString("disc.iso"));
}

void TestPage2::extractNeedsTickedRows()
{
    openImage(m_image);
    bool noticeShown = false;
    whenModal<GerneralDialog>([&](GerneralDialog* dialog) {
        noticeShown = dialog->BackgroundImage() == ":/nwu/select_files_extract";
        clickButton(dialog->OkButton());
    });
    clickButton(m_page->findChild<CImageButton*>("extract"));
    QVERIFY(noticeShown);
    QVERIFY(m_answers.isEmpty()); // no folder was asked for
}

void TestPage2::extractsTickedEntriesFromNestedFolder()
{
    openImage(m_image);
    QTableView* table = m_page->Table();
    doubleClick(table, cellPoint(table, 0, 60)); // docs
    doubleClick(table, cellPoint(table, 1, 60)); // x
    QCOMPARE(column(table, 0), (QStringList{"a.txt", "sub"}));
    m_page->slotSelectAll(true);

    QTemporaryDir destination;
    m_answers << destination.path();
    QSignalSpy extracted(m_page.get(), &CPage2::extractionFinished);
    QString said;
    whenModal<CommDialog>([&](CommDialog* dialog) {
        said = dialog->Label()->text();
        clickButton(dialog->OkButton());
    });
    clickButton(m_page->findChild<CImageButton*>("extract"));
    QVERIFY(extracted.wait(60000) || extracted.count() == 1);
    QVERIFY(extracted.first().at(0).toBool());
    QCOMPARE(said, QString("Extract files successfully."));
    QVERIFY(m_page->isEnabled());
    QVERIFY(!m_page->Progress()->isVisible());
    QVERIFY(QFileInfo::exists(destination.filePath("a.txt")));
    QVERIFY(QFileInfo::exists(destination.filePath("sub/b.txt")));
    QVERIFY(!QFileInfo::exists(destination.filePath("docs")));
}

// An image that cannot be read gives the page back as it was: the image
// open before stays shown, no half-opened entry is left in the tree.
void TestPage2::imageThatCannotBeReadGivesThePageBack()
{
    const QString bogus = m_dir.filePath("bogus.iso");
    QVERIFY(IsoFixture::WriteTree(m_dir.path(), {{"bogus.iso", "not an image at all"}}));
    for (const bool opened : {false, true}) {
        if (opened)
            openImage(m_image);
        openImage(bogus, false);
        QVERIFY(m_page->findChild<CImageButton*>("loadiso")->isEnabled());
        QVERIFY(m_page->findChild<CImageButton*>("back")->isEnabled());
        QVERIFY(QApplication::overrideCursor() == nullptr);
        QCOMPARE(m_page->Tree()->topLevelItemCount(), opened ? 1 : 0);
        QCOMPARE(column(m_page->Table(), 0),
                 opened ? QStringList({"docs", "setup.exe"}) : QStringList());
    }
}

// A name in a crafted image that leads out of the image's folders would,
// once ticked, take the file it names from beside the destination. The page
// says it left such names out, and extracting everything it shows takes
// nothing from outside.
void TestPage2::craftedNamesStayOutOfReach()
{
    QTemporaryDir box;
    QVERIFY(IsoFixture::WriteTree(box.path(), {{"notes.txt", "private"}}, {"dest"}));
    QString said;
    whenModal<CommDialog>([&](CommDialog* dialog) {
        said = dialog->Label()->text();
        clickButton(dialog->OkButton());
    });
    openImage(m_crafted);
    QTRY_VERIFY(!said.isEmpty());
    QVERIFY2(said.contains("../../notes.txt"), qPrintable(said));
    QCOMPARE(column(m_page->Table(), 0), QStringList{"plain.txt"});

    m_page->slotSelectAll(true);
    m_answers << box.filePath("dest");
    QSignalSpy extracted(m_page.get(), &CPage2::extractionFinished);
    whenModal<CommDialog>([](CommDialog* dialog) { clickButton(dialog->OkButton()); });
    clickButton(m_page->findChild<CImageButton*>("extract"));
    QVERIFY(extracted.wait(60000) || extracted.count() == 1);
    QVERIFY(extracted.first().at(0).toBool());
    QCOMPARE(QDir(box.path()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
             (QStringList{"dest", "notes.txt"}));
    QCOMPARE(QDir(box.filePath("dest"))
                 .entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
             QStringList{"plain.txt"});
}

// Qt's own dialog must still have the parts the multi-folder picker adapts.
void TestPage2::folderPickerSelectsSeveralFolders()
{
    QTemporaryDir dir;
    for (const QString name : {"one", "two", "three"})
        QVERIFY(QDir(dir.path()).mkpath(name));
    CFileDialog dialog(nullptr, false);
    QCOMPARE(dialog.FallbackLevel(), 0);
    dialog.setDirectory(dir.path());
    auto* list = dialog.findChild<QListView*>("listView");
    QVERIFY(list);
    QTRY_COMPARE(list->model()->rowCount(list->rootIndex()), 3);
    QTimer::singleShot(0, [&] {
        list->selectAll();
        auto* buttons = dialog.findChild<QDialogButtonBox*>("buttonBox");
        Q_EMIT buttons->accepted();
    });
    QCOMPARE(dialog.exec(), 1);
    QStringList chosen = dialog.SelectedPaths();
    chosen.sort();
    QCOMPARE(chosen,
             (QStringList{dir.filePath("one"), dir.filePath("three"), dir.filePath("two")}));
}

QTEST_MAIN(TestPage2)
#include "tst_page2.moc"
