#pragma once

#include <QComboBox>
#include <QList>
#include <QStringList>

// A drop-down list whose items carry check boxes, so that several can be
// chosen. A click on an item's box, or Space on the item, ticks or unticks it
// and leaves the list open; choosing an unticked item by its name ticks it
// alone, as a plain combo box would. While the list holds items one at least
// is ticked, and the current item is always a ticked one. With several
// ticked the box shows the summary format, "%1" the count and "%2" their
// item data.
class CCheckComboBox final : public QComboBox
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(CCheckComboBox)

public:
    explicit CCheckComboBox(QWidget* parent = nullptr);

    bool IsChecked(int index) const;
    void SetChecked(int index, bool checked);
    QList<int> CheckedIndexes() const;
    // The ticked items' data, in list order.
    QStringList CheckedData() const;
    // Ticks the items whose data is in `data` and no other; where none is,
    // the current item stays ticked alone.
    void SetCheckedData(const QStringList& data);
    void SetSummaryFormat(const QString& format) { m_summary = format; }
    // What the closed box shows: the current item's text, or the summary.
    QString DisplayText() const;

Q_SIGNALS:
    void checkedChanged();

protected:
    void paintEvent(QPaintEvent* event) override;
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    void OnRowsInserted(const QModelIndex& parent, int first, int last);
    void OnDataChanged(const QModelIndex& topLeft, const QModelIndex& bottomRight,
                       const QList<int>& roles);
    void OnCurrentChanged(int index);
    // Keeps one item ticked and the current item among the ticked, then
    // tells the change.
    void Settle();
    bool OnCheckBox(const QModelIndex& index, const QPoint& position) const;

    QString m_summary = QStringLiteral("%1 chosen: %2");
    bool m_settling = false;
};
