#include <QApplication>
#include <QCoreApplication>
#include <QLoggingCategory>

#include <cstdio>

#include "app/application.h"
#include "app/cli.h"
#include "app/mainwindow.h"
#include "app/screenshots.h"
#include "core/util.h"

namespace {

void print(FILE* stream, const QString& text)
{
    std::fputs(text.toLocal8Bit().constData(), stream);
}

int runGui(int argc, char** argv)
{
    QApplication application(argc, argv);
    Application::SetUp(application);
    Util::RemoveStaleWorkingCopies();
    MainWindow window;
    window.show();
    return application.exec();
}

int runScreenshots(int argc, char** argv, const QString& directory)
{
    // Screenshots need no screen: render offscreen unless a platform was chosen.
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication application(argc, argv);
    Application::SetUp(application);
    QString error;
    const QStringList written = Screenshots::RenderAll(directory, &error);
    if (written.isEmpty()) {
        print(stderr, error + QLatin1Char('\n'));
        return 1;
    }
    for (const QString& file : written)
        print(stdout, file + QLatin1Char('\n'));
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    QStringList arguments;
    for (int i = 1; i < argc; ++i)
        arguments << QString::fromLocal8Bit(argv[i]);

    const Cli::Request request = Cli::Parse(arguments);
    // The terminal forms print what they were asked for and nothing else.
    if (request.mode != Cli::Request::Mode::Gui && request.mode != Cli::Request::Mode::Screenshots)
        QLoggingCategory::setFilterRules(QStringLiteral("*.debug=false"));
    switch (request.mode) {
    case Cli::Request::Mode::Version:
        print(stdout, Cli::VersionText());
        return 0;
    case Cli::Request::Mode::Help:
        print(stdout,
              request.command.isEmpty() ? Cli::HelpText() : Cli::UsageText(request.command));
        return 0;
    case Cli::Request::Mode::UsageError:
        print(stderr, QStringLiteral("brenta: %1\n\n").arg(request.error) + Cli::HelpText());
        return 2;
    case Cli::Request::Mode::List: {
        QCoreApplication application(argc, argv);
        return Cli::RunList(request);
    }
    case Cli::Request::Mode::Extract: {
        QCoreApplication application(argc, argv);
        return Cli::RunExtract(request);
    }
    case Cli::Request::Mode::Create: {
        QCoreApplication application(argc, argv);
        QCoreApplication::setApplicationName(QStringLiteral("brenta"));
        Util::RemoveStaleWorkingCopies();
        return Cli::RunCreate(request);
    }
    case Cli::Request::Mode::BootInfo:
        return Cli::RunBootInfo(request);
    case Cli::Request::Mode::Drives: {
        QCoreApplication application(argc, argv);
        return Cli::RunDrives(request);
    }
    case Cli::Request::Mode::BurnDisc: {
        QCoreApplication application(argc, argv);
        return Cli::RunBurnDisc(request);
    }
    case Cli::Request::Mode::BurnUsb: {
        QCoreApplication application(argc, argv);
        return Cli::RunBurnUsb(request);
    }
    case Cli::Request::Mode::RestoreUsb: {
        QCoreApplication application(argc, argv);
        return Cli::RunRestoreUsb(request);
    }
    case Cli::Request::Mode::CopyDisc: {
        QCoreApplication application(argc, argv);
        return Cli::RunCopyDisc(request);
    }
    case Cli::Request::Mode::Edit: {
        QCoreApplication application(argc, argv);
        QCoreApplication::setApplicationName(QStringLiteral("brenta"));
        Util::RemoveStaleWorkingCopies();
        return Cli::RunEdit(request);
    }
    case Cli::Request::Mode::Screenshots:
        return runScreenshots(argc, argv, request.directory);
    case Cli::Request::Mode::Gui:
        break;
    }
    return runGui(argc, argv);
}
