#pragma once

#include <QString>
#include <QStringList>

namespace Screenshots {

// Renders the main window, the about dialog, every dialog in a typical state
// and every page to PNG files in the folder, named after them. Returns the
// files written; an empty list and the reason in `error` on failure.
QStringList RenderAll(const QString& directory, QString* error);

} // namespace Screenshots
