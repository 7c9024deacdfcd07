#pragma once

#include <QString>
#include <QList>
#include <QPair>
#include <QStringList>

#include <optional>

// The image builder's command line and its progress lines.
namespace ImageBuild {

enum class Type
{
    Joliet,
    Iso9660,
    Udf
};

// "joliet", "iso9660" or "udf"; nothing for anything else.
std::optional<Type> TypeFromName(const QString& name);

// The builder's arguments for an image of `type` at `output` holding the
// contents of `sourceDir`.
QStringList Arguments(Type type, const QString& output, const QString& sourceDir);

// " 45.61% done, estimate finish ..." → 4561 (hundredths of a percent, cut
// toward zero, or rounded to the nearest when asked); nothing for other lines.
std::optional<int> ParseProgress(const QString& line, bool roundToNearest = false);

// The builder's arguments for an edited image: Joliet, Rock Ridge and UDF
// over the working copy, the original's volume label and boot options, and
// extra files placed in the image's root (name → local path).
QStringList EditArguments(const QString& label, const QStringList& bootOptions,
                          const QString& output, const QString& sourceDir,
                          const QList<QPair<QString, QString>>& rootFiles);

} // namespace ImageBuild
