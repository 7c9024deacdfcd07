#pragma once

#include <QString>

#include <memory>

class CommDialog;
class GerneralDialog;

// The message dialogs as Brenta shows them, built but not yet run, so that the
// Util helpers, the screenshots and the tests all get the very same dialog.
namespace MessageDialogs {

// A wrapping text with one centred OK button.
std::unique_ptr<CommDialog> Message(const QString& text);
// A success text with OK and Open Folder (which opens the folder and stays).
std::unique_ptr<CommDialog> Finished(const QString& text, const QString& folder);
// A wrapping question with OK and Cancel.
std::unique_ptr<CommDialog> Question(const QString& text);
// A confirmation picture (the message is drawn in it) with OK and Cancel.
std::unique_ptr<CommDialog> Confirm(const QString& picture);
// A notice picture with its close button and an OK button at height y.
std::unique_ptr<GerneralDialog> Notice(const QString& picture, int y);

} // namespace MessageDialogs
