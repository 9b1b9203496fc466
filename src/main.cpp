#include "App/CommandLine.h"
#include "App/QuillvaneApp.h"
#include "Platform/DesktopEntries.h"
#include "Platform/ProcessEnd.h"
#include "Platform/SystemLog.h"

#include <QCoreApplication>
#include <QTextStream>

#include <cstdio>

int main(int argc, char *argv[])
{
    SystemLog::install();
    GioDesktopEntries::includeSandboxExports();
    QByteArrayList arguments;
    for (int i = 1; i < argc; ++i)
        arguments.append(QByteArray(argv[i]));

    if (QuillvaneApp::isApplicationRequest(arguments))
        return QuillvaneApp::run(argc, argv, arguments);

    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("Quillvane"));
    QTextStream out(stdout);
    QTextStream err(stderr);
    const int status = CommandLine::run(arguments, out, err);
    out.flush();
    err.flush();
    std::fflush(nullptr);
    // A command has nothing left to tear down, and Qt 6.4's bus thread may still
    // be handling the bus's last words while static destructors dismantle the
    // type registry, which it then reports as warnings on the way out.
    ProcessEnd::immediately(status);
}
