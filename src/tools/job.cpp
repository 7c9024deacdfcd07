#include "tools/job.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QPointer>
#include <QTimer>

QString CJob::StoppedMessage()
{
    return QStringLiteral("Stopped.");
}

QString CJob::UnfinishedImageRemoved()
{
    return StoppedMessage() + QStringLiteral(" The unfinished image was removed.");
}

bool CJob::IsStoppedMessage(const QString& message)
{
    return message.startsWith(StoppedMessage());
}

void CJob::Begin()
{
    ++m_run;
    m_running = true;
    m_stopping = false;
    m_succeeded = false;
    m_message.clear();
    m_percent = -1;
    m_phase.clear();
}

void CJob::Progress(int percent, const QString& phase)
{
    if (!m_running)
        return;
    m_percent = qBound(-1, percent, 100);
    m_phase = phase;
    Q_EMIT progressed(m_percent, m_phase);
}

void CJob::Finish(bool ok, const QString& message)
{
    if (!m_running)
        return;
    m_running = false;
    m_stopping = false;
    m_succeeded = ok;
    m_message = message;
    Q_EMIT finished(ok, message);
}

void CJob::FinishLater(bool ok, const QString& message)
{
    // A later run of the same job must not be ended by this one's report.
    const int run = m_run;
    QTimer::singleShot(0, this, [this, run, ok, message] {
        if (run == m_run)
            Finish(ok, message);
    });
}

std::function<void()> CJob::EndStopped(const QString& message)
{
    m_stopping = true;
    const QPointer<CJob> self(this);
    const int run = m_run;
    return [self, run, message] {
        // Posted to the application, which outlives every job; the job itself
        // may be gone by the time the tool has ended.
        QCoreApplication* const application = QCoreApplication::instance();
        if (application == nullptr)
            return;
        QMetaObject::invokeMethod(
            application,
            [self, run, message] {
                if (self && self->m_run == run)
                    self->Finish(false, message);
            },
            Qt::QueuedConnection);
    };
}

bool Jobs::Wait(CJob& job)
{
    if (job.IsRunning()) {
        QEventLoop loop;
        QObject::connect(&job, &CJob::finished, &loop, &QEventLoop::quit);
        loop.exec();
    }
    return job.Succeeded();
}
