#include "ui/SettingBinding.h"

#include "settings/SettingsStore.h"

#include <QAbstractButton>
#include <QPlainTextEdit>
#include <QSignalBlocker>

namespace vocari {

void followSetting(QObject *context, const QString &key, const std::function<void()> &update)
{
    update();
    QObject::connect(&SettingsStore::shared(), &SettingsStore::valueChanged, context,
                     [key, update](const QString &changed) {
                         if (changed == key)
                             update();
                     });
}

void bindCheckBox(QAbstractButton *box, const QString &key, const std::function<bool()> &read,
                  const std::function<void()> &changed)
{
    box->setCheckable(true);
    followSetting(box, key, [box, read] {
        // Showing the stored value is no change of the user's.
        const QSignalBlocker quiet(box);
        box->setChecked(read());
    });
    QObject::connect(box, &QAbstractButton::toggled, box, [key, changed](bool checked) {
        SettingsStore::shared().setValue(key, checked);
        if (changed)
            changed();
    });
}

void bindPlainText(QPlainTextEdit *editor, const QString &key)
{
    followSetting(editor, key, [editor, key] {
        const QString stored = SettingsStore::shared().stringValue(key);
        if (editor->toPlainText() == stored)
            return;
        const QSignalBlocker quiet(editor);
        const int position = editor->textCursor().position();
        editor->setPlainText(stored);
        QTextCursor cursor = editor->textCursor();
        cursor.setPosition(std::min(position, int(stored.size())));
        editor->setTextCursor(cursor);
    });
    QObject::connect(editor, &QPlainTextEdit::textChanged, editor, [editor, key] {
        SettingsStore::shared().setValue(key, editor->toPlainText());
    });
}

} // namespace vocari
