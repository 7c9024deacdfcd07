#include <QtTest>

#include "core/util.h"
#include "tools/toollocator.h"

using ToolLocator::Tool;

namespace {

QString makeExecutable(const QString& path, bool executable = true)
{
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return QString();
    file.write("#!/bin/sh\nexit 0\n");
    file.close();
    QFileDevice::Permissions permissions = QFileDevice::ReadOwner | QFileDevice::WriteOwner;
    if (executable)
        permissions |= QFileDevice::ExeOwner;
    file.setPermissions(permissions);
    return path;
}

} // namespace

class TestToolLocator final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void lookupOrder_data();
    void lookupOrder();

private:
    QTemporaryDir m_tools;
    QTemporaryDir m_path;
    QByteArray m_savedPath;
};

void TestToolLocator::init()
{
    m_savedPath = qgetenv("PATH");
    QVERIFY(m_tools.isValid() && m_path.isValid());
    qputenv("PATH", m_path.path().toLocal8Bit());
    qunsetenv("BRENTA_TOOLS_DIR");
}

void TestToolLocator::cleanup()
{
    qputenv("PATH", m_savedPath);
    qunsetenv("BRENTA_TOOLS_DIR");
    QDir(Util::AppDir() + "/7z").removeRecursively();
    QDir(Util::AppDir() + "/cdrtools").removeRecursively();
    QDir(m_tools.path()).removeRecursively();
    QDir().mkpath(m_tools.path());
    for (const QString& name : QDir(m_path.path()).entryList(QDir::Files))
        QFile::remove(m_path.filePath(name));
}

void TestToolLocator::lookupOrder_data()
{
    QTest::addColumn<int>("tool");
    QTest::addColumn<QString>("relative"); // below BRENTA_TOOLS_DIR and the app folder
    QTest::addColumn<QString>("pathName"); // a name found on PATH
    QTest::addColumn<QString>("where");    // which one must win

    const int archive = int(Tool::Archive);
    const int builder = int(Tool::ImageBuilder);
    const int writer = int(Tool::DiscWriter);
    const int reader = int(Tool::DiscReader);
    QTest::newRow("tools dir beats everything") << archive << "7z/7z"
                                                << "7z"
                                                << "toolsdir";
    QTest::newRow("app folder beats PATH") << builder << "cdrtools/mkisofs"
                                           << "genisoimage"
                                           << "appdir";
    QTest::newRow("PATH alternative name") << writer << ""
                                           << "wodim"
                                           << "path";
    QTest::newRow("not executable is skipped") << reader << "cdrtools/readcd"
                                               << "readom"
                                               << "path-noexec";
    QTest::newRow("found nowhere") << reader << ""
                                   << ""
                                   << "nowhere";
}

void TestToolLocator::lookupOrder()
{
    QFETCH(int, tool);
    QFETCH(QString, relative);
    QFETCH(QString, pathName);
    QFETCH(QString, where);

    const QString onPath =
        pathName.isEmpty() ? QString() : makeExecutable(m_path.filePath(pathName));
    QString expected = onPath;
    if (where == "path-noexec") {
        qputenv("BRENTA_TOOLS_DIR", m_tools.path().toLocal8Bit());
        makeExecutable(m_tools.filePath(relative), false);
        makeExecutable(Util::AppDir() + "/" + relative, false);
    } else if (!relative.isEmpty()) {
        const QString inApp = makeExecutable(Util::AppDir() + "/" + relative);
        expected = inApp;
        if (where == "toolsdir") {
            qputenv("BRENTA_TOOLS_DIR", m_tools.path().toLocal8Bit());
            expected = makeExecutable(m_tools.filePath(relative));
        }
    }
    QCOMPARE(ToolLocator::Find(Tool(tool)), expected);
}

QTEST_GUILESS_MAIN(TestToolLocator)
#include "tst_toollocator.moc"
