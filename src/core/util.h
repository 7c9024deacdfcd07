#pragma once

#include <QStringList>

#include <atomic>

class QDataStream;
class QDateTime;
class QWidget;

// Static helpers shared by every part of Brenta: locations, logging, size and
// time texts, small file operations, and the message dialogs.
//
// The file and text helpers need no widgets and are defined here, in the core
// library. The members marked "widgets" and "pickers" below are defined by the
// GUI library (ui/util_gui.cpp, ui/pickers.cpp), so a program built on the
// core library alone must not call them.
class Util final
{
public:
    Util() = delete;

    // Locations
    static QString AppDir();
    static QString DataDir();
    // Where working copies are made (ScratchFolder).
    static QString ScratchDir();
    // Removes the working copies in the scratch folder whose lock nobody
    // holds: those of a Brenta that was killed. Called at start-up.
    static void RemoveStaleWorkingCopies();
    static QString SwitchFilePath();
    static QString LogFilePath();

    // Appends "yyyy-MM-dd hh:mm:ss message" to log.txt while config.dat exists
    // beside the executable. Safe to call from any thread.
    static void WriteLog(const QString& message);

    // Texts
    static QString FormatTime(const QDateTime& time);
    static QString FormatSize(qint64 bytes);
    // "about 40 s left" below 90 seconds, else "about 3 min left".
    static QString FormatTimeLeft(qint64 seconds);
    static QString CollapseSpaces(QString text);
    static QString FileSuffix(const QString& name);

    // Files
    static bool FileExists(const QString& path);
    // Total size in bytes of the files below the folder, as a copy of it
    // writes them: hidden entries left out, a link to a folder counted as
    // that folder's files, a link back to a folder above counted as nothing.
    // Stops early, with what it has, once *abort is set.
    static qint64 DirSize(QString path, const std::atomic<bool>* abort = nullptr);
    static void RemovePath(const QString& path);
    static void RemoveDir(const QString& path, bool removeFiles);
    // Capacity in bytes: the size of the device for a device node ("/dev/sdb"),
    // otherwise the total size of the file system that holds `path`; 0 when
    // it cannot be told.
    static qint64 DiskTotalSize(const QString& path);
    // A file is written in full under a hidden name beside its own (".name.
    // XXXXXXXX.part") and renamed over it only once it is whole, so a write
    // that fails or is stopped never costs the file that was there.
    static QString PartPath(const QString& path);
    // Puts a finished part in place of `path`; false, with the part removed
    // and the reason in *error, when it cannot.
    static bool CommitPart(const QString& part, const QString& path, QString* error = nullptr);

    // Positioned raw read: 0 on success, ReadNoDevice when the stream has no
    // device or cannot be positioned, ReadShort when fewer bytes were read.
    enum ReadResult
    {
        ReadOk = 0,
        ReadNoDevice = 25,
        ReadShort = 232
    };
    static int Read(QDataStream& stream, qint64 offset, int length, char* buffer);

    // Widgets (defined in the GUI library)
    static void OpenFolder(QString path);
    static void ShowMessage(const QString& text);
    static void ShowFinished(const QString& text, const QString& folder);
    static int ConfirmPicture(const QString& picture);
    // Asks with OK and Cancel; true for OK.
    static bool Confirm(const QString& text);

    // Pickers (defined in the GUI library); empty when cancelled
    static QString OpenFileDialog(QWidget* parent, const QString& filter);
    static QString OpenDirectoryDialog(QWidget* parent);
    static QString SaveFileDialog(QWidget* parent, const QString& filter);
    static QStringList OpenFilesDialog(QWidget* parent);
    static QStringList SelectDirsDialog(QWidget* parent);
    static QStringList SelectFilesAndDirsDialog(QWidget* parent);
};

// A folder of Brenta's own in the scratch folder, removed with this object.
// While it lives its owner holds a lock on "<folder>.lock" beside it, so that
// a Brenta starting later can tell a working copy in use from one left behind
// by a Brenta that was killed, whatever their ages.
class ScratchFolder final
{
public:
    // The folder is named "<stem>-XXXXXX".
    explicit ScratchFolder(const QString& stem);
    ~ScratchFolder();
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;

    bool IsValid() const { return m_lock >= 0; }
    QString ErrorString() const { return m_error; }
    QString Path() const { return m_path; }
    QString FilePath(const QString& name) const { return m_path + QLatin1Char('/') + name; }

private:
    QString m_path;
    QString m_error;
    int m_lock = -1;
};
