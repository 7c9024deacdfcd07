#pragma once

#include <QString>

// Desktop notifications through the freedesktop notification service on the
// session bus. Nothing happens, and nothing waits, when there is no session
// bus or no service on it.
namespace Notifier {

// The bus name, object path and interface of the service.
inline constexpr char kService[] = "org.freedesktop.Notifications";
inline constexpr char kPath[] = "/org/freedesktop/Notifications";

void Send(const QString& summary, const QString& body);

// Sends the notification only while no Brenta window is active: a message
// that appears then is the end of work the user left running in the
// background, and they would not see it otherwise.
void SendIfAway(const QString& summary, const QString& body);

} // namespace Notifier
