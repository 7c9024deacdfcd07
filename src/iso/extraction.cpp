#include "iso/extraction.h"

#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/util.h"
#include "iso/itemtree.h"
#include "iso/listing.h"

namespace Extraction {

std::optional<Progress> ParseProgress(const QString& line)
{
    const qsizetype percentAt = line.indexOf(QLatin1Char('%'));
    if (percentAt < 1)
        return std::nullopt;
    QString figure = line.left(percentAt).trimmed();
    const qsizetype blank = figure.lastIndexOf(QLatin1Char(' '));
    if (blank >= 0)
        figure = figure.mid(blank + 1);
    bool ok = false;
    const int percent = figure.toInt(&ok);
    if (!ok)
        return std::nullopt;
    const qsizetype dashAt = line.indexOf(QLatin1String(" - "), percentAt);
    QString name = dashAt < 0 ? QString() : line.mid(dashAt + 3);
    while (name.endsWith(QLatin1Char('\n')) || name.endsWith(QLatin1Char('\r')))
        name.chop(1);
    return Progress{percent, name};
}

QStringList Arguments(const QString& image, const QString& outputDir, const QStringList& entries,
                      const QStringList& excluded)
{
    QStringList arguments{QStringLiteral("x"),
                          QStringLiteral("-y"),
                          QStringLiteral("-bb3"),
                          QStringLiteral("-bsp2"),
                          QStringLiteral("-spd"),
                          QStringLiteral("-r-"),
                          QStringLiteral("-o") + outputDir};
    for (const QString& path : excluded)
        arguments << QStringLiteral("-x!") + path;
    arguments << QStringLiteral("--") << image;
    const qsizetype firstEntry = arguments.size();
    for (const QString& entry : entries) {
        if (!arguments.mid(firstEntry).contains(entry))
            arguments << entry;
    }
    return arguments;
}

bool OutputSaysOk(const QStringList& lines)
{
    for (const QString& line : lines) {
        if (line.trimmed() == QLatin1String("Everything is Ok"))
            return true;
    }
    return false;
}

namespace {

bool isErrorHeader(const QString& line)
{
    return line.startsWith(QLatin1String("ERROR:")) || line == QLatin1String("ERRORS:") ||
           line == QLatin1String("System ERROR:") || line == QLatin1String("Command Line Error:");
}

// A line that can carry the detail of an error header: not another header,
// not a count of the summary ("Sub items Errors: 1"), not a progress figure
// and not an entry of the tool's list of names ("- boot/bcd").
bool isDetail(const QString& line)
{
    static const QRegularExpression count(QStringLiteral("^[A-Za-z' ]+:\\s+\\d+$"));
    static const QRegularExpression progress(QStringLiteral("^\\d+%"));
    return !line.isEmpty() && !isErrorHeader(line) && !count.match(line).hasMatch() &&
           !progress.match(line).hasMatch() && !line.startsWith(QLatin1String("- "));
}

} // namespace

QStringList Reasons(const QStringList& lines)
{
    static const QRegularExpression errnoPrefix(QStringLiteral("^errno=\\d+ : "));
    QStringList reasons;
    for (qsizetype i = 0; i < lines.size(); ++i) {
        const QString line = lines.at(i).trimmed();
        if (!isErrorHeader(line))
            continue;
        QStringList parts;
        if (line.startsWith(QLatin1String("ERROR:")))
            parts << line.mid(6).trimmed();
        if (i + 1 < lines.size() && isDetail(lines.at(i + 1).trimmed()))
            parts << lines.at(++i).trimmed();
        parts.removeAll(QString());
        QString reason = parts.join(QLatin1String(": "));
        reason.remove(errnoPrefix);
        if (reason.isEmpty())
            continue;
        const bool known =
            std::any_of(reasons.cbegin(), reasons.cend(),
                        [&](const QString& earlier) { return earlier.contains(reason); });
        if (!known)
            reasons << reason;
    }
    return reasons;
}

QString PrepareDestination(const QString& destination)
{
    const QFileInfo info(destination);
    if (info.exists() && !info.isDir())
        return QStringLiteral("%1 is not a folder.").arg(destination);
    if (info.isDir())
        return QString();
    // Folder by folder, so that the one that cannot be made is named with
    // the system's reason.
    const QString absolute = QDir::cleanPath(info.absoluteFilePath());
    QString path;
    for (const QString& component : absolute.split(QLatin1Char('/'), Qt::SkipEmptyParts)) {
        path += QLatin1Char('/') + component;
        const QFileInfo step(path);
        if (step.isDir())
            continue;
        if (step.exists())
            return QStringLiteral("Cannot create the folder %1: %2 is not a folder.")
                .arg(destination, path);
        if (::mkdir(QFile::encodeName(path).constData(), 0777) != 0 && errno != EEXIST) {
            const int error = errno;
            return QStringLiteral("Cannot create the folder %1: %2.")
                .arg(destination, QString::fromLocal8Bit(std::strerror(error)));
        }
    }
    return QString();
}

QString FreeName(const QString& dir, const QString& name)
{
    const QDir folder(dir);
    if (!QFileInfo::exists(folder.filePath(name)) && !QFileInfo(folder.filePath(name)).isSymLink())
        return name;
    // Keep the extension with the name: "report (2).pdf", not "report.pdf (2)".
    QString stem = name;
    QString suffix = Util::FileSuffix(name);
    if (!suffix.isEmpty() && suffix.size() < name.size())
        stem.chop(suffix.size());
    else
        suffix.clear();
    for (int n = 2;; ++n) {
        const QString candidate = QStringLiteral("%1 (%2)%3").arg(stem).arg(n).arg(suffix);
        if (!QFileInfo::exists(folder.filePath(candidate)) &&
            !QFileInfo(folder.filePath(candidate)).isSymLink())
            return candidate;
    }
}

QString CheckEntries(const QStringList& entries, const ItemTree& contents)
{
    QStringList unsafe;
    QStringList absent;
    for (const QString& entry : entries) {
        if (!Listing::IsSafePath(entry))
            unsafe << entry;
        else if (contents.Find(QString(entry).replace(QLatin1Char('/'), QLatin1Char('\\'))) ==
                 nullptr)
            absent << entry;
    }
    QStringList problems;
    if (!unsafe.isEmpty())
        problems << QStringLiteral(
                        "Not a path inside the image (it starts with \"/\" or has an empty, "
                        "\".\" or \"..\" part): %1.")
                        .arg(unsafe.join(QStringLiteral(", ")));
    if (!absent.isEmpty())
        problems << QStringLiteral("Not in the image: %1.").arg(absent.join(QStringLiteral(", ")));
    return problems.join(QLatin1Char(' '));
}

namespace {

bool exists(const QString& path)
{
    struct stat info;
    return ::lstat(QFile::encodeName(path).constData(), &info) == 0;
}

bool isInside(const QString& path, const QString& folder)
{
    return path == folder || path.startsWith(folder + QLatin1Char('/'));
}

// Empties the folder open as `folder`, making each folder below it
// writable and searchable first (an image's 555 folder, say); links are
// removed, never followed.
void removeBelow(int folder)
{
    DIR* listing = ::fdopendir(::dup(folder));
    if (listing == nullptr)
        return;
    while (const dirent* entry = ::readdir(listing)) {
        const char* name = entry->d_name;
        if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0)
            continue;
        struct stat info;
        if (::fstatat(folder, name, &info, AT_SYMLINK_NOFOLLOW) != 0)
            continue;
        if (S_ISDIR(info.st_mode)) {
            ::fchmodat(folder, name, 0700, 0);
            const int below =
                ::openat(folder, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
            if (below >= 0) {
                removeBelow(below);
                ::close(below);
            }
            ::unlinkat(folder, name, AT_REMOVEDIR);
        } else {
            ::unlinkat(folder, name, 0);
        }
    }
    ::closedir(listing);
}

// Moves `source` to `target`. A folder whose mode keeps its owner from
// writing it cannot be moved to another folder (its ".." changes), so it is
// made writable for the move and given its mode back.
bool moveEntry(const QString& source, const QString& target)
{
    const QByteArray from = QFile::encodeName(source);
    const QByteArray to = QFile::encodeName(target);
    if (::rename(from.constData(), to.constData()) == 0)
        return true;
    struct stat info;
    if (errno != EACCES || ::lstat(from.constData(), &info) != 0 || !S_ISDIR(info.st_mode))
        return false;
    if (::chmod(from.constData(), (info.st_mode & 07777) | S_IWUSR) != 0)
        return false;
    const bool moved = ::rename(from.constData(), to.constData()) == 0;
    ::chmod(moved ? to.constData() : from.constData(), info.st_mode & 07777);
    return moved;
}

} // namespace

void RemoveTree(const QString& path)
{
    const QByteArray name = QFile::encodeName(path);
    struct stat info;
    if (::lstat(name.constData(), &info) != 0)
        return;
    if (!S_ISDIR(info.st_mode)) {
        ::unlink(name.constData());
        return;
    }
    ::chmod(name.constData(), 0700);
    const int folder = ::open(name.constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (folder >= 0) {
        removeBelow(folder);
        ::close(folder);
    }
    ::rmdir(name.constData());
}

MoveResult MoveUp(const QString& staging, const QStringList& entries, const QString& destination)
{
    MoveResult result;
    const QString root = QFileInfo(staging).canonicalFilePath();
    const QDir to(destination);
    QStringList missing;
    QStringList refused;
    for (const QString& entry : entries) {
        if (root.isEmpty() || !Listing::IsSafePath(entry)) {
            refused << entry;
            continue;
        }
        // The entry's folder resolved, the entry itself not: a link is moved
        // as it is, and nothing from outside staging is ever taken.
        const qsizetype slash = entry.lastIndexOf(QLatin1Char('/'));
        const QString name = entry.mid(slash + 1);
        const QString folder =
            slash < 0 ? root
                      : QFileInfo(root + QLatin1Char('/') + entry.left(slash)).canonicalFilePath();
        if (!folder.isEmpty() && !isInside(folder, root)) {
            refused << entry;
            continue;
        }
        const QString source = folder + QLatin1Char('/') + name;
        if (folder.isEmpty() || !exists(source)) {
            missing << entry;
            continue;
        }
        const QString target = to.filePath(FreeName(destination, name));
        // A rename within one file system: the staging folder lives inside the
        // destination, so nothing is copied and no device is crossed.
        if (!moveEntry(source, target)) {
            result.ok = false;
            result.message = QStringLiteral("Could not move %1 into %2.").arg(name, destination);
            continue;
        }
        result.placed << target;
    }
    RemoveTree(staging);
    if (!refused.isEmpty() && result.ok) {
        result.ok = false;
        result.message =
            QStringLiteral("%1 did not lie inside the extracted files and was left alone.")
                .arg(refused.join(QStringLiteral(", ")));
    }
    if (!missing.isEmpty() && result.ok) {
        result.ok = false;
        result.message = QStringLiteral("The archive tool did not extract %1.")
                             .arg(missing.join(QStringLiteral(", ")));
    }
    return result;
}

} // namespace Extraction
