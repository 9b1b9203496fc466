#include "App/CommandLine.h"
#include "App/QuillvaneApp.h"
#include "Platform/SystemLog.h"

#include <QCoreApplication>

int main(int argc, char *argv[])
{
    SystemLog::install();
    QByteArrayList arguments;
    for (int i = 1; i < argc; ++i)
        arguments.append(QByteArray(argv[i]));

    if (QuillvaneApp::isApplicationRequest(arguments))
        return QuillvaneApp::run(argc, argv, arguments);

    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("Quillvane"));
    QTextStream out(stdout);
    QTextStream err(stderr);
    return CommandLine::run(arguments, out, err);
}
