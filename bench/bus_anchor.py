#!/usr/bin/python3
"""The anchor of the bus benchmark: a trivial dbus-python service on the GLib
main loop whose method "ping" answers an empty string.

    bench/bus_anchor.py BUS_ADDRESS     owns tc.bench.anchor at /tc/bench/anchor
"""
import sys

import dbus
import dbus.mainloop.glib
import dbus.service
from gi.repository import GLib

NAME = "tc.bench.anchor"


class Anchor(dbus.service.Object):
    @dbus.service.method(NAME, in_signature="", out_signature="s")
    def ping(self):
        return ""


def main():
    dbus.mainloop.glib.DBusGMainLoop(set_as_default=True)
    bus = dbus.bus.BusConnection(sys.argv[1])
    owned = dbus.service.BusName(NAME, bus)
    Anchor(owned, "/tc/bench/anchor")
    loop = GLib.MainLoop()
    GLib.unix_signal_add(GLib.PRIORITY_DEFAULT, 15, loop.quit)
    print("ready", flush=True)
    loop.run()


if __name__ == "__main__":
    main()
