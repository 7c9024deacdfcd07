#pragma once

#include <QString>
#include <QStringList>

#include <optional>

// The image builder's command line and its progress lines.
namespace ImageBuild {

enum class Type { Joliet, Iso9660, Udf };

// "joliet", "iso9660" or "udf"; nothing for anything else.
std::optional<Type> TypeFromName(const QString& name);

// The builder's arguments for an image of `type` at `output` holding the
// contents of `sourceDir`.
QStringList Arguments(Type type, const QString& output, const QString& sourceDir);

// " 45.61% done, estimate finish ..." → 4561 (hundredths of a percent, cut
// toward zero); nothing for other lines.
std::optional<int> ParseProgress(const QString& line);

} // namespace ImageBuild
