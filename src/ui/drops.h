#pragma once

#include <QStringList>

#include <functional>

class QMimeData;
class QWidget;

// Files and folders dropped on a page from a file manager.
namespace Drops {

// The local paths a drag carries; empty when it carries anything else too
// (text, remote addresses), which a page does not take.
QStringList LocalPaths(const QMimeData* data);

// The image a drop opens: its one path when that is a file, else empty.
QString ImageOf(const QStringList& paths);

// Lets `page` take drops of local files and folders: while one is dragged
// over the page it is accepted when `wanted(paths)` says so, and a drop calls
// `dropped(paths)`. Text fields on the page no longer take dropped text, so a
// drop anywhere on the page reaches it.
void Enable(QWidget* page, std::function<bool(const QStringList&)> wanted,
            std::function<void(const QStringList&)> dropped);

} // namespace Drops
