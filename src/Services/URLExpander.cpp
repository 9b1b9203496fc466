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

// One expansion: its requests keep no cookie and use no cache, so nothing one
// server says reaches the next request.
class Expansion final : public QObject
{
public:
    explicit Expansion(const Link &url)
        : m_original(url)
        , m_current(url)
    {
        m_promise.start();
    }

    ~Expansion() override
    {
        if (m_reply) {
            disconnect(m_reply, nullptr, this, nullptr);
            m_reply->abort();
        }
        if (m_network)
            retire(m_network);
    }

    QFuture<Link> future() { return m_promise.future(); }

    void start()
    {
        qCInfo(lcUrlExpander).noquote() << u"Expanding URL: %1"_s.arg(m_original.toString());
        // A client of its own, so that nothing an earlier expansion left busy
        // (a hostile server's endless header) holds this one up.
        m_network = new QNetworkAccessManager;
        m_network->setCookieJar(nullptr);
        // A hard deadline per request: a server that trickles bytes must not keep
        // the link waiting, and a coarse timer may fire early.
        m_timer.setSingleShot(true);
        m_timer.setTimerType(Qt::PreciseTimer);
        m_timer.setInterval(RequestTimeoutMs);
        // Ends the walk at once: Qt's network thread may still be busy with what
        // the server sent (a header of megabytes) before it reports the abort.
        connect(&m_timer, &QTimer::timeout, this, [this] {
            if (!m_reply)
                return;
            QNetworkReply *reply = m_reply;
            m_reply = nullptr;
            disconnect(reply, nullptr, this, nullptr);
            reply->abort();
            reply->deleteLater();
            qCCritical(lcUrlExpander).noquote() << u"Expansion failed at step %1: %2"_s.arg(
                QString::number(m_step), u"The request timed out."_s);
            finish();
        });
        sendRequest();
    }

private:
    void sendRequest()
    {
        QNetworkRequest request(QUrl(m_current.toString(), QUrl::StrictMode));
        request.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                             QNetworkRequest::ManualRedirectPolicy);
        request.setAttribute(QNetworkRequest::CookieLoadControlAttribute, QNetworkRequest::Manual);
        request.setAttribute(QNetworkRequest::CookieSaveControlAttribute, QNetworkRequest::Manual);
        request.setAttribute(QNetworkRequest::CacheSaveControlAttribute, false);
        request.setAttribute(QNetworkRequest::CacheLoadControlAttribute,
                             QNetworkRequest::AlwaysNetwork);
        if (!request.url().isValid()) {
            qCCritical(lcUrlExpander).noquote() << u"Expansion failed at step %1: %2"_s.arg(
                QString::number(m_step), u"The link cannot be requested."_s);
            finish();
            return;
        }
        m_reply = m_network->head(request);
        connect(m_reply, &QNetworkReply::finished, this, &Expansion::onFinished);
        m_timer.start();
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
                const QString description = reply->errorString();
                qCCritical(lcUrlExpander).noquote() << u"Expansion failed at step %1: %2"_s.arg(
                    QString::number(m_step), description);
            } else {
                qCDebug(lcUrlExpander).noquote()
                    << u"Non-HTTP response at step %1; stopping expansion"_s.arg(m_step);
            }
            finish();
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
            QString::number(m_step), QString::number(status), next->toString());
        m_current = *next;
        if (m_step == MaxRequests - 1) {
            finish();
            return;
        }
        ++m_step;
        sendRequest();
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

    void finish()
    {
        if (m_current == m_original) {
            qCDebug(lcUrlExpander).noquote()
                << u"URL unchanged after expansion attempt: %1"_s.arg(m_original.toString());
        } else {
            qCInfo(lcUrlExpander).noquote()
                << u"Expanded: %1 → %2"_s.arg(m_original.toString(), m_current.toString());
        }
        m_promise.addResult(m_current);
        m_promise.finish();
        deleteLater();
    }

    Link m_original;
    Link m_current;
    int m_step = 0;
    QPromise<Link> m_promise;
    QNetworkAccessManager *m_network = nullptr;
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

QFuture<Link> expand(const Link &url)
{
    auto *expansion = new Expansion(url);
    QFuture<Link> future = expansion->future();
    expansion->start();
    return future;
}

} // namespace URLExpander
