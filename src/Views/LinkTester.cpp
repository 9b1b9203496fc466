#include "Views/LinkTester.h"

#include "App/AppState.h"
#include "Models/Link.h"
#include "Platform/DiagnosticLog.h"
#include "Services/URLCleaner.h"
#include "Services/URLExpander.h"
#include "Services/URLRouter.h"
#include "Views/ViewKit.h"

#include <QLabel>
#include <QLineEdit>
#include <QVBoxLayout>

using namespace Qt::Literals::StringLiterals;

namespace {

QString browserName(const AppState &state, const QString &bundleID)
{
    for (const BrowserInfo &browser : state.browsers()) {
        if (browser.bundleID == bundleID)
            return browser.name;
    }
    return bundleID;
}

QString target(const AppState &state, const RouteResult &result)
{
    QString text = browserName(state, result.browserBundleID);
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
    for (const auto signal :
         {&AppState::rulesChanged, &AppState::browsersChanged,
          &AppState::defaultBrowserBundleIDChanged, &AppState::rulesEnabledChanged,
          &AppState::urlCleaningEnabledChanged, &AppState::urlExpansionEnabledChanged})
        connect(&m_state, signal, this, &LinkTester::update);
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

    QStringList lines;
    Link link = *parsed;
    if (state.urlCleaningEnabled()) {
        const Link cleaned = URLCleaner::clean(link);
        if (!(cleaned == link)) {
            lines.append(u"Checked as %1 (tracking parameters removed)."_s.arg(cleaned.toString()));
            link = cleaned;
        }
    }
    if (state.urlExpansionEnabled() && URLExpander::isShortLink(link))
        lines.append(u"A short link: it is expanded first, and the rules see where it leads."_s);

    const QString fallback = state.defaultBrowserBundleID();
    if (!state.rulesEnabled()) {
        lines.prepend(
            fallback.isEmpty()
                ? u"Rules are paused and no fallback browser is set: it would not open."_s
                : u"Opens in %1: rules are paused, so every link goes to the fallback browser."_s
                      .arg(browserName(state, fallback)));
        return lines.join(u'\n');
    }
    URLRouter::Decision decision;
    {
        // Testing is not routing: nothing goes to the diagnostic file.
        DiagnosticLog::Redirect quiet([](QStringView, QStringView) {});
        decision = URLRouter::decide(link, std::nullopt, state.rules(), fallback);
    }
    using Kind = URLRouter::Decision::Kind;
    QString answer;
    switch (decision.kind) {
    case Kind::UrlOnly:
        answer = u"Opens in %1 — URL rule \"%2\"."_s.arg(
            target(state, *decision.result),
            state.rules()[decision.ruleIndex].urlPattern.value_or(QString()));
        break;
    case Kind::Fallback:
        answer = u"Opens in %1 — the fallback browser: no URL rule matches."_s.arg(
            target(state, *decision.result));
        break;
    case Kind::NoRoute:
        answer = u"No URL rule matches and no fallback browser is set: it would not open."_s;
        break;
    case Kind::Combined:
    case Kind::SourceOnly:
        // Not without a source application; kept for completeness.
        answer = u"Opens in %1."_s.arg(target(state, *decision.result));
        break;
    }
    lines.prepend(answer);
    return lines.join(u'\n');
}
