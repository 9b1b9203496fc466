#pragma once

#include <QByteArray>
#include <QObject>
#include <QStringList>
#include <QVariantMap>

#include <optional>

class LinkIntake;
class QLocalServer;
class QLocalSocket;

// quillvane-open's way in while Quillvane runs: a socket in the user's runtime
// folder. A click through it passes no bus daemon, no bus greeting and no hop
// through Qt's bus thread, and the kernel names the process at the other end.
// The bus stays the way in when Quillvane does not run (it starts Quillvane)
// and for every other caller.
//
// A request is fields "key=value", each ended by a NUL byte, then an empty
// field: "link" (once per link), "activation-token", "desktop-startup-id". The
// answer is "0" when Quillvane has the links, or "1" and why it refused them.
class LinkSocket final : public QObject
{
    Q_OBJECT

public:
    // More than any command line can carry (a few megabytes), far below harm.
    static constexpr qsizetype MaxRequest = 16 * 1024 * 1024;
    // A peer that has not finished its request by then is let go.
    static constexpr int PeerTimeoutMs = 5000;

    struct Request
    {
        QStringList links;
        QVariantMap platformData;
    };

    explicit LinkSocket(LinkIntake &intake, QObject *parent = nullptr);
    ~LinkSocket() override;

    // $XDG_RUNTIME_DIR/quillvane.socket; empty without a usable runtime folder.
    static QString path();
    // A whole request read from bytes, or nullopt while it is not whole yet;
    // a request that breaks the format becomes a refusal in *error.
    static std::optional<Request> parse(const QByteArray &bytes, QString *error);

    // Listens (after this instance owns its bus name); false with the reason.
    bool listen(QString *why);

private:
    void serve(QLocalSocket *peer);

    LinkIntake &m_intake;
    QLocalServer *m_server = nullptr;
};
