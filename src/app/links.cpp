#include "app/links.h"

#include <QFileInfo>
#include <QUrl>

#include "core/util.h"

namespace Links {

QString ProductPage()
{
    return QStringLiteral("https://brenta.example.org/");
}

QString HelpPage()
{
    const QString beside = Util::AppDir() + QStringLiteral("/help/index.html");
    const QString installed = Util::AppDir() + QStringLiteral("/../share/brenta/help/index.html");
    const QString guide =
        QFileInfo::exists(beside) ? beside : QFileInfo(installed).absoluteFilePath();
    return QUrl::fromLocalFile(guide).toString();
}

} // namespace Links
