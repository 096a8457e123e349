#include "platform/wayland/WaylandProtocols.h"

// Each message lists its name, its argument signature ("n" a new object, "o" an object, "?"
// one that may be null, "s" a string, "h" a file descriptor, "u" an unsigned integer; a leading
// number is the version that added it) and, per argument, the interface of an object argument.

namespace vocari::wl {

namespace {

const wl_interface *noTypes[] = {nullptr, nullptr, nullptr, nullptr};
const wl_interface *sourceType[] = {&dataControlSource};
const wl_interface *deviceAndSeat[] = {&dataControlDevice, &wl_seat_interface};
const wl_interface *offerType[] = {&dataControlOffer};
const wl_interface *seatAndKeyboard[] = {&wl_seat_interface, &virtualKeyboard};

const wl_message managerRequests[] = {
    {"create_data_source", "n", sourceType},
    {"get_data_device", "no", deviceAndSeat},
    {"destroy", "", noTypes},
};

const wl_message deviceRequests[] = {
    {"set_selection", "?o", sourceType},
    {"destroy", "", noTypes},
    {"set_primary_selection", "2?o", sourceType},
};
const wl_message deviceEvents[] = {
    {"data_offer", "n", offerType},
    {"selection", "?o", offerType},
    {"finished", "", noTypes},
    {"primary_selection", "2?o", offerType},
};

const wl_message sourceRequests[] = {
    {"offer", "s", noTypes},
    {"destroy", "", noTypes},
};
const wl_message sourceEvents[] = {
    {"send", "sh", noTypes},
    {"cancelled", "", noTypes},
};

const wl_message offerRequests[] = {
    {"receive", "sh", noTypes},
    {"destroy", "", noTypes},
};
const wl_message offerEvents[] = {
    {"offer", "s", noTypes},
};

const wl_message keyboardManagerRequests[] = {
    {"create_virtual_keyboard", "on", seatAndKeyboard},
};

const wl_message keyboardRequests[] = {
    {"keymap", "uhu", noTypes},
    {"key", "uuu", noTypes},
    {"modifiers", "uuuu", noTypes},
    {"destroy", "", noTypes},
};

} // namespace

const wl_interface dataControlManager = {
    "zwlr_data_control_manager_v1", 2, 3, managerRequests, 0, nullptr};
const wl_interface dataControlDevice = {
    "zwlr_data_control_device_v1", 2, 3, deviceRequests, 4, deviceEvents};
const wl_interface dataControlSource = {
    "zwlr_data_control_source_v1", 1, 2, sourceRequests, 2, sourceEvents};
const wl_interface dataControlOffer = {
    "zwlr_data_control_offer_v1", 1, 2, offerRequests, 1, offerEvents};
const wl_interface virtualKeyboardManager = {"zwp_virtual_keyboard_manager_v1", 1, 1,
                                             keyboardManagerRequests,           0, nullptr};
const wl_interface virtualKeyboard = {"zwp_virtual_keyboard_v1", 1, 4,
                                      keyboardRequests,          0, nullptr};

} // namespace vocari::wl
