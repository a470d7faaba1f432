#!/usr/bin/env python3
# Seed candidates for the fuzz targets, one directory per target:
#
#     fuzz/seeds.py HARVEST OUT
#
# HARVEST holds the files the tests left behind (scripts/fuzz-seeds runs them
# with VELMORA_FUZZ_SEED_DIR): store files the daemon and the library wrote,
# requests the scripted responder received. Each is sorted into the targets
# that decode its kind, and the values inside yield more (storage records, the
# serialised and gzip forms of real values, request envelopes in the bus
# target's input form). The hand-made hostile shapes (damaged files, nesting
# past every limit, entity expansion, compression bombs, odd bus types) live
# in the checked-in corpus itself: scripts/fuzz-seeds merges it with these
# (libFuzzer -merge=1) into fuzz/corpus/, so they stay while they add
# coverage. Standard library only.
#
# Every XML plist DOCTYPE is written in our writer's form, <!DOCTYPE plist>:
# the public identifier and DTD address other writers (plistlib among them)
# put there name their maker. Inside a binary plist the shorter form leaves
# that seed damaged, which does a fuzz seed no harm.

import datetime
import gzip
import hashlib
import os
import plistlib
import re
import struct
import sys

PUBLIC_DOCTYPE = re.compile(rb'<!DOCTYPE\s+plist\s+PUBLIC\s+"[^"]*"(?:\s+"[^"]*")?\s*>')
# The bus target's type tags (see fuzz/fuzz_dbus_envelope.cpp).
T_B, T_X, T_T, T_D, T_S, T_V, T_ARRAY, T_STRUCT, T_ASV, T_AY = 1, 6, 7, 8, 9, 13, 14, 16, 17, 18


def add(target, data, name=""):
    if not data or len(data) > 16 * 1024:  # larger files add bulk, rarely coverage
        return
    data = PUBLIC_DOCTYPE.sub(b"<!DOCTYPE plist>", data)
    os.makedirs(os.path.join(OUT, target), exist_ok=True)
    with open(os.path.join(OUT, target, name + hashlib.sha1(data).hexdigest()[:16]), "wb") as f:
        f.write(data)


def dumps(value, fmt=plistlib.FMT_BINARY):
    try:
        return plistlib.dumps(value, fmt=fmt, sort_keys=True)
    except (TypeError, OverflowError, ValueError):
        return None


def text(raw):
    return struct.pack("<H", len(raw[:0xFFFF])) + raw[:0xFFFF]


# A type followed by a value of it, as a variant would hold it; a dictionary
# as the envelope shape a{sv}, a date as (d): seconds since 2001.
def typed(v):
    if isinstance(v, dict):
        items = sorted(v.items())[:255]
        return bytes([T_ASV, len(items)]) + b"".join(text(k.encode()) + typed(x) for k, x in items)
    if isinstance(v, list):
        return bytes([T_ARRAY, T_V, len(v[:255])]) + b"".join(typed(x) for x in v[:255])
    if isinstance(v, (str, bytes)):
        return bytes([T_S]) + text(v.encode()) if isinstance(v, str) else bytes([T_AY]) + text(v)
    if isinstance(v, datetime.datetime):
        return bytes([T_STRUCT, 0, T_D]) + struct.pack("<d", (v - datetime.datetime(2001, 1, 1)).total_seconds())
    if not isinstance(v, (int, float)):
        return bytes([T_B, 0])
    tag, fmt = ((T_B, "<?") if isinstance(v, bool) else (T_D, "<d") if isinstance(v, float)
                else (T_T, "<Q") if v > 2**63 - 1 else (T_X, "<q"))
    return bytes([tag]) + struct.pack(fmt, v & (2**64 - 1) if tag == T_T else max(v, -(2**63)) if tag == T_X else v)


# A storage record (which the encoding target also reads in the older
# {timestamp, value} serialised form), and its value in the timestamped
# serialised form (tag 0x01, three zero bytes, the timestamp as little-endian
# int64, a binary plist), plain and gzipped.
def add_record(record):
    add("fuzz_encoding", dumps(record))
    timestamp, value = record.get("timestamp"), record.get("value")
    if isinstance(timestamp, int) and timestamp != 0 and -(2**63) <= timestamp < 2**63 and dumps(value):
        form = b"\x01\x00\x00\x00" + struct.pack("<q", timestamp) + dumps(value)
        add("fuzz_encoding", form)
        add("fuzz_encoding", gzip.compress(form, mtime=0))


def harvest(root):
    for directory, _, files in os.walk(root):
        requests = []
        for name in files:
            with open(os.path.join(directory, name), "rb") as f:
                data = f.read()
            if data.startswith((b"<?xml", b"<plist", b"bplist00")):
                add("fuzz_plist", data)
            if data[:2] == b"\x1f\x8b":
                add("fuzz_encoding", data)
            if not data.startswith(b"bplist00"):
                continue
            try:
                value = plistlib.loads(data)
            except Exception:  # a damaged file the tests made on purpose
                continue
            add("fuzz_plist", dumps(value, plistlib.FMT_XML))
            if isinstance(value, dict) and "message" in value:
                add("fuzz_daemon_request", data)
                add("fuzz_dbus_envelope", typed(value))
                if match := re.fullmatch(r"request-(\d+)\.bplist", name):
                    requests.append((int(match.group(1)), value))
            elif isinstance(value, dict) and {"values", "changecount", "journal"} & value.keys():
                add("fuzz_store_file", data)
            stack = [value]  # every value inside, without recursion: test files nest deep
            while stack:
                inner = stack.pop()
                stack.extend(inner.values() if isinstance(inner, dict) else inner if isinstance(inner, list) else [])
                if isinstance(inner, dict) and "timestamp" in inner and "value" in inner:
                    add_record(inner)
                elif isinstance(inner, bytes) and (inner[:1] in (b"\x01", b"b") or inner[:2] == b"\x1f\x8b"):
                    add("fuzz_encoding", inner)
        # A responder's recorded conversation, in order: the daemon target
        # replays it as one sequence.
        if len(requests) > 1:
            add("fuzz_daemon_request", dumps([v for _, v in sorted(requests, key=lambda r: r[0])][:16]), "sequence-")


if __name__ == "__main__":
    if len(sys.argv) != 3:
        sys.exit("usage: fuzz/seeds.py HARVEST OUT")
    OUT = sys.argv[2]
    harvest(sys.argv[1])
