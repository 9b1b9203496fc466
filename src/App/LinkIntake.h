#pragma once

#include "App/AutomationBridge.h"
#include "Models/RoutingRule.h"

#include <QDBusConnection>
#include <QDBusContext>
#include <QDBusMessage>
#include <QHash>
#include <QObject>
#include <QStringList>
#include <QVariantMap>

#include <functional>
#include <optional>

class AppState;
class OpenRequestSources;
class SourceAppResolver;

// Quillvane's door for links: the org.freedesktop.Application interface on the
// session bus. The sender of a call is the process that asked to open the links;
// it is resolved to its application before the call returns, while it still
// exists (quillvane-open waits for the reply for this reason).
class LinkIntake final : public QObject, protected QDBusContext
{
    Q_OBJECT

public:
    static constexpr qsizetype MaxLinksPerRequest = 100;

    LinkIntake(AppState &state, SourceAppResolver &resolver, QObject *parent = nullptr);

    // Routes links received by other means (the command line of the instance
    // itself), with the sender's process id when known.
    // Returns the links refused (not http or https), each with the reason;
    // more than MaxLinksPerRequest are all refused, with one reason.
    // When none is refused, safe is called once every link is safe to say
    // Quillvane has it, even if it is killed: in its browser's hands, or in
    // the journal (written first for links that would wait). arrivedNs: when the request
    // arrived (LinkTiming's clock), for the trail's timing of each link;
    // resolved: the sender's application, when already looked up.
    QStringList handleURLs(const QStringList &uris, qint64 senderPid,
                           const QString &activationToken, std::function<void()> safe = {},
                           qint64 arrivedNs = 0,
                           std::optional<std::optional<SourceApp>> resolved = std::nullopt);

    // A request that came another way than the bus (quillvane-open's socket),
    // its sender named by the kernel. answer is called once: with nothing when
    // Quillvane has the links (as for handleURLs' safe), else with why they were refused.
    void openFrom(qint64 senderPid, const QStringList &uris, const QVariantMap &platformData,
                  std::function<void(const QString &refusal)> answer);

    // Links that brokers of the desktop hand on are credited to the
    // application that asked them (none: only the sender is resolved).
    void setOpenRequests(OpenRequestSources *requests) { m_openRequests = requests; }

    // Routes again what an earlier Quillvane accepted and did not open (only
    // recent links: see LinkJournal).
    void resumeUnfinished();
    // What scripts reach of this Quillvane (its D-Bus interface, desktop actions).
    Automation::Target &scripts() { return m_scripts; }

    // What Activate does (show the settings window, once it exists).
    std::function<void()> onActivate;
    // Runs one of the desktop entry's actions (the id is a known one).
    std::function<void(const QString &actionName)> onAction;

public Q_SLOTS:
    void Activate(const QVariantMap &platformData);
    void Open(const QStringList &uris, const QVariantMap &platformData);
    void ActivateAction(const QString &actionName, const QVariantList &parameter,
                        const QVariantMap &platformData);
    // The extension's question, through its native host: does a rule send
    // this link away from the browser (the host's parent) about to load it?
    bool Leaves(const QString &url);
    // The host has started in a browser: noted for doctor. Answers whether
    // links may leave browsers at all.
    bool Hello();

private:
    // How long a click waits on this thread for the bus to name its sender.
    static constexpr int QuickAnswerMs = 50;
    // How long the extension's host's first call waits for the bus to name it.
    static constexpr int HostAnswerMs = 1000;

    // The call's links, its sender known (-1: the bus did not say).
    void opened(QDBusConnection bus, const QDBusMessage &call, const QStringList &uris,
                const QString &token, qint64 arrived, qint64 sender, qint64 claimed,
                const std::optional<SourceApp> &guessed);
    // The trail's line for a request; its refusal in words.
    static void traceRequest(const QStringList &uris);
    static QString refusalText(const QStringList &uris, const QStringList &refused);
    // The application of the sender (a broker's request first), traced.
    std::optional<SourceApp> sourceOf(const QStringList &uris, qint64 pid);

    // The browser (and its profile) whose extension's host made this call.
    struct AskingBrowser
    {
        SourceApp app;
        std::optional<QString> profile;
    };
    std::optional<AskingBrowser> askingBrowser();
    // By the host's bus connection, which names one process for its life: a
    // page's check needs no trip to the bus or /proc once the host has said hello.
    QHash<QString, AskingBrowser> m_askingBrowsers;

    AppState &m_state;
    AutomationBridge m_scripts{m_state};
    SourceAppResolver &m_resolver;
    OpenRequestSources *m_openRequests = nullptr;
};
