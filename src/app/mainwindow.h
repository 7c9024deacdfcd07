#pragma once

#include "ui/imagedialog.h"

class CDriveMonitor;
class CImageButton;
class QLabel;
class QMenu;

// Brenta's only top-level window: the home page with the five feature buttons
// and the header with menu, minimise, close, Home and Help. A feature button
// lays that feature's page over the home area; the page's Back removes it.
class MainWindow final : public ImageDialog
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(MainWindow)

public:
    explicit MainWindow(QWidget* parent = nullptr);
    ~MainWindow() override;

    // The header menu as onMenu() shows it; replaces the menu of an earlier
    // opening, which is deleted.
    QMenu* CreateMenu();
    QMenu* Menu() const;

    CImageButton* Button(const QString& name) const;
    CDriveMonitor* DriveMonitor() const { return m_drives; }
    // The side panel's hint, which speaks of the page shown.
    QString Hint() const;

Q_SIGNALS:
    void sigdrivechange();

public Q_SLOTS:
    void onClose();
    void onMin();
    void onMenu();
    void onBurn();
    void onExtract();
    void onCreate();
    void onEdit();
    void onCopy();
    void onHome();
    void onHelp();
    void aboutus();

protected:
    void keyPressEvent(QKeyEvent* event) override;

private:
    CImageButton* AddButton(const char* name, int x, int y);
    // Lays `page` over the home area and says in the side panel what to do
    // there; the home hint comes back when the page goes.
    void ShowPage(ImageDialog* page, int x, int y, const QString& hint);

    CDriveMonitor* m_drives = nullptr;
    QLabel* m_hint = nullptr;
};
