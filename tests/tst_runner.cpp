#include <QtTest>

#include <csignal>

#include "core/util.h"
#include "common/isofixture.h"
#include "tools/runcommandthread.h"

namespace {

const QString kChild = QStringLiteral(BRENTA_TEST_CHILD);

// Everything a page would see of one run.
struct Recorder
{
    explicit Recorder(CRunCommandThread& runner)
        : lines(&runner, &CRunCommandThread::standoutputline),
          finished(&runner, &CRunCommandThread::sigfinished)
    {
    }
    QStringList Lines() const
    {
        QStringList out;
        for (const QList<QVariant>& call : lines)
            out << call.at(0).toString();
        return out;
    }
    QSignalSpy lines;
    QSignalSpy finished;
};

// Alive means running or stopped, not a zombie waiting for its parent.
bool processAlive(qint64 pid)
{
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!stat.open(QIODevice::ReadOnly))
        return false;
    const QByteArray text = stat.readAll();
    const int close = text.lastIndexOf(')');
    return close > 0 && close + 2 < text.size() && text.at(close + 2) != 'Z';
}

qint64 readPid(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return -1;
    return file.readAll().trimmed().toLongLong();
}

} // namespace

class TestRunner final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanup();

    void reportsTheRun_data();
    void reportsTheRun();
    void logsCommandAndEveryLine();
    void terminateStopsToolAndSignals_data();
    void terminateStopsToolAndSignals();
    void terminateInsideLineSlotDropsTheRest();
    void stopThenRunsAfterTheToolHasEnded_data();
    void stopThenRunsAfterTheToolHasEnded();
    void toolDiesWithBrenta();
};

void TestRunner::initTestCase()
{
    QStandardPaths::setTestModeEnabled(true);
    QVERIFY(QFileInfo(kChild).isExecutable());
    // Destroying a QProcess that still runs is a fault wherever it happens.
    QTest::failOnWarning(QRegularExpression("Destroyed while process"));
}

void TestRunner::cleanup()
{
    QFile::remove(Util::SwitchFilePath());
    QFile::remove(Util::LogFilePath());
}

void TestRunner::reportsTheRun_data()
{
    QTest::addColumn<QString>("program");
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<int>("result");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QStringList>("lines");
    using R = CRunCommandThread::Result;
    // How output is cut into lines is the splitter's own test; here the runner
    // must feed it both streams and hand over the tail when the tool ends.
    QTest::newRow("last line without line feed")
        << kChild << QStringList{"print-raw", "first\\nlast"} << int(R::Success) << 0
        << QStringList{"first\n", "last"};
    QTest::newRow("error output is merged") << kChild << QStringList{"stderr"} << int(R::Success)
                                            << 0 << QStringList{"to stdout\n", "to stderr\n"};
    QStringList many;
    for (int i = 0; i < 1500; ++i)
        many << QStringLiteral("line %1\n").arg(i);
    QTest::newRow("many lines, in order")
        << kChild << QStringList{"stream", "1500"} << int(R::Success) << 0 << many;
    QTest::newRow("exit status 254")
        << kChild << QStringList{"exit", "254"} << int(R::Failed) << 254 << QStringList{"bye\n"};
    QTest::newRow("crash") << kChild << QStringList{"crash"} << int(R::Crashed) << -1
                           << QStringList{"about to crash\n"};
    // A page waits for sigfinished() before it goes on: a tool that never
    // starts must still end the run, or the page hangs for ever.
    QTest::newRow("missing file") << "/nonexistent/brenta-no-such-tool" << QStringList()
                                  << int(R::StartFailed) << -1 << QStringList();
    QTest::newRow("not executable") << QString(BRENTA_SOURCE_DIR "/CMakeLists.txt") << QStringList()
                                    << int(R::StartFailed) << -1 << QStringList();
    QTest::newRow("no program (tool not found)")
        << QString() << QStringList() << int(R::StartFailed) << -1 << QStringList();
}

void TestRunner::reportsTheRun()
{
    QFETCH(QString, program);
    QFETCH(QStringList, arguments);
    QFETCH(int, result);
    QFETCH(int, exitCode);
    QFETCH(QStringList, lines);

    CRunCommandThread runner;
    Recorder seen(runner);
    runner.SetCommand(program, arguments);
    runner.StartCommand();
    QVERIFY(seen.finished.wait(10000));
    QVERIFY(runner.wait(10000));
    QCoreApplication::sendPostedEvents();
    QCOMPARE(seen.finished.count(), 1);
    QCOMPARE(seen.Lines(), lines);
    QCOMPARE(int(runner.GetResult()), result);
    QVERIFY(!runner.IsRunning());
    const bool started = result != int(CRunCommandThread::Result::StartFailed);
    QCOMPARE(runner.Started(), started);
    if (started)
        QCOMPARE(runner.ExitCode(), exitCode);
    QCOMPARE(runner.ErrorText().isEmpty(), result == int(CRunCommandThread::Result::Success));
    QCOMPARE(runner.LastLines(), lines.mid(qMax(0, lines.size() - CRunCommandThread::KeptLines)));
}

void TestRunner::logsCommandAndEveryLine()
{
    QFile switchFile(Util::SwitchFilePath());
    QVERIFY(switchFile.open(QIODevice::WriteOnly));
    switchFile.close();

    CRunCommandThread runner;
    Recorder seen(runner);
    runner.SetCommand(kChild, {"print-raw", "alpha\\rbeta\\n\\ngamma\\n"});
    runner.StartCommand();
    QVERIFY(seen.finished.wait(10000));

    QFile log(Util::LogFilePath());
    QVERIFY(log.open(QIODevice::ReadOnly));
    QStringList messages;
    for (const QByteArray& line : log.readAll().split('\n')) {
        if (!line.isEmpty())
            messages << QString::fromUtf8(line.mid(20)); // after the time stamp and blank
    }
    // The command line ends with a blank after the last argument.
    QCOMPARE(messages, (QStringList{kChild + " print-raw alpha\\rbeta\\n\\ngamma\\n ", "alpha",
                                    "beta", "gamma"}));
}

void TestRunner::terminateStopsToolAndSignals_data()
{
    QTest::addColumn<QString>("mode");
    QTest::addColumn<QString>("end"); // stop or destroy
    QTest::newRow("tool that ends when asked") << "hang"
                                               << "stop";
    QTest::newRow("tool that ignores the request") << "stubborn"
                                                   << "stop";
    QTest::newRow("runner destroyed while its tool runs") << "hang"
                                                          << "destroy";
}

// Stop must leave nothing behind: no more signals to a page that may already
// be gone, and no tool (nor a tool's child) still running.
void TestRunner::terminateStopsToolAndSignals()
{
    QFETCH(QString, mode);
    QFETCH(QString, end);
    QTemporaryDir dir;
    const QString pidFile = dir.filePath("pid");

    auto* runner = new CRunCommandThread;
    Recorder seen(*runner);
    runner->SetCommand(kChild, {mode, pidFile});
    runner->StartCommand();
    QTRY_COMPARE(seen.lines.count(), 1);
    QTRY_VERIFY(readPid(pidFile + ".child") > 0);
    const qint64 tool = readPid(pidFile);
    const qint64 grandchild = readPid(pidFile + ".child");
    QVERIFY(processAlive(tool));
    QVERIFY(processAlive(grandchild));
    if (end == "destroy") {
        delete runner;
        QVERIFY(!processAlive(tool));
        QTRY_VERIFY_WITH_TIMEOUT(!processAlive(grandchild), 10000);
        return;
    }

    runner->Stop();
    QVERIFY(!runner->IsRunning());
    QCOMPARE(runner->GetResult(), CRunCommandThread::Result::Stopped);

    QTRY_VERIFY_WITH_TIMEOUT(!processAlive(tool), 10000);
    QTRY_VERIFY_WITH_TIMEOUT(!processAlive(grandchild), 10000);
    QTRY_VERIFY_WITH_TIMEOUT(runner->isFinished(), 10000);
    QCoreApplication::sendPostedEvents();
    QCOMPARE(seen.lines.count(), 1);
    QCOMPARE(seen.finished.count(), 0);
    delete runner;
}

void TestRunner::terminateInsideLineSlotDropsTheRest()
{
    CRunCommandThread runner;
    QStringList received;
    connect(&runner, &CRunCommandThread::standoutputline, this, [&](const QString& line) {
        received << line;
        if (received.size() == 10)
            runner.Stop();
    });
    QSignalSpy finished(&runner, &CRunCommandThread::sigfinished);
    runner.SetCommand(kChild, {"stream", "400"});
    runner.StartCommand();
    QTRY_VERIFY_WITH_TIMEOUT(runner.isFinished(), 10000);
    QCoreApplication::sendPostedEvents();
    QCOMPARE(received.size(), 10);
    QCOMPARE(received.last(), QStringLiteral("line 9\n"));
    QCOMPARE(finished.count(), 0);
}

void TestRunner::stopThenRunsAfterTheToolHasEnded_data()
{
    QTest::addColumn<QStringList>("arguments"); // empty: no runner
    QTest::addColumn<bool>("endFirst");         // the tool ends before the stop
    QTest::addColumn<bool>("dispose");          // Dispose(), which calls nothing back, instead
    QTest::newRow("tool that ignores the request") << QStringList{"stubborn"} << false << false;
    QTest::newRow("tool that has already ended") << QStringList{"exit", "0"} << true << false;
    QTest::newRow("no runner") << QStringList() << false << false;
    QTest::newRow("disposed, tool that ignores the request")
        << QStringList{"stubborn"} << false << true;
}

// A job removes what its tool was writing only once the tool has ended, or the
// tool could write it again; and the window must not wait for that end, nor
// for a stubborn tool's grace period when it disposes of the runner.
void TestRunner::stopThenRunsAfterTheToolHasEnded()
{
    QFETCH(QStringList, arguments);
    QFETCH(bool, endFirst);
    QFETCH(bool, dispose);
    QTemporaryDir dir;
    const QString pidFile = dir.filePath("pid");
    const bool stubborn = arguments == QStringList{"stubborn"};

    CRunCommandThread* runner = nullptr;
    QPointer<CRunCommandThread> gone;
    std::unique_ptr<Recorder> seen;
    if (!arguments.isEmpty()) {
        runner = new CRunCommandThread;
        gone = runner;
        seen = std::make_unique<Recorder>(*runner);
        runner->SetCommand(kChild, stubborn ? QStringList{"stubborn", pidFile} : arguments);
        runner->StartCommand();
        if (endFirst) {
            QVERIFY(seen->finished.wait(10000));
            QTRY_VERIFY(runner->isFinished());
        } else
            QTRY_VERIFY(readPid(pidFile + ".child") > 0);
    }
    const qint64 tool = readPid(pidFile);
    const qint64 grandchild = readPid(pidFile + ".child");

    int calls = 0;
    bool toolGoneAtCall = false;
    QElapsedTimer timer;
    timer.start();
    if (dispose) {
        CRunCommandThread::Dispose(runner);
    } else {
        CRunCommandThread::StopThen(runner, [&] {
            ++calls;
            toolGoneAtCall = !stubborn || (!processAlive(tool) && !processAlive(grandchild));
        });
    }
    QCOMPARE(runner, nullptr);
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    QVERIFY2(timer.elapsed() < 500, qPrintable(QString::number(timer.elapsed())));
    QCOMPARE(calls, stubborn || dispose ? 0 : 1);
    if (stubborn)
        QVERIFY(processAlive(tool));
    QTRY_VERIFY_WITH_TIMEOUT(!processAlive(tool) && !processAlive(grandchild), 10000);
    QTRY_COMPARE_WITH_TIMEOUT(calls, dispose ? 0 : 1, 10000);
    QVERIFY(dispose || toolGoneAtCall);
    QTRY_VERIFY_WITH_TIMEOUT(gone.isNull(), 10000);
    QCoreApplication::sendPostedEvents();
    QCOMPARE(calls, dispose ? 0 : 1);
    if (seen) {
        QCOMPARE(seen->lines.count(), 1);
        QCOMPARE(seen->finished.count(), endFirst ? 1 : 0);
    }
}

// Brenta killed outright runs no code of its own, yet the tool it started
// must not go on writing without it.
void TestRunner::toolDiesWithBrenta()
{
    QTemporaryDir dir;
    const QString pidFile = dir.filePath("pid");
    QVERIFY(IsoFixture::WriteTree(
        dir.path(),
        {{"tools/cdrtools/mkisofs", "#!/bin/sh\necho $$ >\"$BRENTA_TEST_PID\"\nexec sleep 60\n"},
         {"files/a.txt", "a"}}));
    QVERIFY(QFile::setPermissions(dir.filePath("tools/cdrtools/mkisofs"),
                                  QFile::ReadOwner | QFile::ExeOwner));
    QProcess brenta;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("BRENTA_TOOLS_DIR", dir.filePath("tools"));
    environment.insert("BRENTA_TEST_PID", pidFile);
    environment.insert("XDG_DATA_HOME", dir.filePath("data"));
    brenta.setProcessEnvironment(environment);
    brenta.start(BRENTA_EXECUTABLE,
                 {"create", dir.filePath("out.iso"), dir.filePath("files/a.txt")});
    QTRY_VERIFY_WITH_TIMEOUT(readPid(pidFile) > 0, 30000);
    const qint64 tool = readPid(pidFile);
    QVERIFY(processAlive(tool));
    brenta.kill();
    QVERIFY(brenta.waitForFinished(10000));
    QTRY_VERIFY_WITH_TIMEOUT(!processAlive(tool), 5000);
}

QTEST_GUILESS_MAIN(TestRunner)
#include "tst_runner.moc"
