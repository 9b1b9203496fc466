#pragma once

#include <QString>

// Desktop notifications (org.freedesktop.Notifications): how Quillvane answers
// a desktop action that has no window of its own.
namespace Notifications {

// Fire and forget: without a notification service the text only reaches the
// log.
void show(const QString &summary, const QString &body);

} // namespace Notifications
