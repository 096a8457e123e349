#pragma once

#include <QString>
#include <functional>

class QAbstractButton;
class QObject;
class QPlainTextEdit;

namespace vocari {

// Ties the controls of the settings tabs to the stored settings: a control shows the stored
// value when it is made and again whenever the value changes, by this program or by an edit
// of the settings file, and stores the user's every change at once.

// Calls `update` now and after every change of `key`, for as long as `context` lives.
void followSetting(QObject *context, const QString &key, const std::function<void()> &update);

// Keeps a check box (or any checkable button) in step with a boolean setting: `read` gives
// the value with its default, and `changed` runs after each change the user makes.
void bindCheckBox(QAbstractButton *box, const QString &key, const std::function<bool()> &read,
                  const std::function<void()> &changed = {});

// Keeps a text editor in step with a string setting, storing the text at every edit. A change
// from elsewhere replaces the editor's text only when it differs, so typing is not disturbed.
void bindPlainText(QPlainTextEdit *editor, const QString &key);

} // namespace vocari
