#include "media/drives.h"

#include <QSocketNotifier>
#include <QTimer>

#include <libudev.h>

#include "core/logging.h"

struct CDriveMonitor::Private
{
    udev* context = nullptr;
    udev_monitor* monitor = nullptr;
    QSocketNotifier* notifier = nullptr;
    QTimer settle;
};

CDriveMonitor::CDriveMonitor(QObject* parent, int settleMs) : QObject(parent), d(new Private)
{
    // A stick arrives as a disk followed by its partitions; the timer restarts
    // on each of them and fires once the burst is over.
    d->settle.setSingleShot(true);
    d->settle.setInterval(qMax(0, settleMs));
    connect(&d->settle, &QTimer::timeout, this, &CDriveMonitor::changed);

    // Events as udev sends them once it has handled them (the "udev" source),
    // so the device node and its properties already exist when a list is refilled.
    d->context = udev_new();
    if (d->context)
        d->monitor = udev_monitor_new_from_netlink(d->context, "udev");
    if (!d->monitor ||
        udev_monitor_filter_add_match_subsystem_devtype(d->monitor, "block", nullptr) < 0 ||
        udev_monitor_enable_receiving(d->monitor) < 0 || udev_monitor_get_fd(d->monitor) < 0) {
        qCWarning(lcMedia)
            << "cannot watch udev's block devices; drive lists will not follow changes";
        if (d->monitor)
            udev_monitor_unref(d->monitor);
        d->monitor = nullptr;
        return;
    }

    d->notifier = new QSocketNotifier(udev_monitor_get_fd(d->monitor), QSocketNotifier::Read, this);
    connect(d->notifier, &QSocketNotifier::activated, this, [this] {
        // The socket does not block: take every event that is waiting.
        while (udev_device* device = udev_monitor_receive_device(d->monitor)) {
            const char* action = udev_device_get_action(device);
            // "change" is a disc inserted or taken out, or a partition table
            // reread: no drive came or went.
            if (action && (qstrcmp(action, "add") == 0 || qstrcmp(action, "remove") == 0))
                d->settle.start();
            udev_device_unref(device);
        }
    });
}

CDriveMonitor::~CDriveMonitor()
{
    // The notifier goes before the socket it watches.
    delete d->notifier;
    if (d->monitor)
        udev_monitor_unref(d->monitor);
    if (d->context)
        udev_unref(d->context);
    delete d;
}

bool CDriveMonitor::IsWatching() const
{
    return d->notifier != nullptr;
}
