#include <QtTest>

#include <QLabel>
#include <QLineEdit>
#include <QProgressBar>

#include <memory>

#include "common/urlrecorder.h"
#include "ui/baseimagectrl.h"
#include "ui/commdialog.h"
#include "ui/gerneraldialog.h"
#include "ui/inputdialog.h"
#include "ui/messagedialogs.h"
#include "ui/progressdialog.h"

namespace {

void click(QWidget* button)
{
    QVERIFY(button != nullptr);
    QVERIFY(button->isVisible());
    QTest::mouseClick(button, Qt::LeftButton, {},
                      QPoint(button->width() / 2, button->height() / 2));
}

} // namespace

class TestDialogs final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { m_urls.opened.clear(); }

    void percentText_data();
    void percentText();
    void stop_data();
    void stop();

    void longMessageIsNotCutOff();
    void buttonsAnswer_data();
    void buttonsAnswer();
    void openFolderKeepsDialogOpen();
    void enterPressesTheDefaultButton_data();
    void enterPressesTheDefaultButton();

private:
    // Open Folder goes to the desktop; here it comes to the test instead.
    UrlRecorder m_urls{{"file"}};
};

void TestDialogs::percentText_data()
{
    QTest::addColumn<int>("minimum");
    QTest::addColumn<int>("maximum");
    QTest::addColumn<int>("value");
    QTest::addColumn<QString>("text");
    QTest::newRow("whole number has no decimals") << 0 << 10000 << 4500 << "45%";
    QTest::newRow("a third") << 0 << 3 << 1 << "33.33%";
    QTest::newRow("empty range") << 0 << 0 << 0 << "0%";
    QTest::newRow("offset range") << 100 << 300 << 150 << "25%";
    QTest::newRow("value clamped by the bar") << 0 << 100 << 250 << "0%";
}

void TestDialogs::percentText()
{
    QFETCH(int, minimum);
    QFETCH(int, maximum);
    QFETCH(int, value);
    QFETCH(QString, text);

    CProgressDialog dialog;
    dialog.SetRange(minimum, maximum);
    dialog.SetValue(value);
    QCOMPARE(dialog.PercentText(), text);
    QCOMPARE(dialog.Bar()->text(), text);
}

void TestDialogs::stop_data()
{
    QTest::addColumn<bool>("disabled");
    QTest::newRow("Stop") << false;
    QTest::newRow("disabled Stop") << true;
}

// The page reacts to SigCancel by stopping its tool and perhaps showing a
// message; the progress dialog must already be out of the way by then. A
// disabled Stop does nothing at all.
void TestDialogs::stop()
{
    QFETCH(bool, disabled);
    CProgressDialog dialog;
    dialog.show();
    QVERIFY(QTest::qWaitForWindowExposed(&dialog));
    if (disabled)
        dialog.DisableStop();
    QList<bool> visibleAtCancel;
    connect(&dialog, &CProgressDialog::SigCancel, this,
            [&] { visibleAtCancel << dialog.isVisible(); });
    QTest::mouseClick(dialog.CancelButton(), Qt::LeftButton);
    QCOMPARE(visibleAtCancel, disabled ? QList<bool>{} : QList<bool>{false});
    QCOMPARE(dialog.isVisible(), disabled);
}

// A long message (a tool's own words) makes the dialog taller instead of
// being cut off, the button staying below the whole text.
void TestDialogs::longMessageIsNotCutOff()
{
    const QString text =
        "The image could not be opened because the archive tool said it is not an image. ";
    auto dialog = MessageDialogs::Message(text.repeated(12));
    QVERIFY(dialog->Label()->geometry().bottom() < dialog->OkButton()->y());
    QVERIFY(dialog->Label()->height() >= dialog->Label()->heightForWidth(dialog->Label()->width()));
    QVERIFY(dialog->rect().contains(dialog->OkButton()->geometry()));
}

void TestDialogs::buttonsAnswer_data()
{
    QTest::addColumn<QString>("picture");
    QTest::addColumn<int>("y"); // of a notice's OK button; -1: a confirmation
    QTest::addColumn<QString>("button");
    QTest::addColumn<int>("result");
    QTest::newRow("confirm, OK") << ":/nwu/format_usb" << -1 << "ok" << int(QDialog::Accepted);
    QTest::newRow("confirm, Cancel")
        << ":/nwu/format_usb" << -1 << "cancel" << int(QDialog::Rejected);
    QTest::newRow("confirm, close")
        << ":/nwu/format_usb" << -1 << "close" << int(QDialog::Rejected);
    QTest::newRow("notice, close")
        << ":/nwu/burn-fails" << 123 << "close" << int(QDialog::Rejected);
    QTest::newRow("notice, OK") << ":/nwu/select_files_extract" << 120 << "ok"
                                << int(QDialog::Accepted);
}

void TestDialogs::buttonsAnswer()
{
    QFETCH(QString, picture);
    QFETCH(int, y);
    QFETCH(QString, button);
    QFETCH(int, result);
    std::unique_ptr<ImageDialog> dialog;
    QWidget* pressed = nullptr;
    if (y < 0) {
        auto confirm = MessageDialogs::Confirm(picture);
        pressed = button == "ok"       ? confirm->OkButton()
                  : button == "cancel" ? confirm->CancelButton()
                                       : confirm->CloseButton();
        dialog = std::move(confirm);
    } else {
        auto notice = MessageDialogs::Notice(picture, y);
        pressed = button == "ok" ? notice->OkButton() : notice->CloseButton();
        dialog = std::move(notice);
    }
    // The button must sit on the picture, not hang over its edge.
    QVERIFY(dialog->rect().contains(pressed->geometry()));
    QTimer::singleShot(0, this, [&] { click(pressed); });
    QCOMPARE(dialog->exec(), result);
}

void TestDialogs::openFolderKeepsDialogOpen()
{
    for (const bool closeWithOk : {true, false}) {
        auto dialog = MessageDialogs::Finished("Create ISO successfully!", "/tmp/out folder");
        QTimer::singleShot(0, this, [&] {
            click(dialog->CancelButton());
            click(dialog->CancelButton());
            QVERIFY(dialog->isVisible());
            click(closeWithOk ? dialog->OkButton() : dialog->CloseButton());
        });
        QCOMPARE(dialog->exec(), closeWithOk ? int(QDialog::Accepted) : int(QDialog::Rejected));
    }
    QCOMPARE(m_urls.opened.size(), 4);
    QCOMPARE(m_urls.opened.first(), QUrl::fromLocalFile("/tmp/out folder"));
}

void TestDialogs::enterPressesTheDefaultButton_data()
{
    QTest::addColumn<QString>("dialog");
    QTest::addColumn<int>("key");
    QTest::addColumn<int>("result");
    QTest::newRow("question, Enter") << "question" << int(Qt::Key_Return) << int(QDialog::Accepted);
    QTest::newRow("question, keypad Enter")
        << "question" << int(Qt::Key_Enter) << int(QDialog::Accepted);
    QTest::newRow("question, Escape")
        << "question" << int(Qt::Key_Escape) << int(QDialog::Rejected);
    QTest::newRow("name prompt, Enter after typing")
        << "input" << int(Qt::Key_Return) << int(QDialog::Accepted);
    QTest::newRow("notice with OK, Enter")
        << "notice" << int(Qt::Key_Return) << int(QDialog::Accepted);
}

// Enter presses OK (Yes) of a message, a question, the name prompt and a
// notice; Escape still cancels.
void TestDialogs::enterPressesTheDefaultButton()
{
    QFETCH(QString, dialog);
    QFETCH(int, key);
    QFETCH(int, result);
    std::unique_ptr<QDialog> shown;
    if (dialog == "notice") {
        auto notice = std::make_unique<GerneralDialog>();
        notice->SetPicture(":/nwu/select_files_extract");
        notice->AddOKButton(120);
        shown = std::move(notice);
    } else if (dialog == "input") {
        shown = std::make_unique<CInputDialog>();
    } else {
        shown = std::make_unique<CommDialog>();
    }
    QTimer::singleShot(0, this, [&] {
        if (auto* input = qobject_cast<CInputDialog*>(shown.get())) {
            // A name is given and taken without the blanks around it.
            input->SetInputText("  report 2024.txt \t");
            QCOMPARE(input->Edit()->text(), QString("report 2024.txt"));
            QCOMPARE(input->Edit()->selectedText(), QString("report 2024.txt"));
            input->Edit()->clear();
            QTest::keyClicks(input->Edit(), "   new name  ");
            QTest::keyClick(input->Edit(), Qt::Key(key));
        } else {
            QTest::keyClick(shown.get(), Qt::Key(key));
        }
    });
    // A key that does nothing leaves the dialog open: end it then with -1.
    QTimer::singleShot(2000, shown.get(), [&] { shown->done(-1); });
    QCOMPARE(shown->exec(), result);
    if (auto* input = qobject_cast<CInputDialog*>(shown.get()))
        QCOMPARE(input->GetInputText(), QString("new name"));
}

QTEST_MAIN(TestDialogs)
#include "tst_dialogs.moc"
