#include <QtTest>

#include <QDataStream>
#include <QTemporaryDir>

#include "app/util.h"

namespace {

void writeFile(const QString& path, const QByteArray& bytes)
{
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    QCOMPARE(file.write(bytes), bytes.size());
}

QByteArray readFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace

class TestUtil final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanup();

    void formatSize_data();
    void formatSize();
    void fileSuffix_data();
    void fileSuffix();
    void collapseSpaces_data();
    void collapseSpaces();

    void dirSizeIgnoresHiddenAndTrailingSlash();
    void removeDirKeepsFilesUnlessAsked();
    void removeDirLeavesLinkTargetsAlone();

    void readResults_data();
    void readResults();
    void readBeyondTwoGigabytes();
    void writeDataKeepsOldTail();

    void logSwitch_data();
    void logSwitch();
    void logRecordsKeepOrderAndFormat();
    void logFromManyThreadsKeepsLinesWhole();

private:
    QString switchFile() const { return Util::SwitchFilePath(); }
};

void TestUtil::initTestCase()
{
    // Keeps the data directory (and so log.txt) away from the user's own.
    QStandardPaths::setTestModeEnabled(true);
    QVERIFY(!Util::DataDir().isEmpty());
    QVERIFY(QFileInfo(Util::DataDir()).isDir());
    QVERIFY(Util::ScratchDir().startsWith(Util::DataDir() + "/tmp"));
}

void TestUtil::cleanup()
{
    QFile::remove(switchFile());
    QDir(switchFile()).removeRecursively();
    QFile::remove(Util::LogFilePath());
}

void TestUtil::formatSize_data()
{
    QTest::addColumn<qint64>("bytes");
    QTest::addColumn<QString>("text");
    QTest::newRow("zero") << qint64(0) << "0 B";
    QTest::newRow("1023") << qint64(1023) << "1023 B";
    // The unit changes only above 1024, not at it.
    QTest::newRow("exactly 1024") << qint64(1024) << "1024 B";
    QTest::newRow("1025") << qint64(1025) << "1 KB";
    QTest::newRow("one and a half KB") << qint64(1536) << "1.50 KB";
    QTest::newRow("1024 KB") << qint64(1024) * 1024 << "1024 KB";
    QTest::newRow("just over 1 MB") << qint64(1024) * 1024 + 1 << "1 MB";
    QTest::newRow("4.37 GB") << qint64(4692251771) << "4.37 GB";
    // GB is the largest unit: terabytes stay in GB.
    QTest::newRow("3 TiB") << qint64(3) * 1024 * 1024 * 1024 * 1024 << "3072 GB";
}

void TestUtil::formatSize()
{
    QFETCH(qint64, bytes);
    QFETCH(QString, text);
    QCOMPARE(Util::FormatSize(bytes), text);
}

void TestUtil::fileSuffix_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("suffix");
    QTest::newRow("last dot wins") << "a.tar.gz" << ".gz";
    QTest::newRow("hidden file has none") << ".profile" << "";
    QTest::newRow("no dot") << "README" << "";
    QTest::newRow("trailing dot") << "name." << ".";
    QTest::newRow("plain") << "setup.EXE" << ".EXE";
}

void TestUtil::fileSuffix()
{
    QFETCH(QString, name);
    QFETCH(QString, suffix);
    QCOMPARE(Util::FileSuffix(name), suffix);
}

void TestUtil::collapseSpaces_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("collapsed");
    QTest::newRow("five blanks") << "a     b" << "a b";
    QTest::newRow("unchanged") << "a b c" << "a b c";
    QTest::newRow("odd run at the ends") << "   x   " << " x ";
    QTest::newRow("scan line") << "\t0,1,0\t  1) 'VENDOR  ' 'DVD  RW' 'R001' Removable CD-ROM"
                               << "\t0,1,0\t 1) 'VENDOR ' 'DVD RW' 'R001' Removable CD-ROM";
}

void TestUtil::collapseSpaces()
{
    QFETCH(QString, text);
    QFETCH(QString, collapsed);
    QCOMPARE(Util::CollapseSpaces(text), collapsed);
}

void TestUtil::dirSizeIgnoresHiddenAndTrailingSlash()
{
    QTemporaryDir dir;
    QVERIFY(QDir(dir.path()).mkpath("a/b"));
    writeFile(dir.filePath("one"), QByteArray(100, 'x'));
    writeFile(dir.filePath("a/two"), QByteArray(20, 'x'));
    writeFile(dir.filePath("a/b/three"), QByteArray(3, 'x'));
    writeFile(dir.filePath("a/.hidden"), QByteArray(5000, 'x'));

    QCOMPARE(Util::DirSize(dir.path()), qint64(123));
    QCOMPARE(Util::DirSize(dir.path() + "/"), qint64(123));
    QCOMPARE(Util::DirSize(dir.filePath("missing")), qint64(0));
}

void TestUtil::removeDirKeepsFilesUnlessAsked()
{
    QTemporaryDir dir;
    const QString root = dir.filePath("tree");
    QVERIFY(QDir().mkpath(root + "/full/deep"));
    QVERIFY(QDir().mkpath(root + "/empty/emptier"));
    writeFile(root + "/full/deep/leaf.txt", "leaf");
    writeFile(root + "/full/readonly.txt", "ro");
    QFile(root + "/full/readonly.txt").setPermissions(QFileDevice::ReadOwner);

    // Without removeFiles only the empty folders go; every file stays.
    Util::RemoveDir(root, false);
    QVERIFY(!QFileInfo::exists(root + "/empty"));
    QCOMPARE(readFile(root + "/full/deep/leaf.txt"), QByteArray("leaf"));
    QVERIFY(QFileInfo::exists(root + "/full/readonly.txt"));

    // With removeFiles the whole tree goes, read-only files and the root included.
    Util::RemoveDir(root, true);
    QVERIFY(!QFileInfo::exists(root));
}

// A link inside a scratch tree must never lead the removal out of the tree.
void TestUtil::removeDirLeavesLinkTargetsAlone()
{
    QTemporaryDir dir;
    const QString outside = dir.filePath("outside");
    QVERIFY(QDir().mkpath(outside));
    writeFile(outside + "/precious.txt", "keep me");
    const QString root = dir.filePath("tree");
    QVERIFY(QDir().mkpath(root));
    QVERIFY(QFile::link(outside, root + "/link"));

    Util::RemoveDir(root, true);
    QVERIFY(!QFileInfo::exists(root));
    QCOMPARE(readFile(outside + "/precious.txt"), QByteArray("keep me"));
}

void TestUtil::readResults_data()
{
    QTest::addColumn<qint64>("offset");
    QTest::addColumn<int>("length");
    QTest::addColumn<int>("result");
    QTest::addColumn<QByteArray>("bytes");
    QTest::newRow("start") << qint64(0) << 4 << 0 << QByteArray("0123");
    QTest::newRow("middle") << qint64(6) << 3 << 0 << QByteArray("678");
    QTest::newRow("up to the end") << qint64(8) << 2 << 0 << QByteArray("89");
    QTest::newRow("short at the end") << qint64(8) << 4 << 232 << QByteArray();
    QTest::newRow("beyond the end") << qint64(100) << 1 << 232 << QByteArray();
    QTest::newRow("negative offset") << qint64(-1) << 1 << 25 << QByteArray();
}

void TestUtil::readResults()
{
    QFETCH(qint64, offset);
    QFETCH(int, length);
    QFETCH(int, result);
    QFETCH(QByteArray, bytes);

    QTemporaryDir dir;
    writeFile(dir.filePath("data"), "0123456789");
    QFile file(dir.filePath("data"));
    QVERIFY(file.open(QIODevice::ReadOnly));
    QDataStream stream(&file);
    QByteArray buffer(qMax(length, 1), '\0');
    QCOMPARE(Util::Read(stream, offset, length, buffer.data()), result);
    if (result == 0)
        QCOMPARE(buffer.left(length), bytes);
}

// Images are larger than 2 GiB; a boot catalogue may sit beyond that mark.
void TestUtil::readBeyondTwoGigabytes()
{
    QTemporaryDir dir;
    QFile file(dir.filePath("sparse"));
    QVERIFY(file.open(QIODevice::ReadWrite));
    const qint64 far = qint64(5) * 1024 * 1024 * 1024 + 7;
    QVERIFY(file.seek(far));
    QCOMPARE(file.write("FAR"), qint64(3));
    file.flush();

    QDataStream noDevice;
    char buffer[3];
    QCOMPARE(Util::Read(noDevice, 0, 3, buffer), 25);

    QDataStream stream(&file);
    QCOMPARE(Util::Read(stream, far, 3, buffer), 0);
    QCOMPARE(QByteArray(buffer, 3), QByteArray("FAR"));
    // A failed read must not spoil the next one on the same stream.
    QCOMPARE(Util::Read(stream, far + 1, 3, buffer), 232);
    QCOMPARE(Util::Read(stream, far, 3, buffer), 0);
}

void TestUtil::writeDataKeepsOldTail()
{
    QTemporaryDir dir;
    const QString path = dir.filePath("boot.bin");
    writeFile(path, "AAAAAAAAAA");
    Util::WriteData(path, "bb", 2);
    QCOMPARE(readFile(path), QByteArray("bbAAAAAAAA"));

    const QString fresh = dir.filePath("fresh.bin");
    Util::WriteData(fresh, "abc", 3);
    QCOMPARE(readFile(fresh), QByteArray("abc"));

    // A folder cannot be written: nothing happens, nothing crashes.
    Util::WriteData(dir.path(), "abc", 3);
}

void TestUtil::logSwitch_data()
{
    QTest::addColumn<QString>("switchKind");
    QTest::addColumn<bool>("logs");
    QTest::newRow("no switch file") << "none" << false;
    QTest::newRow("empty file") << "empty" << true;
    QTest::newRow("file with content") << "content" << true;
    QTest::newRow("a folder of that name") << "folder" << true;
}

void TestUtil::logSwitch()
{
    QFETCH(QString, switchKind);
    QFETCH(bool, logs);
    if (switchKind == "empty")
        writeFile(switchFile(), QByteArray());
    else if (switchKind == "content")
        writeFile(switchFile(), "anything");
    else if (switchKind == "folder")
        QVERIFY(QDir().mkpath(switchFile()));

    Util::WriteLog("hello log");
    QCOMPARE(QFileInfo::exists(Util::LogFilePath()), logs);
    if (logs)
        QVERIFY(readFile(Util::LogFilePath()).endsWith(" hello log\n"));
    // The switch file is a flag only: never written.
    if (switchKind == "empty")
        QCOMPARE(QFileInfo(switchFile()).size(), qint64(0));
}

void TestUtil::logRecordsKeepOrderAndFormat()
{
    writeFile(switchFile(), QByteArray());
    Util::WriteLog("first");
    Util::WriteLog("second\n");
    Util::WriteLog("third");

    const QList<QByteArray> lines = readFile(Util::LogFilePath()).split('\n');
    QCOMPARE(lines.size(), 5); // the record ending in a line feed leaves an empty line
    const QRegularExpression stamp("^\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d $");
    QVERIFY(stamp.match(QString::fromUtf8(lines.at(0).left(20))).hasMatch());
    QVERIFY(lines.at(0).endsWith(" first"));
    QVERIFY(lines.at(1).endsWith(" second"));
    QCOMPARE(lines.at(2), QByteArray());
    QVERIFY(lines.at(3).endsWith(" third"));
    QCOMPARE(lines.at(4), QByteArray());
}

// The runner threads log while the GUI thread does: records must never mix.
void TestUtil::logFromManyThreadsKeepsLinesWhole()
{
    writeFile(switchFile(), QByteArray());
    const QString payload(300, QLatin1Char('p'));
    QList<QThread*> threads;
    for (int t = 0; t < 4; ++t) {
        threads << QThread::create([t, payload] {
            for (int i = 0; i < 200; ++i)
                Util::WriteLog(QStringLiteral("t%1 %2 ").arg(t).arg(i) + payload);
        });
        threads.last()->start();
    }
    for (QThread* thread : threads) {
        QVERIFY(thread->wait(60000));
        delete thread;
    }
    const QList<QByteArray> lines = readFile(Util::LogFilePath()).split('\n');
    QCOMPARE(lines.size(), 801);
    for (int i = 0; i < 800; ++i)
        QVERIFY2(lines.at(i).endsWith(payload.toUtf8()), lines.at(i).constData());
}

QTEST_GUILESS_MAIN(TestUtil)
#include "tst_util.moc"
