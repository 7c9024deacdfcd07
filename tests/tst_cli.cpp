#include <QtTest>

namespace {

struct Run
{
    int exitCode = -1;
    QString out;
    QString err;
};

// Runs the real program with no display at all: the terminal forms must not
// need one.
Run runBrenta(const QStringList& arguments, int timeoutMs = 60000, const QStringList& variables = {})
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

QTEST_GUILESS_MAIN(TestCli)
#include "tst_cli.moc"
