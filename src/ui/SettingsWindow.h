#pragma once

#include <QWidget>

class QLabel;

namespace vocari {

class AppModel;

// The settings window, created once and raised whenever it is asked for. For now it shows the
// state the application runs in (dictation key, engine, input access) and where the settings
// and models live, with buttons to open them; the settings themselves are edited in the file,
// which the application follows while it runs.
class SettingsWindow : public QWidget
{
    Q_OBJECT
public:
    explicit SettingsWindow(AppModel &model, QWidget *parent = nullptr);

    // Shows the window, or brings it to the front, and gives it the keyboard.
    void present();

private:
    void refresh();

    AppModel &m_model;
    QLabel *m_state = nullptr;
};

} // namespace vocari
