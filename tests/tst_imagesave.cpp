// Saves images of the shapes users bring through the save job and the real
// xorriso, and checks the result with xorriso's own reports: the same El
// Torito entries and system area as the original, the original's tree with
// the changes, Rock Ridge links and Joliet kept.

#include <QtTest>

#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>

#include "common/bootcatalogs.h"
#include "common/hybridimage.h"
#include "common/isofixture.h"
#include "iso/imagesave.h"
#include "iso/isoprobe.h"

using ImageSave::Change;

namespace {

QStringList xorriso(const QStringList& arguments)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(QStandardPaths::findExecutable(QStringLiteral("xorriso")), arguments);
    process.waitForFinished(120000);
    return QString::fromUtf8(process.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

// The boot setup as xorriso reports it, without what a new layout moves:
// block addresses, sizes, GUIDs of the disk and partitions, the filler
// partitions in the gaps between the others, and whether the image was padded
// to whole cylinders.
QStringList bootSetup(const QString& image)
{
    QStringList setup;
    static const QRegularExpression kept(
        QStringLiteral("^(Volume id|El Torito (cat path|img path|img opts)|System area summary|APM "
                       "partition (name|type)|"
                       "MBR partition table)"));
    static const QRegularExpression addressed(
        QStringLiteral("^(El Torito boot img|MBR partition :)"));
    static const QRegularExpression gpt(
        QStringLiteral("^GPT (partname local|type GUID) : (\\d+) (.*)$"));
    QMap<int, QStringList> partitions; // number -> name, type
    for (QString line :
         xorriso({"-indev", image, "-report_el_torito", "plain", "-report_system_area", "plain"})) {
        line = line.simplified();
        if (const QRegularExpressionMatch match = gpt.match(line); match.hasMatch()) {
            partitions[match.captured(2).toInt()] << match.captured(3);
        } else if (line.contains(kept)) {
            setup << line.replace(QStringLiteral("cyl-align-on"), QStringLiteral("cyl-align-off"));
        } else if (line.contains(addressed)) {
            // N, bootable or status, platform or type, emulation...: all but
            // the address and size at the end.
            QStringList fields = line.split(QLatin1Char(' '));
            setup << fields.mid(0, fields.size() - (line.startsWith(QLatin1String("MBR")) ? 2 : 1))
                         .join(' ');
        }
    }
    for (const QStringList& partition : partitions) {
        if (!partition.value(0).startsWith(QLatin1String("Gap")))
            setup << "GPT partition " + partition.join(' ');
    }
    return setup;
}

// Every entry as type, path and link target: "d /docs", "l /docs/latest.txt -> readme.txt".
QStringList tree(const QString& image)
{
    static const QRegularExpression entry(
        QStringLiteral("^([-dlbcps])[-rwxsStT]{9}\\s.*?'(/[^']*)'(?: -> '(.*)')?$"));
    QStringList entries;
    for (const QString& line : xorriso({"-indev", image, "-find", "/", "-exec", "lsdl", "--"})) {
        const QRegularExpressionMatch match = entry.match(line);
        if (!match.hasMatch())
            continue;
        QString text = match.captured(1) + ' ' + match.captured(2);
        if (!match.captured(3).isEmpty())
            text += " -> " + match.captured(3);
        entries << text;
    }
    entries.sort();
    return entries;
}

// What the original's tree becomes with the changes: `from` renamed to `to`,
// `deleted` gone, `added` (a file) added.
QStringList changedTree(QStringList entries, const QString& from, const QString& to,
                        const QString& deleted, const QString& added)
{
    QStringList result;
    for (QString entry : entries) {
        const QString path = entry.section(' ', 1, 1);
        if (path == deleted || path.startsWith(deleted + '/'))
            continue;
        if (path == from || path.startsWith(from + '/'))
            entry.replace(2, from.size(), to);
        result << entry;
    }
    result << "- " + added;
    result.sort();
    return result;
}

bool save(const QString& image, const std::vector<Change>& changes, const QString& output,
          QString* message)
{
    CImageSaveJob job;
    job.Start(image, changes, output);
    const bool succeeded = Jobs::Wait(job);
    *message = job.Message();
    return succeeded;
}

Change added(const QString& source, const QString& path)
{
    Change change;
    change.kind = Change::Kind::Add;
    change.source = source;
    change.path = path;
    return change;
}

Change renamed(const QString& path, const QString& newPath)
{
    Change change;
    change.kind = Change::Kind::Rename;
    change.path = path;
    change.newPath = newPath;
    return change;
}

Change deleted(const QString& path)
{
    Change change;
    change.kind = Change::Kind::Delete;
    change.path = path;
    return change;
}

QStringList partFiles(const QString& dir)
{
    return QDir(dir).entryList({"*.part"}, QDir::Files | QDir::Hidden);
}

// A 1.44 MB diskette image as the BIOS entry, built by the image builder.
QString disketteImage(const QString& dir, QString* error)
{
    const QString tree = dir + "/floppy-tree";
    if (!IsoFixture::WriteTree(tree, HybridImage::detail::contents(), {"boot"}) ||
        !HybridImage::detail::run("mkfs.vfat", {"-C", tree + "/boot/floppy.img", "1440"}, error))
        return QString();
    const QString image = dir + "/floppy.iso";
    return HybridImage::detail::run("genisoimage",
                                    {"-quiet", "-R", "-J", "-o", image, "-b", "boot/floppy.img",
                                     "-c", "boot/boot.cat", tree},
                                    error)
               ? image
               : QString();
}

// genisoimage's own no-emulation entry with a boot-info table.
QString genisoimageBoot(const QString& dir, QString* error)
{
    const QString tree = dir + "/plain-tree";
    QMap<QString, QByteArray> files = HybridImage::detail::contents();
    files.insert("boot/loader.bin", BootCatalogs::pattern(5001, 3));
    if (!IsoFixture::WriteTree(tree, files))
        return QString();
    const QString image = dir + "/plain.iso";
    return HybridImage::detail::run("genisoimage",
                                    {"-quiet", "-R", "-J", "-o", image, "-b", "boot/loader.bin",
                                     "-no-emul-boot", "-boot-load-size", "4", "-boot-info-table",
                                     "-c", "boot/boot.cat", tree},
                                    error)
               ? image
               : QString();
}

} // namespace

class TestImageSave : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void shapes_data();
    void shapes();
    void literalNames();
    void imageBelowDev();
    void unfinishedSaveKeepsTheOutput_data();
    void unfinishedSaveKeepsTheOutput();
};

void TestImageSave::initTestCase()
{
    if (QStandardPaths::findExecutable(QStringLiteral("xorriso")).isEmpty())
        QSKIP("xorriso is not installed");
}

void TestImageSave::shapes_data()
{
    QTest::addColumn<QString>("shape");
    QTest::addColumn<QString>("renameFrom"); // absolute, as xorriso lists it
    QTest::addColumn<QString>("deleted");
    QTest::addColumn<QStringList>("bootFiles");

    const QString blocks = "/data/blocks.bin";
    QTest::newRow("isohybrid with links")
        << "isolinux"
        << "/docs" << blocks
        << QStringList{"isolinux/boot.cat", "isolinux/isolinux.bin", "boot/efi.img"};
    QTest::newRow("grub-mkrescue")
        << "grub"
        << "/docs/readme.txt" << blocks
        << QStringList{"boot.catalog", "boot/grub/i386-pc/eltorito.img", "efi.img"};
    // The EFI image as a partition after the volume, in a GPT.
    QTest::newRow("appended EFI partition") << "appended"
                                            << "/docs"
                                            << "/boot/b.bin" << QStringList{"boot/boot.cat"};
    QTest::newRow("genisoimage boot-info table")
        << "plain"
        << "/docs/readme.txt" << blocks << QStringList{"boot/boot.cat", "boot/loader.bin"};
    QTest::newRow("diskette entry")
        << "floppy"
        << "/docs" << blocks << QStringList{"boot/boot.cat", "boot/floppy.img"};
    QTest::newRow("no boot record") << "data"
                                    << "/docs/readme.txt" << blocks << QStringList{};
}

void TestImageSave::shapes()
{
    QFETCH(QString, shape);
    QFETCH(QString, renameFrom);
    QFETCH(QString, deleted);
    QFETCH(QStringList, bootFiles);

    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    QString error;
    QString image;
    if (shape == "isolinux")
        image = HybridImage::Isolinux(dir.path(), &error, false);
    else if (shape == "grub")
        image = HybridImage::GrubRescue(dir.path(), &error);
    else if (shape == "plain")
        image = genisoimageBoot(dir.path(), &error);
    else if (shape == "floppy")
        image = disketteImage(dir.path(), &error);
    else if (shape == "appended") {
        const QString tree = BootCatalogs::Tree(dir.path(), &error);
        image = dir.filePath("appended.iso");
        if (tree.isEmpty() || !BootCatalogs::Build(tree, image, BootCatalogs::kAppendedGpt, &error))
            image.clear();
    } else
        image = HybridImage::Data(dir.path(), &error);
    QVERIFY2(!image.isEmpty(), qPrintable(error));

    const ImageSave::BootReport report =
        ImageSave::ParseReport(xorriso(ImageSave::ReportArguments(image)));
    QStringList found = report.bootFiles;
    found.sort();
    bootFiles.sort();
    QCOMPARE(found, bootFiles);

    const QString source = dir.filePath("new.txt");
    QVERIFY(IsoFixture::WriteTree(dir.path(), {{"new.txt", "added by the save\n"}}));
    const QString renameTo = renameFrom + "-renamed";
    const std::vector<Change> changes{added(source, "added/new.txt"),
                                      renamed(renameFrom.mid(1), renameTo.mid(1)),
                                      ::deleted(deleted.mid(1))};
    const QString output = dir.filePath("saved.iso");
    QString message;
    QVERIFY2(save(image, changes, output, &message), qPrintable(message));
    QVERIFY(partFiles(dir.path()).isEmpty());

    QCOMPARE(bootSetup(output), bootSetup(image));
    QStringList expected =
        changedTree(tree(image), renameFrom, renameTo, deleted, "/added/new.txt");
    expected << "d /added";
    expected.sort();
    QCOMPARE(tree(output), expected);
    QCOMPARE(IsoProbe::Read(output).joliet, IsoProbe::Read(image).joliet);
}

// Names that look like commands, options or patterns reach the image as they are.
void TestImageSave::literalNames()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    QString error;
    const QString image = HybridImage::Data(dir.path(), &error);
    QVERIFY2(!image.isEmpty(), qPrintable(error));
    QVERIFY(IsoFixture::WriteTree(dir.path(), {{"-rm_r", "x"}, {"--", "y"}}));
    Change label;
    label.kind = Change::Kind::Label;
    label.label = "-end";
    const std::vector<Change> changes{
        added(dir.filePath("-rm_r"), "-commit"), added(dir.filePath("--"), "docs/*"),
        renamed("docs/readme.txt", "docs/--"), deleted("docs/*"), label};
    const QString output = dir.filePath("saved.iso");
    QString message;
    QVERIFY2(save(image, changes, output, &message), qPrintable(message));
    const QStringList entries = tree(output);
    QVERIFY2(entries.contains("- /-commit") && entries.contains("- /docs/--") &&
                 !entries.contains("- /docs/*") && entries.contains("- /data/blocks.bin"),
             qPrintable(entries.join(", ")));
    QVERIFY(xorriso({"-indev", output}).contains("Volume id    : '-end'"));
}

// xorriso takes a path below /dev for a drive unless told it is a file:
// images on a tmpfs in /dev/shm are read, reported and saved all the same.
void TestImageSave::imageBelowDev()
{
    if (!QFileInfo(QStringLiteral("/dev/shm")).isWritable())
        QSKIP("/dev/shm is not writable here");
    QTemporaryDir dir(QStringLiteral("/dev/shm/tst_imagesave-XXXXXX"));
    QVERIFY(dir.isValid());
    QString error;
    const QString image = HybridImage::Data(dir.path(), &error);
    QVERIFY2(!image.isEmpty(), qPrintable(error));
    const QStringList report = xorriso(ImageSave::ReportArguments(image));
    QVERIFY2(report.contains("Volume id    : 'CDROM'"), qPrintable(report.join('\n')));
    QString message;
    QVERIFY2(save(image, {deleted("docs/readme.txt")}, dir.filePath("saved.iso"), &message),
             qPrintable(message));
}

void TestImageSave::unfinishedSaveKeepsTheOutput_data()
{
    QTest::addColumn<bool>("stop"); // stopped while xorriso writes, else a change it cannot make
    QTest::newRow("a change that cannot be made") << false;
    QTest::newRow("stopped") << true;
}

// A save that does not finish leaves the file already at the output as it
// was, and no part file: by the time the job has ended, it is gone.
void TestImageSave::unfinishedSaveKeepsTheOutput()
{
    QFETCH(bool, stop);
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    QString error;
    const QString image = HybridImage::Data(dir.path(), &error);
    QVERIFY2(!image.isEmpty(), qPrintable(error));
    const QString big = IsoFixture::SparseFile(dir.filePath("big.bin"), 3000);
    QVERIFY(!big.isEmpty());
    const QString output = dir.filePath("saved.iso");
    QVERIFY(IsoFixture::WriteTree(dir.path(), {{"saved.iso", "the earlier save"}}));
    CImageSaveJob job;
    QSignalSpy progress(&job, &CJob::progressed);
    if (stop) {
        job.Start(image, {added(big, "big.bin")}, output);
        QVERIFY(progress.wait(60000));
        QCOMPARE(partFiles(dir.path()).size(), 1);
        job.Stop();
    } else {
        job.Start(image, {deleted("docs/missing.txt")}, output);
    }
    QVERIFY(!Jobs::Wait(job));
    QVERIFY2(job.Message().contains(stop ? CJob::StoppedMessage() : "missing.txt"),
             qPrintable(job.Message()));
    QFile file(output);
    QVERIFY(file.open(QIODevice::ReadOnly));
    QCOMPARE(file.readAll(), QByteArray("the earlier save"));
    QVERIFY(partFiles(dir.path()).isEmpty());
}

QTEST_GUILESS_MAIN(TestImageSave)
#include "tst_imagesave.moc"
