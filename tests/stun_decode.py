#!/usr/bin/env python3
"""Independent STUN decoder (RFC 5389), used by the tests to judge the bytes
the library builds, so that our own codec is not the only judge.

Usage: stun_decode.py HEX...
One line of key=value words per message: type length cookie_ok attrs
username_hex integrity fingerprint errors.
"""
import hashlib
import struct
import sys
import zlib

MAGIC = 0x2112A442
NAMES = {0x0006: "USERNAME", 0x0008: "MESSAGE-INTEGRITY", 0x8028: "FINGERPRINT"}


def decode(msg, out, errors):
    if len(msg) < 20:
        errors.append("header truncated")
        return
    mtype, length, cookie = struct.unpack(">HHI", msg[:8])
    out.update(type=mtype, length=length, cookie_ok=int(cookie == MAGIC))
    if length % 4 or 20 + length != len(msg):
        errors.append("length %d for %d bytes" % (length, len(msg)))
        return
    pos, names = 20, []
    while pos < len(msg):
        atype, alen = struct.unpack(">HH", msg[pos:pos + 4])
        end = pos + 4 + ((alen + 3) & ~3)
        if end > len(msg):
            errors.append("attribute truncated at %d" % pos)
            return
        value = msg[pos + 4:pos + 4 + alen]
        names.append(NAMES.get(atype, "0x%04x" % atype))
        if atype == 0x0006:
            out["username_hex"] = value.hex()
        elif atype == 0x0008:
            # Digest over the message before it, the length counting up to its end.
            prefix = bytearray(msg[:pos])
            struct.pack_into(">H", prefix, 2, pos + 24 - 20)
            out["integrity"] = int(hashlib.sha1(bytes(prefix)).digest() == value)
        elif atype == 0x8028:
            crc = zlib.crc32(msg[:pos]) & 0xFFFFFFFF
            out["fingerprint"] = int(alen == 4 and struct.unpack(">I", value)[0] == crc ^ 0x5354554E)
            if end != len(msg):
                errors.append("FINGERPRINT not last")
        pos = end
    out["attrs"] = ",".join(names)


def main(argv):
    for text in argv[1:]:
        data, errors = bytes.fromhex(text), []
        out = {"attrs": "", "username_hex": "", "integrity": 0, "fingerprint": 0}
        decode(data, out, errors)
        out["errors"] = len(errors)
        print(" ".join("%s=%s" % kv for kv in sorted(out.items())))
        for e in errors:
            print("  " + e, file=sys.stderr)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
