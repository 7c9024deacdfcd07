#pragma once

#include <QString>
#include <QStringList>

#include <optional>

#include "media/usbplan.h"

// Brenta's command line. Without arguments Brenta opens its window; the other
// forms answer on the terminal and open no window.
namespace Cli {

struct Request
{
    enum class Mode
    {
        Gui,
        Version,
        Help,
        Screenshots,
        List,
        Extract,
        Create,
        BootInfo,
        Drives,
        BurnDisc,
        BurnUsb,
        RestoreUsb,
        CopyDisc,
        Edit,
        UsageError
    };
    Mode mode = Mode::Gui;
    QString directory;   // Screenshots: where the PNG files go; Extract: the destination
    QString image;       // List, Extract
    QStringList entries; // Extract: paths inside the image, "/" separated; Create: local paths
    QString type = QStringLiteral("joliet"); // Create: joliet, iso9660 or udf
    QString device; // BurnDisc, BurnUsb, RestoreUsb, CopyDisc: the drive's device node
    QString output; // CopyDisc, Edit: the image to write
    // Edit: the changes in the order given, each its option and values: {"--add", PATH,
    // FOLDER}, {"--rename", ENTRY, NEWNAME}, {"--delete", ENTRY}, {"--label", LABEL}
    QList<QStringList> edits;
    // BurnUsb: the partition scheme, the file system, the volume label, and
    // whether to erase the stick without asking; RestoreUsb: the last three
    UsbPlan::Scheme scheme = UsbPlan::Scheme::Mbr;
    UsbPlan::FileSystem fileSystem = UsbPlan::FileSystem::Fat32;
    QString label;
    bool yes = false;
    // BurnUsb: the mode, or nothing to let Brenta choose; which of --scheme,
    // --fs and --label were given (they apply to files mode only)
    std::optional<UsbPlan::WriteMode> writeMode;
    QStringList filesOptions;
    QStringList moreDevices; // BurnUsb: further sticks, written at once in image mode
    QString error;           // UsageError: what was wrong
    QString command;         // Help: the command whose usage was asked for, or none for all
};

// Arguments without the program name.
Request Parse(const QStringList& arguments);

QString VersionText();
QString HelpText();
// One command's usage ("brenta COMMAND --help"); the whole help for an unknown one.
QString UsageText(const QString& command);

// The terminal forms of the features. They return the process exit status.
int RunList(const Request& request);
int RunExtract(const Request& request);
int RunCreate(const Request& request);
int RunBootInfo(const Request& request);
int RunDrives(const Request& request);
int RunBurnDisc(const Request& request);
int RunBurnUsb(const Request& request);
int RunRestoreUsb(const Request& request);
int RunCopyDisc(const Request& request);
int RunEdit(const Request& request);

} // namespace Cli
