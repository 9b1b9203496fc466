#pragma once

#include <QDateTime>
#include <QObject>
#include <QTimer>
#include <QUrl>

#include <functional>
#include <memory>

class HistoryDatabase;
class UpdateChecker;
struct UpdateCheckResult;

// Checks for a newer Quillvane when asked, and by itself at most once a day
// while "Automatically check for updates" is on. Installing stays with the
// package manager; this only tells the user and links the release notes.
class UpdateController final : public QObject
{
public:
    static constexpr qint64 AutomaticIntervalSecs = 24 * 60 * 60;
    // Re-evaluated this often, so a machine that sleeps through the due time
    // checks soon after waking.
    static constexpr int ScheduleTickMs = 60 * 60 * 1000;
    // Not during the burst of work that starting with a link brings.
    static constexpr int FirstAutomaticCheckDelayMs = 30 * 1000;

    // Without a checker the build has no update feed: the package manager
    // updates it, which is what the command then says.
    // automatic: whether checks run by themselves now; the time of the last
    // check is kept in the history database.
    UpdateController(std::function<bool()> automatic, HistoryDatabase &history,
                     std::unique_ptr<UpdateChecker> checker,
                     std::function<void(const QUrl &)> openLink, QObject *parent = nullptr);
    ~UpdateController() override;

    // The builds' own checker, none when built without a feed address.
    static std::unique_ptr<UpdateChecker> makeBuildChecker();

    // Asked by the user: every result is shown.
    void checkForUpdates();
    void startAutomaticChecks();
    // Starts an automatic check when one is due; true when it did.
    bool checkIfDue();

    std::function<QDateTime()> clock = [] { return QDateTime::currentDateTimeUtc(); };

private:
    void start(bool userInitiated);
    void onFinished(const UpdateCheckResult &result);

    std::function<bool()> m_automatic;
    HistoryDatabase &m_history;
    std::unique_ptr<UpdateChecker> m_checker;
    std::function<void(const QUrl &)> m_openLink;
    QTimer m_schedule;
    bool m_showResult = false;
};
