#pragma once

#include "app/DesktopServices.h"

namespace vocari {

// The X11 session: input access through XTEST and XInput 2, the active window's program,
// text pasted and typed through synthetic keys, and the compositing manager's selection.
class X11DesktopServices final : public DesktopServices
{
public:
    InputAccessState inputAccess() override;
    std::optional<qint64> frontmostWindow() override;
    bool paste(const QString &text) override;
    qsizetype type(const QString &text) override;
    void erase(qsizetype count) override;
    void copyToClipboard(const QString &text) override;
    bool hasCompositor() override;
};

} // namespace vocari
