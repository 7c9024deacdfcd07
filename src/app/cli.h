#pragma once

#include <QString>
#include <QStringList>

// Brenta's command line. Without arguments Brenta opens its window; the other
// forms answer on the terminal and open no window.
namespace Cli {

struct Request
{
    enum class Mode { Gui, Version, Help, Screenshots, UsageError };
    Mode mode = Mode::Gui;
    QString directory; // Screenshots: where the PNG files go
    QString error;     // UsageError: what was wrong
};

// Arguments without the program name.
Request Parse(const QStringList& arguments);

QString VersionText();
QString HelpText();

} // namespace Cli
