#include "ui/pickers.h"

#include <QDialogButtonBox>
#include <QDir>
#include <QFileInfo>
#include <QListView>
#include <QRegularExpression>
#include <QTreeView>

#include "core/util.h"

namespace PickerSeam {
namespace {

Answerer& slot()
{
    static Answerer answerer;
    return answerer;
}

} // namespace

void Set(Answerer answerer)
{
    slot() = std::move(answerer);
}

void Reset()
{
    slot() = nullptr;
}

bool Answer(Kind kind, const QString& filter, QStringList* answer)
{
    if (!slot())
        return false;
    *answer = slot()(kind, filter);
    return true;
}

} // namespace PickerSeam

CFileDialog::CFileDialog(QWidget* parent, bool filesToo)
    : QFileDialog(parent, QString(), QString(), QString()), m_parent(parent), m_filesToo(filesToo)
{
    setOption(QFileDialog::DontUseNativeDialog, true);
    QDir::Filters filters = QDir::Dirs | QDir::NoDot | QDir::NoDotDot;
    if (filesToo)
        filters |= QDir::Files;
    setFilter(filters);
    setFileMode(filesToo ? QFileDialog::ExistingFiles : QFileDialog::Directory);

    auto* list = findChild<QListView*>(QStringLiteral("listView"));
    if (list == nullptr) {
        m_fallback = 1;
        return;
    }
    list->setSelectionMode(QAbstractItemView::ExtendedSelection);
    auto* tree = findChild<QTreeView*>();
    if (tree == nullptr) {
        m_fallback = 2;
        return;
    }
    tree->setSelectionMode(QAbstractItemView::ExtendedSelection);
    auto* buttons = findChild<QDialogButtonBox*>(QStringLiteral("buttonBox"));
    if (buttons == nullptr) {
        m_fallback = 3;
        return;
    }
    // The file dialog's own accept would open a selected folder instead of
    // returning it; accepting the dialog directly returns the selection.
    disconnect(buttons, &QDialogButtonBox::accepted, this, nullptr);
    connect(buttons, &QDialogButtonBox::accepted, this, &CFileDialog::onChiose);
}

void CFileDialog::onChiose()
{
    QDialog::accept();
}

int CFileDialog::exec()
{
    if (m_fallback == 0)
        return QFileDialog::exec();
    m_fallbackResult.clear();
    if (m_filesToo) {
        m_fallbackResult = QFileDialog::getOpenFileNames(m_parent, QStringLiteral("Select Files"),
                                                         QDir::homePath(), QString(), nullptr,
                                                         QFileDialog::DontUseNativeDialog);
    } else {
        const QString folder = QFileDialog::getExistingDirectory(
            m_parent, QStringLiteral("Select Files"), QDir::homePath(),
            QFileDialog::ShowDirsOnly | QFileDialog::DontUseNativeDialog);
        if (!folder.isEmpty())
            m_fallbackResult << folder;
    }
    return 1;
}

QStringList CFileDialog::SelectedPaths() const
{
    return m_fallback == 0 ? selectedFiles() : m_fallbackResult;
}

QString Util::OpenFileDialog(QWidget* parent, const QString& filter)
{
    QStringList answer;
    if (PickerSeam::Answer(PickerSeam::Kind::OpenFile, filter, &answer))
        return answer.value(0);
    return QFileDialog::getOpenFileName(parent, QStringLiteral("Open File"), QDir::homePath(),
                                        QStringLiteral("All Files (*);;") + filter, nullptr,
                                        QFileDialog::ReadOnly);
}

QString Util::OpenDirectoryDialog(QWidget* parent)
{
    QStringList answer;
    if (PickerSeam::Answer(PickerSeam::Kind::OpenDirectory, QString(), &answer))
        return answer.value(0);
    return QFileDialog::getExistingDirectory(parent, QStringLiteral("Open Directory"),
                                             QStringLiteral("."), QFileDialog::ShowDirsOnly);
}

namespace {

// A name typed without a suffix gets the one the filter asks for, in lower
// case ("ISO Files(*.ISO)" and "disc" give "disc.iso"); a name with a suffix,
// or a filter without one, is left as it is.
QString withFilterSuffix(const QString& path, const QString& filter)
{
    static const QRegularExpression pattern(QStringLiteral("\\*\\.(\\w+)"));
    const QRegularExpressionMatch match = pattern.match(filter);
    if (path.isEmpty() || !match.hasMatch() || !QFileInfo(path).suffix().isEmpty())
        return path;
    return path + QLatin1Char('.') + match.captured(1).toLower();
}

} // namespace

QString Util::SaveFileDialog(QWidget* parent, const QString& filter)
{
    QStringList answer;
    if (PickerSeam::Answer(PickerSeam::Kind::SaveFile, filter, &answer))
        return withFilterSuffix(answer.value(0), filter);
    return withFilterSuffix(QFileDialog::getSaveFileName(parent, QStringLiteral("Save File"),
                                                         QStringLiteral("."), filter),
                            filter);
}

QStringList Util::OpenFilesDialog(QWidget* parent)
{
    QStringList answer;
    if (PickerSeam::Answer(PickerSeam::Kind::OpenFiles, QString(), &answer))
        return answer;
    return QFileDialog::getOpenFileNames(parent, QStringLiteral("Open Files"), QDir::homePath(),
                                         // "*": every file, README and Makefile too.
                                         QStringLiteral("Any Files(*)"), nullptr,
                                         QFileDialog::ReadOnly);
}

namespace {

QStringList selectWithCFileDialog(QWidget* parent, bool filesToo)
{
    CFileDialog dialog(parent, filesToo);
    if (dialog.exec() != 1)
        return {};
    return dialog.SelectedPaths();
}

} // namespace

QStringList Util::SelectDirsDialog(QWidget* parent)
{
    QStringList answer;
    if (PickerSeam::Answer(PickerSeam::Kind::SelectDirs, QString(), &answer))
        return answer;
    return selectWithCFileDialog(parent, false);
}

QStringList Util::SelectFilesAndDirsDialog(QWidget* parent)
{
    QStringList answer;
    if (PickerSeam::Answer(PickerSeam::Kind::SelectFilesAndDirs, QString(), &answer))
        return answer;
    return selectWithCFileDialog(parent, true);
}
