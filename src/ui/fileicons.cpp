#include "ui/fileicons.h"

#include <QDir>
#include <QFileIconProvider>
#include <QHash>
#include <QMimeDatabase>
#include <QTemporaryFile>

#include "app/util.h"

namespace FileIcons {
namespace {

QFileIconProvider& provider()
{
    static QFileIconProvider instance;
    return instance;
}

// The desktop judges an empty file of that extension; the file is removed
// as soon as it has been asked about.
template <typename Answer>
Answer askAbout(const QString& suffix, Answer (*ask)(const QFileInfo&))
{
    QTemporaryFile probe(QDir::tempPath() + QStringLiteral("/brenta_XXXXXX") + suffix);
    if (!probe.open()) {
        qDebug("failed to write temporary file %s", qPrintable(probe.fileTemplate()));
        return Answer();
    }
    probe.close();
    return ask(QFileInfo(probe.fileName()));
}

} // namespace

QIcon Icon(const QString& fileName)
{
    static QHash<QString, QIcon> cache;
    const QString suffix = Util::FileSuffix(fileName);
    const auto cached = cache.constFind(suffix);
    if (cached != cache.constEnd())
        return *cached;
    const QIcon icon = suffix.isEmpty()
                           ? provider().icon(QFileIconProvider::File)
                           : askAbout<QIcon>(suffix, [](const QFileInfo& info) { return provider().icon(info); });
    cache.insert(suffix, icon);
    return icon;
}

QString Type(const QString& fileName)
{
    static QHash<QString, QString> cache;
    const QString suffix = Util::FileSuffix(fileName);
    if (suffix.isEmpty())
        return QString();
    const auto cached = cache.constFind(suffix);
    if (cached != cache.constEnd())
        return *cached;
    // The MIME database gives the desktop's own description ("PNG image").
    const QMimeType mime = QMimeDatabase().mimeTypeForFile(fileName, QMimeDatabase::MatchExtension);
    QString type = mime.isDefault() ? QString() : mime.comment();
    if (type.isEmpty())
        type = askAbout<QString>(suffix, [](const QFileInfo& info) { return provider().type(info); });
    cache.insert(suffix, type);
    return type;
}

QIcon Folder()
{
    static const QIcon icon = provider().icon(QFileIconProvider::Folder);
    return icon;
}

} // namespace FileIcons
