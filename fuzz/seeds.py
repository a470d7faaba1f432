#!/usr/bin/env python3
"""Seed candidates for the fuzz targets, one directory per target.

    fuzz/seeds.py HARVEST OUT

HARVEST holds the files the tests left behind (scripts/fuzz-seeds runs them
with VELMORA_FUZZ_SEED_DIR): store files the daemon and the library wrote,
requests the scripted responder received. Each is sorted into the targets
that decode its kind, and the values inside yield more (storage records, the
serialised and gzip forms of real values, request envelopes in the bus
target's input form). Then a few hand-made edge cases per target are added:
shapes the tests never make but a damaged file or a hostile peer could.
scripts/fuzz-seeds minimises OUT with libFuzzer's -merge=1 into fuzz/corpus/.
Standard library only.
"""

import datetime
import gzip
import hashlib
import os
import plistlib
import re
import struct
import sys
import zlib

MAX_SEED = 16 * 1024  # larger files add bulk, rarely coverage
EPOCH_2001 = datetime.datetime(2001, 1, 1)
# Every seed carries an XML plist DOCTYPE only in our writer's form, <!DOCTYPE
# plist>: the public identifier and DTD address that other writers (plistlib
# among them) put there name their maker. Inside a binary plist (a string
# holding such a document) the shorter form leaves that seed damaged, which
# does a fuzz seed no harm.
PUBLIC_DOCTYPE = re.compile(rb'<!DOCTYPE\s+plist\s+PUBLIC\s+"[^"]*"(?:\s+"[^"]*")?\s*>')


class Candidates:
    def __init__(self, out):
        self.out = out

    def add(self, target, data, name=None):
        if not data or len(data) > MAX_SEED:
            return
        data = PUBLIC_DOCTYPE.sub(b"<!DOCTYPE plist>", data)
        directory = os.path.join(self.out, target)
        os.makedirs(directory, exist_ok=True)
        digest = hashlib.sha1(data).hexdigest()[:16]
        with open(os.path.join(directory, (name + "-" if name else "") + digest), "wb") as f:
            f.write(data)


def binary(value):
    try:
        return plistlib.dumps(value, fmt=plistlib.FMT_BINARY, sort_keys=True)
    except (TypeError, OverflowError, ValueError):
        return None


def xml(value):
    try:
        return plistlib.dumps(value, fmt=plistlib.FMT_XML, sort_keys=True)
    except (TypeError, OverflowError, ValueError):
        return None


def seconds_since_2001(when):
    return (when - EPOCH_2001).total_seconds()


def serialised(value, timestamp):
    """The timestamped serialised form: tag 0x01, three zero bytes, the
    timestamp (little-endian int64), then the value as a binary plist."""
    body = binary(value)
    if body is None or timestamp == 0:
        return None
    return b"\x01\x00\x00\x00" + struct.pack("<q", timestamp) + body


# --- the bus target's input form (see fuzz/fuzz_dbus_envelope.cpp) ---------

T_B, T_X, T_T, T_D, T_S, T_V, T_ARRAY, T_DICT, T_STRUCT, T_ASV, T_AY = 1, 6, 7, 8, 9, 13, 14, 15, 16, 17, 18


def text(s):
    raw = s.encode("utf-8")[:0xFFFF]
    return struct.pack("<H", len(raw)) + raw


def typed(value):
    """A type followed by a value of it, as a variant would hold it."""
    if isinstance(value, bool):
        return bytes([T_B, 1 if value else 0])
    if isinstance(value, int):
        if value > 2**63 - 1:
            return bytes([T_T]) + struct.pack("<Q", value & (2**64 - 1))
        return bytes([T_X]) + struct.pack("<q", max(value, -(2**63)))
    if isinstance(value, float):
        return bytes([T_D]) + struct.pack("<d", value)
    if isinstance(value, str):
        return bytes([T_S]) + text(value)
    if isinstance(value, bytes):
        return bytes([T_AY]) + struct.pack("<H", min(len(value), 0xFFFF)) + value[:0xFFFF]
    if isinstance(value, datetime.datetime):
        return bytes([T_STRUCT, 0, T_D]) + struct.pack("<d", seconds_since_2001(value))
    if isinstance(value, list):
        items = value[:255]
        return bytes([T_ARRAY, T_V, len(items)]) + b"".join(typed(v) for v in items)
    if isinstance(value, dict):
        return bytes([T_ASV]) + envelope_entries(value)
    return bytes([T_B, 0])


def envelope_entries(d):
    items = sorted(d.items())[:255]
    return bytes([len(items)]) + b"".join(text(k) + typed(v) for k, v in items)


# --- harvested files --------------------------------------------------------


def walk_values(value):
    """Every value inside value, containers included."""
    stack = [value]
    while stack:
        v = stack.pop()
        yield v
        if isinstance(v, dict):
            stack.extend(v.values())
        elif isinstance(v, list):
            stack.extend(v)


def is_record(v):
    return isinstance(v, dict) and "timestamp" in v and "value" in v


def add_record_forms(c, record):
    c.add("fuzz_storage_record", binary(record))
    timestamp, value = record.get("timestamp"), record.get("value")
    if isinstance(timestamp, int) and value is not None:
        form = serialised(value, timestamp)
        if form:
            c.add("fuzz_serialized", form)
            c.add("fuzz_gzip", form)
            c.add("fuzz_gzip", gzip.compress(form, mtime=0))
        legacy = binary({"timestamp": timestamp, "value": value})
        if legacy:
            c.add("fuzz_serialized", legacy)


def harvest(c, root):
    counts = {"store": 0, "request": 0, "sequence": 0, "other": 0}
    for directory, _, files in os.walk(root):
        requests = []
        for name in files:
            path = os.path.join(directory, name)
            with open(path, "rb") as f:
                data = f.read()
            if data.startswith(b"<?xml") or data.startswith(b"<plist"):
                c.add("fuzz_xml_plist", data)
            if data[:2] == b"\x1f\x8b":
                c.add("fuzz_gzip", data)
            if not data.startswith(b"bplist00"):
                continue
            try:
                value = plistlib.loads(data)
            except Exception:  # a damaged file the tests made on purpose
                c.add("fuzz_binary_plist", data)
                continue
            c.add("fuzz_binary_plist", data)
            c.add("fuzz_xml_plist", xml(value))
            if isinstance(value, dict) and "message" in value:
                counts["request"] += 1
                c.add("fuzz_daemon_request", data)
                c.add("fuzz_dbus_envelope", bytes([T_ASV]) + envelope_entries(value))
                match = re.fullmatch(r"request-(\d+)\.bplist", name)
                if match:
                    requests.append((int(match.group(1)), value))
            elif isinstance(value, dict) and ("values" in value or "changecount" in value or "journal" in value):
                counts["store"] += 1
                c.add("fuzz_store_file", data)
                c.add("fuzz_journal", data)
            else:
                counts["other"] += 1
            for inner in walk_values(value):
                if is_record(inner):
                    add_record_forms(c, inner)
                elif isinstance(inner, bytes):
                    if inner[:1] in (b"\x01", b"b"):
                        c.add("fuzz_serialized", inner)
                    if inner[:2] == b"\x1f\x8b":
                        c.add("fuzz_gzip", inner)
        # A responder's recorded conversation, in order: the daemon target
        # replays it as one sequence.
        if len(requests) > 1:
            counts["sequence"] += 1
            sequence = [v for _, v in sorted(requests, key=lambda r: r[0])][:16]
            c.add("fuzz_daemon_request", binary(sequence), "sequence")
    return counts


# --- hand-made edge cases ---------------------------------------------------


def bplist(objects, top=0, ref_size=1, offset_size=None, count=None, table_at=None):
    """A binary plist from raw encoded objects, with a computed trailer;
    count and table_at override what the trailer claims."""
    body = b"bplist00"
    offsets = []
    for o in objects:
        offsets.append(len(body))
        body += o
    table = len(body) if table_at is None else table_at
    if offset_size is None:
        offset_size = 1 if len(body) < 256 else 2 if len(body) < 65536 else 4
    for off in offsets:
        body += off.to_bytes(offset_size, "big")
    trailer = bytes(6) + bytes([offset_size, ref_size])
    trailer += struct.pack(">QQQ", len(objects) if count is None else count, top, table)
    return body + trailer


def ascii_obj(s):
    raw = s.encode("latin-1")
    assert len(raw) < 15
    return bytes([0x50 | len(raw)]) + raw


def nested_arrays(depth):
    objects = [bytes([0xA1]) + (i + 1).to_bytes(2, "big") for i in range(depth)] + [b"\xa0"]
    return bplist(objects, ref_size=2)


def binary_edges(c):
    add = lambda data, name: c.add("fuzz_binary_plist", data, name)
    add(b"", "empty")
    add(b"bplist00", "header-only")
    add(bplist([b"\xa1\x00"]), "array-holding-itself")
    add(bplist([b"\xd2\x01\x02\x03\x04", ascii_obj("a"), ascii_obj("a"), b"\x10\x01", b"\x10\x02"]), "duplicate-keys")
    add(bplist([b"\xd1\x01\x02", b"\x10\x01", b"\x10\x02"]), "integer-key")
    add(nested_arrays(600), "deep-arrays")
    # Each level holds the next twice: a tree of 2^40 leaves in 41 objects.
    add(bplist([b"\xa2" + bytes([i + 1, i + 1]) for i in range(40)] + [b"\x10\x07"]), "shared-doubling")
    add(bplist([b"\xaf\x13" + (2**62).to_bytes(8, "big")]), "huge-array-count")
    add(bplist([b"\x5f\x10\xff" + b"x" * 4]), "string-past-end")
    add(bplist([b"\x10\x01"], table_at=2**40), "offset-table-far-away")
    add(bplist([b"\x10\x01"], top=5), "top-out-of-range")
    add(bplist([b"\x10\x01"], count=0), "no-objects")
    add(bplist([b"\xa1\x07", b"\x10\x01"]), "reference-out-of-range")
    add(bplist([b"\x14" + (2**127 - 1).to_bytes(16, "big")]), "int128")
    add(bplist([b"\x13" + (2**64 - 1).to_bytes(8, "big")]), "int64-minus-one")
    add(bplist([b"\x14" + (2**64 - 1).to_bytes(16, "big")]), "int128-uint64-max")
    add(bplist([b"\x22" + struct.pack(">f", float("nan"))]), "real32-nan")
    add(bplist([b"\x23" + struct.pack(">d", float("-inf"))]), "real64-inf")
    add(bplist([b"\x33" + struct.pack(">d", -1e300)]), "date-far-past")
    add(bplist([b"\x61\xd8\x00"]), "utf16-lone-surrogate")
    add(bplist([b"\x62\xd8\x3d\xde\x00"]), "utf16-pair")
    add(bplist([b"\x53\xff\xfe\x00"]), "ascii-high-bytes")
    add(bplist([b"\x80\x01"]), "uid")
    add(bplist([b"\xc1\x00"]), "set")
    add(bplist([b"\x0f"]), "fill")
    add(bplist([b"\x00"]), "null")
    add(bplist([b"\x41\x00"]), "data-one-byte")
    add(bplist([b"\xa1\x01", b"\xa1\x00"]), "two-array-cycle")
    add(bplist([b"\x10\x01"], ref_size=0), "reference-size-zero")
    add(bplist([b"\x10\x01"], offset_size=9), "offset-size-nine")


def xml_doc(body, doctype=""):
    return ('<?xml version="1.0" encoding="UTF-8"?>\n' + doctype + '<plist version="1.0">' + body + "</plist>").encode()


def xml_edges(c):
    add = lambda data, name: c.add("fuzz_xml_plist", data, name)
    laughs = "<!DOCTYPE plist [" + '<!ENTITY a "aaaaaaaaaa">' + "".join(
        '<!ENTITY %s "%s">' % (chr(ord("b") + i), ("&" + chr(ord("a") + i) + ";") * 10) for i in range(8)) + "]>"
    add(xml_doc("<string>&i;</string>", laughs), "entity-expansion")
    add(xml_doc("<string>&x;</string>", '<!DOCTYPE plist [<!ENTITY x SYSTEM "file:///etc/hostname">]>'), "external-entity")
    add(xml_doc("<array>" * 600 + "</array>" * 600), "deep-arrays")
    for name, body in [
        ("integer-overflow", "<integer>99999999999999999999999</integer>"),
        ("integer-uint64-max", "<integer>18446744073709551615</integer>"),
        ("integer-hex", "<integer>0x10</integer>"),
        ("integer-spaces", "<integer> 12 </integer>"),
        ("integer-minus-zero", "<integer>-0</integer>"),
        ("real-nan", "<real>nan</real>"),
        ("real-huge", "<real>1e999</real>"),
        ("real-empty", "<real></real>"),
        ("date-bad", "<date>2001-13-45T25:61:61Z</date>"),
        ("date-year-zero", "<date>0000-01-01T00:00:00Z</date>"),
        ("data-bad-base64", "<data>!!!=</data>"),
        ("data-whitespace", "<data>\n  AAEC\n  Aw==\n</data>"),
        ("dict-key-without-value", "<dict><key>a</key></dict>"),
        ("dict-duplicate-keys", "<dict><key>a</key><true/><key>a</key><false/></dict>"),
        ("dict-value-first", "<dict><string>x</string><key>a</key></dict>"),
        ("string-nul-reference", "<string>a&#0;b</string>"),
        ("string-cdata-comment", "<string><![CDATA[<x>]]><!-- c -->y</string>"),
        ("two-top-values", "<true/><false/>"),
        ("unknown-element", "<set><integer>1</integer></set>"),
        ("empty-plist", ""),
    ]:
        add(xml_doc(body), name)
    add("\ufeff".encode("utf-16-le") + xml_doc("<string>utf16</string>").decode().replace(
        "UTF-8", "UTF-16").encode("utf-16-le"), "utf16-document")
    add(b"<plist><dict><key>unterminated", "truncated")


def gzip_edges(c):
    add = lambda data, name: c.add("fuzz_gzip", data, name)
    payload = b"velmora " * 64
    good = gzip.compress(payload, mtime=0)
    add(b"", "empty")
    add(b"\x1f\x8b", "magic-only")
    add(good[:10], "header-only")
    add(good[:-4], "no-size")
    add(good[:-8] + b"\x00\x00\x00\x00" + good[-4:], "bad-crc")
    add(good[:-4] + b"\xff\xff\xff\xff", "bad-size")
    add(good + gzip.compress(b"second", mtime=0), "two-members")
    add(good + b"trailing", "trailing-bytes")
    add(zlib.compress(payload), "zlib-wrapped")
    add(zlib.compress(payload)[2:-4], "raw-deflate")
    # Every optional header field: FEXTRA, FNAME, FCOMMENT, FHCRC.
    deflated = zlib.compressobj(9, zlib.DEFLATED, -15)
    body = deflated.compress(payload) + deflated.flush()
    header = b"\x1f\x8b\x08\x1e" + bytes(6) + b"\x04\x00abcd" + b"name\x00" + b"comment\x00"
    header += struct.pack("<H", zlib.crc32(header) & 0xFFFF)
    add(header + body + struct.pack("<II", zlib.crc32(payload), len(payload)), "every-header-field")
    add(b"\x1f\x8b\x08\x04" + bytes(6) + b"\xff\xff", "extra-past-end")
    add(gzip.compress(bytes(1 << 20), mtime=0), "megabyte-of-zeros")


def serialised_edges(c):
    add = lambda data, name: c.add("fuzz_serialized", data, name)
    add(b"\x01", "tag-only")
    add(b"\x01\x00\x00\x00" + struct.pack("<q", 7), "header-only")
    add(serialised("x", 1)[:12] + b"bplist00", "payload-truncated")
    add(b"\x01\x00\x00\x00" + bytes(8) + binary("x"), "zero-timestamp")
    add(b"\x01\xff\xff\xff" + struct.pack("<q", -1) + binary({"a": [1, 2.5, b"\x00"]}), "reserved-bytes-set")
    add(serialised("x", 2**63 - 1), "timestamp-max")
    add(binary({"timestamp": 1.5, "value": "x"}), "legacy-real-timestamp")
    add(binary({"timestamp": 1e30, "value": "x"}), "legacy-huge-timestamp")
    add(binary({"timestamp": "1", "value": "x"}), "legacy-string-timestamp")
    add(binary({"timestamp": 5}), "legacy-no-value")
    add(binary({"timestamp": 0, "value": "x"}), "legacy-zero-timestamp")


def record_edges(c):
    add = lambda value, name: c.add("fuzz_storage_record", binary(value), name)
    add({"timestamp": 5, "value": "v"}, "plain")
    add({"timestamp": 5, "value": "v", "remotevalue": {"timestamp": 4, "value": "r"}}, "with-remote")
    add({"timestamp": 5, "value": "v", "remotevalue": "not-a-record"}, "remote-not-record")
    add({"timestamp": 0, "value": "v"}, "zero-timestamp")
    add({"timestamp": -1, "value": "v"}, "negative-timestamp")
    add({"timestamp": 1.5, "value": "v"}, "real-timestamp")
    add({"timestamp": 2**64 - 1, "value": "v"}, "unsigned-timestamp")
    add({"value": "v"}, "no-timestamp")
    add({"timestamp": 5}, "no-value")
    add({}, "empty")
    add(["timestamp", 5], "array")
    add({"timestamp": 5, "value": {"timestamp": 6, "value": "nested"}}, "record-in-record")


def store_edges(c):
    for target in ("fuzz_store_file", "fuzz_journal"):
        add = lambda value, name: c.add(target, binary(value), name)
        add({}, "empty")
        add([], "not-a-dictionary")
        add({"values": "no", "changecount": "seven", "journal": 3}, "wrong-types")
        add({"values": {"k": {"timestamp": 1, "value": 1}}, "changecount": -5}, "negative-count")
        add({"values": {}, "changecount": 2**63 - 1, "initialsync": 2**63 - 1}, "count-max")
        add({"changecount": 3, "journal": {"k": {"count": 3}}}, "entry-without-change")
        add({"changecount": 3, "journal": {"k": {"change": 2}}}, "entry-without-count")
        add({"changecount": 3, "journal": {"k": {"count": 9, "change": 0}}}, "entry-change-zero")
        add({"changecount": 3, "journal": {"k": "entry"}}, "entry-not-dictionary")
        add({"changecount": 3, "journal": {"a": {"count": -(2**63), "change": 2**31},
                                           "b": {"count": 2**63 - 1, "change": -1}}}, "extreme-entries")


def dbus_edges(c):
    add = lambda data, name: c.add("fuzz_dbus_envelope", data, name)
    request = {"message": "synchronize", "bundleIdentifier": "com.example.app",
               "userinfo": {"changes": {"k": {"timestamp": 5, "value": b"\x00\x01"}}}}
    add(bytes([T_ASV]) + envelope_entries(request), "synchronize")
    add(bytes([T_V] * 130 + [T_ASV, 0]), "variants-130-deep")
    add(bytes([T_V] * 20 + [T_ASV, 1]) + text("a") + bytes([T_X]) + bytes(8), "variants-around-envelope")
    add(bytes([T_ARRAY] * 33 + [T_X] + [1] * 33) + bytes(8), "arrays-33-deep")
    add(bytes([T_DICT, 10, T_X, 2]) + text("o") + bytes(8) + text("p") + bytes(8), "object-path-keys")
    add(bytes([T_DICT, 4, T_S, 2]) + bytes(4) + text("a") + b"\x01\x00\x00\x00" + text("b"), "integer-keys")
    add(bytes([T_DICT, 12, T_S, 1, 0]) + text("fd"), "fd-keys")
    add(bytes([T_ASV, 2]) + text("a") + bytes([T_B, 1]) + text("a") + bytes([T_B, 0]), "duplicate-keys")
    add(bytes([12]), "top-level-fd")
    add(bytes([T_ASV, 1]) + text("h") + bytes([12, 0]), "fd-value")
    add(bytes([T_STRUCT, 0, T_D]) + struct.pack("<d", float("nan")), "date-nan")
    add(bytes([T_STRUCT, 1, T_D, 12]) + struct.pack("<d", 1.0) + bytes([0]), "date-and-fd")
    add(bytes([T_ASV, 1]) + text("t") + bytes([T_T]) + struct.pack("<Q", 2**64 - 1), "uint64-max")
    add(bytes([T_ASV, 1]) + text("g") + bytes([11, T_DICT, 3, T_STRUCT, 3, 0, 1, 2, 8]), "signature-value")
    add(bytes([T_ARRAY, T_V, 255]) + bytes([T_B, 1]) * 255, "array-255")


def request_edges(c):
    add = lambda value, name: c.add("fuzz_daemon_request", binary(value), name)
    record = {"timestamp": 5, "value": "v"}
    add({"message": "register"}, "register")
    add([{"message": "register"},
         {"message": "synchronize", "userinfo": {"changes": {"a": record, "b": record}}},
         {"message": "synchronize", "userinfo": {"changes": {"a": {}}}},
         {"message": "discardJournalEntries", "userinfo": 1},
         {"message": "printDebugDescription", "bundleIdentifier": "com.example.fuzz"},
         {"message": "unregister"}], "conversation")
    add({"message": "synchronize", "userinfo": {"changes": {"k" * 65: record}}}, "key-too-long")
    add({"message": "synchronize", "userinfo": {"changes": {"k": {"timestamp": 5, "value": b"\x00" * 4000},
                                                            "l": {"timestamp": 5, "value": b"\x01" * 2000}}}},
        "large-values")
    add({"message": "synchronize", "userinfo": {"changes": {"k": {"timestamp": 0, "value": 1}}}}, "bad-record")
    add({"message": "synchronize", "userinfo": {"changes": []}}, "changes-not-dictionary")
    add({"message": "synchronize"}, "no-userinfo")
    add([{"message": "register"}, {"message": "discardJournalEntries", "userinfo": 2**63 - 1},
         {"message": "discardJournalEntries", "userinfo": -(2**63)}], "discard-extremes")
    add({"message": "discardJournalEntries", "userinfo": "1"}, "discard-string")
    add({"message": 7}, "message-not-string")
    add({"message": "ping", "additionalStore": "yes"}, "additional-not-boolean")
    add({"message": "migrate", "userinfo": {"parameter": ".."}}, "not-a-store-message")
    add("register", "not-a-dictionary")


def main():
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    c = Candidates(sys.argv[2])
    counts = harvest(c, sys.argv[1])
    for edges in (binary_edges, xml_edges, gzip_edges, serialised_edges, record_edges, store_edges,
                  dbus_edges, request_edges):
        edges(c)
    print("harvested: %(store)d store files, %(request)d requests, %(sequence)d conversations, "
          "%(other)d other property lists" % counts)


if __name__ == "__main__":
    main()
