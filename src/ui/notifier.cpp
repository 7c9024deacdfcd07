#include "ui/notifier.h"

#include <QApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QVariantMap>

void Notifier::Send(const QString& summary, const QString& body)
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected())
        return;
    QDBusMessage notify =
        QDBusMessage::createMethodCall(QLatin1String(kService), QLatin1String(kPath),
                                       QLatin1String(kService), QStringLiteral("Notify"));
    // app_name, replaces_id, app_icon, summary, body, actions, hints, expire_timeout
    notify << QStringLiteral("Brenta") << 0u << QStringLiteral("brenta") << summary << body
           << QStringList()
           << QVariantMap{{QStringLiteral("desktop-entry"), QStringLiteral("brenta")}} << -1;
    // Sent without waiting for the reply: a missing or hanging service must
    // never hold up the window.
    bus.send(notify);
}

void Notifier::SendIfAway(const QString& summary, const QString& body)
{
    if (QApplication::activeWindow() == nullptr)
        Send(summary, body);
}
