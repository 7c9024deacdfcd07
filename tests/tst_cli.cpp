#include <QtTest>

#include "common/isofixture.h"
#include "common/standins.h"

namespace {

struct Run
{
    int exitCode = -1;
    QString out;
    QString err;
};

// Runs the real program with no display at all: the terminal forms must not
// need one. Standard input gives `input` and then ends.
Run runBrenta(const QStringList& arguments, int timeoutMs = 60000,
              const QStringList& variables = {}, const QByteArray& input = {})
{
    QProcess process;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (const QString& variable : variables)
        environment.insert(variable.section('=', 0, 0), variable.section('=', 1));
    environment.remove("DISPLAY");
    environment.remove("WAYLAND_DISPLAY");
    environment.remove("QT_QPA_PLATFORM");
    process.setProcessEnvironment(environment);
    process.start(QStringLiteral(BRENTA_EXECUTABLE), arguments);
    process.write(input);
    process.closeWriteChannel();
    Run run;
    if (!process.waitForFinished(timeoutMs)) {
        process.kill();
        process.waitForFinished();
        return run;
    }
    run.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    run.out = QString::fromUtf8(process.readAllStandardOutput());
    run.err = QString::fromUtf8(process.readAllStandardError());
    return run;
}

} // namespace

class TestCli final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void answersWithoutWindow_data();
    void answersWithoutWindow();
    void screenshotsRenderEveryWindow();
    void discCommands_data();
    void discCommands();
    void burnUsb_data();
    void burnUsb();
};

void TestCli::answersWithoutWindow_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QString>("stdoutStart");
    QTest::addColumn<QString>("stderrStart");
    QTest::newRow("version") << QStringList{"--version"} << 0 << "Brenta " BRENTA_VERSION "\n" << "";
    QTest::newRow("help") << QStringList{"--help"} << 0 << "Usage: brenta" << "";
    QTest::newRow("wrong usage") << QStringList{"--nonsense"} << 2 << ""
                                 << "brenta: Unknown argument: --nonsense";
    QTest::newRow("screenshots without folder") << QStringList{"--screenshots"} << 2 << ""
                                                << "brenta: --screenshots takes one folder.";
    QTest::newRow("version with extra") << QStringList{"--version", "now"} << 2 << ""
                                        << "brenta: --version takes no arguments.";
    QTest::newRow("burn-usb without device") << QStringList{"burn-usb", "a.iso"} << 2 << ""
                                             << "brenta: burn-usb takes an image and a USB disk.";
    QTest::newRow("burn-usb, option for device")
        << QStringList{"burn-usb", "a.iso", "--yes"} << 2 << ""
        << "brenta: burn-usb takes an image and a USB disk.";
    QTest::newRow("burn-usb, unknown option")
        << QStringList{"burn-usb", "a.iso", "/dev/sdz", "--force"} << 2 << ""
        << "brenta: Unknown burn-usb option: --force";
    QTest::newRow("burn-usb, bad scheme")
        << QStringList{"burn-usb", "a.iso", "/dev/sdz", "--scheme", "apm"} << 2 << ""
        << "brenta: --scheme takes mbr or gpt.";
    QTest::newRow("burn-usb, bad file system")
        << QStringList{"burn-usb", "a.iso", "/dev/sdz", "--fs", "ext4"} << 2 << ""
        << "brenta: --fs takes fat32, ntfs, exfat or fat.";
    QTest::newRow("burn-usb, value missing at the end")
        << QStringList{"burn-usb", "a.iso", "/dev/sdz", "--fs"} << 2 << ""
        << "brenta: --fs takes a value.";
    QTest::newRow("burn-usb, label forgotten")
        << QStringList{"burn-usb", "a.iso", "/dev/sdz", "--label", "--yes"} << 2 << ""
        << "brenta: --label takes a value.";
}

void TestCli::answersWithoutWindow()
{
    QFETCH(QStringList, arguments);
    QFETCH(int, exitCode);
    QFETCH(QString, stdoutStart);
    QFETCH(QString, stderrStart);
    const Run run = runBrenta(arguments);
    QCOMPARE(run.exitCode, exitCode);
    // An empty expectation means the stream must stay empty.
    const auto matches = [](const QString& text, const QString& start) {
        return start.isEmpty() ? text.isEmpty() : text.startsWith(start);
    };
    QVERIFY2(matches(run.out, stdoutStart), qPrintable(run.out));
    QVERIFY2(matches(run.err, stderrStart), qPrintable(run.err));
}

void TestCli::screenshotsRenderEveryWindow()
{
    QTemporaryDir dir;
    const Run run = runBrenta({"--screenshots", dir.path()}, 120000);
    QCOMPARE(run.exitCode, 0);

    const QList<QPair<QString, QSize>> expected = {
        {"main", {860, 580}},           {"about", {420, 188}},
        {"dialog-message", {420, 188}}, {"dialog-finished", {420, 188}},
        {"dialog-progress", {420, 188}}, {"dialog-input", {420, 188}},
        {"dialog-confirm-format-usb", {420, 188}}, {"notice-insert_usb", {420, 160}},
        {"page-extract", {860, 580}},
    };
    for (const auto& [name, size] : expected) {
        const QImage image(QDir(dir.path()).filePath(name + ".png"));
        QVERIFY2(!image.isNull(), qPrintable(name));
        QCOMPARE(image.size(), size);
    }
    // Every file it names was written, one per line.
    const QStringList listed = run.out.split('\n', Qt::SkipEmptyParts);
    QCOMPARE(listed.size(), QDir(dir.path()).entryList({"*.png"}).size());
}

void TestCli::discCommands_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<QString>("mode");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QString>("said");
    QTest::newRow("burn") << "burn-disc" << "success" << 0 << "";
    QTest::newRow("burn, no disc") << "burn-disc" << "nodisc" << 1
                                   << "brenta: The disc was not burned. There is no writable disc";
    QTest::newRow("copy") << "copy-disc" << "success" << 0 << "";
    QTest::newRow("copy, unreadable sector") << "copy-disc" << "readerror" << 1 << "brenta: The disc was not copied.";
}

// The disc commands with stand-in disc tools; any block device of this
// machine stands in for the drive, which the stand-ins never open.
void TestCli::discCommands()
{
    QFETCH(QString, command);
    QFETCH(QString, mode);
    QFETCH(int, exitCode);
    QFETCH(QString, said);
    QString device;
    for (const QString& name : QDir("/sys/class/block").entryList(QDir::Dirs | QDir::NoDotAndDotDot | QDir::System)) {
        if (QFileInfo::exists("/dev/" + name)) {
            device = "/dev/" + name;
            break;
        }
    }
    if (device.isEmpty())
        QSKIP("no block device node on this machine");
    QTemporaryDir dir;
    const QString image = dir.filePath("disc.iso");
    QFile(image).open(QIODevice::WriteOnly);
    const QStringList arguments = command == "burn-disc" ? QStringList{command, image, device}
                                                         : QStringList{command, device, dir.filePath("copy.iso")};
    const Run run = runBrenta(arguments, 60000,
                              {"BRENTA_TOOLS_DIR=" BRENTA_SOURCE_DIR "/tests/standins", "BRENTA_STANDIN_MODE=" + mode});
    QCOMPARE(run.exitCode, exitCode);
    QVERIFY2(said.isEmpty() ? run.err.isEmpty() : run.err.startsWith(said), qPrintable(run.err));
    QCOMPARE(run.out, QString());
    if (command == "copy-disc")
        QCOMPARE(QFileInfo(dir.filePath("copy.iso")).size(), exitCode == 0 ? qint64(300) * 2048 : qint64(0));
}

void TestCli::burnUsb_data()
{
    QTest::addColumn<QString>("image");  // in the test's folder; "image.iso" is a real one
    QTest::addColumn<QString>("device"); // "stick": the test's stand-in stick folder
    QTest::addColumn<QStringList>("options");
    QTest::addColumn<QByteArray>("input");
    QTest::addColumn<QString>("mode");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QStringList>("err");   // lines standard error holds, in order
    QTest::addColumn<QString>("out");       // the start of standard output
    QTest::addColumn<QStringList>("calls"); // of the helper, by command

    const QString warning =
        "brenta: warning: This image has no /bootmgr, so the stick will not start through the "
        "legacy BIOS; it will only hold the image's files.";
    QTest::newRow("missing image")
        << "gone.iso"
        << "stick" << QStringList{"--yes"} << QByteArray() << "success" << 1
        << QStringList{"brenta: %1/gone.iso is not an image file."} << "" << QStringList();
    QTest::newRow("relative device")
        << "image.iso"
        << "sdb" << QStringList{"--yes"} << QByteArray() << "success" << 1
        << QStringList{"brenta: sdb is not a device node (such as /dev/sdb)."} << ""
        << QStringList();
    QTest::newRow("not an image") << "junk.iso"
                                  << "stick" << QStringList{"--yes"} << QByteArray() << "success"
                                  << 1 << QStringList{"brenta: "} << "" << QStringList();
    QTest::newRow("erasing declined")
        << "image.iso"
        << "stick" << QStringList{"--label", "x"} << QByteArray("n\n") << "success" << 1
        << QStringList{warning,
                       "All data on %1/stick will be erased. Continue? [y/N] Nothing was written."}
        << "" << QStringList();
    QTest::newRow("no answer")
        << "image.iso"
        << "stick" << QStringList() << QByteArray() << "success" << 1
        << QStringList{warning, "All data on %1/stick will be erased. Continue? [y/N] "
                                "Nothing was written."}
        << "" << QStringList();
    const QStringList phases = {"Checking the image...", "The USB disk is formating...",
                                "Burning the USB disk...", "Verifying the USB disk...",
                                "Ejecting the USB disk safely..."};
    QTest::newRow("agreed") << "image.iso"
                            << "stick" << QStringList{"--fs", "exfat"} << QByteArray(" Yes \n")
                            << "success" << 0
                            << QStringList{"Checking the image...", warning,
                                           "All data on %1/stick will be erased. Continue? [y/N] "
                                           "The USB disk is formating..."} +
                                   phases.mid(2)
                            << "Burning Successfully..."
                            << QStringList{"prepare", "remount", "unmount"};
    QTest::newRow("--yes, options in any order")
        << "image.iso"
        << "stick" << QStringList{"--yes", "--label", "My Stick", "--fs", "NTFS", "--scheme", "gpt"}
        << QByteArray() << "success" << 0
        << QStringList{"Checking the image...", "brenta: the stick gets FAT32 instead of NTFS.",
                       "brenta: warning: This image has no EFI loader"} +
               phases.mid(1)
        << "Burning Successfully..." << QStringList{"prepare", "remount", "unmount"};
    QTest::newRow("formatting fails")
        << "image.iso"
        << "stick" << QStringList{"--yes"} << QByteArray() << "failformat" << 1
        << QStringList{"Checking the image...", warning, "The USB disk is formating...",
                       "brenta: The USB stick was not burned. The step that failed: "
                       "formatting: mkfs.fat failed"}
        << "" << QStringList{"prepare"};
}

// burn-usb with the real archive tool and a stand-in helper whose "stick" is
// a folder, which the helper never opens.
void TestCli::burnUsb()
{
    QFETCH(QString, image);
    QFETCH(QString, device);
    QFETCH(QStringList, options);
    QFETCH(QByteArray, input);
    QFETCH(QString, mode);
    QFETCH(int, exitCode);
    QFETCH(QStringList, err);
    QFETCH(QString, out);
    QFETCH(QStringList, calls);
    QTemporaryDir dir;
    QString error;
    QVERIFY(IsoFixture::WriteTree(dir.filePath("files"), {{"docs/a.txt", "a"}, {"b.txt", "b"}}));
    QVERIFY2(!IsoFixture::Build(dir.filePath("files"), dir.filePath("image.iso"), "joliet", &error)
                  .isEmpty(),
             qPrintable(error));
    QFile junk(dir.filePath("junk.iso"));
    QVERIFY(junk.open(QIODevice::WriteOnly) && junk.write(QByteArray(70000, 'j')) > 0);
    junk.close();
    QVERIFY(QDir(dir.path()).mkpath("stick"));
    const QString log = dir.filePath("helper.log");
    const QString mount = dir.filePath("mount");
    const QString stick = device == "stick" ? dir.filePath(device) : device;

    const Run run = runBrenta(QStringList{"burn-usb", dir.filePath(image), stick} + options, 60000,
                              {"BRENTA_TOOLS_DIR=" BRENTA_SOURCE_DIR "/tests/standins",
                               "BRENTA_STANDIN_MODE=" + mode, "BRENTA_STANDIN_LOG=" + log,
                               "BRENTA_STANDIN_MOUNT=" + mount},
                              input);
    QCOMPARE(run.exitCode, exitCode);
    // Each expected line starts a line of its own, in this order.
    const QStringList lines = run.err.split('\n');
    int at = 0;
    for (const QString& expected : err) {
        const QString start = expected.contains("%1") ? expected.arg(dir.path()) : expected;
        while (at < lines.size() && !lines.at(at).startsWith(start))
            ++at;
        QVERIFY2(at < lines.size(), qPrintable(start + "\nnot in:\n" + run.err));
        ++at;
    }
    QVERIFY2(out.isEmpty() ? run.out.isEmpty() : run.out.startsWith(out), qPrintable(run.out));
    QCOMPARE(Standins::LoggedCommands(log), calls);
    if (exitCode != 0)
        return;
    QCOMPARE(QFileInfo(mount + "/docs/a.txt").size(), qint64(1));
    if (options.contains("--label"))
        QVERIFY2(Standins::Logged(log).first().contains(
                     " --scheme gpt --fs fat32 --label My Stick --owner "),
                 qPrintable(Standins::Logged(log).first()));
}

QTEST_GUILESS_MAIN(TestCli)
#include "tst_cli.moc"
