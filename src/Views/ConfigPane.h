#pragma once

#include "Services/ConfigManager.h"

#include <QWidget>

#include <functional>
#include <optional>

class AppState;

// The "Configuration" section of the General tab: export the configuration to
// a JSON file, or import one, which replaces the rules after a confirmation
// that lists what the file would change about how browsers start.
class ConfigPane final : public QWidget
{
    Q_OBJECT

public:
    explicit ConfigPane(AppState &state, QWidget *parent = nullptr);

    // The file the user picks (empty when cancelled); file dialogs by default.
    std::function<QString()> chooseExportFile;
    std::function<QString()> chooseImportFile;

    void exportConfig();
    void importConfig();

private:
    using Imported = Expected<ConfigManager::ExportData, ConfigManager::ConfigError>;
    void confirmImport(const Imported &document);
    // Each extra argument, profile and private window the document brings, a line each.
    QStringList launchSettings(const ConfigManager::ExportData &config) const;
    void applyImport(const ConfigManager::ExportData &config);
    // What in the document names Quillvane itself as a browser, if anything.
    std::optional<QString> sendsLinksToQuillvane(const ConfigManager::ExportData &config) const;

    AppState &m_state;
    class QPushButton *m_importButton = nullptr;
};
