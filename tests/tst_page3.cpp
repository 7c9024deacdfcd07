#include <QtTest>

#include <QLabel>
#include <QMimeData>
#include <QProgressBar>
#include <QRadioButton>
#include <QTreeWidget>

#include "common/isofixture.h"
#include "common/listedimage.h"
#include "common/modal.h"
#include "iso/isojobs.h"
#include "pages/page3.h"
#include "ui/baseimagectrl.h"
#include "ui/commdialog.h"
#include "ui/filelistwidgets.h"
#include "ui/pickers.h"
#include "ui/progressdialog.h"

namespace {

void clickButton(QWidget* page, const char* name)
{
    auto* button = page->findChild<CImageButton*>(name);
    QVERIFY(button);
    QTest::mouseClick(button, Qt::LeftButton, {},
                      QPoint(button->width() / 2, button->height() / 2));
}

QStringList rows(QTreeWidget* list)
{
    QStringList out;
    std::function<void(QTreeWidgetItem*, int)> walk = [&](QTreeWidgetItem* row, int depth) {
        out << QString(depth * 2, ' ') + row->text(0) + " | " + row->text(1);
        for (int i = 0; i < row->childCount(); ++i)
            walk(row->child(i), depth + 1);
    };
    for (int i = 0; i < list->topLevelItemCount(); ++i)
        walk(list->topLevelItem(i), 0);
    return out;
}

QStringList imageEntries(const QString& image)
{
    QStringList names = ListedImage(image, [](const Item& item) { return item.name; });
    names.sort();
    return names;
}

} // namespace

class TestPage3 final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();
    void addsIntoTheSelectedFolderAndBuilds();
    void removeTakesEntryOutOfListAndImage();
    void createNeedsEntries();
    void stopWhileCopyingMakesNoImage();
    void backWhileCopyingLeavesNothingBehind();
    void largeFilesNeedUdf_data();
    void largeFilesNeedUdf();

private:
    QTemporaryDir m_dir;
    std::unique_ptr<CPage3> m_page;
    QList<QStringList> m_answers;
};

void TestPage3::initTestCase()
{
    QStandardPaths::setTestModeEnabled(true);
    QVERIFY(
        IsoFixture::WriteTree(m_dir.filePath("docs"), {{"a.txt", "alpha"}, {"sub/b.txt", "bee"}}));
    QVERIFY(IsoFixture::WriteTree(m_dir.path(),
                                  {{"one.txt", QByteArray(1536, '1')}, {"two.txt", "2"}}));
}

void TestPage3::init()
{
    PickerSeam::Set([this](PickerSeam::Kind, const QString&) {
        return m_answers.isEmpty() ? QStringList() : m_answers.takeFirst();
    });
    m_page = std::make_unique<CPage3>();
    m_page->show();
    QVERIFY(QTest::qWaitForWindowExposed(m_page.get()));
}

void TestPage3::cleanup()
{
    m_page.reset();
    PickerSeam::Reset();
    m_answers.clear();
}

// The list and the image must agree: what is shown under a folder is in that
// folder of the image.
void TestPage3::addsIntoTheSelectedFolderAndBuilds()
{
    m_answers << QStringList{m_dir.filePath("docs")};
    clickButton(m_page.get(), "adddir");
    QTreeWidget* list = m_page->List();
    QCOMPARE(rows(list),
             (QStringList{"docs | ", "  a.txt | docs", "  sub | docs", "    b.txt | docs\\sub"}));

    // With the folder "sub" selected, new files go into it.
    list->setCurrentItem(list->topLevelItem(0)->child(1));
    QCOMPARE(m_page->SelectedParentPath(), QString("docs\\sub\\"));
    m_answers << QStringList{m_dir.filePath("one.txt")};
    clickButton(m_page.get(), "addfile");
    QCOMPARE(rows(list).last(), QString("    one.txt | docs\\sub"));
    // 1536 + 5 + 3 bytes.
    QCOMPARE(m_page->TotalSize()->text(), QString("Total Size: 1.51 KB"));

    // Adding the same name again changes nothing.
    m_answers << QStringList{m_dir.filePath("one.txt")};
    clickButton(m_page.get(), "addfile");
    QCOMPARE(rows(list).size(), 5);

    const QString output = m_dir.filePath("made.iso");
    m_answers << QStringList{output};
    QSignalSpy done(m_page.get(), &CPage3::createFinished);
    whenModal<CommDialog>(
        [](CommDialog* dialog) { QTest::mouseClick(dialog->OkButton(), Qt::LeftButton); });
    clickButton(m_page.get(), "create");
    QVERIFY(done.count() == 1 || done.wait(120000));
    QVERIFY(done.first().first().toBool());
    QCOMPARE(imageEntries(output), (QStringList{"docs", "docs\\a.txt", "docs\\sub",
                                                "docs\\sub\\b.txt", "docs\\sub\\one.txt"}));
}

void TestPage3::removeTakesEntryOutOfListAndImage()
{
    // Dropped from a file manager, they are added as Add Files adds them.
    QMimeData data;
    data.setUrls({QUrl::fromLocalFile(m_dir.filePath("one.txt")),
                  QUrl::fromLocalFile(m_dir.filePath("two.txt"))});
    QDragEnterEvent enter(QPoint(300, 200), Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(m_page.get(), &enter);
    QDropEvent drop(QPointF(300, 200), Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(m_page.get(), &drop);
    QTreeWidget* list = m_page->List();
    QCOMPARE(list->topLevelItemCount(), 2);
    list->setCurrentItem(list->topLevelItem(0));
    clickButton(m_page.get(), "remove");
    QCOMPARE(rows(list), QStringList{"two.txt | "});
    QCOMPARE(m_page->TotalSize()->text(), QString("Total Size: 1 B"));

    const QString output = m_dir.filePath("removed.iso");
    m_answers << QStringList{output};
    QSignalSpy done(m_page.get(), &CPage3::createFinished);
    whenModal<CommDialog>(
        [](CommDialog* dialog) { QTest::mouseClick(dialog->OkButton(), Qt::LeftButton); });
    clickButton(m_page.get(), "create");
    QVERIFY(done.count() == 1 || done.wait(120000));
    QCOMPARE(imageEntries(output), QStringList{"two.txt"});
}

// An empty list is refused with a message, before an output file is asked for.
void TestPage3::createNeedsEntries()
{
    QString said;
    whenModal<CommDialog>([&](CommDialog* dialog) {
        said = dialog->Label()->text();
        QTest::mouseClick(dialog->OkButton(), Qt::LeftButton);
    });
    m_answers << QStringList{m_dir.filePath("empty.iso")};
    clickButton(m_page.get(), "create");
    QVERIFY(!said.isEmpty());
    QCOMPARE(m_answers.size(), 1);
}

namespace {

// Keeps the page's worker busy for a while; sparse, so it costs no time to make.
QString bigFile(const QString& dir)
{
    return IsoFixture::SparseFile(dir + "/big.bin", 2 * 1024);
}

} // namespace

void TestPage3::stopWhileCopyingMakesNoImage()
{
    m_answers << QStringList{bigFile(m_dir.path())};
    clickButton(m_page.get(), "addfile");
    const QString output = m_dir.filePath("stopped.iso");
    m_answers << QStringList{output};
    QSignalSpy done(m_page.get(), &CPage3::createFinished);
    // Stop while the page is waiting for its copies.
    clickButton(m_page.get(), "create");
    QVERIFY(m_page->Progress()->isVisible());
    CJob* job = m_page->findChild<CCreateJob*>();
    QVERIFY(job);
    // The dialog says which of the two steps is under way.
    QTRY_COMPARE(m_page->Progress()->Detail()->text(), QStringLiteral("Copying files (1 of 2)"));
    QSignalSpy ended(job, &CJob::finished);
    QString said;
    whenModal<CommDialog>([&said](CommDialog* dialog) {
        said = dialog->Label()->text();
        QTest::mouseClick(dialog->OkButton(), Qt::LeftButton);
    });
    QTest::mouseClick(m_page->Progress()->CancelButton(), Qt::LeftButton);
    QVERIFY(!m_page->Progress()->isVisible());
    // The page confirms the stop once the job has ended, and it is no creation.
    QVERIFY(ended.wait(30000));
    QTRY_VERIFY(!said.isEmpty());
    QVERIFY2(CJob::IsStoppedMessage(said), qPrintable(said));
    QCOMPARE(done.count(), 0);
    QVERIFY(!QFileInfo::exists(output));
}

// Leaving the page must stop its worker before its working copy goes.
void TestPage3::backWhileCopyingLeavesNothingBehind()
{
    m_answers << QStringList{bigFile(m_dir.path())};
    clickButton(m_page.get(), "addfile");
    const QString workingCopy = m_page->WorkingCopy();
    QVERIFY(QFileInfo(workingCopy).isDir());
    CPage3* page = m_page.release();
    QPointer<CPage3> watch(page);
    clickButton(page, "back");
    QTRY_VERIFY_WITH_TIMEOUT(watch.isNull(), 30000);
    // Removed once the worker has ended, which the page does not wait for.
    QTRY_VERIFY_WITH_TIMEOUT(!QFileInfo::exists(workingCopy), 30000);
}

QTEST_MAIN(TestPage3)
#include "tst_page3.moc"

void TestPage3::largeFilesNeedUdf_data()
{
    QTest::addColumn<QString>("type");
    QTest::addColumn<bool>("folder");
    QTest::addColumn<bool>("accepted");
    QTest::newRow("ISO9660 Joliet, the file") << "jolet" << false << false;
    QTest::newRow("ISO9660, a folder holding it") << "iso9600" << true << false;
    QTest::newRow("UDF, the file") << "udf" << false << true;
}

// A file of 4 GiB or more is refused at once, with the advice to choose UDF,
// unless UDF is chosen; the size gauge warns above its maximum.
void TestPage3::largeFilesNeedUdf()
{
    QFETCH(QString, type);
    QFETCH(bool, folder);
    QFETCH(bool, accepted);
    QVERIFY(!IsoFixture::SparseFile(m_dir.filePath("big/dvd.img"), 6 * 1024).isEmpty());
    m_page->findChild<QRadioButton*>(type.toLatin1().constData())->setChecked(true);
    m_answers << QStringList{m_dir.filePath(folder ? "big" : "big/dvd.img")};
    QString said;
    whenModal<CommDialog>([&](CommDialog* dialog) {
        said = dialog->Label()->text();
        QTest::mouseClick(dialog->OkButton(), Qt::LeftButton);
    });
    clickButton(m_page.get(), folder ? "adddir" : "addfile");
    QCOMPARE(m_page->List()->topLevelItemCount(), accepted ? 1 : 0);
    QCOMPARE(said.contains("UDF"), !accepted);
    QCOMPARE(m_page->findChild<QProgressBar*>()->styleSheet().contains("#e8a33d"), accepted);
}
