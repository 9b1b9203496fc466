#include "Services/UpdateChecker.h"

#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>

using namespace Qt::Literals::StringLiterals;

UpdateChecker::UpdateChecker(QUrl feed, QByteArray publicKey, QString currentVersion,
                             QObject *parent)
    : QObject(parent)
    , m_feed(std::move(feed))
    , m_publicKey(std::move(publicKey))
    , m_currentVersion(std::move(currentVersion))
{}

void UpdateChecker::check()
{
    if (isChecking())
        return;
    if (!m_network)
        m_network = new QNetworkAccessManager(this);
    QNetworkRequest request(m_feed);
    request.setTransferTimeout(TimeoutMs);
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                         QNetworkRequest::NoLessSafeRedirectPolicy);
    request.setHeader(QNetworkRequest::UserAgentHeader,
                      QString(u"Quillvane/"_s + m_currentVersion));
    m_tooLarge = false;
    m_reply = m_network->get(request);
    // A feed is a few kilobytes; anything this large is not one.
    connect(m_reply, &QNetworkReply::downloadProgress, this, [this](qint64 received, qint64) {
        if (received > MaxFeedBytes && m_reply) {
            m_tooLarge = true;
            m_reply->abort();
        }
    });
    connect(m_reply, &QNetworkReply::finished, this, &UpdateChecker::onFinished);
}

void UpdateChecker::onFinished()
{
    QNetworkReply *reply = m_reply;
    m_reply.clear();
    reply->deleteLater();

    UpdateCheckResult result;
    if (m_tooLarge) {
        result.error = u"The update feed is larger than 1 MB, so it was not read."_s;
    } else if (reply->error() != QNetworkReply::NoError) {
        result.error = u"The update feed could not be loaded: %1."_s.arg(reply->errorString());
    } else {
        const auto offer = UpdateFeed::newestOffer(reply->readAll(), m_publicKey, m_currentVersion);
        if (!offer) {
            result.error = offer.error();
        } else if (offer->has_value()) {
            result.outcome = UpdateCheckResult::Outcome::NewerVersion;
            result.offer = **offer;
        } else {
            result.outcome = UpdateCheckResult::Outcome::UpToDate;
        }
    }
    Q_EMIT finished(result);
}
