#include "iso/extraction.h"

#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

#include "app/util.h"
#include "iso/itemtree.h"
#include "iso/listing.h"

namespace Extraction {

std::optional<Progress> ParseProgress(const QString& line)
{
    const qsizetype percentAt = line.indexOf(QLatin1String("% "));
    const qsizetype dashAt = line.indexOf(QLatin1String(" - "));
    if (percentAt < 1 || dashAt < 1)
        return std::nullopt;
    QString figure = line.left(percentAt).trimmed();
    const qsizetype blank = figure.lastIndexOf(QLatin1Char(' '));
    if (blank >= 0)
        figure = figure.mid(blank + 1);
    bool ok = false;
    const int percent = figure.toInt(&ok);
    if (!ok)
        return std::nullopt;
    QString name = line.mid(dashAt + 3);
    while (name.endsWith(QLatin1Char('\n')) || name.endsWith(QLatin1Char('\r')))
        name.chop(1);
    return Progress{percent, name};
}

QStringList Arguments(const QString& image, const QString& outputDir, const QStringList& entries)
{
    QStringList arguments{QStringLiteral("x"),    QStringLiteral("-y"),  QStringLiteral("-bb3"),
                          QStringLiteral("-bsp2"), QStringLiteral("-spd"), QStringLiteral("-r-"),
                          QStringLiteral("-o") + outputDir, QStringLiteral("--"), image};
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
        const bool known = std::any_of(reasons.cbegin(), reasons.cend(),
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
            return QStringLiteral("Cannot create the folder %1: %2 is not a folder.").arg(destination, path);
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
        if (!QFileInfo::exists(folder.filePath(candidate)) && !QFileInfo(folder.filePath(candidate)).isSymLink())
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
        else if (contents.Find(QString(entry).replace(QLatin1Char('/'), QLatin1Char('\\'))) == nullptr)
            absent << entry;
    }
    QStringList problems;
    if (!unsafe.isEmpty())
        problems << QStringLiteral("Not a path inside the image (it starts with \"/\" or has an empty, "
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

} // namespace

QStringList LinkArguments(const QString& image)
{
    return {QStringLiteral("-no_rc"),
            QStringLiteral("-pkt_output"),
            QStringLiteral("on"),
            QStringLiteral("-backslash_codes"),
            QStringLiteral("encode_output"),
            QStringLiteral("-indev"),
            QStringLiteral("stdio:") + QFileInfo(image).absoluteFilePath(),
            QStringLiteral("-find"),
            QStringLiteral("/"),
            QStringLiteral("-type"),
            QStringLiteral("l"),
            QStringLiteral("-exec"),
            QStringLiteral("lsdl"),
            QStringLiteral("--")};
}

namespace {

// Undoes xorriso's backslash codes: \n, \t and the like, \\, \ooo, \xhh, \cC.
QByteArray decodeBackslashes(const QByteArray& text)
{
    static const QByteArray letters("abefnrtv");
    static const QByteArray codes("\a\b\033\f\n\r\t\v");
    QByteArray out;
    for (qsizetype i = 0; i < text.size(); ++i) {
        if (text[i] != '\\' || i + 1 >= text.size()) {
            out += text[i];
            continue;
        }
        const char next = text[i + 1];
        const auto isOctal = [&](qsizetype at) { return at < text.size() && text[at] >= '0' && text[at] <= '7'; };
        if (const qsizetype letter = letters.indexOf(next); letter >= 0) {
            out += codes[letter];
            i += 1;
        } else if (next == 'x' && i + 3 < text.size()) {
            bool ok = false;
            const int value = text.mid(i + 2, 2).toInt(&ok, 16);
            if (ok) {
                out += char(value);
                i += 3;
            } else {
                out += text[i];
            }
        } else if (next == 'c' && i + 2 < text.size()) {
            out += char(text[i + 2] & 0x1f);
            i += 2;
        } else if (isOctal(i + 1) && isOctal(i + 2) && isOctal(i + 3)) {
            out += char(text.mid(i + 1, 3).toInt(nullptr, 8));
            i += 3;
        } else {
            out += next; // "\\" and anything else escaped stands for itself
            i += 1;
        }
    }
    return out;
}

// One word of xorriso's output at `at`: quoted parts ('...' or "...") that
// run together, as in '/we'"'"'ird'. Nothing when the quoting is broken.
std::optional<QString> readQuoted(const QByteArray& text, qsizetype& at)
{
    QByteArray raw;
    bool any = false;
    while (at < text.size() && (text[at] == '\'' || text[at] == '"')) {
        const qsizetype end = text.indexOf(text[at], at + 1);
        if (end < 0)
            return std::nullopt;
        raw += text.mid(at + 1, end - at - 1);
        at = end + 1;
        any = true;
    }
    if (!any)
        return std::nullopt;
    return QString::fromUtf8(decodeBackslashes(raw));
}

// "lrwxrwxrwx 1 0 0 0 Nov 24 02:51 '/d/up' -> '../../x'"
std::optional<Link> parseLinkLine(const QByteArray& line)
{
    qsizetype at = line.indexOf('\'');
    const std::optional<QString> path = at < 0 ? std::nullopt : readQuoted(line, at);
    if (!path || !line.mid(at).startsWith(" -> "))
        return std::nullopt;
    at += 4;
    const std::optional<QString> target = readQuoted(line, at);
    if (!target || at != line.size() || !path->startsWith(QLatin1Char('/')))
        return std::nullopt;
    return Link{path->mid(1), *target};
}

} // namespace

std::optional<std::vector<Link>> ParseLinks(const QStringList& lines)
{
    static const QRegularExpression linkMode(QStringLiteral("^R:[01]: l[-rwxsStT]{9} "));
    std::vector<Link> links;
    QString line;
    for (qsizetype i = 0; i < lines.size(); ++i) {
        // A line the splitter had to cut comes in pieces without a line end.
        line += lines.at(i);
        if (!line.endsWith(QLatin1Char('\n')) && i + 1 < lines.size())
            continue;
        while (line.endsWith(QLatin1Char('\n')) || line.endsWith(QLatin1Char('\r')))
            line.chop(1);
        if (linkMode.match(line).hasMatch()) {
            std::optional<Link> link = parseLinkLine(line.mid(5).toUtf8());
            if (!link)
                return std::nullopt;
            links.push_back(std::move(*link));
        }
        line.clear();
    }
    return links;
}

std::vector<Link> LinksWithin(const std::vector<Link>& links, const QStringList& entries)
{
    if (entries.isEmpty())
        return links;
    std::vector<Link> within;
    for (const Link& link : links) {
        for (const QString& entry : entries) {
            if (link.path == entry || link.path.startsWith(entry + QLatin1Char('/'))) {
                within.push_back(link);
                break;
            }
        }
    }
    return within;
}

bool OnlyLinksRefused(const QStringList& reasons, const std::vector<Link>& links)
{
    if (reasons.isEmpty())
        return false;
    for (const QString& reason : reasons) {
        const bool refusal = std::any_of(links.cbegin(), links.cend(), [&](const Link& link) {
            return reason == QStringLiteral("Dangerous link path was ignored : %1 : %2").arg(link.path, link.target);
        });
        if (!refusal)
            return false;
    }
    return true;
}

QStringList PlaceLinks(const QString& staging, const std::vector<Link>& links)
{
    const QString root = QFileInfo(staging).canonicalFilePath();
    QStringList notPlaced;
    for (const Link& link : links) {
        const qsizetype slash = link.path.lastIndexOf(QLatin1Char('/'));
        const QString folder = slash < 0 ? root
                                         : QFileInfo(root + QLatin1Char('/') + link.path.left(slash)).canonicalFilePath();
        const QByteArray path = QFile::encodeName(folder + QLatin1Char('/') + link.path.mid(slash + 1));
        struct stat info;
        const bool replaceable = !root.isEmpty() && Listing::IsSafePath(link.path) && !folder.isEmpty() &&
                                 isInside(folder, root) && ::lstat(path.constData(), &info) == 0 &&
                                 (S_ISLNK(info.st_mode) || (S_ISREG(info.st_mode) && info.st_size == 0));
        if (!replaceable || ::unlink(path.constData()) != 0 ||
            ::symlink(QFile::encodeName(link.target).constData(), path.constData()) != 0)
            notPlaced << link.path;
    }
    return notPlaced;
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
            slash < 0 ? root : QFileInfo(root + QLatin1Char('/') + entry.left(slash)).canonicalFilePath();
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
        if (!QDir().rename(source, target)) {
            result.ok = false;
            result.message = QStringLiteral("Could not move %1 into %2.").arg(name, destination);
            continue;
        }
        result.placed << target;
    }
    QDir(staging).removeRecursively();
    if (!refused.isEmpty() && result.ok) {
        result.ok = false;
        result.message = QStringLiteral("%1 did not lie inside the extracted files and was left alone.")
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
