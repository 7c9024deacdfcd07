#pragma once

#include <QFileDialog>
#include <QStringList>

#include <functional>

// A file dialog that picks several folders, or files and folders together, in
// one selection. It adapts Qt's own dialog; where that dialog lacks the parts
// it adapts, it falls back to a standard dialog.
class CFileDialog final : public QFileDialog
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(CFileDialog)

public:
    CFileDialog(QWidget* parent, bool filesToo);

    int exec() override;
    QStringList SelectedPaths() const;
    int FallbackLevel() const { return m_fallback; }

public Q_SLOTS:
    void onChiose();

private:
    int m_fallback = 0;
    QWidget* m_parent = nullptr;
    bool m_filesToo = false;
    QStringList m_fallbackResult;
};

// Lets tests answer the pickers instead of a person. While an answerer is set,
// every Util picker returns its answer and shows no dialog.
namespace PickerSeam {

enum class Kind
{
    OpenFile,
    OpenDirectory,
    SaveFile,
    OpenFiles,
    SelectDirs,
    SelectFilesAndDirs
};
using Answerer = std::function<QStringList(Kind kind, const QString& filter)>;

void Set(Answerer answerer);
void Reset();
// The answer for a picker call, or nothing when no answerer is set.
bool Answer(Kind kind, const QString& filter, QStringList* answer);

} // namespace PickerSeam
