#include "Views/LinkTester.h"

#include "App/AppState.h"
#include "Models/Link.h"
#include "Services/RoutePlanner.h"
#include "Views/ViewKit.h"

#include <QLabel>
#include <QLineEdit>
#include <QVBoxLayout>

using namespace Qt::Literals::StringLiterals;

namespace {

QString target(const AppState &state, const RouteResult &result)
{
    QString text = state.browsers().name(result.browserId);
    if (result.profileID)
        text += u", profile \"%1\""_s.arg(*result.profileID);
    return text;
}

} // namespace

LinkTester::LinkTester(AppState &state, QWidget *parent)
    : QWidget(parent)
    , m_state(state)
    , m_field(new QLineEdit)
    , m_result(ViewKit::caption({}))
{
    setObjectName(u"linkTester"_s);
    m_field->setObjectName(u"linkTesterField"_s);
    m_field->setAccessibleName(u"Test a link"_s);
    m_field->setPlaceholderText(u"Test a link: type or paste one to see where it opens"_s);
    m_field->setClearButtonEnabled(true);
    m_result->setObjectName(u"linkTesterResult"_s);
    m_result->setTextInteractionFlags(Qt::TextSelectableByMouse);
    m_result->hide();
    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(12, 10, 12, 8);
    layout->setSpacing(4);
    layout->addWidget(m_field);
    layout->addWidget(m_result);

    connect(m_field, &QLineEdit::textChanged, this, &LinkTester::update);
    // The answer follows the rules and switches while a link stands in the field.
    connect(&m_state, &AppState::configChanged, this, &LinkTester::update);
    connect(&m_state.browsers(), &BrowserCatalog::changed, this, &LinkTester::update);
}

void LinkTester::update()
{
    const QString text = verdict(m_state, m_field->text());
    m_result->setText(text);
    m_result->setVisible(!text.isEmpty());
}

QString LinkTester::verdict(const AppState &state, const QString &typed)
{
    const QString trimmed = typed.trimmed();
    if (trimmed.isEmpty())
        return {};
    const auto parsed = Link::parse(trimmed);
    if (!parsed || !parsed->isWebLink())
        return u"Not a web link: only http and https links are routed."_s;

    const RouteSettings settings = state.routeSettings();
    const RoutePolicy policy = RoutePolicy::linkTest();
    // Testing is not routing: no source, and the trail is not kept.
    RoutePlan plan = RoutePlanner::prepare(*parsed, std::nullopt, settings, policy);
    QStringList lines;
    if (plan.unwrappedSomething())
        lines.append(u"Unwrapped from its redirect link: %1"_s.arg(plan.unwrapped.toString()));
    if (plan.cleanedSomething())
        lines.append(
            u"Checked as %1 (tracking parameters removed)."_s.arg(plan.cleaned.toString()));
    if (plan.decision == RoutePlan::Decision::Paused) {
        lines.prepend(
            plan.result
                ? u"Opens in %1: rules are paused, so every link goes to the fallback browser."_s
                      .arg(state.browsers().name(plan.result->browserId))
                : u"Rules are paused and no fallback browser is set: it would not open."_s);
        return lines.join(u'\n');
    }
    if (plan.shortLink)
        lines.append(u"A short link: it is expanded first, and the rules see where it leads."_s);

    RoutePlanner::decide(plan, settings, policy);
    using Decision = RoutePlan::Decision;
    QString answer;
    switch (plan.decision) {
    case Decision::UrlOnly:
        answer = plan.asks()
                     ? u"Asks where to open it — URL rule \"%1\"."_s.arg(
                           settings.rules[plan.ruleIndex].urlPattern.value_or(QString()))
                     : u"Opens in %1 — URL rule \"%2\"."_s.arg(
                           target(state, *plan.result),
                           settings.rules[plan.ruleIndex].urlPattern.value_or(QString()));
        break;
    case Decision::Ask:
        answer = u"Asks where to open it: no URL rule matches, and the fallback is Ask."_s;
        break;
    case Decision::Fallback:
        answer = u"Opens in %1 — the fallback browser: no URL rule matches."_s.arg(
            target(state, *plan.result));
        break;
    case Decision::NoRoute:
        answer = u"No URL rule matches and no fallback browser is set: it would not open."_s;
        break;
    case Decision::Handoff:
        answer = u"Opens in %1 — %2 links go to its app (Apps tab)."_s.arg(plan.handoff->app.name,
                                                                           plan.handoff->name);
        break;
    case Decision::RunningBrowser:
        answer = u"Opens in %1 — it runs, and the fallback browser does not."_s.arg(
            target(state, *plan.result));
        break;
    default:
        // Not without a source application; kept for completeness.
        answer = u"Opens in %1."_s.arg(target(state, *plan.result));
        break;
    }
    lines.prepend(answer);
    return lines.join(u'\n');
}
