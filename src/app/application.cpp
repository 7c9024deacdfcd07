#include "app/application.h"

#include <QApplication>
#include <QFont>
#include <QIcon>
#include <QPalette>

#include "core/logging.h"
#include "core/util.h"

namespace Application {

void SetUp(QApplication& application)
{
    // The name gives the data directory ~/.local/share/brenta; the desktop file
    // name lets the desktop match the window with its entry and icon.
    QCoreApplication::setApplicationName(QStringLiteral("brenta"));
    QCoreApplication::setApplicationVersion(QStringLiteral(BRENTA_VERSION));
    QGuiApplication::setApplicationDisplayName(QStringLiteral("Brenta"));
    QGuiApplication::setDesktopFileName(QStringLiteral("brenta"));

    qCDebug(lcUi) << "data folder" << Util::DataDir();

    // The pictures were drawn for this family; on Linux it falls back to a good
    // sans-serif that the set-up installs.
    QFont::insertSubstitutions(QStringLiteral("Microsoft YaHei"),
                               {QStringLiteral("Noto Sans"), QStringLiteral("DejaVu Sans")});
    QFont font;
    font.setFamily(QStringLiteral("Microsoft YaHei"));
    QApplication::setFont(font);

    // Fields, lists and radio buttons draw their focus (and a chosen entry) in
    // the skin's blue, as the picture buttons draw theirs.
    QPalette colours = QApplication::palette();
    colours.setColor(QPalette::Highlight, QColor(0x1E, 0x88, 0xE5));
    QApplication::setPalette(colours);

    application.setWindowIcon(QIcon(QStringLiteral(":nwu/logo")));
}

} // namespace Application
