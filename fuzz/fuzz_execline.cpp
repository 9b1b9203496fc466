// A desktop entry's Exec line, and the command made from it for a link: the
// link is always one whole argument, never split or merged into the program.
#include "FuzzSupport.h"
#include "Services/ExecLine.h"

#include <algorithm>

FUZZ_QUIET

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QString input = FuzzSupport::text(data, size);
    const auto argv = ExecLine::split(input);
    if (!argv || argv->isEmpty())
        return 0;
    DesktopEntry entry;
    entry.id = QStringLiteral("browser");
    entry.path = QStringLiteral("/apps/browser.desktop");
    entry.name = QStringLiteral("Browser");
    const QString link = QStringLiteral("https://x.example/a b;$(c)\n-d");
    const QStringList command = ExecLine::forLink(*argv, entry, link);
    const QString explanation = argv->join(u"|") + u" gave " + command.join(u"|");
    // In exactly one argument: by itself, or glued to text without blanks
    // ("--url=%u"), never inside a phrase a shell could read.
    qsizetype carrying = 0;
    for (const QString &argument : command) {
        if (!argument.contains(QStringLiteral("x.example/a b")))
            continue;
        ++carrying;
        QString rest = argument;
        rest.replace(rest.indexOf(link), link.size(), QString());
        FUZZ_CHECK_SAYING(argument.contains(link), explanation);
        FUZZ_CHECK_SAYING(
            std::none_of(rest.cbegin(), rest.cend(), [](QChar c) { return c.isSpace(); }),
            explanation);
    }
    FUZZ_CHECK_SAYING(carrying == 1, explanation);
    // A shell's command string that carries the link is always caught.
    const bool shellRunsIt = command.size() > 2 && command[0] == u"sh" && command[1] == u"-c"
                             && command[2].contains(link);
    const auto refused = ExecLine::linkRunsAsCode(command, link, entry.path);
    FUZZ_CHECK_SAYING(!shellRunsIt || refused.has_value(), explanation);
    return 0;
}
