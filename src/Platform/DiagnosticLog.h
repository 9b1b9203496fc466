#pragma once

#include <QString>
#include <QStringList>

#include <functional>

// The plain-text trail that follows every link: one line per event, in
// $XDG_RUNTIME_DIR/Quillvane.log (or /tmp/Quillvane-<uid>.log without a runtime
// directory), each line "[<UTC time>] [<tag>] <message>". Writing never fails
// visibly; a line that cannot be written is lost.
namespace DiagnosticLog {

QString filePath();

// An empty tag writes an untagged line.
void write(QStringView tag, QStringView message);
// Several lines at once, in one open and one write of the file.
void writeLines(QStringView tag, const QStringList &messages);

// The trail can be switched off; callers that build costly lines ask first.
bool isEnabled();
void setEnabled(bool enabled);

// The line as it stands in the file, without its line feed.
QString formatLine(QStringView tag, QStringView message);

// While a Redirect lives, lines go to its receiver instead of the file (the
// command line shows a trail without touching the user's file; tests read it).
class Redirect final
{
public:
    using Receiver = std::function<void(QStringView tag, QStringView message)>;
    explicit Redirect(Receiver receiver);
    ~Redirect();
    Redirect(const Redirect &) = delete;
    Redirect &operator=(const Redirect &) = delete;

private:
    Receiver m_receiver;
    Redirect *m_previous;
};

} // namespace DiagnosticLog
