#pragma once

#include <QDesktopServices>
#include <QList>
#include <QObject>
#include <QStringList>
#include <QUrl>

// While alive, catches what Brenta hands to the desktop (folders, web pages),
// so tests can check it without a file manager or browser opening.
class UrlRecorder final : public QObject
{
    Q_OBJECT

public:
    explicit UrlRecorder(const QStringList& schemes) : m_schemes(schemes)
    {
        for (const QString& scheme : m_schemes)
            QDesktopServices::setUrlHandler(scheme, this, "Record");
    }
    ~UrlRecorder() override
    {
        for (const QString& scheme : m_schemes)
            QDesktopServices::unsetUrlHandler(scheme);
    }

    QList<QUrl> opened;

public Q_SLOTS:
    void Record(const QUrl& url) { opened << url; }

private:
    QStringList m_schemes;
};
