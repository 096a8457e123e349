#pragma once

#include <QStringList>
#include <QStringView>

namespace vocari::Preferences {

// The terms the speech engine should expect: the lines of the "vocabulary" setting followed
// by the replacement of every rule in "replacements", read anew on every call.
QStringList vocabulary();

// The same list from the two raw texts: each vocabulary line trimmed, then each rule's
// replacement in rule order; empty terms are left out, and of terms that differ only in
// case the first keeps its place and its spelling.
QStringList vocabulary(QStringView vocabularyText, QStringView ruleText);

} // namespace vocari::Preferences
