#!/usr/bin/env python3
"""Damages a VHD file in one chosen way, for tests of what import refuses.

vhd_tamper.py MODE IN OUT
  checksum   flip a byte of the footer at the end without fixing its checksum
  checksum-both  the same in both footer copies (at the end and at offset 0)
  head-zero  zero the footer copy at offset 0
  tail-size  halve the current size in the footer at the end, checksum fixed
  bat-past   point the first allocated block past the end of the file
  overlap    point the second allocated block at the first one
  blocksize  make the block size 3 MiB (not a power of two), checksum fixed
  truncate   cut the file in the middle of its blocks
  parent     give a differencing image another parent id, checksum fixed
  huge-zero-table  a 64 GiB disk of 512-byte blocks whose table is all zeros
             (every entry names sector 0); sparse, a few KiB on disk
  huge-same-block  a 4 GiB disk of 512-byte blocks whose every entry names
             the same block inside the file
"""
import struct
import sys

mode, src, dst = sys.argv[1:4]
data = bytearray(open(src, "rb").read())


def fix_checksum(buf, at, length, field):
    buf[at + field:at + field + 4] = b"\0\0\0\0"
    buf[at + field:at + field + 4] = struct.pack(">I", ~sum(buf[at:at + length]) & 0xFFFFFFFF)


def fix_header_checksum(at):
    fix_checksum(data, at, 1024, 36)


def huge(entry, disk_size):
    """A footer and header taken from IN, rewritten for a disk of 512-byte
    blocks with a table of `entry` repeated; written sparse when it is zero."""
    footer = bytearray(data[-512:])
    header = bytearray(data[header_at:header_at + 1024])
    entries = disk_size // 512
    footer[16:24] = struct.pack(">Q", 512)
    footer[48:56] = struct.pack(">Q", disk_size)
    fix_checksum(footer, 0, 512, 64)
    header[16:24] = struct.pack(">Q", 1536)
    header[28:32] = struct.pack(">I", entries)
    header[32:36] = struct.pack(">I", 512)
    fix_checksum(header, 0, 1024, 36)
    table_end = 1536 + 4 * entries
    with open(dst, "wb") as out:
        out.write(footer + header)
        if entry:
            out.write(struct.pack(">I", entry) * entries)
        out.seek(table_end + (4 << 20))  # room for a few blocks after the table
        out.write(footer)
    sys.exit(0)



footer_at = len(data) - 512
header_at = struct.unpack(">Q", data[footer_at + 16:footer_at + 24])[0]
table_at = struct.unpack(">Q", data[header_at + 16:header_at + 24])[0]
entries = struct.unpack(">I", data[header_at + 28:header_at + 32])[0]
allocated = [i for i in range(entries) if data[table_at + 4 * i:table_at + 4 * i + 4] != b"\xff\xff\xff\xff"]

if mode == "checksum":
    data[footer_at + 40] ^= 0x01
elif mode == "checksum-both":
    data[footer_at + 40] ^= 0x01
    data[40] ^= 0x01
elif mode == "head-zero":
    data[0:512] = bytes(512)
elif mode == "tail-size":
    size = struct.unpack(">Q", data[footer_at + 48:footer_at + 56])[0]
    data[footer_at + 48:footer_at + 56] = struct.pack(">Q", size // 1024 * 512)
    fix_checksum(data, footer_at, 512, 64)
elif mode == "huge-zero-table":
    huge(0, 64 << 30)
elif mode == "huge-same-block":
    huge((1536 + 4 * ((4 << 30) // 512)) // 512 + 8, 4 << 30)
elif mode == "bat-past":
    data[table_at + 4 * allocated[0]:table_at + 4 * allocated[0] + 4] = struct.pack(">I", len(data) // 512 + 10)
elif mode == "overlap":
    first = data[table_at + 4 * allocated[0]:table_at + 4 * allocated[0] + 4]
    data[table_at + 4 * allocated[1]:table_at + 4 * allocated[1] + 4] = first
elif mode == "blocksize":
    data[header_at + 32:header_at + 36] = struct.pack(">I", 3 << 20)
    fix_header_checksum(header_at)
elif mode == "truncate":
    data = data[:len(data) // 2]
elif mode == "parent":
    data[header_at + 40] ^= 0xFF
    fix_header_checksum(header_at)
else:
    sys.exit("unknown mode " + mode)
open(dst, "wb").write(data)
