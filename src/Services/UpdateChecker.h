#pragma once

#include "Services/UpdateFeed.h"

#include <QObject>
#include <QPointer>
#include <QUrl>

class QNetworkAccessManager;
class QNetworkReply;

struct UpdateCheckResult
{
    enum class Outcome
    {
        NewerVersion,
        UpToDate,
        Failed
    };
    Outcome outcome = Outcome::Failed;
    UpdateOffer offer;
    QString error;
};

// Fetches the update feed and checks its signatures, without ever blocking the
// event loop. One check at a time.
class UpdateChecker final : public QObject
{
    Q_OBJECT

public:
    static constexpr int TimeoutMs = 15000;
    static constexpr qint64 MaxFeedBytes = 1024 * 1024;

    UpdateChecker(QUrl feed, QByteArray publicKey, QString currentVersion,
                  QObject *parent = nullptr);

    bool isChecking() const { return !m_reply.isNull(); }
    // Starts a check unless one is under way; finished() follows either way.
    void check();

Q_SIGNALS:
    void finished(const UpdateCheckResult &result);

private:
    void onFinished();

    QUrl m_feed;
    QByteArray m_publicKey;
    QString m_currentVersion;
    QNetworkAccessManager *m_network = nullptr;
    QPointer<QNetworkReply> m_reply;
    bool m_tooLarge = false;
};
