#include "app/cli.h"

namespace Cli {

Request Parse(const QStringList& arguments)
{
    Request request;
    if (arguments.isEmpty())
        return request;

    const QString& first = arguments.first();
    const auto usageError = [&](const QString& error) {
        request.mode = Request::Mode::UsageError;
        request.error = error;
        return request;
    };
    if (first == QLatin1String("--version") || first == QLatin1String("-v")) {
        if (arguments.size() > 1)
            return usageError(QStringLiteral("--version takes no arguments."));
        request.mode = Request::Mode::Version;
        return request;
    }
    if (first == QLatin1String("--help") || first == QLatin1String("-h")) {
        request.mode = Request::Mode::Help;
        return request;
    }
    if (first == QLatin1String("--screenshots")) {
        if (arguments.size() != 2 || arguments.at(1).isEmpty())
            return usageError(QStringLiteral("--screenshots takes one folder."));
        request.mode = Request::Mode::Screenshots;
        request.directory = arguments.at(1);
        return request;
    }
    return usageError(QStringLiteral("Unknown argument: %1").arg(first));
}

QString VersionText()
{
    return QStringLiteral("Brenta %1\n").arg(QStringLiteral(BRENTA_VERSION));
}

QString HelpText()
{
    return QStringLiteral(
        "Usage: brenta [OPTION]\n"
        "Burn, extract, create, edit and copy ISO 9660 disc images.\n"
        "\n"
        "Without an option Brenta opens its window.\n"
        "\n"
        "Options:\n"
        "  -h, --help             show this help and exit\n"
        "  -v, --version          show the version and exit\n"
        "  --screenshots FOLDER   render every window and dialog to PNG files in FOLDER\n"
        "\n"
        "Environment:\n"
        "  BRENTA_TOOLS_DIR       folder searched first for 7z/7z, cdrtools/mkisofs,\n"
        "                         cdrtools/cdrecord and cdrtools/readcd\n"
        "\n"
        "Logging: while a file named config.dat exists beside the brenta executable,\n"
        "Brenta appends its log to log.txt in ~/.local/share/brenta.\n");
}

} // namespace Cli
