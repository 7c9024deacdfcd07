#include "iso/imagebuild.h"

namespace ImageBuild {

std::optional<Type> TypeFromName(const QString& name)
{
    if (name == QLatin1String("joliet"))
        return Type::Joliet;
    if (name == QLatin1String("iso9660"))
        return Type::Iso9660;
    if (name == QLatin1String("udf"))
        return Type::Udf;
    return std::nullopt;
}

QStringList Arguments(Type type, const QString& output, const QString& sourceDir)
{
    QString typeArgument;
    switch (type) {
    case Type::Joliet:
        typeArgument = QStringLiteral("-joliet");
        break;
    case Type::Iso9660:
        typeArgument = QStringLiteral("-l");
        break;
    case Type::Udf:
        typeArgument = QStringLiteral("-udf");
        break;
    }
    // The output follows -o as its value, so a name starting with "-" is safe;
    // the source is Brenta's own staging folder.
    QStringList arguments{typeArgument, QStringLiteral("-R"), QStringLiteral("-joliet-long")};
    // UDF holds files of 4 GiB and more in full; the builder must be told it
    // may write them although the ISO9660 directory beside cannot describe them.
    if (type == Type::Udf)
        arguments << QStringLiteral("-allow-limited-size");
    arguments << QStringLiteral("-o") << output << sourceDir;
    return arguments;
}

std::optional<int> ParseProgress(const QString& line, bool roundToNearest)
{
    const qsizetype at = line.indexOf(QLatin1String("% done, estimate finish"));
    if (at <= 0)
        return std::nullopt;
    bool ok = false;
    const float percent = line.left(at).trimmed().toFloat(&ok);
    // The figure is read in single precision and multiplied in double, then
    // cut: 0.29 gives 28, 45.61 gives 4561.
    if (!ok)
        return 0;
    const double hundredths = static_cast<double>(percent) * 100.0;
    return roundToNearest ? qRound(hundredths) : static_cast<int>(hundredths);
}

namespace {

// In a graft point "path in image=local path", "=" and "\" are escaped.
QString graftEscaped(QString path)
{
    path.replace(QLatin1Char('\\'), QLatin1String("\\\\"));
    path.replace(QLatin1Char('='), QLatin1String("\\="));
    return path;
}

} // namespace

QStringList EditArguments(const QString& label, const QStringList& bootOptions,
                          const QString& output, const QString& sourceDir,
                          const QList<QPair<QString, QString>>& rootFiles)
{
    QStringList arguments{QStringLiteral("-udf"), QStringLiteral("-J"), QStringLiteral("-R"),
                          QStringLiteral("-joliet-long"), QStringLiteral("-allow-limited-size")};
    if (!label.isEmpty())
        arguments << QStringLiteral("-V") << label;
    arguments << bootOptions << QStringLiteral("-o") << output;
    if (rootFiles.isEmpty())
        return arguments << sourceDir;
    // Boot images go into the root by graft points, so the working copy
    // itself stays exactly what the page shows.
    arguments << QStringLiteral("-graft-points") << QStringLiteral("/=") + graftEscaped(sourceDir);
    for (const auto& [name, path] : rootFiles)
        arguments << graftEscaped(name) + QLatin1Char('=') + graftEscaped(path);
    return arguments;
}

} // namespace ImageBuild
