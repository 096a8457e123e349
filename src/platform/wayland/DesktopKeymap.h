#pragma once

#include <QObject>
#include <cstdint>
#include <memory>
#include <set>

struct wl_keyboard;
struct wl_seat;

namespace vocari {

class WaylandConnection;

// The keyboard layout the compositor has in use, as it hands it to every client with a
// keyboard: which keysyms some key of it types, at any level. The desktop's remote-desktop
// portal can type only those; it drops the others without an error. The compositor sends the
// layout again when the user switches it.
class DesktopKeymap final : public QObject
{
    Q_OBJECT
public:
    // None where the seat has no keyboard capability yet.
    static std::unique_ptr<DesktopKeymap> watch(std::shared_ptr<WaylandConnection> connection);
    ~DesktopKeymap() override;

    // The keysyms of a layout.
    class Layout
    {
    public:
        // Takes a layout in the compositor's text form; false, and nothing changed, when it
        // does not compile.
        bool take(const char *text);
        bool known() const { return !m_keysyms.empty(); }
        bool has(std::uint32_t keysym) const { return m_keysyms.contains(keysym); }

    private:
        std::set<std::uint32_t> m_keysyms;
    };

    // The layout as far as the compositor has sent it.
    const Layout &layout() const { return m_layout; }

    // The seat's and the keyboard's events.
    void onCapabilities(std::uint32_t capabilities);
    void onKeymap(std::uint32_t format, int fd, std::uint32_t size);

private:
    explicit DesktopKeymap(std::shared_ptr<WaylandConnection> connection);

    std::shared_ptr<WaylandConnection> m_connection;
    wl_keyboard *m_keyboard = nullptr;
    Layout m_layout;
};

} // namespace vocari
