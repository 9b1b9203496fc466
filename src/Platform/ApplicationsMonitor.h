#pragma once

#include <QObject>

typedef struct _GAppInfoMonitor GAppInfoMonitor;

// Tells when the installed applications change: a desktop entry added,
// removed or edited (a user's override in ~/.local/share/applications
// included), as GIO's application monitor sees it. GIO signals once until the
// applications are listed again, which refreshing the browsers does.
class ApplicationsMonitor final : public QObject
{
    Q_OBJECT

public:
    explicit ApplicationsMonitor(QObject *parent = nullptr);
    ~ApplicationsMonitor() override;

Q_SIGNALS:
    void changed();

private:
    GAppInfoMonitor *m_monitor;
    unsigned long m_handler;
};
