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

std::optional<int> ParseProgress(const QString& line)
{
    const qsizetype at = line.indexOf(QLatin1String("% done, estimate finish"));
    if (at <= 0)
        return std::nullopt;
    bool ok = false;
    const float percent = line.left(at).trimmed().toFloat(&ok);
    // The figure is read in single precision and multiplied in double, then
    // cut: 0.29 gives 28, 45.61 gives 4561.
    return ok ? static_cast<int>(static_cast<double>(percent) * 100.0) : 0;
}

} // namespace ImageBuild
