#pragma once

#include <QList>
#include <QObject>
#include <QString>

#include "media/disctools.h"

class QComboBox;

// Keeps a drop-down list of the optical drives: Refill() runs a bus scan and
// shows each drive as it is found. The drive selected before (or picked by
// the user while the scan runs) is selected again once it is found, and an
// empty list says that no drive was found.
class COpticalList final : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(COpticalList)

public:
    explicit COpticalList(QComboBox* list);

    void Refill();
    bool IsScanning() const { return m_scan->IsRunning(); }

Q_SIGNALS:
    // A refill has ended: every drive it found is in the list.
    void filled();

private:
    void Show(bool done);

    QComboBox* m_list;
    COpticalScan* m_scan;
    // The drive to select again when the refill finds it.
    QString m_kept;
    QList<DiscTools::ListEntry> m_entries;
};
