#include "ui/drops.h"

#include <QDragEnterEvent>
#include <QDragMoveEvent>
#include <QDropEvent>
#include <QFileInfo>
#include <QLineEdit>
#include <QMimeData>
#include <QUrl>
#include <QWidget>

namespace {

class DropFilter final : public QObject
{
public:
    DropFilter(QWidget* page, std::function<bool(const QStringList&)> wanted,
               std::function<void(const QStringList&)> dropped)
        : QObject(page), m_wanted(std::move(wanted)), m_dropped(std::move(dropped))
    {
    }

protected:
    bool eventFilter(QObject* watched, QEvent* event) override
    {
        switch (event->type()) {
        case QEvent::DragEnter:
        case QEvent::DragMove: {
            auto* drag = static_cast<QDragMoveEvent*>(event);
            const QStringList paths = Drops::LocalPaths(drag->mimeData());
            if (!paths.isEmpty() && m_wanted(paths))
                drag->acceptProposedAction();
            else
                drag->ignore();
            return true;
        }
        case QEvent::Drop: {
            auto* drop = static_cast<QDropEvent*>(event);
            const QStringList paths = Drops::LocalPaths(drop->mimeData());
            if (paths.isEmpty() || !m_wanted(paths)) {
                drop->ignore();
                return true;
            }
            drop->acceptProposedAction();
            m_dropped(paths);
            return true;
        }
        default:
            return QObject::eventFilter(watched, event);
        }
    }

private:
    std::function<bool(const QStringList&)> m_wanted;
    std::function<void(const QStringList&)> m_dropped;
};

} // namespace

QStringList Drops::LocalPaths(const QMimeData* data)
{
    if (data == nullptr || !data->hasUrls())
        return {};
    QStringList paths;
    const QList<QUrl> urls = data->urls();
    for (const QUrl& url : urls) {
        if (!url.isLocalFile() || url.toLocalFile().isEmpty())
            return {};
        paths << QFileInfo(url.toLocalFile()).absoluteFilePath();
    }
    return paths;
}

QString Drops::ImageOf(const QStringList& paths)
{
    return paths.size() == 1 && QFileInfo(paths.first()).isFile() ? paths.first() : QString();
}

void Drops::Enable(QWidget* page, std::function<bool(const QStringList&)> wanted,
                   std::function<void(const QStringList&)> dropped)
{
    page->setAcceptDrops(true);
    const QList<QLineEdit*> fields = page->findChildren<QLineEdit*>();
    for (QLineEdit* field : fields)
        field->setAcceptDrops(false);
    page->installEventFilter(new DropFilter(page, std::move(wanted), std::move(dropped)));
}
