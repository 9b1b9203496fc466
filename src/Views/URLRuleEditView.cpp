#include "Views/URLRuleEditView.h"

#include "Views/ViewKit.h"

#include <QLabel>
#include <QLineEdit>
#include <QVBoxLayout>

using namespace Qt::Literals::StringLiterals;

namespace {
const QString ExampleDomain = u"github.com"_s;
} // namespace

URLRuleEditView::URLRuleEditView(AppState &state, RuleEditServices services,
                                 std::optional<RoutingRule> existing, QWidget *parent)
    : RuleEditView(state, std::move(services), std::move(existing),
                   {u"URL Rule"_s, QSize(440, 460), true}, parent)
    , m_pattern(new QLineEdit)
    , m_note(ViewKit::caption({}))
    , m_help(new QWidget)
{
    setObjectName(u"urlRuleSheet"_s);
    QVBoxLayout *section =
        ViewKit::addSection(form(), u"insert-link"_s, u"URL Pattern"_s, false, 6);
    m_pattern->setObjectName(u"patternField"_s);
    m_pattern->setAccessibleName(u"URL Pattern"_s);
    m_pattern->setPlaceholderText(u"e.g. "_s + ExampleDomain);
    m_note->setObjectName(u"patternNote"_s);
    m_note->setTextFormat(Qt::RichText);
    m_note->setForegroundRole(QPalette::NoRole);
    m_note->setStyleSheet(u"color: #c86400;"_s);

    m_help->setObjectName(u"patternHelp"_s);
    auto *help = new QVBoxLayout(m_help);
    help->setContentsMargins(0, 0, 0, 0);
    help->setSpacing(2);
    const QStringList lines{ExampleDomain + u" — matches domain & subdomains"_s,
                            u"*"_s + ExampleDomain + u"/repo* — wildcard matching"_s,
                            u"docs.example.com/api — substring matching"_s};
    for (const QString &line : lines) {
        QLabel *label = ViewKit::caption(line);
        label->setTextFormat(Qt::PlainText);
        help->addWidget(label);
    }
    section->addWidget(m_pattern);
    section->addWidget(m_note);
    section->addWidget(m_help);
    connect(m_pattern, &QLineEdit::textChanged, this, &URLRuleEditView::patternChanged);

    if (const auto rule = existingRule())
        m_pattern->setText(rule->urlPattern.value_or(QString()));
    patternChanged();
    finishForm();
    m_pattern->setFocus();
}

QString URLRuleEditView::trimmedPattern(const QString &typed)
{
    const QString trimmed = typed.trimmed();
    for (const QStringView prefix : {u"https://", u"http://"}) {
        if (trimmed.startsWith(prefix, Qt::CaseInsensitive))
            return trimmed.mid(prefix.size());
    }
    return trimmed;
}

bool URLRuleEditView::hasProtocolPrefix(const QString &typed)
{
    const QString trimmed = typed.trimmed();
    return trimmed.startsWith(u"https://"_s, Qt::CaseInsensitive)
           || trimmed.startsWith(u"http://"_s, Qt::CaseInsensitive);
}

void URLRuleEditView::patternChanged()
{
    const bool prefix = hasProtocolPrefix(m_pattern->text());
    if (prefix)
        m_note->setText(u"https:// prefix will be removed automatically. The pattern <b>%1</b> "
                        "matches the domain and its subdomains."_s.arg(
                            trimmedPattern(m_pattern->text()).toHtmlEscaped()));
    m_note->setVisible(prefix);
    m_help->setVisible(!prefix);
    updateSaveButton();
}

bool URLRuleEditView::canSaveOwnFields() const
{
    return !trimmedPattern(m_pattern->text()).isEmpty();
}

RoutingRule URLRuleEditView::ownFields() const
{
    RoutingRule rule;
    rule.urlPattern = trimmedPattern(m_pattern->text());
    return rule;
}
