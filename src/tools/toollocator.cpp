#include "tools/toollocator.h"

#include <QFileInfo>
#include <QStandardPaths>

#include "core/util.h"

namespace ToolLocator {
namespace {

struct ToolNames
{
    const char* folder;
    const char* name;
    QStringList onPath;
};

ToolNames namesOf(Tool tool)
{
    switch (tool) {
    case Tool::Archive:
        return {"7z", "7z", {QStringLiteral("7z"), QStringLiteral("7zz"), QStringLiteral("7za")}};
    case Tool::ImageBuilder:
        return {"cdrtools", "mkisofs", {QStringLiteral("mkisofs"), QStringLiteral("genisoimage")}};
    case Tool::DiscWriter:
        return {"cdrtools", "cdrecord", {QStringLiteral("cdrecord"), QStringLiteral("wodim")}};
    case Tool::DiscReader:
        return {"cdrtools", "readcd", {QStringLiteral("readcd"), QStringLiteral("readom")}};
    case Tool::WimTool:
        return {"wimlib", "wimlib-imagex", {QStringLiteral("wimlib-imagex")}};
    case Tool::UsbHelper:
        return {"usbhelper", "brenta-usb-helper", {}};
    case Tool::Xorriso:
        return {"xorriso", "xorriso", {QStringLiteral("xorriso")}};
    case Tool::IsoReader:
        return {"isoread", "brenta-isoread", {}};
    }
    return {"", "", {}};
}

bool isExecutableFile(const QString& path)
{
    const QFileInfo info(path);
    return info.isFile() && info.isExecutable();
}

} // namespace

QStringList Candidates(Tool tool)
{
    const ToolNames names = namesOf(tool);
    const QString relative =
        QLatin1String(names.folder) + QLatin1Char('/') + QLatin1String(names.name);

    QStringList places;
    const QString toolsDir = qEnvironmentVariable("BRENTA_TOOLS_DIR");
    if (!toolsDir.isEmpty())
        places << toolsDir + QLatin1Char('/') + relative;
    places << Util::AppDir() + QLatin1Char('/') + relative;
    if (tool == Tool::UsbHelper || tool == Tool::IsoReader) {
        // Beside the program in a build tree, else where it is installed.
        places << Util::AppDir() + QLatin1Char('/') + QLatin1String(names.name);
        places << QString::fromUtf8(tool == Tool::UsbHelper ? BRENTA_USB_HELPER_INSTALLED
                                                            : BRENTA_ISOREAD_INSTALLED);
    }
    for (const QString& name : names.onPath) {
        const QString found = QStandardPaths::findExecutable(name);
        if (!found.isEmpty())
            places << found;
    }
    return places;
}

QString Find(Tool tool)
{
    for (const QString& place : Candidates(tool)) {
        if (isExecutableFile(place))
            return place;
    }
    return QString();
}

QString DisplayName(Tool tool)
{
    // Each tool goes by its own program's name, except the archive tool,
    // whose program names are not what people call it.
    if (tool == Tool::Archive)
        return QStringLiteral("7-Zip");
    return QLatin1String(namesOf(tool).name);
}

} // namespace ToolLocator
