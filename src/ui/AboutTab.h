#pragma once

#include <QString>
#include <QUrl>
#include <QWidget>

namespace vocari {

class AppModel;

// The settings tab that says what this program is: its logo, name, version and purpose, and
// a link to the project's home page.
class AboutTab : public QWidget
{
    Q_OBJECT
public:
    static inline const QString kDescription = QStringLiteral(
        "Private voice dictation. Everything runs on this computer: no account, no cloud.");

    explicit AboutTab(AppModel &model, QWidget *parent = nullptr);
    explicit AboutTab(QWidget *parent = nullptr);

    // The version this program was built as, "1" when the build did not say.
    static QString version();
    static QUrl projectPage();
};

} // namespace vocari
