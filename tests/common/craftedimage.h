#pragma once

#include <QByteArray>
#include <QFile>
#include <QMap>
#include <QProcess>
#include <QStandardPaths>
#include <QString>

#include "common/isofixture.h"

// Images such as an attacker makes: Rock Ridge names that no folder on disk
// can hold ("../../notes.txt", "/home/me/notes.txt"). Each file is built by
// genisoimage under a placeholder name of the same length, which is then
// overwritten in the image. Rock Ridge only (no Joliet), so that the archive
// tool lists the crafted names.
namespace CraftedImage {

// files: crafted name → content; each name at least two characters long.
// Returns the image path, or an empty string with what went wrong in *error.
inline QString Build(const QString& workDir, const QMap<QString, QByteArray>& files,
                     const QString& image, QString* error)
{
    const QString source = workDir + QStringLiteral("/crafted-source");
    QMap<QString, QByteArray> placeholders;
    QMap<QByteArray, QByteArray> renames;
    int n = 0;
    for (auto it = files.cbegin(); it != files.cend(); ++it, ++n) {
        const QByteArray name = it.key().toUtf8();
        QByteArray placeholder = QByteArray::number(n) + QByteArray("zq");
        placeholder = placeholder.leftJustified(name.size(), 'q', true);
        placeholders.insert(QString::fromLatin1(placeholder), it.value());
        renames.insert(placeholder, name);
    }
    if (!IsoFixture::WriteTree(source, placeholders)) {
        *error = QStringLiteral("cannot write %1").arg(source);
        return QString();
    }
    QProcess builder;
    builder.setProcessChannelMode(QProcess::MergedChannels);
    builder.start(
        QStandardPaths::findExecutable(QStringLiteral("genisoimage")),
        {QStringLiteral("-quiet"), QStringLiteral("-R"), QStringLiteral("-o"), image, source});
    if (!builder.waitForFinished(60000) || builder.exitCode() != 0) {
        *error = QString::fromUtf8(builder.readAll());
        return QString();
    }
    QFile file(image);
    if (!file.open(QIODevice::ReadWrite)) {
        *error = file.errorString();
        return QString();
    }
    QByteArray bytes = file.readAll();
    for (auto it = renames.cbegin(); it != renames.cend(); ++it) {
        if (bytes.count(it.key()) != 1) {
            *error =
                QStringLiteral("placeholder %1 not found once").arg(QString::fromLatin1(it.key()));
            return QString();
        }
        bytes.replace(it.key(), it.value());
    }
    file.seek(0);
    file.write(bytes);
    return image;
}

} // namespace CraftedImage
