#include "Views/HistoryModel.h"

using namespace Qt::Literals::StringLiterals;

HistoryModel::HistoryModel(QObject *parent)
    : QAbstractListModel(parent)
{}

void HistoryModel::setRecords(QList<ForwardingRecord> records)
{
    beginResetModel();
    m_records = std::move(records);
    endResetModel();
}

void HistoryModel::refreshTimes()
{
    if (!m_records.isEmpty())
        Q_EMIT dataChanged(index(0), index(int(m_records.size()) - 1), {RelativeTimeRole});
}

int HistoryModel::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : int(m_records.size());
}

QVariant HistoryModel::data(const QModelIndex &index, int role) const
{
    if (!index.isValid() || index.row() >= m_records.size())
        return {};
    const ForwardingRecord &record = m_records[index.row()];
    switch (role) {
    case SourceNameRole:
        return record.sourceAppName.value_or(u"Unknown"_s);
    case BrowserNameRole:
        return record.targetBrowserName;
    case RuleRole:
        return record.decisionText();
    case PausedRole:
        return record.decidedByPause();
    case RelativeTimeRole:
        return relativeTime(record.timestamp, QDateTime::currentDateTimeUtc());
    case UrlRole:
    case Qt::ToolTipRole:
        return record.originalURL;
    case Qt::DisplayRole:
        return u"%1 › %2  %3"_s.arg(record.sourceAppName.value_or(u"Unknown"_s),
                                    record.targetBrowserName, record.originalURL);
    default:
        return {};
    }
}

QString HistoryModel::countText(qsizetype count)
{
    return u"%1 record%2"_s.arg(count).arg(count == 1 ? u""_s : u"s"_s);
}

QString HistoryModel::relativeTime(const QDateTime &then, const QDateTime &now)
{
    const qint64 seconds = then.secsTo(now);
    const auto ago = [](qint64 n, const char *unit) {
        return u"%1 %2%3 ago"_s.arg(n).arg(QLatin1StringView(unit), n == 1 ? u""_s : u"s"_s);
    };
    if (seconds < 0)
        return u"in the future"_s;
    if (seconds < 10)
        return u"just now"_s;
    if (seconds < 60)
        return ago(seconds, "second");
    if (seconds < 3600)
        return ago(seconds / 60, "minute");
    if (seconds < 86400)
        return ago(seconds / 3600, "hour");
    if (seconds < 7 * 86400)
        return ago(seconds / 86400, "day");
    if (seconds < 30 * 86400)
        return ago(seconds / (7 * 86400), "week");
    if (seconds < 365 * 86400)
        return ago(seconds / (30 * 86400), "month");
    return ago(seconds / (365 * 86400), "year");
}
