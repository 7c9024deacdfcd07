// Brenta run by an ordinary user burns a loop device through the real pkexec,
// which asks a real polkitd whether that user may run the USB helper. The test
// brings everything that needs and takes it all away again: a system bus and
// polkitd when none runs, Brenta's polkit action, a user of its own and a
// rules file answering for that user. Only one run at a time works on the
// system bus; others wait for it.

#include <QtTest>

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QScopeGuard>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <csignal>
#include <functional>
#include <memory>
#include <optional>

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "common/hybridimage.h"
#include "common/isofixture.h"
#include "common/listedimage.h"

namespace {

const QString kAction = QStringLiteral("org.brenta.usb-helper");
const QString kBusSocket = QStringLiteral("/run/dbus/system_bus_socket");
const QString kPolkitd = QStringLiteral("/usr/lib/polkit-1/polkitd");
const QString kPkexec = QStringLiteral("/usr/bin/pkexec");
const QString kDtd = QStringLiteral("/usr/share/polkit-1/policyconfig-1.dtd");
const QString kInstalledPolicy =
    QStringLiteral("/usr/share/polkit-1/actions/org.brenta.usb-helper.policy");
const QString kRulesDir = QStringLiteral("/etc/polkit-1/rules.d");
// How the test starts the daemons, as /proc/<pid>/cmdline shows it (after
// the bus's folder).
const QByteArray kBusCommand =
    QByteArrayLiteral("/dbus-daemon\0--system\0--nofork\0--nopidfile\0--nosyslog\0");
const QByteArray kPolkitdCommand = QByteArrayLiteral("/usr/lib/polkit-1/polkitd\0");
const QString kPath =
    QStringLiteral("/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin");
// Marks the files and users this test makes, so that what a killed run left
// behind is recognised and removed by the next one.
const QString kMark = QStringLiteral("Brenta polkit test");
// The work folder lies in /tmp, whatever TMPDIR says, so that the test user
// can reach it.
const QString kWorkFolder = QStringLiteral("brenta-polkit-test-");
// What Brenta says when pkexec refuses to start the helper.
const QString kRefused =
    QStringLiteral("Brenta is not authorised to change the stick: the system's policy refused it");

struct Ran
{
    int exitCode = -1;
    QString output;
};

// Runs a program to its end with the output channels merged; with `user`
// not 0, as that user with only its own group and the given environment.
Ran run(const QString& program, const QStringList& arguments, uid_t user = 0, gid_t group = 0,
        const QStringList& environment = {}, int timeoutMs = 60000)
{
    QProcess process;
    if (user != 0) {
        process.setChildProcessModifier([user, group] {
            if (::setgroups(0, nullptr) != 0 || ::setgid(group) != 0 || ::setuid(user) != 0)
                ::_exit(125);
        });
        QProcessEnvironment variables;
        for (const QString& variable : environment)
            variables.insert(variable.section('=', 0, 0), variable.section('=', 1));
        process.setProcessEnvironment(variables);
        process.setWorkingDirectory(QStringLiteral("/"));
    }
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(program, arguments);
    Ran ran;
    if (!process.waitForFinished(timeoutMs)) {
        process.kill();
        process.waitForFinished();
        ran.output = program + " did not end in time. ";
    }
    ran.output += QString::fromUtf8(process.readAll());
    if (process.exitStatus() == QProcess::NormalExit)
        ran.exitCode = process.exitCode();
    return ran;
}

bool waitUntil(const std::function<bool()>& condition, int timeoutMs)
{
    QElapsedTimer timer;
    timer.start();
    while (!condition()) {
        if (timer.hasExpired(timeoutMs))
            return false;
        QThread::msleep(200);
    }
    return true;
}

// Whether the system bus answers on its socket.
bool busAnswers()
{
    return run("dbus-send", {"--system", "--print-reply", "--dest=org.freedesktop.DBus",
                             "/org/freedesktop/DBus", "org.freedesktop.DBus.GetId"})
               .exitCode == 0;
}

bool polkitOnBus()
{
    return run("dbus-send",
               {"--system", "--print-reply", "--dest=org.freedesktop.DBus", "/org/freedesktop/DBus",
                "org.freedesktop.DBus.NameHasOwner", "string:org.freedesktop.PolicyKit1"})
        .output.contains("boolean true");
}

void stopDaemon(std::unique_ptr<QProcess>& process)
{
    if (!process)
        return;
    process->terminate();
    if (!process->waitForFinished(10000)) {
        process->kill();
        process->waitForFinished();
    }
    process.reset();
}

QByteArray readFile(const QString& path, qint64 size = -1)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return size < 0 ? file.readAll() : file.read(size);
}

// Writes a file readable by polkitd, in one step for its directory watcher.
bool writeFile(const QString& path, const QByteArray& content)
{
    const QString part = path + ".part";
    QFile file(part);
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size() ||
        !file.flush() ||
        !file.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ReadGroup |
                             QFile::ReadOther))
        return false;
    file.close();
    return ::rename(QFile::encodeName(part).constData(), QFile::encodeName(path).constData()) == 0;
}

} // namespace

class TestPolkit : public QObject
{
    Q_OBJECT

public:
    ~TestPolkit() override { undo(); }

private:
    int m_lock = -1;
    std::unique_ptr<QTemporaryDir> m_dir; // made once this run holds the lock
    std::unique_ptr<QProcess> m_bus;
    std::unique_ptr<QProcess> m_polkitd;
    bool m_policyInstalled = false;
    QByteArray m_otherPolicy; // an installed Brenta's policy, put back at the end
    QString m_user;
    uid_t m_uid = 0;
    gid_t m_gid = 0;
    QString m_rules;
    QString m_helper;
    QString m_image;

    void undo()
    {
        if (!m_rules.isEmpty())
            QFile::remove(m_rules);
        m_rules.clear();
        if (m_policyInstalled) {
            if (m_otherPolicy.isEmpty())
                QFile::remove(kInstalledPolicy);
            else
                writeFile(kInstalledPolicy, m_otherPolicy);
        }
        m_policyInstalled = false;
        if (!m_user.isEmpty())
            run("userdel", {"--force", m_user});
        m_user.clear();
        stopDaemon(m_polkitd);
        if (m_bus) {
            stopDaemon(m_bus);
            QFile::remove(kBusSocket);
        }
        m_dir.reset();
        if (m_lock >= 0) {
            recordDaemons();
            ::close(m_lock);
        }
        m_lock = -1;
    }

    // Keeps the ids of the daemons this run started in the lock file, so that
    // the next run stops them should this one be killed.
    void recordDaemons()
    {
        QByteArray pids;
        for (const QProcess* daemon : {m_bus.get(), m_polkitd.get()}) {
            if (daemon)
                pids += QByteArray::number(daemon->processId()) + '\n';
        }
        if (::ftruncate(m_lock, 0) != 0 ||
            ::pwrite(m_lock, pids.constData(), pids.size(), 0) != pids.size())
            qWarning("cannot record the daemons' ids");
    }

    // What a killed run left: its daemons, loop devices, rules files, policy
    // and users.
    void removeLeftovers()
    {
        QByteArray pids(256, '\0');
        pids.truncate(qMax<ssize_t>(::pread(m_lock, pids.data(), pids.size(), 0), 0));
        for (const QByteArray& pid : pids.split('\n')) {
            const QByteArray command = readFile("/proc/" + QString::fromUtf8(pid) + "/cmdline");
            const bool bus = command.startsWith('/') && command.endsWith(kBusCommand);
            if (bus || command == kPolkitdCommand) {
                ::kill(pid.toInt(), SIGTERM);
                waitUntil([&] { return !QFile::exists("/proc/" + QString::fromUtf8(pid)); }, 10000);
            }
            if (bus)
                QFile::remove(kBusSocket);
        }
        const QRegularExpression stick(
            R"(^(/dev/loop\d+)\s+(\S*/brenta-polkit-test-\w+)/stick\.img)");
        const QString loops =
            run("losetup", {"--list", "--noheadings", "--output", "NAME,BACK-FILE"}).output;
        for (const QString& line : loops.split('\n')) {
            const QRegularExpressionMatch match = stick.match(line);
            if (!match.hasMatch())
                continue;
            // Brenta, killed with the test, did not unmount the stick.
            for (const QByteArray& mount : readFile("/proc/self/mounts").split('\n')) {
                const QList<QByteArray> fields = mount.split(' ');
                if (fields.size() > 1 && fields[0].startsWith(match.captured(1).toUtf8() + 'p')) {
                    run("umount", {QString::fromUtf8(fields[1])});
                    QDir().rmdir(QString::fromUtf8(fields[1]));
                }
            }
            run("losetup", {"-d", match.captured(1)});
            QDir(match.captured(2)).removeRecursively();
        }
        const QDir temporary(QStringLiteral("/tmp"));
        for (const QString& name :
             temporary.entryList({kWorkFolder + "*"}, QDir::Dirs | QDir::NoDotAndDotDot))
            QDir(temporary.filePath(name)).removeRecursively();
        for (const QString& name :
             QDir(kRulesDir).entryList({"*" + kWorkFolder + "*"}, QDir::Files))
            QFile::remove(kRulesDir + "/" + name);
        if (readFile(kInstalledPolicy).contains(kMark.toUtf8()))
            QFile::remove(kInstalledPolicy);
        QStringList users;
        ::setpwent();
        while (const passwd* entry = ::getpwent()) {
            if (QString::fromUtf8(entry->pw_gecos) == kMark)
                users << QString::fromUtf8(entry->pw_name);
        }
        ::endpwent();
        for (const QString& user : users)
            run("userdel", {"--force", user});
    }

    // Starts a daemon of this run, its output kept in a file (a pipe nobody
    // reads could fill up and stop it), and waits until it answers; what it
    // said when it does not.
    std::optional<QString> startDaemon(std::unique_ptr<QProcess>& daemon, const QString& program,
                                       const QStringList& arguments, bool (*answers)(),
                                       int timeoutMs)
    {
        const QString log = m_dir->filePath(QFileInfo(program).fileName() + ".log");
        daemon = std::make_unique<QProcess>();
        daemon->setProcessChannelMode(QProcess::MergedChannels);
        daemon->setStandardOutputFile(log);
        daemon->start(program, arguments);
        recordDaemons();
        waitUntil([&] { return answers() || daemon->state() == QProcess::NotRunning; }, timeoutMs);
        if (answers())
            return std::nullopt;
        return QString::fromUtf8(readFile(log));
    }

    // Why this machine cannot run pkexec with polkitd, or nothing.
    static QString cannotRunPolkit()
    {
        if (::geteuid() != 0)
            return "needs root to start polkitd and add a user";
        if (!QFileInfo(kPolkitd).isExecutable())
            return kPolkitd + " is not installed (package polkitd)";
        struct stat info;
        if (::stat(QFile::encodeName(kPkexec).constData(), &info) != 0)
            return kPkexec + " is not installed (package pkexec)";
        if (info.st_uid != 0 || (info.st_mode & S_ISUID) == 0)
            return kPkexec + " is not setuid root";
        struct statvfs volume;
        if (::statvfs(QFile::encodeName(kPkexec).constData(), &volume) == 0 &&
            (volume.f_flag & ST_NOSUID) != 0)
            return kPkexec + " lies on a file system mounted nosuid";
        if (::prctl(PR_GET_NO_NEW_PRIVS, 0, 0, 0, 0) == 1)
            return "this process may not gain privileges (no_new_privs), so pkexec cannot either";
        for (const char* program :
             {"dbus-daemon", "dbus-send", "pkaction", "pkcheck", "useradd", "losetup"}) {
            if (QStandardPaths::findExecutable(program).isEmpty())
                return QString("%1 is not installed").arg(program);
        }
        return {};
    }

    // The environment Brenta gets as the desktop user.
    QStringList userEnvironment() const
    {
        return {"PATH=" + kPath,  "HOME=" + m_dir->filePath("home"),
                "USER=" + m_user, "LOGNAME=" + m_user,
                "SHELL=/bin/sh",  "LANG=C.UTF-8"};
    }

    // polkit's answer for the test user: 0 yes, 1 no, 2 only with a password.
    int polkitAnswer() const
    {
        return run("/bin/sh", {"-c", "exec pkcheck --action-id " + kAction + " --process $$"},
                   m_uid, m_gid, userEnvironment())
            .exitCode;
    }

private Q_SLOTS:
    void initTestCase()
    {
        const QString reason = cannotRunPolkit();
        if (!reason.isEmpty())
            QSKIP(qPrintable(reason));
        // pkexec, being setuid, always uses the default socket; so must the rest.
        qunsetenv("DBUS_SYSTEM_BUS_ADDRESS");

        m_lock = ::open("/tmp/brenta-polkit-test.lock", O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        QVERIFY(m_lock >= 0 && ::flock(m_lock, LOCK_EX) == 0);
        removeLeftovers();

        // Brenta and its helper where the user can run them, the helper
        // beside Brenta, where Brenta looks for it.
        m_dir = std::make_unique<QTemporaryDir>("/tmp/" + kWorkFolder + "XXXXXX");
        QVERIFY(m_dir->isValid());
        const auto open = QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner |
                          QFile::ReadGroup | QFile::ExeGroup | QFile::ReadOther | QFile::ExeOther;
        QVERIFY(QFile::setPermissions(m_dir->path(), open));
        QVERIFY(QDir(m_dir->path()).mkpath("app") && QDir(m_dir->path()).mkpath("home"));
        m_helper = m_dir->filePath("app/brenta-usb-helper");
        QVERIFY(QFile::copy(BRENTA_EXECUTABLE, m_dir->filePath("app/brenta")));
        QVERIFY(QFile::copy(BRENTA_USB_HELPER, m_helper));
        QVERIFY(QFile::setPermissions(m_dir->filePath("app/brenta"), open) &&
                QFile::setPermissions(m_helper, open));
        QVERIFY(IsoFixture::WriteTree(m_dir->filePath("files"),
                                      {{"readme.txt", "read me"},
                                       {"docs/guide.txt", QByteArray(5000, 'g')},
                                       {"data/random.bin", QByteArray(300000, 'r')}}));
        QString error;
        m_image = IsoFixture::Build(m_dir->filePath("files"), m_dir->filePath("image.iso"),
                                    "joliet", &error);
        QVERIFY2(!m_image.isEmpty(), qPrintable(error));
        QVERIFY(
            QFile::setPermissions(m_image, QFile::ReadOwner | QFile::ReadGroup | QFile::ReadOther));

        // The action, naming this helper, before polkitd reads the actions.
        QByteArray action = readFile(BRENTA_POLKIT_POLICY);
        const QRegularExpression execPath(
            R"((<annotate key="org\.freedesktop\.policykit\.exec\.path">)[^<]*(</annotate>))");
        QVERIFY2(execPath.match(QString::fromUtf8(action)).hasMatch(),
                 "the policy names no helper");
        action = QString::fromUtf8(action)
                     .replace(execPath, "\\1" + m_helper + "\\2")
                     .replace("<policyconfig>", "<!-- " + kMark + " -->\n<policyconfig>")
                     .toUtf8();
        if (QFile::exists(kInstalledPolicy))
            m_otherPolicy = readFile(kInstalledPolicy);
        m_policyInstalled = true;
        QVERIFY(writeFile(kInstalledPolicy, action));

        if (!busAnswers()) {
            QFile::remove(kBusSocket); // left by a bus that is gone
            QVERIFY(QDir().mkpath("/run/dbus"));
            if (const auto said = startDaemon(m_bus, "dbus-daemon",
                                              {"--system", "--nofork", "--nopidfile", "--nosyslog"},
                                              busAnswers, 20000))
                QSKIP(qPrintable("the system bus cannot be started: " + *said));
        }
        if (!polkitOnBus()) {
            if (const auto said = startDaemon(m_polkitd, kPolkitd, {}, polkitOnBus, 30000))
                QSKIP(qPrintable("polkitd cannot run here: " + *said));
        }

        m_user = QString("brenta-pk-%1").arg(::getpid());
        const Ran added = run("useradd", {"--system", "--user-group", "--no-create-home",
                                          "--comment", kMark, "--home-dir", m_dir->filePath("home"),
                                          "--shell", "/usr/sbin/nologin", m_user});
        QVERIFY2(added.exitCode == 0, qPrintable(added.output));
        const passwd* entry = ::getpwnam(qPrintable(m_user));
        QVERIFY(entry != nullptr);
        m_uid = entry->pw_uid;
        m_gid = entry->pw_gid;
        QVERIFY(::chown(QFile::encodeName(m_dir->filePath("home")).constData(), m_uid, m_gid) == 0);
        m_rules = QString("%1/10-%2%3.rules").arg(kRulesDir, kWorkFolder).arg(::getpid());

        // A polkitd already running reads the new action when it notices it.
        waitUntil([] { return run("pkaction", {"--action-id", kAction}).exitCode == 0; }, 20000);
    }

    void cleanupTestCase() { undo(); }

    // The policy as built is valid, and polkitd maps the helper to the
    // action through it.
    void policy()
    {
        QVERIFY2(!QStandardPaths::findExecutable("xmllint").isEmpty(),
                 "xmllint (libxml2-utils) is not installed");
        QVERIFY2(QFile::exists(kDtd), qPrintable(kDtd + " is missing"));
        const Ran valid =
            run("xmllint", {"--noout", "--dtdvalid", kDtd, BRENTA_POLKIT_POLICY, kInstalledPolicy});
        QVERIFY2(valid.exitCode == 0, qPrintable(valid.output));
        const Ran shown = run("pkaction", {"--action-id", kAction, "--verbose"});
        QCOMPARE(shown.exitCode, 0);
        QVERIFY2(shown.output.contains("org.freedesktop.policykit.exec.path -> " + m_helper + "\n"),
                 qPrintable(shown.output));
    }

    void burnAsUser_data()
    {
        QTest::addColumn<bool>("allowed");
        QTest::addColumn<bool>("hybrid"); // isolinux's isohybrid image: written as it is
        QTest::newRow("rules say yes") << true << false;
        QTest::newRow("rules say no") << false << false;
        QTest::newRow("hybrid image, rules say yes") << true << true;
    }

    // Success also shows that pkexec chose Brenta's action through the
    // helper's path: the default action for pkexec wants an administrator's
    // password, which nobody here can give.
    void burnAsUser()
    {
        QFETCH(bool, allowed);
        QFETCH(bool, hybrid);
        QString image = m_image;
        if (hybrid) {
            // Brenta reads the image as the user; the helper never opens it.
            QString error;
            image = HybridImage::Isolinux(m_dir->filePath("hybrid"), &error);
            QVERIFY2(!image.isEmpty(), qPrintable(error));
            QVERIFY(QFile::setPermissions(m_dir->filePath("hybrid"),
                                          QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner |
                                              QFile::ExeGroup | QFile::ExeOther) &&
                    QFile::setPermissions(image, QFile::ReadOwner | QFile::ReadOther));
        }
        const QString rules =
            QStringLiteral("// %1\n"
                           "polkit.addRule(function(action, subject) {\n"
                           "    if (action.id == \"%2\" && subject.user == \"%3\")\n"
                           "        return polkit.Result.%4;\n"
                           "});\n")
                .arg(kMark, kAction, m_user, allowed ? "YES" : "NO");
        QVERIFY(writeFile(m_rules, rules.toUtf8()));
        const int expected = allowed ? 0 : 1;
        QVERIFY2(waitUntil([&] { return polkitAnswer() == expected; }, 30000),
                 qPrintable(QString("polkit answers %1 for the test user, not %2")
                                .arg(polkitAnswer())
                                .arg(expected)));

        // The stick: a loop device over a file of the user's, its first MiB
        // random so that any write shows.
        const QString backing = IsoFixture::SparseFile(m_dir->filePath("stick.img"), 96);
        QVERIFY(!backing.isEmpty());
        QByteArray start(1 << 20, '\0');
        QRandomGenerator::global()->fillRange(reinterpret_cast<quint32*>(start.data()),
                                              start.size() / 4);
        {
            QFile file(backing);
            QVERIFY(file.open(QIODevice::ReadWrite) && file.write(start) == start.size());
        }
        QVERIFY(::chown(QFile::encodeName(backing).constData(), m_uid, m_gid) == 0);
        const Ran attached = run("losetup", {"-f", "--show", "-P", backing});
        const QString loop = attached.output.trimmed();
        if (attached.exitCode != 0 || !loop.startsWith("/dev/loop"))
            QSKIP(qPrintable("no loop device can be set up here: " + attached.output));
        const auto detach = qScopeGuard([&] { run("losetup", {"-d", loop}); });
        const QString partition = loop + "p1";

        const Ran burnt = run(m_dir->filePath("app/brenta"), {"burn-usb", image, loop, "--yes"},
                              m_uid, m_gid, userEnvironment(), 300000);
        QVERIFY2(!readFile("/proc/self/mounts").contains(partition.toUtf8() + ' '),
                 "the stick is still mounted");
        if (!allowed) {
            QVERIFY2(burnt.exitCode == 1 && burnt.output.contains(kRefused),
                     qPrintable(burnt.output));
            QVERIFY2(readFile(loop, start.size()) == start, "the refused burn wrote to the stick");
            return;
        }
        QVERIFY2(burnt.exitCode == 0, qPrintable(burnt.output));
        if (hybrid) {
            const QByteArray written = readFile(image);
            QVERIFY(!written.isEmpty());
            QVERIFY2(readFile(loop, written.size()) == written,
                     "the stick does not hold the image byte for byte");
            return;
        }
        QVERIFY2(run("blkid", {"-p", "-o", "export", loop}).output.contains("PTTYPE=dos\n"),
                 "no partition table");
        const Ran probe = run("blkid", {"-p", "-o", "export", partition});
        QVERIFY2(probe.output.contains("TYPE=vfat\n"), qPrintable(probe.output));
        const auto line = [](const Item& item) { return item.name + " " + item.size; };
        QStringList onStick = ListedImage(partition, line);
        QStringList inImage = ListedImage(m_image, line);
        onStick.sort(Qt::CaseInsensitive);
        inImage.sort(Qt::CaseInsensitive);
        QCOMPARE(onStick, inImage);
    }
};

QTEST_GUILESS_MAIN(TestPolkit)
#include "tst_polkit.moc"
