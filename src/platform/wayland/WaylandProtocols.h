#pragma once

#include <wayland-client.h>

// The two compositor protocols this program speaks beyond the core one, described for the
// Wayland client library: the wlroots data-control protocol (a clipboard that a program without
// a window may read and set) and the virtual-keyboard protocol (keys from a program). Their
// request opcodes follow the order of the protocols' requests.
namespace vocari::wl {

extern const wl_interface dataControlManager;     // zwlr_data_control_manager_v1
extern const wl_interface dataControlDevice;      // zwlr_data_control_device_v1
extern const wl_interface dataControlSource;      // zwlr_data_control_source_v1
extern const wl_interface dataControlOffer;       // zwlr_data_control_offer_v1
extern const wl_interface virtualKeyboardManager; // zwp_virtual_keyboard_manager_v1
extern const wl_interface virtualKeyboard;        // zwp_virtual_keyboard_v1

namespace DataControlManager {
enum : uint32_t
{
    createDataSource = 0,
    getDataDevice = 1,
    destroy = 2
};
}
namespace DataControlDevice {
enum : uint32_t
{
    setSelection = 0,
    destroy = 1,
    setPrimarySelection = 2
};
// Events, by opcode.
struct Listener
{
    void (*dataOffer)(void *data, wl_proxy *device, wl_proxy *offer);
    void (*selection)(void *data, wl_proxy *device, wl_proxy *offer);
    void (*finished)(void *data, wl_proxy *device);
    void (*primarySelection)(void *data, wl_proxy *device, wl_proxy *offer);
};
} // namespace DataControlDevice
namespace DataControlSource {
enum : uint32_t
{
    offer = 0,
    destroy = 1
};
struct Listener
{
    void (*send)(void *data, wl_proxy *source, const char *mimeType, int32_t fd);
    void (*cancelled)(void *data, wl_proxy *source);
};
} // namespace DataControlSource
namespace DataControlOffer {
enum : uint32_t
{
    receive = 0,
    destroy = 1
};
struct Listener
{
    void (*offer)(void *data, wl_proxy *offer, const char *mimeType);
};
} // namespace DataControlOffer
namespace VirtualKeyboardManager {
enum : uint32_t
{
    createVirtualKeyboard = 0
};
}
namespace VirtualKeyboard {
enum : uint32_t
{
    keymap = 0,
    key = 1,
    modifiers = 2,
    destroy = 3
};
}

} // namespace vocari::wl
