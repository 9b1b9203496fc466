#include "Platform/Notifications.h"

#include "Models/BuildInfo.h"
#include "Platform/SystemLog.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>

using namespace Qt::Literals::StringLiterals;

QUILLVANE_LOGGING_CATEGORY(lcNotifications, "Notifications")

namespace Notifications {

void show(const QString &summary, const QString &body)
{
    qCInfo(lcNotifications).noquote() << summary << body;
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected())
        return;
    QDBusMessage notify = QDBusMessage::createMethodCall(
        u"org.freedesktop.Notifications"_s, u"/org/freedesktop/Notifications"_s,
        u"org.freedesktop.Notifications"_s, u"Notify"_s);
    const QString appId = QString::fromUtf16(BuildInfo::AppId);
    notify << u"Quillvane"_s << uint(0) << appId << summary << body << QStringList()
           << QVariantMap{{u"desktop-entry"_s, appId}} << int(-1);
    auto *watcher = new QDBusPendingCallWatcher(bus.asyncCall(notify));
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, watcher,
                     [](QDBusPendingCallWatcher *finished) {
                         const QDBusPendingReply<uint> reply = *finished;
                         if (reply.isError())
                             qCWarning(lcNotifications).noquote()
                                 << u"No notification shown: %1"_s.arg(reply.error().message());
                         finished->deleteLater();
                     });
}

} // namespace Notifications
