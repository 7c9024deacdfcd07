#include "ui/mycombobox.h"

#include <QMouseEvent>

void CMyComboBox::mousePressEvent(QMouseEvent* event)
{
    if (event->button() == Qt::LeftButton)
        Q_EMIT dropdownclicked();
    QComboBox::mousePressEvent(event);
}
