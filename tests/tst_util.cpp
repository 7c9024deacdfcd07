#include <QtTest>

#include <QDataStream>
#include <QTemporaryDir>

#include "core/util.h"

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
    void removeDirTakesTheTreeButNotLinkTargets();

    void readResults_data();
    void readResults();

    void logSwitch_data();
    void logSwitch();
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
    // The unit changes only above 1024, not at it.
    QTest::newRow("exactly 1024") << qint64(1024) << "1024 B";
    QTest::newRow("1025") << qint64(1025) << "1 KB";
    QTest::newRow("one and a half KB") << qint64(1536) << "1.50 KB";
    QTest::newRow("just over 1 MB") << qint64(1024) * 1024 + 1 << "1 MB";
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
    QTest::newRow("last dot wins") << "a.tar.gz"
                                   << ".gz";
    QTest::newRow("hidden file has none") << ".profile"
                                          << "";
    QTest::newRow("no dot") << "README"
                            << "";
    QTest::newRow("trailing dot") << "name."
                                  << ".";
}

void TestUtil::fileSuffix()
{
    QFETCH(QString, name);
    QFETCH(QString, suffix);
    QCOMPARE(Util::FileSuffix(name), suffix);
}

// The whole tree goes, read-only files and the root included, but a link
// inside it must never lead the removal out of the tree.
void TestUtil::removeDirTakesTheTreeButNotLinkTargets()
{
    QTemporaryDir dir;
    const QString outside = dir.filePath("outside");
    QVERIFY(QDir().mkpath(outside));
    writeFile(outside + "/precious.txt", "keep me");
    const QString root = dir.filePath("tree");
    QVERIFY(QDir().mkpath(root + "/full/deep"));
    writeFile(root + "/full/deep/leaf.txt", "leaf");
    writeFile(root + "/full/readonly.txt", "ro");
    QFile(root + "/full/readonly.txt").setPermissions(QFileDevice::ReadOwner);
    QVERIFY(QFile::link(outside, root + "/link"));

    Util::RemoveDir(root, true);
    QVERIFY(!QFileInfo::exists(root));
    QCOMPARE(readFile(outside + "/precious.txt"), QByteArray("keep me"));
}

// Images are larger than 2 GiB; a boot catalogue may sit beyond that mark.
constexpr qint64 kFar = qint64(5) * 1024 * 1024 * 1024 + 7;

void TestUtil::readResults_data()
{
    QTest::addColumn<qint64>("offset");
    QTest::addColumn<int>("length");
    QTest::addColumn<int>("result");
    QTest::addColumn<QByteArray>("bytes");
    QTest::newRow("middle") << qint64(6) << 3 << 0 << QByteArray("678");
    QTest::newRow("beyond 2 GiB, up to the end") << kFar << 3 << 0 << QByteArray("FAR");
    QTest::newRow("short at the end") << kFar + 1 << 4 << 232 << QByteArray();
    QTest::newRow("beyond the end") << kFar + 100 << 1 << 232 << QByteArray();
    QTest::newRow("negative offset") << qint64(-1) << 1 << 25 << QByteArray();
}

void TestUtil::readResults()
{
    QFETCH(qint64, offset);
    QFETCH(int, length);
    QFETCH(int, result);
    QFETCH(QByteArray, bytes);

    QTemporaryDir dir;
    QFile file(dir.filePath("sparse"));
    QVERIFY(file.open(QIODevice::ReadWrite));
    QCOMPARE(file.write("0123456789"), qint64(10));
    QVERIFY(file.seek(kFar) && file.write("FAR") == 3 && file.flush());
    QByteArray buffer(qMax(length, 3), '\0');
    QDataStream noDevice;
    QCOMPARE(Util::Read(noDevice, 0, 3, buffer.data()), 25);

    QDataStream stream(&file);
    QCOMPARE(Util::Read(stream, offset, length, buffer.data()), result);
    if (result == 0)
        QCOMPARE(buffer.left(length), bytes);
    // A failed read must not spoil the next one on the same stream.
    QCOMPARE(Util::Read(stream, 6, 3, buffer.data()), 0);
    QCOMPARE(buffer.left(3), QByteArray("678"));
}

void TestUtil::logSwitch_data()
{
    QTest::addColumn<QString>("switchKind");
    QTest::addColumn<bool>("logs");
    QTest::newRow("no switch file") << "none" << false;
    QTest::newRow("empty file") << "empty" << true;
    QTest::newRow("a folder of that name") << "folder" << true;
}

void TestUtil::logSwitch()
{
    QFETCH(QString, switchKind);
    QFETCH(bool, logs);
    if (switchKind == "empty")
        writeFile(switchFile(), QByteArray());
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
