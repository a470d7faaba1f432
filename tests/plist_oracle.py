#!/usr/bin/env python3
"""Property-list oracle for the codec tests, built on Python's plistlib.

  plist_oracle.py describe IN OUT            canonical description of IN
  plist_oracle.py convert IN OUT binary|xml  re-write IN with plistlib

IN may be binary or XML. The description must match, byte for byte, the one
the C++ tests compute (canonical() in platform/PlistCodec_test.cpp):

  dictionary  {KEY=VALUE,...}  keys as below, sorted by UTF-8 bytes
  array       [VALUE,...]
  string      s + hex of the UTF-8 bytes
  data        d + hex
  integer     i + decimal
  real        r + hex of the big-endian IEEE double, or rnan
  date        t + hex of the double seconds since 2001-01-01 UTC
  boolean     b1 / b0

A top-level dictionary is written one entry per line (KEY=VALUE), so a test
can name the case that differs; anything else is a single line.
Exit status 0 on success, 2 on any error (message on stderr).
"""
import datetime
import math
import plistlib
import struct
import sys

EPOCH = datetime.datetime(2001, 1, 1)


def double_hex(value):
    return struct.pack(">d", value).hex()


def utf8_hex(text):
    return text.encode("utf-8").hex()


def describe(value):
    if isinstance(value, bool):
        return "b1" if value else "b0"
    if isinstance(value, int):
        return "i%d" % value
    if isinstance(value, float):
        return "rnan" if math.isnan(value) else "r" + double_hex(value)
    if isinstance(value, datetime.datetime):
        return "t" + double_hex((value - EPOCH).total_seconds())
    if isinstance(value, str):
        return "s" + utf8_hex(value)
    if isinstance(value, (bytes, bytearray)):
        return "d" + bytes(value).hex()
    if isinstance(value, list):
        return "[" + ",".join(describe(v) for v in value) + "]"
    if isinstance(value, dict):
        return "{" + ",".join(entries(value)) + "}"
    raise TypeError("unexpected value type %r" % type(value))


def entries(mapping):
    keyed = sorted((k.encode("utf-8"), k) for k in mapping)
    return [raw.hex() + "=" + describe(mapping[k]) for raw, k in keyed]


def main(argv):
    if len(argv) >= 3 and argv[0] == "describe":
        with open(argv[1], "rb") as f:
            value = plistlib.load(f)
        lines = entries(value) if isinstance(value, dict) else [describe(value)]
        with open(argv[2], "w") as f:
            f.write("\n".join(lines) + "\n")
        return 0
    if len(argv) == 4 and argv[0] == "convert" and argv[3] in ("binary", "xml"):
        with open(argv[1], "rb") as f:
            value = plistlib.load(f)
        fmt = plistlib.FMT_BINARY if argv[3] == "binary" else plistlib.FMT_XML
        with open(argv[2], "wb") as f:
            plistlib.dump(value, f, fmt=fmt)
        return 0
    sys.stderr.write(__doc__)
    return 2


if __name__ == "__main__":
    try:
        sys.exit(main(sys.argv[1:]))
    except Exception as e:  # report every failure the same way to the test
        sys.stderr.write("plist_oracle: %s: %s\n" % (type(e).__name__, e))
        sys.exit(2)
