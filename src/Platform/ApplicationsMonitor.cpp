#include "Platform/ApplicationsMonitor.h"

#include <gio/gio.h>

ApplicationsMonitor::ApplicationsMonitor(QObject *parent)
    : QObject(parent)
    , m_monitor(g_app_info_monitor_get())
{
    m_handler = g_signal_connect(m_monitor, "changed",
                                 G_CALLBACK(+[](GAppInfoMonitor *, gpointer self) {
                                     Q_EMIT static_cast<ApplicationsMonitor *>(self)->changed();
                                 }),
                                 this);
    // Armed: GIO signals only after the applications were listed once.
    g_list_free_full(g_app_info_get_all(), g_object_unref);
}

ApplicationsMonitor::~ApplicationsMonitor()
{
    g_signal_handler_disconnect(m_monitor, m_handler);
    g_object_unref(m_monitor);
}
