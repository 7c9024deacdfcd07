#pragma once

#include <QObject>
#include <QPointer>
#include <QString>
#include <QStringList>

#include <memory>

#include "iso/listing.h"

class CRunCommandThread;
class ItemTree;

// Lists an image into an item tree with the archive tool. Used alike by the
// pages and by the command line.
class CListJob final : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(CListJob)

public:
    explicit CListJob(ItemTree& tree, QObject* parent = nullptr);
    ~CListJob() override;

    // Clears the tree, titles it with the image's file name and starts.
    void Start(const QString& image);
    void Stop();
    bool IsRunning() const;

    bool Succeeded() const { return m_succeeded; }
    QString Message() const { return m_message; }

Q_SIGNALS:
    void finished();

private:
    void OnFinished();

    ItemTree& m_tree;
    CRunCommandThread* m_runner = nullptr;
    std::unique_ptr<Listing::Reader> m_reader;
    bool m_succeeded = false;
    QString m_message;
};

// Extracts entries of an image into a destination folder so that the folder
// receives the entries themselves: the tool writes into a hidden staging
// folder inside the destination, and the entries are then moved up under free
// names, so nothing that was there before is ever overwritten or deleted.
class CExtractJob final : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(CExtractJob)

public:
    explicit CExtractJob(QObject* parent = nullptr);
    ~CExtractJob() override;

    // Entries are paths inside the image with "/" between components; none
    // means the whole image.
    void Start(const QString& image, const QString& destination, const QStringList& entries);
    // Ends the tool and removes what it had written so far.
    void Stop();
    bool IsRunning() const;

    bool Succeeded() const { return m_succeeded; }
    QString Message() const { return m_message; }
    QStringList Placed() const { return m_placed; }

Q_SIGNALS:
    void progress(int percent, const QString& entry);
    void finished();

private:
    void OnLine(const QString& line);
    void OnFinished();
    void Finish(bool succeeded, const QString& message);

    CRunCommandThread* m_runner = nullptr;
    QString m_destination;
    QString m_staging;
    QStringList m_entries;
    QStringList m_lines;
    bool m_succeeded = false;
    QString m_message;
    QStringList m_placed;
};
