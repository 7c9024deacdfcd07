#include <QtTest>

#include <csignal>
#include <fcntl.h>
#include <grp.h>
#include <sys/file.h>
#include <unistd.h>

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
// `program` and `user` (a user id other than root's) run it as the desktop
// user would, from a folder of its own.
Run runBrenta(const QStringList& arguments, int timeoutMs = 60000,
              const QStringList& variables = {}, const QByteArray& input = {},
              const QString& program = QStringLiteral(BRENTA_EXECUTABLE), uid_t user = 0)
{
    QProcess process;
    if (user != 0) {
        process.setChildProcessModifier([user] {
            if (::setgroups(0, nullptr) != 0 || ::setgid(user) != 0 || ::setuid(user) != 0)
                ::_exit(125);
        });
    }
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (const QString& variable : variables)
        environment.insert(variable.section('=', 0, 0), variable.section('=', 1));
    environment.remove("DISPLAY");
    environment.remove("WAYLAND_DISPLAY");
    environment.remove("QT_QPA_PLATFORM");
    process.setProcessEnvironment(environment);
    process.start(program, arguments);
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

constexpr uid_t kNobody = 65534;

// Everything in a folder, hidden entries included.
QStringList entries(const QString& folder)
{
    return QDir(folder).entryList(QDir::AllEntries | QDir::Hidden | QDir::System |
                                  QDir::NoDotAndDotDot);
}

QByteArray readAll(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<missing>");
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
    void signalStopsAndCleansUp_data();
    void signalStopsAndCleansUp();
    void startRemovesWorkingCopiesLeftBehind();
    void createRefusesUnreadableFolder();
    void edit_data();
    void edit();
    void burnUsb_data();
    void burnUsb();
    void burnUsbAsDesktopUser_data();
    void burnUsbAsDesktopUser();
};

void TestCli::answersWithoutWindow_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QString>("stdoutStart");
    QTest::addColumn<QString>("stderrStart");
    QTest::newRow("version") << QStringList{"--version"} << 0 << "Brenta " BRENTA_VERSION "\n"
                             << "";
    QTest::newRow("help") << QStringList{"--help"} << 0 << "Usage: brenta"
                          << "";
    QTest::newRow("wrong usage") << QStringList{"--nonsense"} << 2 << ""
                                 << "brenta: Unknown argument: --nonsense";
    QTest::newRow("screenshots without folder") << QStringList{"--screenshots"} << 2 << ""
                                                << "brenta: --screenshots takes one folder.";
    QTest::newRow("version with extra") << QStringList{"--version", "now"} << 2 << ""
                                        << "brenta: --version takes no arguments.";
    QTest::newRow("command help") << QStringList{"extract", "--help"} << 0
                                  << "Usage: brenta extract IMAGE DEST"
                                  << "";
    QTest::newRow("command help among its words")
        << QStringList{"burn-usb", "a.iso", "/dev/sdz", "-h", "--fs", "ext4"} << 0
        << "Usage: brenta burn-usb IMAGE DEVICE"
        << "";
    // After "--" every word is an operand, "--help" too.
    QTest::newRow("help after --") << QStringList{"list", "--", "--help"} << 1 << ""
                                   << "brenta: The image could not be opened.";
    QTest::newRow("image after --")
        << QStringList{"burn-usb", "--", "--yes.iso", "/dev/sdz"} << 1 << ""
        << "brenta: --yes.iso is not an image file.";
    QTest::newRow("edit, output after --")
        << QStringList{"edit", "/nonexistent.iso", "--delete", "x", "--", "--b.iso"} << 1 << ""
        << "brenta: /nonexistent.iso does not exist.";
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
    // A file system for an image written as it is: the user meant something else.
    QTest::newRow("burn-usb, file system in image mode")
        << QStringList{"burn-usb", "a.iso", "/dev/sdz", "--fs", "ntfs", "--mode", "image"} << 2
        << ""
        << "brenta: --fs is for files mode";
    QTest::newRow("burn-usb, several sticks in files mode")
        << QStringList{"burn-usb", "a.iso", "/dev/sdy", "/dev/sdz", "--mode", "files"} << 2 << ""
        << "brenta: Several USB disks are written at once only in image mode.";
    QTest::newRow("restore-usb, FAT16")
        << QStringList{"restore-usb", "/dev/sdz", "--fs", "fat"} << 2 << ""
        << "brenta: --fs takes fat32, exfat or ntfs.";
    QTest::newRow("edit without output") << QStringList{"edit", "a.iso"} << 2 << ""
                                         << "brenta: edit takes an image and an output image.";
    QTest::newRow("edit, unknown option")
        << QStringList{"edit", "a.iso", "b.iso", "--move", "x"} << 2 << ""
        << "brenta: Unknown edit option: --move";
    QTest::newRow("edit, rename without new name")
        << QStringList{"edit", "a.iso", "b.iso", "--rename", "x"} << 2 << ""
        << "brenta: --rename takes an entry and a new name.";
    // Refused before the question, so nothing is erased.
    QTest::newRow("restore-usb, label too long")
        << QStringList{"restore-usb", "/dev/sdz", "--label", "much too long"} << 1 << ""
        << "brenta: A FAT32 label holds at most 11 characters";
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
        {"main", {860, 580}},
        {"about", {420, 188}},
        {"dialog-message", {420, 188}},
        {"dialog-finished", {420, 188}},
        {"dialog-progress", {420, 188}},
        {"dialog-input", {420, 188}},
        {"dialog-confirm-format-usb", {420, 188}},
        {"notice-insert_usb", {420, 160}},
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
    QTest::newRow("burn") << "burn-disc"
                          << "success" << 0 << "";
    QTest::newRow("burn, no disc")
        << "burn-disc"
        << "nodisc" << 1 << "brenta: The disc was not burned. There is no writable disc";
    QTest::newRow("copy") << "copy-disc"
                          << "success" << 0 << "";
    QTest::newRow("copy, unreadable sector")
        << "copy-disc"
        << "readerror" << 1 << "brenta: The disc was not copied.";
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
    for (const QString& name :
         QDir("/sys/class/block").entryList(QDir::Dirs | QDir::NoDotAndDotDot | QDir::System)) {
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
    // A failed copy keeps the image it would have replaced.
    QVERIFY(IsoFixture::WriteTree(dir.path(), {{"copy.iso", "an older image"}}));
    const QStringList arguments = command == "burn-disc"
                                      ? QStringList{command, image, device}
                                      : QStringList{command, device, dir.filePath("copy.iso")};
    const Run run = runBrenta(
        arguments, 60000,
        {"BRENTA_TOOLS_DIR=" BRENTA_SOURCE_DIR "/tests/standins", "BRENTA_STANDIN_MODE=" + mode});
    QCOMPARE(run.exitCode, exitCode);
    QVERIFY2(said.isEmpty() ? run.err.isEmpty() : run.err.startsWith(said), qPrintable(run.err));
    QCOMPARE(run.out, QString());
    if (command == "copy-disc" && exitCode == 0)
        QCOMPARE(QFileInfo(dir.filePath("copy.iso")).size(), qint64(300) * 2048);
    else
        QCOMPARE(readAll(dir.filePath("copy.iso")), QByteArray("an older image"));
    QCOMPARE(entries(dir.path()), (QStringList{"copy.iso", "disc.iso"}));
}

void TestCli::signalStopsAndCleansUp_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<int>("signal");
    QTest::newRow("extract, SIGTERM") << "extract" << SIGTERM;
    QTest::newRow("extract, SIGINT") << "extract" << SIGINT;
    QTest::newRow("extract, SIGHUP") << "extract" << SIGHUP;
    QTest::newRow("create, SIGTERM") << "create" << SIGTERM;
    QTest::newRow("create, SIGINT") << "create" << SIGINT;
    QTest::newRow("create, SIGHUP") << "create" << SIGHUP;
    QTest::newRow("copy-disc, SIGTERM") << "copy-disc" << SIGTERM;
}

// A terminal form ended by a signal while its tool works leaves the folder
// it writes into as it was (no staging folder, no half-written image, the
// image it would have replaced intact), removes its working copy and exits
// as a shell reports the signal. The real tools do their work and then wait,
// so the signal comes when there is most to clean up.
void TestCli::signalStopsAndCleansUp()
{
    QFETCH(QString, command);
    QFETCH(int, signal);
    QTemporaryDir dir;
    const QString ready = dir.filePath("ready");
    QVERIFY(IsoFixture::WriteTree(dir.filePath("files"),
                                  {{"docs/a.txt", QByteArray(100000, 'a')}, {"b.txt", "b"}}));
    QString error;
    QVERIFY2(
        !IsoFixture::Build(dir.filePath("files"), dir.filePath("source.iso"), "joliet only", &error)
             .isEmpty(),
        qPrintable(error));
    const QString slow = "#!/bin/sh\n"
                         "\"$BRENTA_TEST_REAL\" \"$@\" || exit $?\n"
                         "[ \"$1\" = l ] && exit 0\n"
                         ": >\"$BRENTA_TEST_READY\"\n"
                         "exec sleep 60\n";
    for (const QString& tool : {QString("7z/7z"), QString("cdrtools/mkisofs")}) {
        QVERIFY(IsoFixture::WriteTree(dir.filePath("tools"), {{tool, slow.toUtf8()}}));
        QVERIFY(QFile::setPermissions(dir.filePath("tools/" + tool),
                                      QFile::ReadOwner | QFile::ExeOwner));
    }
    QString device;
    for (const QString& name :
         QDir("/sys/class/block").entryList(QDir::Dirs | QDir::NoDotAndDotDot | QDir::System)) {
        if (QFileInfo::exists("/dev/" + name)) {
            device = "/dev/" + name;
            break;
        }
    }
    if (command == "copy-disc" && device.isEmpty())
        QSKIP("no block device node on this machine");
    const QString out = dir.filePath("out");
    QVERIFY(IsoFixture::WriteTree(out, {{"image.iso", "an older image"}}));

    QStringList arguments;
    QString real;
    if (command == "extract") {
        arguments = QStringList{"extract", dir.filePath("source.iso"), out};
        real = QStandardPaths::findExecutable("7z");
    } else if (command == "create") {
        arguments = QStringList{"create", out + "/image.iso", dir.filePath("files/docs"),
                                dir.filePath("files/b.txt")};
        real = QStandardPaths::findExecutable("genisoimage");
    } else {
        arguments = QStringList{"copy-disc", device, out + "/image.iso"};
    }
    QProcess brenta;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("XDG_DATA_HOME", dir.filePath("data"));
    environment.insert("BRENTA_TEST_REAL", real);
    environment.insert("BRENTA_TEST_READY", ready);
    environment.insert("BRENTA_STANDIN_MODE", "hang");
    environment.insert("BRENTA_STANDIN_LOG", ready);
    environment.insert("BRENTA_TOOLS_DIR", command == "copy-disc"
                                               ? QString(BRENTA_SOURCE_DIR "/tests/standins")
                                               : dir.filePath("tools"));
    brenta.setProcessEnvironment(environment);
    brenta.start(BRENTA_EXECUTABLE, arguments);
    QTRY_VERIFY_WITH_TIMEOUT(QFileInfo::exists(ready), 30000);
    // The disc reader writes its first sectors into a part file, then hangs.
    if (command == "copy-disc")
        QTRY_VERIFY_WITH_TIMEOUT(
            QDir(out).entryInfoList({".image.iso.*"}, QDir::Files | QDir::Hidden).value(0).size() >
                0,
            10000);
    QCOMPARE(brenta.state(), QProcess::Running);
    QVERIFY(::kill(pid_t(brenta.processId()), signal) == 0);
    QVERIFY(brenta.waitForFinished(20000));
    QCOMPARE(brenta.exitStatus(), QProcess::NormalExit);
    QCOMPARE(brenta.exitCode(), 128 + signal);
    QCOMPARE(entries(out), QStringList{"image.iso"});
    QCOMPARE(readAll(out + "/image.iso"), QByteArray("an older image"));
    QCOMPARE(entries(dir.filePath("data/brenta/tmp")), QStringList());
}

// At start-up Brenta removes the working copies that no running Brenta holds,
// however new they are, and leaves alone one whose owner still runs.
void TestCli::startRemovesWorkingCopiesLeftBehind()
{
    QTemporaryDir dir;
    const QString scratch = dir.filePath("data/brenta/tmp");
    QVERIFY(IsoFixture::WriteTree(scratch, {{"create-left/a.txt", "a"},
                                            {"create-left.lock", ""},
                                            {"edit-held/contents/b.txt", "b"},
                                            {"edit-held.lock", ""},
                                            {"c.txt", "c"}}));
    // This test is the running owner of the held one.
    const int held = ::open(qPrintable(scratch + "/edit-held.lock"), O_RDWR | O_CLOEXEC);
    QVERIFY(held >= 0 && ::flock(held, LOCK_EX) == 0);
    const Run run = runBrenta({"create", dir.filePath("out.iso"), scratch + "/c.txt"}, 60000,
                              {"XDG_DATA_HOME=" + dir.filePath("data")});
    ::close(held);
    QCOMPARE(run.exitCode, 0);
    QCOMPARE(entries(scratch), (QStringList{"c.txt", "edit-held", "edit-held.lock"}));
    QCOMPARE(readAll(scratch + "/edit-held/contents/b.txt"), QByteArray("b"));
}

// A folder Brenta cannot read must not become an empty folder of the image:
// the image is refused, with the folder named, as an unreadable file is.
// Root reads every folder, so then Brenta runs as "nobody".
void TestCli::createRefusesUnreadableFolder()
{
    const uid_t user = ::geteuid() == 0 ? kNobody : 0;
    QTemporaryDir dir;
    QVERIFY(QFile::setPermissions(dir.path(), QFile::ReadOwner | QFile::WriteOwner |
                                                  QFile::ExeOwner | QFile::ReadOther |
                                                  QFile::ExeOther));
    QVERIFY(IsoFixture::WriteTree(dir.filePath("files"),
                                  {{"ok.txt", "ok"}, {"locked/secret.txt", "s"}}));
    QVERIFY(QDir(dir.path()).mkdir("home"));
    QVERIFY(user == 0 || ::chown(qPrintable(dir.filePath("home")), user, user) == 0);
    const QString locked = dir.filePath("files/locked");
    QVERIFY(QFile::setPermissions(locked, {}));
    const Run run =
        runBrenta({"create", dir.filePath("home/out.iso"), dir.filePath("files")}, 60000,
                  {"HOME=" + dir.filePath("home"), "XDG_DATA_HOME=" + dir.filePath("home/data")},
                  QByteArray(), QStringLiteral(BRENTA_EXECUTABLE), user);
    QVERIFY(QFile::setPermissions(locked, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));
    QCOMPARE(run.exitCode, 1);
    QVERIFY2(run.err.contains(locked), qPrintable(run.err));
    QVERIFY(!QFileInfo::exists(dir.filePath("home/out.iso")));
}

void TestCli::edit_data()
{
    QTest::addColumn<QStringList>("changes");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QString>("said");
    QTest::addColumn<QStringList>("listed");
    QTest::newRow("changes in the order given")
        << QStringList{"--rename",          "a.txt",   "b.txt",       "--add",
                       "LOCAL/a.txt=/docs", "--add",   "LOCAL/a.txt", "--delete",
                       "docs/r.txt",        "--label", "EDITED"}
        << 0 << ""
        << QStringList{"F\ta.txt",           "F\tb.txt", "D\tboot",      "F\tboot/boot.cat",
                       "F\tboot/loader.bin", "D\tdocs",  "F\tdocs/a.txt"};
    QTest::newRow("a name taken") << QStringList{"--add", "LOCAL/a.txt"} << 1
                                  << "brenta: The image already has an entry named a.txt there."
                                  << QStringList{};
    QTest::newRow("a boot file")
        << QStringList{"--add", "LOCAL/a.txt=docs", "--delete", "boot/loader.bin"} << 1
        << "brenta: loader.bin cannot be deleted: the image starts from it, /boot/loader.bin"
        << QStringList{};
    QTest::newRow("no such entry")
        << QStringList{"--rename", "docs/none.txt", "x"} << 1
        << "brenta: The image has no entry docs/none.txt." << QStringList{};
}

void TestCli::edit()
{
    QFETCH(QStringList, changes);
    QFETCH(int, exitCode);
    QFETCH(QString, said);
    QFETCH(QStringList, listed);
    QTemporaryDir dir;
    QVERIFY(IsoFixture::WriteTree(
        dir.filePath("src"),
        {{"a.txt", "a"}, {"docs/r.txt", "r"}, {"boot/loader.bin", QByteArray(2048, 'L')}}));
    QVERIFY(IsoFixture::WriteTree(dir.filePath("local"), {{"a.txt", "new a"}}));
    const QString image = dir.filePath("in.iso");
    QProcess builder;
    builder.start("genisoimage", {"-quiet", "-R", "-J", "-V", "ORIGINAL", "-o", image, "-b",
                                  "boot/loader.bin", "-c", "boot/boot.cat", "-no-emul-boot",
                                  "-boot-load-size", "4", dir.filePath("src")});
    QVERIFY(builder.waitForFinished(60000) && builder.exitCode() == 0);
    changes.replaceInStrings("LOCAL", dir.filePath("local"));
    const QString output = dir.filePath("out.iso");
    const Run run = runBrenta(QStringList{"edit", image, output} + changes, 60000,
                              {"XDG_DATA_HOME=" + dir.filePath("data")});
    QCOMPARE(run.exitCode, exitCode);
    QCOMPARE(run.err.trimmed(), said);
    if (exitCode != 0) {
        QVERIFY(!QFileInfo::exists(output));
        return;
    }
    const Run list = runBrenta({"list", output});
    QStringList shown;
    for (const QString& line : list.out.split('\n', Qt::SkipEmptyParts))
        shown << line.section('\t', 0, 0) + "\t" + line.section('\t', 3);
    shown.sort();
    listed.sort();
    QCOMPARE(shown, listed);
    QProcess xorriso;
    xorriso.start("xorriso", {"-indev", output, "-pvd_info"});
    QVERIFY(xorriso.waitForFinished(60000));
    QVERIFY(QString::fromUtf8(xorriso.readAll()).contains("Volume Id    : EDITED"));
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
    QTest::newRow("image mode chosen")
        << "image.iso"
        << "stick" << QStringList{"--mode", "image", "--yes"} << QByteArray() << "success" << 0
        << QStringList{"Checking the image...", "Mode: image: You chose disk image mode",
                       "brenta: warning: This image has no partition table",
                       "Writing the image to the USB disk...", "Verifying the USB disk..."}
        << "Burning Successfully..." << QStringList{"write", "hash"};
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
    if (options.contains("image")) {
        // The stand-in's disk, written from what Brenta streamed to it.
        QFile disk(mount + ".disk");
        QFile written(dir.filePath(image));
        QVERIFY(disk.open(QIODevice::ReadOnly) && written.open(QIODevice::ReadOnly));
        const QByteArray bytes = written.readAll();
        QVERIFY(disk.readAll() == bytes);
        // The image's SHA-256, taken as it was written, is printed with the result.
        QVERIFY2(
            run.out.contains("SHA-256 of the image: " +
                             QCryptographicHash::hash(bytes, QCryptographicHash::Sha256).toHex()),
            qPrintable(run.out));
        return;
    }
    QCOMPARE(QFileInfo(mount + "/docs/a.txt").size(), qint64(1));
    if (options.contains("--label"))
        QVERIFY2(
            Standins::Logged(log).first().contains(" --scheme gpt --fs fat32 --label My Stick"),
            qPrintable(Standins::Logged(log).first()));
}

void TestCli::burnUsbAsDesktopUser_data()
{
    QTest::addColumn<QString>("answer"); // how the stand-in pkexec answers
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QString>("said");           // on standard error
    QTest::addColumn<QStringList>("authorised"); // the helper commands pkexec ran, by command

    QTest::newRow("password given")
        << "grant" << 0 << "" << QStringList{"prepare", "remount", "unmount"};
    QTest::newRow("password dialog dismissed")
        << "dismiss" << 1
        << "brenta: The USB stick was not burned. The step that failed: formatting: Brenta is not "
           "authorised to change the stick: the administrator's password was not given."
        << QStringList{"prepare"};
}

// Brenta run by an ordinary user asks pkexec to start the helper for every
// step. The helper and pkexec
// are stand-ins; the user is "nobody", so Brenta gets a folder of its own
// that user can reach.
void TestCli::burnUsbAsDesktopUser()
{
    QFETCH(QString, answer);
    QFETCH(int, exitCode);
    QFETCH(QString, said);
    QFETCH(QStringList, authorised);
    if (::geteuid() != 0)
        QSKIP("needs root to run Brenta as another user");

    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const auto readable = QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner |
                          QFile::ReadGroup | QFile::ExeGroup | QFile::ReadOther | QFile::ExeOther;
    QVERIFY(QFile::setPermissions(dir.path(), readable));
    for (const char* folder : {"app", "bin", "home"})
        QVERIFY(QDir(dir.path()).mkdir(folder));
    QVERIFY(::chown(qPrintable(dir.filePath("home")), kNobody, kNobody) == 0);
    // Brenta finds the helper beside itself, where no stand-in is run directly.
    QVERIFY(QFile::copy(BRENTA_EXECUTABLE, dir.filePath("app/brenta")));
    QVERIFY(QFile::copy(BRENTA_SOURCE_DIR "/tests/standins/usbhelper/brenta-usb-helper",
                        dir.filePath("app/brenta-usb-helper")));
    QFile pkexec(dir.filePath("bin/pkexec"));
    QVERIFY(pkexec.open(QIODevice::WriteOnly));
    pkexec.write("#!/bin/sh\n"
                 "# Records what it is asked to run, then runs it, or refuses as pkexec does\n"
                 "# when its password dialog is dismissed.\n"
                 "printf '%s\\n' \"$*\" >>\"$HOME/pkexec.log\"\n"
                 "if [ \"$BRENTA_STANDIN_PKEXEC\" = dismiss ]; then\n"
                 "    echo 'Error executing command as another user: Request dismissed' >&2\n"
                 "    exit 126\n"
                 "fi\n"
                 "exec \"$@\"\n");
    pkexec.close();
    for (const QString& program :
         {dir.filePath("app/brenta"), dir.filePath("app/brenta-usb-helper"), pkexec.fileName()})
        QVERIFY(QFile::setPermissions(program, readable));
    QString error;
    QVERIFY(IsoFixture::WriteTree(dir.filePath("files"), {{"docs/a.txt", "a"}, {"b.txt", "b"}}));
    const QString image =
        IsoFixture::Build(dir.filePath("files"), dir.filePath("image.iso"), "joliet", &error);
    QVERIFY2(!image.isEmpty(), qPrintable(error));
    QVERIFY(QFile::setPermissions(image, QFile::ReadOwner | QFile::ReadGroup | QFile::ReadOther));

    const QString home = dir.filePath("home");
    const Run run = runBrenta({"burn-usb", image, home, "--yes"}, 60000,
                              {"PATH=" + dir.filePath("bin") + ":/usr/bin:/bin", "HOME=" + home,
                               "BRENTA_TOOLS_DIR=", "BRENTA_STANDIN_PKEXEC=" + answer,
                               "BRENTA_STANDIN_LOG=" + home + "/helper.log",
                               "BRENTA_STANDIN_MOUNT=" + home + "/mount"},
                              QByteArray(), dir.filePath("app/brenta"), kNobody);
    QCOMPARE(run.exitCode, exitCode);
    QVERIFY2(said.isEmpty() || run.err.contains(said), qPrintable(run.err));

    QFile log(home + "/pkexec.log");
    QVERIFY(log.open(QIODevice::ReadOnly));
    const QStringList lines = QString::fromUtf8(log.readAll()).split('\n', Qt::SkipEmptyParts);
    QStringList commands;
    for (const QString& line : lines) {
        QVERIFY2(line.startsWith(dir.filePath("app/brenta-usb-helper ")), qPrintable(line));
        commands << line.section(' ', 1, 1);
    }
    QCOMPARE(commands, authorised);
    if (exitCode == 0)
        QCOMPARE(QFileInfo(home + "/mount/docs/a.txt").size(), qint64(1));
}

QTEST_GUILESS_MAIN(TestCli)
#include "tst_cli.moc"
