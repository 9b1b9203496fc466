#pragma once

#include "Models/Expected.h"

#include <QString>

#include <optional>

// Starting Quillvane when the user logs in: an XDG autostart entry.
class Autostart
{
public:
    // As the login-item service reports it; only Enabled counts as enabled.
    enum class Status
    {
        NotRegistered = 0,
        Enabled = 1
    };
    // Done, or the description of what failed.
    using Result = Expected<void, QString>;

    virtual ~Autostart() = default;
    virtual Status status() const = 0;
    virtual Result enable() = 0;
    virtual Result disable() = 0;
};

// $XDG_CONFIG_HOME/autostart/work.vorpa.Quillvane.desktop, enabled when it
// exists and says neither Hidden=true nor X-GNOME-Autostart-enabled=false.
class XdgAutostart final : public Autostart
{
public:
    // program: what the entry starts (the installed quillvane executable).
    explicit XdgAutostart(QString program);

    static QString entryPath();

    Status status() const override;
    Result enable() override;
    Result disable() override;

private:
    QString m_program;
};
