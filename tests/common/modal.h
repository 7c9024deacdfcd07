#pragma once

#include <QApplication>
#include <QTimer>
#include <QtTest>

// Answers the modal dialog that the next action opens, once it is up (it may
// come only when a tool has ended). The class must match exactly: a progress
// dialog is a message dialog too, and must not be mistaken for the one awaited.
template <typename Dialog, typename Action> void whenModal(Action action, int triesLeft = 3000)
{
    QTimer::singleShot(20, [action, triesLeft] {
        QWidget* modal = QApplication::activeModalWidget();
        auto* dialog = modal && modal->metaObject() == &Dialog::staticMetaObject
                           ? static_cast<Dialog*>(modal)
                           : nullptr;
        if (dialog == nullptr && triesLeft > 0) {
            whenModal<Dialog>(action, triesLeft - 1);
            return;
        }
        QVERIFY2(dialog != nullptr, "no modal dialog of the expected kind");
        action(dialog);
    });
}
