#pragma once

#include "Models/Config.h"
#include "Services/ConfigDocument.h"

#include <QObject>
#include <QTimer>

#include <functional>
#include <optional>

class QFileSystemWatcher;

// The one owner of the configuration file: reads and checks it, writes it, and
// follows it while Quillvane runs. The file is the person's: a version that
// cannot be read is never written over, and a change is applied to the newest
// version on disk, never to an older copy.
class ConfigFile final : public QObject
{
    Q_OBJECT

public:
    // legacyPath: the INI settings file of earlier versions, moved into this
    // one at the first start (none: nothing to move).
    explicit ConfigFile(QString path, QString legacyPath = {}, QObject *parent = nullptr);
    ~ConfigFile() override;

    // $XDG_CONFIG_HOME/quillvane/config.json, and the earlier versions' file.
    static QString defaultPath();
    static QString defaultLegacyPath();

    // What the file holds, read without writing anything: for commands that
    // run beside Quillvane. Before the first start of this version, what the
    // earlier versions' file holds; defaults when there is neither.
    static Expected<Config, ConfigDocument::Problem> peek(const QString &path,
                                                         const QString &legacyPath = {});

    // Reads the file (a new one written, and the earlier settings moved into it,
    // when there is none); the first load emits no signal.
    void load();
    // Follows the file from now on: a change on disk (an edit, a sync tool's
    // rename, a checkout behind a symbolic link) is read within moments.
    void watch();
    // Reads the file again now.
    void reload();

    const QString &path() const { return m_path; }
    // The last configuration that could be read.
    const Config &config() const { return m_config; }
    // Why the file as it is now cannot be taken; none when it can.
    const std::optional<ConfigDocument::Problem> &problem() const { return m_problem; }

    // Applies change to the newest version of the file and writes it. Refused
    // (and nothing applied) while the file cannot be read; the reason returned.
    // A write that fails (a full or read-only disk) keeps the change in memory
    // for the next write, and says why.
    std::optional<QString> update(const std::function<void(Config &)> &change);

    // What update() refuses with while the file cannot be read.
    static QString refusal(const ConfigDocument::Problem &problem);

Q_SIGNALS:
    // The configuration differs from previous (a change on disk or by update()).
    void changed(const Config &previous);
    // problem() became something else.
    void problemChanged();

private:
    enum class Read
    {
        Unchanged,
        Taken,
        Refused
    };
    Read readFile();
    std::optional<QString> write(const QByteArray &bytes);
    void migrate();
    void adopt(Config config);
    void setProblem(std::optional<ConfigDocument::Problem> problem);
    void rearm();

    QString m_path;
    QString m_legacyPath;
    Config m_config;
    // The file's bytes as last read or written: a difference is a change made
    // by someone else.
    std::optional<QByteArray> m_bytes;
    // What the file held when last looked at, whether it could be read or not.
    QByteArray m_seen;
    std::optional<ConfigDocument::Problem> m_problem;
    QFileSystemWatcher *m_watcher = nullptr;
    // Editors write a file in steps: it is read once they have finished.
    QTimer m_settle;
};
