#!/usr/bin/python3
# A GSettings application for the tests of the velmora backend (PyGObject).
#
# Usage: gsettings_client.py MODE SCHEMA[:PATH] [ROUNDS]
#   watch  prints "ready", then "KEY VALUE" (GVariant text) for each changed::KEY signal
#   poll   prints "ready", then "T1,T2,T3" each time the three keys it sees change,
#          looking at every changed signal and every 2 ms, until T1 is ROUNDS
#   tree   sets t1, t2 and t3 together (delay, apply) to 1, 2, ... ROUNDS, syncs,
#          and prints how many changed::t1 signals a second GSettings heard
import sys

import gi

gi.require_version("Gio", "2.0")
from gi.repository import Gio, GLib  # noqa: E402


def open_settings(schema_path):
    schema, _, path = schema_path.partition(":")
    return Gio.Settings.new_with_path(schema, path) if path else Gio.Settings.new(schema)


def main(mode, schema_path, rounds=0):
    settings, loop, seen = open_settings(schema_path), GLib.MainLoop(), []
    if mode == "watch":
        for name in settings.props.settings_schema.list_keys():
            settings.connect("changed::" + name, lambda s, key: print(key, s.get_value(key).print_(True), flush=True))
    elif mode == "poll":
        def look(*_):
            keys = (settings.get_int("t1"), settings.get_string("t2"), settings.get_int64("t3"))
            if seen[-1:] != [keys]:
                seen.append(keys)
                print("%d,%s,%d" % keys, flush=True)
            return keys[0] != rounds or loop.quit()

        settings.connect("changed", look)
        GLib.timeout_add(2, look)
    elif mode == "tree":
        settings.connect("changed::t1", lambda *_: seen.append(1))
        delayed = open_settings(schema_path)
        delayed.delay()

        def write(count=[0]):
            count[0] += 1
            delayed.set_int("t1", count[0])
            delayed.set_string("t2", str(count[0]))
            delayed.set_int64("t3", count[0])
            delayed.apply()
            if count[0] == rounds:
                Gio.Settings.sync()
                GLib.timeout_add(300, loop.quit)  # time for a second signal, if one came
            return count[0] < rounds

        GLib.timeout_add(10, write)
        loop.run()
        return print(len(seen), flush=True)
    print("ready", flush=True)
    loop.run()


if __name__ == "__main__":
    main(sys.argv[1], sys.argv[2], int(sys.argv[3]) if len(sys.argv) > 3 else 0)
