#include "Services/URLExpander.h"

#include "Platform/SystemLog.h"

#include <QCoreApplication>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QPointer>
#include <QPromise>
#include <QStringDecoder>
#include <QThread>
#include <QTimer>
#include <QtEndian>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

QUILLVANE_LOGGING_CATEGORY(lcUrlExpander, "URLExpander")

namespace URLExpander {

namespace {

// Where the network clients of finished expansions are destroyed. Destroying
// one waits for its network thread, which may be busy for seconds with what a
// hostile server sent (a header of megabytes); that wait must not stop the
// main thread.
QThread &retirement()
{
    // Ended with the process: a client still being destroyed then is left to it.
    struct Retirement
    {
        QThread *thread = new QThread;
        Retirement()
        {
            thread->setObjectName(u"URLExpander retirement"_s);
            thread->start(QThread::LowestPriority);
        }
        ~Retirement()
        {
            thread->quit();
            if (thread->wait(1000))
                delete thread;
        }
    };
    static Retirement retirement;
    return *retirement.thread;
}

void retire(QNetworkAccessManager *network)
{
    network->moveToThread(&retirement());
    network->deleteLater();
}

QFuture<QHostInfo> systemLookUp(const QString &host)
{
    auto promise = std::make_shared<QPromise<QHostInfo>>();
    promise->start();
    QHostInfo::lookupHost(host, QCoreApplication::instance(), [promise](const QHostInfo &info) {
        promise->addResult(info);
        promise->finish();
    });
    return promise->future();
}

// One expansion: its requests keep no cookie and use no cache, so nothing one
// server says reaches the next request.
class Expansion final : public QObject
{
public:
    Expansion(const Link &url, Network network)
        : m_original(url)
        , m_current(url)
        , m_network(std::move(network))
    {
        if (!m_network.lookUp)
            m_network.lookUp = &systemLookUp;
        m_promise.start();
    }

    ~Expansion() override
    {
        if (m_reply) {
            disconnect(m_reply, nullptr, this, nullptr);
            m_reply->abort();
        }
        if (m_client)
            retire(m_client);
    }

    QFuture<Link> future() { return m_promise.future(); }

    void start()
    {
        qCInfo(lcUrlExpander).noquote() << u"Expanding URL: %1"_s.arg(SystemLog::link(m_original));
        // A client of its own, so that nothing an earlier expansion left busy
        // (a hostile server's endless header) holds this one up.
        m_client = new QNetworkAccessManager;
        m_client->setCookieJar(nullptr);
        // A hard deadline per hop, its look-up included: a server that trickles
        // bytes must not keep the link waiting, and a coarse timer may fire early.
        m_timer.setSingleShot(true);
        m_timer.setTimerType(Qt::PreciseTimer);
        m_timer.setInterval(RequestTimeoutMs);
        // Ends the walk at once: Qt's network thread may still be busy with what
        // the server sent (a header of megabytes) before it reports the abort.
        connect(&m_timer, &QTimer::timeout, this, [this] {
            if (QNetworkReply *reply = m_reply) {
                m_reply = nullptr;
                disconnect(reply, nullptr, this, nullptr);
                reply->abort();
                reply->deleteLater();
            }
            fail(u"The request timed out."_s);
        });
        nextHop();
    }

private:
    void nextHop()
    {
        const QUrl target(m_current.toString(), QUrl::StrictMode);
        const QString host = target.host(QUrl::FullyEncoded);
        if (!target.isValid() || host.isEmpty()) {
            fail(u"The link cannot be requested."_s);
            return;
        }
        m_timer.start();
        if (const QHostAddress literal(host); !literal.isNull()) {
            if (allowed(literal))
                send(QNetworkRequest(target));
            return;
        }
        m_network.lookUp(host).then(this, [this, target, hop = m_step](const QHostInfo &info) {
            if (!m_finished && hop == m_step)
                lookedUp(target, info);
        });
    }

    void lookedUp(const QUrl &target, const QHostInfo &info)
    {
        QList<QHostAddress> addresses = info.addresses();
        if (info.error() != QHostInfo::NoError || addresses.isEmpty()) {
            fail(info.errorString().isEmpty() ? u"The host was not found."_s : info.errorString());
            return;
        }
        // Every answer must be allowed: a name that also points home is refused.
        for (const QHostAddress &address : std::as_const(addresses)) {
            if (!allowed(address))
                return;
        }
        std::stable_partition(addresses.begin(), addresses.end(), [](const QHostAddress &a) {
            return a.protocol() == QAbstractSocket::IPv4Protocol;
        });
        // To the address that was checked, not to the name, which may answer
        // differently the next time it is asked. The server and the certificate
        // still see the name.
        QUrl pinned(target);
        pinned.setHost(addresses.first().toString());
        QNetworkRequest request(pinned);
        QByteArray hostHeader = target.host(QUrl::FullyEncoded).toLatin1();
        if (target.port() != -1)
            hostHeader += ':' + QByteArray::number(target.port());
        request.setRawHeader("Host", hostHeader);
        request.setPeerVerifyName(target.host(QUrl::FullyEncoded));
        send(std::move(request));
    }

    bool allowed(const QHostAddress &address)
    {
        if (m_network.mayConnect(address))
            return true;
        qCWarning(lcUrlExpander).noquote()
            << u"Expansion stopped at step %1: %2 is a local or private address"_s.arg(
                   QString::number(m_step), address.toString());
        finish();
        return false;
    }

    void send(QNetworkRequest request)
    {
        request.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                             QNetworkRequest::ManualRedirectPolicy);
        request.setAttribute(QNetworkRequest::CookieLoadControlAttribute, QNetworkRequest::Manual);
        request.setAttribute(QNetworkRequest::CookieSaveControlAttribute, QNetworkRequest::Manual);
        request.setAttribute(QNetworkRequest::CacheSaveControlAttribute, false);
        request.setAttribute(QNetworkRequest::CacheLoadControlAttribute,
                             QNetworkRequest::AlwaysNetwork);
        m_reply = m_client->head(request);
        connect(m_reply, &QNetworkReply::finished, this, &Expansion::onFinished);
    }

    void onFinished()
    {
        m_timer.stop();
        QNetworkReply *reply = m_reply;
        m_reply = nullptr;
        reply->deleteLater();

        const QVariant statusAttribute = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
        if (!statusAttribute.isValid()) {
            if (reply->error() != QNetworkReply::NoError) {
                fail(reply->errorString());
            } else {
                qCDebug(lcUrlExpander).noquote()
                    << u"Non-HTTP response at step %1; stopping expansion"_s.arg(m_step);
                finish();
            }
            return;
        }

        const int status = statusAttribute.toInt();
        const std::optional<Link> next =
            status >= 300 && status <= 399 ? redirectTarget(*reply) : std::nullopt;
        if (!next) {
            qCDebug(lcUrlExpander).noquote() << u"Status %1 at step %2; final URL reached"_s.arg(
                QString::number(status), QString::number(m_step));
            finish();
            return;
        }
        if (!next->isWebLink()) {
            qCInfo(lcUrlExpander).noquote()
                << u"Redirect to a link that is not http or https at step %1; final URL reached"_s
                       .arg(m_step);
            finish();
            return;
        }

        qCDebug(lcUrlExpander).noquote() << u"Step %1: %2 → %3"_s.arg(
            QString::number(m_step), QString::number(status), SystemLog::link(*next));
        m_current = *next;
        if (m_step == MaxRequests - 1) {
            finish();
            return;
        }
        ++m_step;
        nextHop();
    }

    // The first Location header, resolved against the link that was asked.
    std::optional<Link> redirectTarget(const QNetworkReply &reply) const
    {
        for (const auto &[name, value] : reply.rawHeaderPairs()) {
            if (name.compare("location", Qt::CaseInsensitive) == 0)
                return URLExpander::resolveLocation(m_current, value);
        }
        return std::nullopt;
    }

    void fail(const QString &description)
    {
        qCCritical(lcUrlExpander).noquote() << u"Expansion failed at step %1: %2"_s.arg(
            QString::number(m_step), SystemLog::withLink(description, m_current));
        finish();
    }

    void finish()
    {
        if (m_finished)
            return;
        m_finished = true;
        m_timer.stop();
        if (m_current == m_original) {
            qCDebug(lcUrlExpander).noquote()
                << u"URL unchanged after expansion attempt: %1"_s.arg(SystemLog::link(m_original));
        } else {
            qCInfo(lcUrlExpander).noquote() << u"Expanded: %1 → %2"_s.arg(
                SystemLog::link(m_original), SystemLog::link(m_current));
        }
        m_promise.addResult(m_current);
        m_promise.finish();
        deleteLater();
    }

    Link m_original;
    Link m_current;
    Network m_network;
    int m_step = 0;
    bool m_finished = false;
    QPromise<Link> m_promise;
    QNetworkAccessManager *m_client = nullptr;
    QPointer<QNetworkReply> m_reply;
    QTimer m_timer;
};

} // namespace

std::optional<Link> resolveLocation(const Link &current, QByteArrayView location)
{
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    const QString text = decoder.decode(location);
    if (decoder.hasError() || text.trimmed().isEmpty())
        return std::nullopt;
    auto resolved = current.resolved(text);
    if (!resolved)
        return std::nullopt;
    return std::move(resolved).value();
}

const QSet<QString> &shortDomains()
{
    static const QSet<QString> domains{
        u"bit.ly"_s,  u"t.co"_s,    u"tinyurl.com"_s, u"goo.gl"_s,  u"ow.ly"_s,
        u"is.gd"_s,   u"buff.ly"_s, u"rebrand.ly"_s,  u"cutt.ly"_s, u"shorturl.at"_s,
        u"tiny.cc"_s, u"rb.gy"_s,   u"lnkd.in"_s,
    };
    return domains;
}

bool isShortLink(const Link &url)
{
    return url.hasHost() && shortDomains().contains(url.host().toLower());
}

bool isPublicAddress(const QHostAddress &address)
{
    bool isIPv4 = false;
    const quint32 ipv4 = address.toIPv4Address(&isIPv4);
    if (isIPv4) {
        static const QList<std::pair<QHostAddress, int>> refused = [] {
            QList<std::pair<QHostAddress, int>> subnets;
            for (const char *subnet :
                 {"0.0.0.0/8", "10.0.0.0/8", "100.64.0.0/10", "127.0.0.0/8", "169.254.0.0/16",
                  "172.16.0.0/12", "192.0.0.0/24", "192.0.2.0/24", "192.88.99.0/24",
                  "192.168.0.0/16", "198.18.0.0/15", "198.51.100.0/24", "203.0.113.0/24",
                  "224.0.0.0/3"})
                subnets.append(QHostAddress::parseSubnet(QString::fromLatin1(subnet)));
            return subnets;
        }();
        const QHostAddress plain(ipv4);
        return std::none_of(refused.begin(), refused.end(),
                            [&](const auto &subnet) { return plain.isInSubnet(subnet); });
    }
    if (address.protocol() != QAbstractSocket::IPv6Protocol)
        return false;
    // IPv4 carried in IPv6 by NAT64 or 6to4 counts as the address it carries.
    const Q_IPV6ADDR bytes = address.toIPv6Address();
    const auto carried = [&](int offset) {
        return isPublicAddress(QHostAddress(qFromBigEndian<quint32>(bytes.c + offset)));
    };
    if (address.isInSubnet(QHostAddress::parseSubnet(u"64:ff9b::/96"_s)))
        return carried(12);
    if (address.isInSubnet(QHostAddress::parseSubnet(u"2002::/16"_s)))
        return carried(2);
    // Global unicast only, less what is set aside for documentation, benchmarks
    // and tunnels.
    return address.isInSubnet(QHostAddress::parseSubnet(u"2000::/3"_s))
           && !address.isInSubnet(QHostAddress::parseSubnet(u"2001:db8::/32"_s))
           && !address.isInSubnet(QHostAddress::parseSubnet(u"2001::/23"_s));
}

QFuture<Link> expand(const Link &url, const Network &network)
{
    auto *expansion = new Expansion(url, network);
    QFuture<Link> future = expansion->future();
    expansion->start();
    return future;
}

} // namespace URLExpander
