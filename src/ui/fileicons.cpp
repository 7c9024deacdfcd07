#include "ui/fileicons.h"

#include <QFileIconProvider>
#include <QHash>
#include <QMimeDatabase>

#include "core/util.h"

namespace FileIcons {
namespace {

QFileIconProvider& provider()
{
    static QFileIconProvider instance;
    return instance;
}

// Judged by the extension alone: entries of an image are not on the disk.
QMimeType mimeOf(const QString& suffix)
{
    return QMimeDatabase().mimeTypeForFile(QStringLiteral("x") + suffix,
                                           QMimeDatabase::MatchExtension);
}

} // namespace

QIcon Icon(const QString& fileName)
{
    static QHash<QString, QIcon> cache;
    const QString suffix = Util::FileSuffix(fileName);
    const auto cached = cache.constFind(suffix);
    if (cached != cache.constEnd())
        return *cached;
    const QIcon generic = provider().icon(QFileIconProvider::File);
    QIcon icon = generic;
    if (!suffix.isEmpty()) {
        const QMimeType mime = mimeOf(suffix);
        if (!mime.isDefault())
            icon = QIcon::fromTheme(mime.iconName(),
                                    QIcon::fromTheme(mime.genericIconName(), generic));
    }
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
    // The desktop's own description ("PNG image"); for an extension it does
    // not know, what file managers show: "INF file".
    const QMimeType mime = mimeOf(suffix);
    const QString type =
        mime.isDefault() ? suffix.mid(1).toUpper() + QStringLiteral(" file") : mime.comment();
    cache.insert(suffix, type);
    return type;
}

QIcon Folder()
{
    static const QIcon icon = provider().icon(QFileIconProvider::Folder);
    return icon;
}

} // namespace FileIcons
