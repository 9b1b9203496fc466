#include "App/CommandLine.h"
#include "Platform/SystemLog.h"

#include <QCoreApplication>

#include <cstdio>

int main(int argc, char *argv[])
{
    SystemLog::install();
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("Quillvane"));
    QCoreApplication::setOrganizationDomain(QStringLiteral("vorpa.work"));

    QByteArrayList arguments;
    for (int i = 1; i < argc; ++i)
        arguments.append(QByteArray(argv[i]));
    QTextStream out(stdout);
    QTextStream err(stderr);
    return CommandLine::run(arguments, out, err);
}
