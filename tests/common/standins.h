#pragma once

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QString>
#include <QStringList>

// Stand-ins for the tools Brenta runs: writing one, and reading what the
// stand-in disc tools were called with.
namespace Standins {

// A script at `path` that its owner may run, folders made on the way.
inline bool Write(const QString& path, const QByteArray& script)
{
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(script) == script.size() &&
           file.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
}

// The calls recorded in `path` other than bus scans, one line each with the
// arguments separated by blanks.
inline QStringList Logged(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    QStringList calls;
    for (QString call : QString::fromUtf8(file.readAll()).split("--\n", Qt::SkipEmptyParts)) {
        if ((call = call.trimmed().replace('\n', ' ')) != "-scanbus")
            calls << call;
    }
    return calls;
}

// The commands of the calls recorded in `path` (each call's first argument).
inline QStringList LoggedCommands(const QString& path)
{
    QStringList commands;
    for (const QString& call : Logged(path))
        commands << call.section(QLatin1Char(' '), 0, 0);
    return commands;
}

} // namespace Standins
