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
Run runBrenta(const QStringList& arguments, int timeoutMs = 60000)
{
    QProcess process;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
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

QTEST_GUILESS_MAIN(TestCli)
#include "tst_cli.moc"
