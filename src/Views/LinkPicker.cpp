#include "Views/LinkPicker.h"

#include "App/AppState.h"
#include "Models/DisplayText.h"
#include "Platform/WindowActivation.h"
#include "Services/ProfileDiscovery.h"
#include "Views/BrowserIcons.h"
#include "Views/ViewKit.h"

#include <QApplication>

#include <algorithm>
#include <QCheckBox>
#include <QClipboard>
#include <QCloseEvent>
#include <QCursor>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QScreen>
#include <QUrl>
#include <QVBoxLayout>

using namespace Qt::Literals::StringLiterals;

namespace {

constexpr int BrowserRole = Qt::UserRole + 1;
constexpr int ProfileRole = Qt::UserRole + 2;
constexpr int NameRole = Qt::UserRole + 3;
constexpr int AppRole = Qt::UserRole + 4;
constexpr int LinkWidth = 400;
// X11 key codes of the digits 1 to 9 above the letters: with Shift held, the
// key is "!" or "\"" (whatever the layout puts there), the code stays.
constexpr quint32 FirstDigitKeyCode = 10;

// The host as a person reads it: Unicode where the link has its ASCII form and
// the top-level domain allows only unambiguous names (Qt's IDN list, as
// browsers do); the ASCII form elsewhere, so that a look-alike name cannot
// pass for another.
QString readableHost(const Link &link)
{
    return QUrl::fromAce(link.host().toLatin1()).toLower();
}

} // namespace

LinkPicker::LinkPicker(AppState &state, DesktopEntries &entries, QWidget *parent)
    : QWidget(parent, Qt::Window | Qt::WindowStaysOnTopHint)
    , m_state(state)
    , m_entries(entries)
    , m_host(new QLabel)
    , m_link(new QLabel)
    , m_sourceIcon(new QLabel)
    , m_source(new QLabel)
    , m_waiting(new QLabel)
    , m_filter(new QLineEdit)
    , m_rows(new QListWidget)
    , m_rememberHost(new QCheckBox)
    , m_rememberApp(new QCheckBox)
{
    setObjectName(u"linkPicker"_s);
    setWindowTitle(u"Open Link — Quillvane"_s);
    setWindowIcon(QIcon::fromTheme(u"work.vorpa.Quillvane"_s));

    m_host->setObjectName(u"pickerHost"_s);
    m_host->setFont(ViewKit::scaled(font(), 1.35, QFont::DemiBold));
    m_host->setTextFormat(Qt::PlainText);
    m_link->setObjectName(u"pickerLink"_s);
    m_link->setTextFormat(Qt::PlainText);
    m_link->setForegroundRole(QPalette::PlaceholderText);
    m_link->setFixedWidth(LinkWidth);
    m_source->setObjectName(u"pickerSource"_s);
    m_sourceIcon->setObjectName(u"pickerSourceIcon"_s);
    m_waiting->setObjectName(u"pickerWaiting"_s);
    m_waiting->setFont(ViewKit::scaled(font(), 0.9, QFont::Medium));
    m_filter->setObjectName(u"pickerFilter"_s);
    m_filter->setPlaceholderText(u"Type to filter the browsers"_s);
    m_filter->setClearButtonEnabled(true);
    m_rows->setObjectName(u"pickerRows"_s);
    m_rows->setIconSize(QSize(20, 20));
    m_rows->setAccessibleName(u"Browsers"_s);
    m_rememberHost->setObjectName(u"pickerRememberHost"_s);
    m_rememberApp->setObjectName(u"pickerRememberApp"_s);

    auto *hint = ViewKit::caption(
        u"1–9 or Enter opens · Shift: private window · Esc: don't open · Ctrl+C copies the link"_s);
    hint->setObjectName(u"pickerHint"_s);

    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(18, 16, 18, 14);
    layout->setSpacing(8);
    layout->addWidget(m_host);
    layout->addWidget(m_link);
    auto *sourceRow = new QHBoxLayout;
    sourceRow->setSpacing(6);
    sourceRow->addWidget(m_sourceIcon);
    sourceRow->addWidget(m_source);
    sourceRow->addStretch();
    sourceRow->addWidget(m_waiting);
    layout->addLayout(sourceRow);
    layout->addWidget(m_filter);
    layout->addWidget(m_rows);
    layout->addWidget(m_rememberHost);
    layout->addWidget(m_rememberApp);
    layout->addWidget(hint);
    layout->addStretch();
    // Always its natural size: tiling compositors (sway, Hyprland) float a
    // window whose size cannot change, where they would tile any other over
    // the whole screen.
    layout->setSizeConstraint(QLayout::SetFixedSize);

    connect(m_filter, &QLineEdit::textChanged, this, &LinkPicker::filterRows);
    // A browser installed or a profile renamed while the window asks.
    for (const auto changed : {&BrowserCatalog::changed, &BrowserCatalog::profilesChanged}) {
        connect(&m_state.browsers(), changed, this, [this] {
            if (!m_queue.isEmpty()) {
                fillRows();
                filterRows(m_filter->text());
            }
        });
    }
    connect(m_rows, &QListWidget::itemClicked, this, [this](QListWidgetItem *item) {
        choose(item, QGuiApplication::keyboardModifiers().testFlag(Qt::ShiftModifier));
    });
    // The keys work wherever the focus is in the window.
    for (QWidget *watched : std::initializer_list<QWidget *>{m_rows, m_filter, m_rememberHost,
                                                             m_rememberApp})
        watched->installEventFilter(this);
    // Made now, so that a link's window appears at once.
    winId();
}

void LinkPicker::ask(const AskRequest &request, std::function<void(const AskAnswer &)> answer)
{
    m_queue.append({request, std::move(answer)});
    if (m_queue.size() == 1) {
        showCurrent();
        return;
    }
    m_waiting->setText(u"%1 links waiting"_s.arg(m_queue.size()));
    m_waiting->show();
}

void LinkPicker::showCurrent()
{
    const AskRequest &request = m_queue.first().request;
    const QString host = readableHost(request.link);
    m_host->setText(host.isEmpty() ? request.link.toString() : host);
    const QString link = request.link.toString();
    m_link->setText(m_link->fontMetrics().elidedText(link, Qt::ElideMiddle, LinkWidth));
    m_link->setToolTip(link);
    if (request.source) {
        m_source->setText(u"From %1"_s.arg(DisplayText::escapeControls(request.source->name)));
        m_source->setToolTip(request.source->desktopId);
        m_sourceIcon->setPixmap(
            BrowserIcons::appIcon(request.source->desktopId, m_entries).pixmap(16, 16));
    } else {
        m_source->setText(u"From an unknown application"_s);
        m_source->setToolTip({});
    }
    m_sourceIcon->setVisible(request.source.has_value());
    m_waiting->setText(u"%1 links waiting"_s.arg(m_queue.size()));
    m_waiting->setVisible(m_queue.size() > 1);
    m_rememberHost->setText(u"Always open links from %1 here"_s.arg(host));
    m_rememberHost->setChecked(false);
    m_rememberHost->setVisible(!host.isEmpty());
    m_rememberApp->setChecked(false);
    m_rememberApp->setVisible(request.source.has_value());
    if (request.source)
        m_rememberApp->setText(u"Always open links from %1 here"_s.arg(
            DisplayText::escapeControls(request.source->name)));
    m_filter->clear();
    fillRows();

    if (!isVisible()) {
        if (QWindow *window = windowHandle())
            WindowActivation::prepare(*window, request.activationToken);
        // On the screen the pointer is on: where the user is looking.
        const QScreen *screen = QGuiApplication::screenAt(QCursor::pos());
        if (!screen)
            screen = QGuiApplication::primaryScreen();
        if (screen)
            move(screen->availableGeometry().center() - rect().center());
    }
    show();
    raise();
    activateWindow();
    m_rows->setFocus();
}

void LinkPicker::fillRows()
{
    m_rows->clear();
    const QString first = m_queue.first().request.offeredFirst;
    QList<BrowserInfo> browsers = m_state.browsers().shown(first);
    std::stable_partition(browsers.begin(), browsers.end(), [&first](const BrowserInfo &browser) {
        return browser.desktopId == first;
    });
    // The service's own app comes before every browser: its switch is off, and
    // this is where the user learns that it could open the link.
    if (const auto &app = m_queue.first().request.app) {
        const QString name = u"%1 (app)"_s.arg(app->app.name);
        auto *item = new QListWidgetItem(BrowserIcons::appIcon(app->app.id, m_entries), name);
        item->setData(BrowserRole, app->app.id);
        item->setData(NameRole, name);
        item->setData(AppRole, true);
        m_rows->addItem(item);
    }
    for (const BrowserInfo &browser : std::as_const(browsers)) {
        const QIcon icon = BrowserIcons::icon(browser, m_entries);
        const auto add = [&](const QString &name, const std::optional<QString> &profile) {
            auto *item = new QListWidgetItem(icon, name);
            item->setData(BrowserRole, browser.desktopId);
            if (profile)
                item->setData(ProfileRole, *profile);
            item->setData(NameRole, name);
            m_rows->addItem(item);
        };
        add(browser.name, std::nullopt);
        for (const BrowserProfile &profile : m_state.browsers().profiles(browser.desktopId))
            add(u"%1 — %2"_s.arg(browser.name, profile.name), profile.id);
    }
    numberRows();
    // As tall as its rows, up to nine of them (what the digits reach).
    const int shown = std::clamp(m_rows->count(), 1, 9);
    m_rows->setFixedHeight(shown * std::max(m_rows->sizeHintForRow(0), 20)
                           + 2 * m_rows->frameWidth() + 2);
    adjustSize();
}

void LinkPicker::filterRows(const QString &text)
{
    for (int i = 0; i < m_rows->count(); ++i) {
        QListWidgetItem *item = m_rows->item(i);
        item->setHidden(!item->data(NameRole).toString().contains(text.trimmed(),
                                                                  Qt::CaseInsensitive));
    }
    numberRows();
}

void LinkPicker::numberRows()
{
    const QList<QListWidgetItem *> shown = shownRows();
    for (qsizetype i = 0; i < shown.size(); ++i) {
        const QString name = shown[i]->data(NameRole).toString();
        shown[i]->setText(i < 9 ? u"%1   %2"_s.arg(i + 1).arg(name) : u"     "_s + name);
    }
    if (!shown.isEmpty() && (!m_rows->currentItem() || m_rows->currentItem()->isHidden()))
        m_rows->setCurrentItem(shown.first());
}

QList<QListWidgetItem *> LinkPicker::shownRows() const
{
    QList<QListWidgetItem *> shown;
    for (int i = 0; i < m_rows->count(); ++i) {
        if (!m_rows->item(i)->isHidden())
            shown.append(m_rows->item(i));
    }
    return shown;
}

LinkPicker::Row LinkPicker::rowOf(const QListWidgetItem *item) const
{
    const QVariant profile = item->data(ProfileRole);
    return Row{item->data(BrowserRole).toString(),
               profile.isValid() ? std::optional(profile.toString()) : std::nullopt,
               item->data(AppRole).toBool()};
}

std::optional<int> LinkPicker::digitOf(const QKeyEvent &key) const
{
    if (key.modifiers() & (Qt::ControlModifier | Qt::AltModifier | Qt::MetaModifier))
        return std::nullopt;
    if (key.key() >= Qt::Key_1 && key.key() <= Qt::Key_9)
        return key.key() - Qt::Key_1;
    const quint32 code = key.nativeScanCode();
    if ((key.modifiers() & Qt::ShiftModifier) && code >= FirstDigitKeyCode
        && code < FirstDigitKeyCode + 9)
        return int(code - FirstDigitKeyCode);
    return std::nullopt;
}

bool LinkPicker::eventFilter(QObject *watched, QEvent *event)
{
    if (event->type() != QEvent::KeyPress || m_queue.isEmpty())
        return QWidget::eventFilter(watched, event);
    const auto *key = static_cast<QKeyEvent *>(event);
    const bool shift = key->modifiers().testFlag(Qt::ShiftModifier);
    if (const auto digit = digitOf(*key)) {
        const QList<QListWidgetItem *> shown = shownRows();
        if (*digit < shown.size())
            choose(shown[*digit], shift);
        return true;
    }
    if (key->matches(QKeySequence::Copy)) {
        QGuiApplication::clipboard()->setText(m_queue.first().request.link.toString());
        cancel();
        return true;
    }
    switch (key->key()) {
    case Qt::Key_Escape:
        cancel();
        return true;
    case Qt::Key_Return:
    case Qt::Key_Enter:
        if (m_rows->currentItem() && !m_rows->currentItem()->isHidden())
            choose(m_rows->currentItem(), shift);
        return true;
    case Qt::Key_Up:
    case Qt::Key_Down:
        if (watched == m_filter) {
            QApplication::sendEvent(m_rows, event);
            return true;
        }
        break;
    default:
        // Typing filters, wherever the focus is.
        if (watched == m_rows && !key->text().isEmpty() && key->text().at(0).isPrint()) {
            m_filter->setFocus();
            m_filter->insert(key->text());
            return true;
        }
        break;
    }
    return QWidget::eventFilter(watched, event);
}

void LinkPicker::closeEvent(QCloseEvent *event)
{
    // Closed by the window manager: the link shown does not open; the next one
    // waiting is asked about in the same window.
    event->ignore();
    if (!m_queue.isEmpty())
        cancel();
    else
        hide();
}

void LinkPicker::choose(QListWidgetItem *item, bool privateWindow)
{
    if (!item || m_queue.isEmpty())
        return;
    const Row row = rowOf(item);
    if (row.app) {
        // Rules name browsers: choosing the app teaches none.
        answerCurrent(AskAnswer{AskAnswer::Kind::Chosen, row.browserID, std::nullopt, false, true});
        return;
    }
    // Shift asks for a private window only where the browser has one.
    const bool inPrivate =
        privateWindow && !ProfileDiscovery::privateWindowFlag(row.browserID).isEmpty();
    learn(row, inPrivate);
    answerCurrent(AskAnswer{AskAnswer::Kind::Chosen, row.browserID, row.profileID, inPrivate});
}

void LinkPicker::cancel()
{
    answerCurrent(AskAnswer{AskAnswer::Kind::Cancelled, {}, std::nullopt, false});
}

void LinkPicker::answerCurrent(const AskAnswer &answer)
{
    const Pending current = m_queue.takeFirst();
    current.answer(answer);
    if (m_queue.isEmpty())
        hide();
    else
        showCurrent();
}

void LinkPicker::learn(const Row &row, bool privateWindow)
{
    const AskRequest &request = m_queue.first().request;
    const bool byHost = m_rememberHost->isChecked() && !m_rememberHost->isHidden();
    const bool byApp =
        m_rememberApp->isChecked() && !m_rememberApp->isHidden() && request.source.has_value();
    if (!byHost && !byApp)
        return;
    // The rule the sheets would make: a URL rule for the host, an app rule for
    // the application, or one rule for both.
    RoutingRule rule{QUuid::createUuid(),
                     byApp ? request.source->desktopId : QString(),
                     byApp ? request.source->name : QString(),
                     row.browserID,
                     m_state.browsers().name(row.browserID),
                     byHost ? std::optional(readableHost(request.link)) : std::nullopt,
                     row.profileID};
    rule.openInPrivateWindow = privateWindow;
    m_state.addRule(rule);
}
