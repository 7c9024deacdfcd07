// The members of Util that need widgets or the desktop: opening folders and the
// message dialogs. Kept apart so that the core library links Qt Core only.
#include "core/util.h"

#include <QDesktopServices>
#include <QDir>
#include <QUrl>

#include "ui/commdialog.h"
#include "ui/messagedialogs.h"
#include "ui/notifier.h"

void Util::OpenFolder(QString path)
{
    QDesktopServices::openUrl(QUrl::fromLocalFile(QDir::fromNativeSeparators(path)));
}

void Util::ShowMessage(const QString& text)
{
    Notifier::SendIfAway(QStringLiteral("Brenta"), text);
    MessageDialogs::Message(text)->exec();
}

void Util::ShowFinished(const QString& text, const QString& folder)
{
    Notifier::SendIfAway(QStringLiteral("Brenta"), text);
    MessageDialogs::Finished(text, folder)->exec();
}

bool Util::Confirm(const QString& text)
{
    return MessageDialogs::Question(text)->exec() == QDialog::Accepted;
}

int Util::ConfirmPicture(const QString& picture)
{
    return MessageDialogs::Confirm(picture)->exec();
}
