"""IMX containers for the tests, written independently of the engine's own
packer: a header ('IMX\\0', u16 version, u16 count), a table of
(u16 name_len, name, u64 offset, u64 size) records, then the payloads. All
integers little-endian. Broken variants are cut from valid bytes."""
import os
import struct


def table_bytes(members, version=2, count=None):
    out = b"IMX\0" + struct.pack("<HH", version, len(members) if count is None else count)
    for name, offset, size in members:
        out += struct.pack("<H", len(name)) + name + struct.pack("<QQ", offset, size)
    return out


def container(files, version=2, reverse_payloads=False):
    """files: list of (name, bytes). Payloads follow the table, in order (or
    reversed, to show that the reader needs no order)."""
    names = [n.encode() if isinstance(n, str) else n for n, _ in files]
    head = len(table_bytes([(n, 0, 0) for n in names], version))
    order = list(range(len(files)))
    if reverse_payloads:
        order.reverse()
    offsets, pos, body = {}, head, b""
    for i in order:
        offsets[i] = pos
        body += files[i][1]
        pos += len(files[i][1])
    records = [(names[i], offsets[i], len(files[i][1])) for i in range(len(files))]
    return table_bytes(records, version) + body


def write_cases(d, sample):
    os.makedirs(d, exist_ok=True)

    def put(name, data):
        with open(os.path.join(d, name), "wb") as f:
            f.write(data)

    files = sample.files()
    put("sample.imx", container(files))
    put("sample_reversed.imx", container(files, reverse_payloads=True))
    put("empty.imx", container([]))
    put("zero_length.imx", container([("manifest.json", dict(files)["manifest.json"]), ("empty.bin", b""),
                                      ("nested/deeper/one.bin", b"1")]))
    put("synthetic_manifest.imx", container(
        [("manifest.json", b'{"_imx_synthetic_manifest": true}'), ("data.bin", b"payload")]))
    put("version1.imx", container(files[:1], version=1))
    put("bad_magic.imx", b"IMY\0" + container(files[:1])[4:])
    put("short_header.imx", b"IMX\0\x02")
    put("version3.imx", container(files[:1], version=3))

    # Truncations of a two-member table.
    two = [(b"a.bin", 100, 4), (b"b.bin", 104, 4)]
    full = table_bytes(two)
    first = len(table_bytes(two[:1]))  # header + first record
    put("truncated_toc.imx", full[:first + 1])           # inside member 1's name length
    put("truncated_name.imx", full[:first + 2 + 3])       # inside member 1's name
    put("truncated_offsets.imx", full[:first + 2 + 5 + 9])  # inside member 1's offset/size
    put("truncated_payload.imx", table_bytes([(b"a.bin", 40, 1000)]) + b"x" * 20)
    put("seek_beyond.imx", table_bytes([(b"a.bin", 1 << 63, 4)]))

    # Unsafe names follow a good member, which is written before the refusal.
    for tag, bad in [("dotdot", b"a/../b"), ("absolute", b"/etc/x"), ("backslash", b"\\x"),
                     ("dots", b"a..b"), ("empty", b""), ("nul", b"a\0b")]:
        put("unsafe_%s.imx" % tag, container([("good.bin", b"ok"), (bad, b"bad")]))

    # Members that collide once written out.
    put("place_conflict.imx", container([("d/x.bin", b"x"), ("d", b"file over a directory")]))
    put("part_conflict.imx", container([("x.bin.part/y", b"y"), ("x.bin", b"x")]))
    put("parent_conflict.imx", container([("f", b"a file"), ("f/x.bin", b"below a file")]))

    # A container under another name, and one already named .lebundle.
    put("plain.bin", container([("only.bin", b"1")]))
    put("y.lebundle.imx", container([("only.bin", b"1")]))
