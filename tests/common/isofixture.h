#pragma once

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMap>
#include <QProcess>
#include <QStandardPaths>
#include <QString>
#include <QStringList>

// Builds real images with genisoimage for the tests: a folder of files (path
// → content) turned into an ISO of the given kind.
namespace IsoFixture {

inline bool WriteTree(const QString& root, const QMap<QString, QByteArray>& files,
                      const QStringList& emptyFolders = {})
{
    QDir dir(root);
    if (!dir.mkpath(QStringLiteral(".")))
        return false;
    for (const QString& folder : emptyFolders)
        dir.mkpath(folder);
    for (auto it = files.cbegin(); it != files.cend(); ++it) {
        dir.mkpath(QFileInfo(dir.filePath(it.key())).path());
        QFile file(dir.filePath(it.key()));
        if (!file.open(QIODevice::WriteOnly) || file.write(it.value()) != it.value().size())
            return false;
    }
    return true;
}

// A file of `mebibytes` MiB of zeros that takes no time or disk to make
// (sparse), for keeping a tool or worker busy. Returns the path, or an empty
// string when it cannot be made.
inline QString SparseFile(const QString& path, qint64 mebibytes)
{
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || !file.resize(mebibytes * 1024 * 1024))
        return QString();
    return path;
}

// kind: "joliet" (Joliet + Rock Ridge), "joliet only" or "udf" (UDF + Rock
// Ridge). Returns the image path, or an empty string with the builder's words
// in *error.
inline QString Build(const QString& source, const QString& image, const QString& kind,
                     QString* error)
{
    QStringList arguments{QStringLiteral("-quiet"), QStringLiteral("-o"), image};
    if (kind == QLatin1String("udf"))
        arguments << QStringLiteral("-udf") << QStringLiteral("-R");
    else if (kind == QLatin1String("joliet only"))
        arguments << QStringLiteral("-J") << QStringLiteral("-joliet-long");
    else
        arguments << QStringLiteral("-J") << QStringLiteral("-R") << QStringLiteral("-joliet-long");
    arguments << source;
    QProcess builder;
    builder.setProcessChannelMode(QProcess::MergedChannels);
    builder.start(QStandardPaths::findExecutable(QStringLiteral("genisoimage")), arguments);
    if (!builder.waitForFinished(120000) || builder.exitCode() != 0) {
        if (error)
            *error = QString::fromUtf8(builder.readAll());
        return QString();
    }
    return image;
}

} // namespace IsoFixture
