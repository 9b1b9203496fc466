#pragma once

#include <QString>
#include <QStringList>
#include <QTemporaryDir>

// A desktop of its own for one test program: temporary XDG data, config and
// runtime directories and HOME, holding real desktop entries whose programs are
// small scripts that record the arguments (and activation token) they were
// started with. GLib reads these locations once per process, so one FakeDesktop
// is made before anything asks GIO and lives as long as the test program.
class FakeDesktop final
{
public:
    FakeDesktop();

    QString root() const { return m_dir.path(); }
    QString home() const { return m_dir.path() + u"/home"; }
    QString configHome() const { return m_dir.path() + u"/config"; }
    QString stateHome() const { return m_dir.path() + u"/state"; }
    QString userApplications() const { return m_dir.path() + u"/data/applications"; }
    QString systemApplications() const { return m_dir.path() + u"/system/applications"; }

    // A recording program named after the id, and an entry that opens https
    // links with it. extraKeys are appended to the [Desktop Entry] group;
    // exec replaces the default Exec value ("<program> %u").
    QString addBrowser(const QString &id, const QString &name, const QString &extraKeys = {},
                       const QString &exec = {}, bool systemWide = false);
    QString writeEntry(const QString &id, const QString &contents, bool systemWide = false);
    // A recording program named after the id, with an entry that opens the
    // MIME types (a link scheme is "x-scheme-handler/<scheme>;") with it.
    QString addApp(const QString &id, const QString &name, const QString &mimeTypes);
    // An application that sends links: a copy of the shell named after the id,
    // with an entry that names it, so that its processes map to it.
    QString addApplication(const QString &id, const QString &name);
    // After entries were removed by hand.
    void refreshDatabase(bool systemWide = false) const;
    // A program that records its arguments (for Exec lines written by hand).
    QString recorder(const QString &name);
    // An executable file in the desktop's bin folder, holding the script.
    QString program(const QString &name, const QByteArray &script);

    // What the program of that name was started with, once it has run.
    QStringList arguments(const QString &program) const;
    QString activationToken(const QString &program) const;
    bool ran(const QString &program) const;
    void forget(const QString &program) const;
    // Waits until the program has recorded its start.
    bool waitForRun(const QString &program, int timeoutMs = 5000) const;
    // What the program was started with, once it has run (nothing if it never does).
    QStringList opened(const QString &program, int timeoutMs = 10000) const;

private:
    QString record(const QString &program, QStringView suffix) const;

    QTemporaryDir m_dir;
};
