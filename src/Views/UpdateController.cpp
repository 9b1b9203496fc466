#include "Views/UpdateController.h"

#include "Models/BuildInfo.h"
#include "Services/UpdateChecker.h"
#include "Storage/HistoryDatabase.h"
#include "Views/MessageBox.h"

#include <QLoggingCategory>
#include <QPointer>

using namespace Qt::Literals::StringLiterals;

Q_LOGGING_CATEGORY(lcUpdates, "work.vorpa.Quillvane.Updates")

namespace {
const char *const LastCheckKey = "lastUpdateCheck";
} // namespace

UpdateController::UpdateController(std::function<bool()> automatic, HistoryDatabase &history,
                                   std::unique_ptr<UpdateChecker> checker,
                                   std::function<void(const QUrl &)> openLink, QObject *parent)
    : QObject(parent)
    , m_automatic(std::move(automatic))
    , m_history(history)
    , m_checker(std::move(checker))
    , m_openLink(std::move(openLink))
{
    if (m_checker)
        connect(m_checker.get(), &UpdateChecker::finished, this, &UpdateController::onFinished);
    connect(&m_schedule, &QTimer::timeout, this, [this] {
        checkIfDue();
        m_schedule.setInterval(ScheduleTickMs);
    });
}

UpdateController::~UpdateController() = default;

std::unique_ptr<UpdateChecker> UpdateController::makeBuildChecker()
{
    const QString feed = QString::fromUtf16(BuildInfo::UpdateFeed);
    if (feed.isEmpty())
        return nullptr;
    return std::make_unique<UpdateChecker>(QUrl(feed),
                                           QByteArray::fromBase64(BuildInfo::UpdatePublicKey),
                                           QString::fromUtf16(BuildInfo::Version));
}

void UpdateController::checkForUpdates()
{
    if (!m_checker) {
        QTimer::singleShot(0, this, [] {
            MessageBox::inform(u"Check for Updates"_s,
                               QString::fromUtf16(BuildInfo::UpdatesByPackageManager));
        });
        return;
    }
    start(true);
}

void UpdateController::startAutomaticChecks()
{
    if (!m_checker)
        return;
    m_schedule.start(FirstAutomaticCheckDelayMs);
}

bool UpdateController::checkIfDue()
{
    if (!m_checker || m_checker->isChecking() || !m_automatic())
        return false;
    const QDateTime last = QDateTime::fromString(m_history.metaValue(LastCheckKey), Qt::ISODate);
    const QDateTime now = clock();
    // A last check in the future means the clock was wrong then or is now.
    if (last.isValid() && last <= now && last.secsTo(now) < AutomaticIntervalSecs)
        return false;
    start(false);
    return true;
}

void UpdateController::start(bool userInitiated)
{
    // A user's check joins one already under way and shows its result.
    m_showResult = m_showResult || userInitiated;
    if (m_checker->isChecking())
        return;
    m_history.setMetaValue(LastCheckKey, clock().toString(Qt::ISODate));
    qCInfo(lcUpdates).noquote() << (userInitiated ? u"Checking for updates"_s
                                                  : u"Checking for updates automatically"_s);
    m_checker->check();
}

void UpdateController::onFinished(const UpdateCheckResult &result)
{
    const bool show = std::exchange(m_showResult, false);
    using Outcome = UpdateCheckResult::Outcome;
    switch (result.outcome) {
    case Outcome::Failed:
        qCWarning(lcUpdates).noquote() << u"Update check failed: %1"_s.arg(result.error);
        if (show)
            MessageBox::inform(u"Update Error!"_s, result.error);
        return;
    case Outcome::UpToDate:
        qCInfo(lcUpdates).noquote() << u"Quillvane is up to date"_s;
        if (show)
            MessageBox::inform(u"You're up to date!"_s,
                               u"Quillvane %1 is currently the newest version available."_s.arg(
                                   QString::fromUtf16(BuildInfo::Version)));
        return;
    case Outcome::NewerVersion:
        break;
    }
    qCInfo(lcUpdates).noquote() << u"Quillvane %1 is available"_s.arg(result.offer.version);
    // Offered whoever started the check: that is what checking is for.
    QStringList buttons{u"OK"_s};
    if (result.offer.releaseNotes.isValid())
        buttons.prepend(u"Release Notes"_s);
    MessageBox::ask(
        u"A new version of Quillvane is available!"_s,
        u"Quillvane %1 is now available (you have %2). Install it with your package manager."_s.arg(
            result.offer.version, QString::fromUtf16(BuildInfo::Version)),
        buttons, int(buttons.size()) - 1,
        [self = QPointer(this), notes = result.offer.releaseNotes, count = buttons.size()](int answer) {
            if (self && answer == 0 && count == 2 && self->m_openLink)
                self->m_openLink(notes);
        });
}
