#include "App/QuillvaneApp.h"

#include "App/AppDelegate.h"
#include "Models/BuildInfo.h"
#include "App/DesktopActions.h"
#include "App/LinkIntake.h"
#include "Automation/BusNames.h"
#include "Models/Link.h"
#include "Platform/ProcessEnd.h"

#include <QApplication>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QStringDecoder>
#include <QWidget>

#include <cstdio>
#include <optional>

using namespace Qt::Literals::StringLiterals;

namespace QuillvaneApp {

namespace {

void printError(const QString &text)
{
    const QByteArray line = (u"quillvane: "_s + text + u'\n').toUtf8();
    std::fwrite(line.constData(), 1, size_t(line.size()), stderr);
}

QVariantMap platformData()
{
    QVariantMap data;
    const QString token = qEnvironmentVariable("XDG_ACTIVATION_TOKEN");
    if (!token.isEmpty())
        data.insert(u"activation-token"_s, token);
    const QString startupId = qEnvironmentVariable("DESKTOP_STARTUP_ID");
    if (!startupId.isEmpty())
        data.insert(u"desktop-startup-id"_s, startupId);
    return data;
}

const QByteArray ActionOption = "--action";
const QByteArray SettingsOption = "--settings";

// What the application is asked for: links to route, one of its desktop
// actions, or (neither) to show itself.
struct Request
{
    QStringList links;
    QString action;
    bool settings = false;
};

// Whether the session bus names a running instance.
bool instanceNamed()
{
    return QDBusConnection::sessionBus().interface()->isServiceRegistered(
        QString::fromUtf16(BuildInfo::AppId));
}

// Hands the request to the running instance and waits for its answer: the
// exit status, or none when that instance ended without answering (killed or
// crashed just as this one started) and the name is free again.
std::optional<int> forward(const Request &request)
{
    const QString method = !request.action.isEmpty() ? u"ActivateAction"_s
                           : request.links.isEmpty() ? u"Activate"_s
                                                     : u"Open"_s;
    QDBusMessage call =
        QDBusMessage::createMethodCall(QString::fromUtf16(BuildInfo::AppId), BusNames::ObjectPath,
                                       BusNames::ApplicationInterface, method);
    if (!request.action.isEmpty())
        call << request.action << QVariantList() << platformData();
    else if (request.links.isEmpty())
        call << platformData();
    else
        call << request.links << platformData();
    const QDBusMessage reply = QDBusConnection::sessionBus().call(call, QDBus::Block, 25000);
    if (reply.type() == QDBusMessage::ErrorMessage) {
        if (!instanceNamed())
            return std::nullopt;
        printError(reply.errorMessage());
        return 1;
    }
    return 0;
}

} // namespace

bool isApplicationRequest(const QByteArrayList &arguments)
{
    // A link has a scheme; a command does not.
    return arguments.isEmpty() || arguments.first() == ActionOption
           || arguments.first() == SettingsOption || arguments.first().contains(':');
}

int run(int &argc, char **argv, const QByteArrayList &arguments)
{
    Request request;
    if (!arguments.isEmpty() && arguments.first() == SettingsOption) {
        if (arguments.size() != 1) {
            printError(u"--settings takes nothing more."_s);
            return 2;
        }
        request.settings = true;
    } else if (!arguments.isEmpty() && arguments.first() == ActionOption) {
        request.action = QString::fromUtf8(arguments.value(1));
        if (arguments.size() != 2 || !DesktopActions::isKnown(request.action)) {
            printError(u"--action takes one of: %1, %2, %3."_s.arg(DesktopActions::RouteClipboard,
                                                                   DesktopActions::ListBrowsers,
                                                                   DesktopActions::CreateRule));
            return 2;
        }
    }
    QStringList &links = request.links;
    const bool takesLinks = request.action.isEmpty() && !request.settings;
    for (const QByteArray &argument : takesLinks ? arguments : QByteArrayList()) {
        QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
        const QString text = decoder.decode(argument);
        const auto link = decoder.hasError() ? Link::fromUtf8(argument) : Link::parseWebLink(text);
        if (!link) {
            printError(u"%1: %2"_s.arg(text.left(200), link.error().description));
            return 2;
        }
        links.append(link->toString());
    }
    if (links.size() > LinkIntake::MaxLinksPerRequest) {
        printError(u"%1 links at once: Quillvane opens at most %2 links per request."_s.arg(
            QString::number(links.size()), QString::number(LinkIntake::MaxLinksPerRequest)));
        return 2;
    }

    // Without a display the application still routes links; it only shows nothing.
    if (qEnvironmentVariableIsEmpty("DISPLAY") && qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY")
        && qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication application(argc, argv);
    QApplication::setApplicationName(u"Quillvane"_s);
    QApplication::setDesktopFileName(QString::fromUtf16(BuildInfo::AppId));
    QApplication::setQuitOnLastWindowClosed(false);
    // A dialog's loop (the prompt at start-up) runs before the application's
    // own, which a quit that comes then would not end: the dialog ends with the
    // careful answer, and the application's loop does not start.
    bool quitting = false;
    ProcessEnd::onTerminationSignal(&application, [&quitting] {
        quitting = true;
        while (QWidget *modal = QApplication::activeModalWidget()) {
            if (!modal->close())
                break;
        }
        QCoreApplication::quit();
    });

    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        printError(
            u"no D-Bus session bus is running, so no application can hand Quillvane its links."_s);
        return 1;
    }
    // The bus may still name an instance that has just ended (killed, crashed):
    // once it has let the name go, this one starts in its place and opens what
    // that one left in the journal, instead of leaving nobody to open it.
    while (instanceNamed()) {
        if (const std::optional<int> status = forward(request))
            return *status;
    }

    AppDelegate delegate;
    if (!delegate.applicationWillFinishLaunching()) {
        // Another instance took the name first: it routes the links.
        if (instanceNamed())
            return forward(request).value_or(1);
        return 1;
    }
    delegate.applicationDidFinishLaunching();
    if (!links.isEmpty())
        delegate.intake().handleURLs(links, QCoreApplication::applicationPid(),
                                     platformData().value(u"activation-token"_s).toString());
    if (!request.action.isEmpty())
        delegate.intake().onAction(request.action);
    if (request.settings)
        delegate.openSettings();
    const int status = quitting ? 0 : QApplication::exec();
    delegate.applicationWillTerminate();
    return status;
}

} // namespace QuillvaneApp
