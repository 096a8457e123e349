#pragma once

#include <QWidget>

class QTabWidget;

namespace vocari {

class AppModel;

// The settings window: six tabs (General, Text, Models, Popup, Permissions and About) in a
// window of fixed size. The application makes it once and presents it whenever the settings
// are asked for, from the tray menu or from a second start of the program. There is nothing to
// apply or save: every control stores its setting as it changes.
class SettingsView : public QWidget
{
    Q_OBJECT
public:
    static constexpr int kWidth = 560;
    static constexpr int kHeight = 560;

    explicit SettingsView(AppModel &model, QWidget *parent = nullptr);

    // Shows the window, brings it to the front and gives it the keyboard.
    void present();

    QTabWidget *tabs() const { return m_tabs; }

private:
    void addTab(QWidget *tab, const QString &title, const QString &icon);

    QTabWidget *m_tabs = nullptr;
};

} // namespace vocari
