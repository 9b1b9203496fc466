#include "Views/ConfigPane.h"

#include "App/AppState.h"
#include "Models/DisplayText.h"
#include "Platform/SystemLog.h"
#include "Views/MessageBox.h"

#include <QDir>
#include <QFile>
#include <QFileDialog>
#include <QFileInfo>
#include <QHBoxLayout>
#include <QLabel>
#include <QMap>
#include <QPointer>
#include <QPromise>
#include <QPushButton>
#include <QSaveFile>
#include <QThreadPool>
#include <QVBoxLayout>

using namespace Qt::Literals::StringLiterals;

QUILLVANE_LOGGING_CATEGORY(lcConfigImportExport, "ConfigImportExport")

namespace {

const QString JsonFilter = u"JSON files (*.json)"_s;

QString chooseWithDialog(QWidget *parent, bool save)
{
    QFileDialog dialog(parent);
    dialog.setNameFilter(JsonFilter);
    if (save) {
        dialog.setWindowTitle(u"Export Quillvane Configuration"_s);
        dialog.setAcceptMode(QFileDialog::AcceptSave);
        dialog.setFileMode(QFileDialog::AnyFile);
        dialog.setDefaultSuffix(u"json"_s);
        dialog.selectFile(u"Quillvane-config.json"_s);
    } else {
        dialog.setWindowTitle(u"Import Quillvane Configuration"_s);
        dialog.setAcceptMode(QFileDialog::AcceptOpen);
        dialog.setFileMode(QFileDialog::ExistingFile);
    }
    if (dialog.exec() != QDialog::Accepted || dialog.selectedFiles().isEmpty())
        return {};
    return dialog.selectedFiles().first();
}

} // namespace

ConfigPane::ConfigPane(AppState &state, QWidget *parent)
    : QWidget(parent)
    , m_state(state)
{
    setObjectName(u"configPane"_s);
    chooseExportFile = [this] { return chooseWithDialog(this, true); };
    chooseImportFile = [this] { return chooseWithDialog(this, false); };

    auto *description = new QLabel(u"Export or import your routing rules and settings."_s);
    description->setForegroundRole(QPalette::PlaceholderText);
    auto *exportButton = new QPushButton(QIcon::fromTheme(u"document-save-as"_s), u"Export..."_s);
    exportButton->setObjectName(u"exportButton"_s);
    auto *importButton = new QPushButton(QIcon::fromTheme(u"document-open"_s), u"Import..."_s);
    importButton->setObjectName(u"importButton"_s);
    m_importButton = importButton;
    connect(exportButton, &QPushButton::clicked, this, &ConfigPane::exportConfig);
    connect(importButton, &QPushButton::clicked, this, &ConfigPane::importConfig);

    auto *buttons = new QHBoxLayout;
    buttons->addWidget(exportButton);
    buttons->addWidget(importButton);
    buttons->addStretch();
    auto *column = new QVBoxLayout(this);
    column->setContentsMargins(0, 0, 0, 0);
    column->setSpacing(10);
    column->addWidget(description);
    column->addLayout(buttons);
}

void ConfigPane::exportConfig()
{
    const QString path = chooseExportFile();
    if (path.isEmpty()) {
        qCDebug(lcConfigImportExport) << "Export cancelled by user";
        return;
    }
    QString failure;
    // What is stored, not what any view may hold.
    const auto bytes = m_state.exportConfig();
    if (!bytes) {
        failure = bytes.error().description();
    } else {
        QSaveFile file(path);
        if (!file.open(QIODevice::WriteOnly) || file.write(*bytes) != bytes->size()
            || !file.commit())
            failure =
                u"Could not write %1: %2"_s.arg(QDir::toNativeSeparators(path), file.errorString());
    }
    if (!failure.isEmpty()) {
        qCCritical(lcConfigImportExport).noquote() << u"Export failed: "_s + failure;
        MessageBox::inform(u"Export Failed"_s, failure);
        return;
    }
    qCInfo(lcConfigImportExport).noquote() << u"Config exported to %1"_s.arg(SystemLog::priv(path));
    MessageBox::inform(u"Export Successful"_s,
                       u"Configuration with %1 rule(s) exported to %2."_s.arg(
                           QString::number(m_state.rules().size()), QFileInfo(path).fileName()));
}

std::optional<QString>
ConfigPane::sendsLinksToQuillvane(const ConfigManager::ExportData &config) const
{
    if (config.fallbackBrowserId && m_state.browsers().isQuillvane(*config.fallbackBrowserId))
        return u"“%1” (the fallback browser)"_s.arg(config.fallbackBrowserId->left(200));
    for (const RoutingRule &rule : config.rules) {
        if (m_state.browsers().isQuillvane(rule.targetBrowserId))
            return u"“%1” (a rule's browser)"_s.arg(rule.targetBrowserId.left(200));
    }
    return std::nullopt;
}

void ConfigPane::importConfig()
{
    const QString path = chooseImportFile();
    if (path.isEmpty()) {
        qCDebug(lcConfigImportExport) << "Import cancelled by user";
        return;
    }
    // Read and checked on another thread: links keep routing meanwhile, however
    // slow the disk or large the file.
    m_importButton->setEnabled(false);
    m_importButton->setText(u"Reading..."_s);
    auto reading = std::make_shared<QPromise<Imported>>();
    reading->start();
    QThreadPool::globalInstance()->start([reading, path] {
        reading->addResult(ConfigManager::importFromFile(path));
        reading->finish();
    });
    reading->future().then(this, [this](const Imported &document) {
        m_importButton->setEnabled(true);
        m_importButton->setText(u"Import..."_s);
        confirmImport(document);
    });
}

QStringList ConfigPane::launchSettings(const ConfigManager::ExportData &config) const
{
    QStringList items;
    for (const BrowserPreference &preference : config.browserPreferences.value_or(
             QList<BrowserPreference>())) {
        if (!preference.extraArguments.trimmed().isEmpty())
            items.append(u"• %1 starts with the arguments: %2"_s.arg(
                DisplayText::escapeControls(m_state.browsers().name(preference.browserId)),
                DisplayText::escapeControls(preference.extraArguments)));
    }
    QMap<std::pair<QString, QString>, int> profiles;
    QStringList privateRules;
    for (const RoutingRule &rule : config.rules) {
        if (rule.targetProfileID)
            ++profiles[{rule.targetBrowserId, *rule.targetProfileID}];
        if (rule.openInPrivateWindow)
            privateRules.append(DisplayText::escapeControls(rule.description()));
    }
    for (auto profile = profiles.cbegin(); profile != profiles.cend(); ++profile) {
        const auto &[browser, id] = profile.key();
        items.append(u"• %1 rule(s) open %2 in the profile “%3”%4"_s.arg(
            QString::number(profile.value()), DisplayText::escapeControls(m_state.browsers().name(browser)),
            DisplayText::escapeControls(id),
            m_state.browsers().profileName(browser, id) ? QString() : u" (not found here)"_s));
    }
    constexpr qsizetype Shown = 20;
    if (!privateRules.isEmpty())
        items.append(u"• %1 rule(s) open a private window: %2%3"_s.arg(
            QString::number(privateRules.size()), privateRules.first(Shown > privateRules.size()
                                                                         ? privateRules.size()
                                                                         : Shown)
                                                      .join(u"; "_s),
            privateRules.size() > Shown
                ? u"; and %1 more"_s.arg(privateRules.size() - Shown)
                : QString()));
    return items;
}

void ConfigPane::confirmImport(const Imported &document)
{
    std::optional<ConfigManager::ExportData> parsed;
    QString failure;
    if (document)
        parsed = *document;
    else
        failure = document.error().description();
    if (parsed) {
        if (const auto loop = sendsLinksToQuillvane(*parsed)) {
            failure = u"The configuration sends links to %1, which hands them back to Quillvane: "
                      "they would go round for ever. Nothing was imported."_s.arg(*loop);
            parsed.reset();
        }
    }
    if (!parsed) {
        qCCritical(lcConfigImportExport).noquote() << u"Import failed: "_s + failure;
        MessageBox::inform(u"Import Failed"_s, failure);
        return;
    }
    qCInfo(lcConfigImportExport).noquote()
        << u"Parsed import file: %1 rule(s)"_s.arg(parsed->rules.size());
    const QString replace =
        u"This will replace your current %1 rule(s) with %2 imported rule(s). Continue?"_s.arg(
            QString::number(m_state.rules().size()), QString::number(parsed->rules.size()));
    const QStringList launches = launchSettings(*parsed);
    // "Rules Only" is the second answer where it is offered; elsewhere that is "Cancel".
    const auto answered = [self = QPointer(this), config = *parsed,
                           rulesOnly = !launches.isEmpty()](int answer) {
        if (self && answer == 0)
            self->applyImport(config);
        else if (self && answer == 1 && rulesOnly)
            self->applyImport(ConfigManager::withoutLaunchSettings(config));
    };
    if (launches.isEmpty()) {
        MessageBox::ask(u"Confirm Import"_s, replace, {u"Replace"_s, u"Cancel"_s}, 1, answered);
        return;
    }
    // What decides how a browser starts is shown item by item, and taken only
    // when the person agrees to it too: an imported file could otherwise hand a
    // browser any option ("--remote-debugging-port", a command to run).
    MessageBox::ask(u"Confirm Import"_s,
                    replace + u"\n\nThe configuration also sets how browsers start:\n"_s
                        + launches.join(u'\n')
                        + u"\n\n“Rules Only” imports the rules without these: no extra "
                          "arguments, every rule in its browser's usual profile and window."_s,
                    {u"Replace All"_s, u"Rules Only"_s, u"Cancel"_s}, 2, answered);
}

void ConfigPane::applyImport(const ConfigManager::ExportData &config)
{
    // A configuration file that cannot be read is not written over; the
    // notification has said why.
    if (!m_state.applyImportedConfig(config))
        return;
    qCInfo(lcConfigImportExport).noquote()
        << u"Applied imported config: %1 rule(s)"_s.arg(config.rules.size());
    MessageBox::inform(u"Import Successful"_s,
                       u"Imported %1 rule(s) successfully."_s.arg(config.rules.size()));
}
