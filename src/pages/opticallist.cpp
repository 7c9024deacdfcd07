#include "pages/opticallist.h"

#include <QComboBox>

COpticalList::COpticalList(QComboBox* list)
    : QObject(list), m_list(list), m_scan(new COpticalScan(this))
{
    connect(m_scan, &COpticalScan::entry, this, [this](const QString& text, const QString& node) {
        m_entries.append({text, node});
        Show(false);
    });
    // A refill that replaced this one has its own end.
    connect(m_scan, &CJob::finished, this, [this](bool ok) {
        if (!ok)
            return;
        Show(true);
        Q_EMIT filled();
    });
    connect(m_list, qOverload<int>(&QComboBox::activated), this,
            [this](int index) { m_kept = m_list->itemData(index).toString(); });
}

void COpticalList::Refill()
{
    // A refill that replaces one still under way keeps what that one was
    // looking for: the list it left may not hold it yet.
    if (!m_scan->IsRunning())
        m_kept = m_list->currentIndex() < 0 ? QString() : m_list->currentData().toString();
    m_scan->Stop();
    m_entries.clear();
    m_list->clear();
    m_list->setPlaceholderText(QString());
    m_scan->Start();
}

void COpticalList::Show(bool done)
{
    const DiscTools::OpticalView view = DiscTools::ShowOptical(m_kept, m_entries, done);
    // The scan only adds drives, so the list grows at its end.
    for (int i = m_list->count(); i < view.entries.size(); ++i)
        m_list->addItem(view.entries.at(i).text, view.entries.at(i).node);
    if (m_list->currentIndex() != view.selected)
        m_list->setCurrentIndex(view.selected);
    m_list->setPlaceholderText(view.placeholder);
}
