#pragma once

#include <QWidget>

#include <functional>

class AppState;
struct Config;
class ConfigPane;
class DesktopEntries;
class QCheckBox;
class QComboBox;
class QLabel;
class QPushButton;

// The General tab: whether Quillvane is the default browser, the fallback
// browser, the switches, configuration import and export, updates and the
// build. Every control shows the application state and changes it through the
// state's own operations, so changes made elsewhere show here at once.
class GeneralPane final : public QWidget
{
    Q_OBJECT

public:
    GeneralPane(AppState &state, DesktopEntries &entries, std::function<void()> checkForUpdates,
                QWidget *parent = nullptr);

    ConfigPane &configPane() const { return *m_config; }

protected:
    void showEvent(QShowEvent *event) override;

private:
    void showDefaultStatus();
    void fillFallbackPicker();
    QCheckBox *addSwitch(class QVBoxLayout *section, const QString &objectName, const QString &text,
                         const std::function<bool()> &read, const std::function<void()> &toggle,
                         void (AppState::*changed)());
    // A switch of the configuration.
    QCheckBox *addSwitch(class QVBoxLayout *section, const QString &objectName, const QString &text,
                         bool Config::*flag);

    AppState &m_state;
    DesktopEntries &m_entries;
    QLabel *m_statusSymbol;
    QLabel *m_statusText;
    QLabel *m_statusCaption;
    QPushButton *m_setDefault;
    QComboBox *m_fallback;
    ConfigPane *m_config;
};
