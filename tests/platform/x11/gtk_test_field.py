#!/usr/bin/python3
# The GTK 3 counterpart of TestWindow.cpp for the X11 and Wayland tests: a text entry that takes the keyboard
# focus and reports its key events and text on the same lines ("ready", "press", "release",
# "text") and takes the same commands ("clear", "quit") on standard input.

import os
import sys
import urllib.parse

import gi

gi.require_version("Gtk", "3.0")
gi.require_version("Gdk", "3.0")
from gi.repository import Gdk, GLib, Gtk  # noqa: E402


def report(line):
    sys.stdout.write(line + "\n")
    sys.stdout.flush()


def encoded(text):
    return urllib.parse.quote(text, safe="") if text else "-"


def main():
    window = Gtk.Window(title="Vocari GTK test field")
    entry = Gtk.Entry()
    window.add(entry)
    window.resize(480, 60)

    def on_key(_widget, event):
        kind = "press" if event.type == Gdk.EventType.KEY_PRESS else "release"
        report(f"{kind} {event.hardware_keycode} {int(event.state)} 0 {encoded(event.string)}")
        return False

    def on_focus(*_):
        # Only the first focus announces the window.
        entry.disconnect(focus_handler)
        # A Wayland window has no X id.
        xid = window.get_window().get_xid() if hasattr(window.get_window(), "get_xid") else 0
        report(f"ready {xid} {os.getpid()}")
        return False

    def on_command(channel, _condition):
        command = channel.readline()
        if command.strip() == "clear":
            entry.set_text("")
        elif not command or command.strip() == "quit":
            Gtk.main_quit()
            return False
        return True

    entry.connect("key-press-event", on_key)
    entry.connect("key-release-event", on_key)
    focus_handler = entry.connect("focus-in-event", on_focus)
    entry.connect("changed", lambda _entry: report("text " + encoded(entry.get_text())))
    # Without a window manager nobody gives the new window the focus: it takes it once mapped.
    window.connect("map-event", lambda *_: window.get_window().focus(0))
    # A Wayland seat without a keyboard yet (a headless compositor's, until a program adds a
    # virtual one) gives no window the keyboard focus: there the window is ready once shown, and
    # the focus comes with the first keyboard.
    if os.environ.get("GDK_BACKEND") == "wayland":
        window.connect("map-event", lambda *_: on_focus())
    window.connect("destroy", Gtk.main_quit)
    GLib.io_add_watch(GLib.IOChannel.unix_new(sys.stdin.fileno()), GLib.IO_IN | GLib.IO_HUP,
                      on_command)
    window.show_all()
    Gtk.main()


if __name__ == "__main__":
    main()
