#include "ui/messagedialogs.h"

#include "ui/commdialog.h"
#include "ui/gerneraldialog.h"

namespace MessageDialogs {

std::unique_ptr<CommDialog> Message(const QString& text)
{
    auto dialog = std::make_unique<CommDialog>();
    dialog->SetWordWrap();
    dialog->SetText(text);
    dialog->SetSingleButton();
    return dialog;
}

std::unique_ptr<CommDialog> Finished(const QString& text, const QString& folder)
{
    auto dialog = std::make_unique<CommDialog>();
    dialog->SetText(text);
    dialog->SetOpenFolder(folder);
    return dialog;
}

std::unique_ptr<CommDialog> Question(const QString& text)
{
    auto dialog = std::make_unique<CommDialog>();
    dialog->SetWordWrap();
    dialog->SetText(text);
    return dialog;
}

std::unique_ptr<CommDialog> Confirm(const QString& picture)
{
    auto dialog = std::make_unique<CommDialog>();
    dialog->SetWordWrap();
    dialog->SetBackgroundImage(picture);
    dialog->SetText(QString());
    return dialog;
}

std::unique_ptr<GerneralDialog> Notice(const QString& picture, int y)
{
    auto dialog = std::make_unique<GerneralDialog>();
    dialog->SetPicture(picture);
    dialog->AddOKButton(y);
    return dialog;
}

} // namespace MessageDialogs
