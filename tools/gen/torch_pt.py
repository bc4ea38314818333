"""A small writer of PyTorch-style checkpoints, written from the file
formats themselves (no torch): a stored ZIP archive whose 'archive/data.pkl'
is a protocol-2 pickle of a state_dict, with each tensor storage in
'archive/data/<key>' as little-endian float32.

The pickle is laid out as torch lays it out: an OrderedDict rebuilt by
REDUCE, its items set in one SETITEMS batch, each value a
torch._utils._rebuild_tensor_v2 call over a persistent-id storage, globals
and repeated strings memoised and fetched back with BINGET, and the
_metadata attribute restored by BUILD. Hooks let the test data build the
broken variants one change at a time.
"""
import struct
import zlib

# Opcodes.
PROTO, STOP, MARK, TUPLE, EMPTY_TUPLE = b"\x80", b".", b"(", b"t", b")"
TUPLE1, TUPLE2, TUPLE3 = b"\x85", b"\x86", b"\x87"
BININT, BININT1, BININT2, NONE = b"J", b"K", b"M", b"N"
BINUNICODE, GLOBAL, REDUCE, BUILD, BINPERSID = b"X", b"c", b"R", b"b", b"Q"
BINPUT, LONG_BINPUT, BINGET, LONG_BINGET = b"q", b"r", b"h", b"j"
EMPTY_DICT, SETITEM, SETITEMS, NEWTRUE, NEWFALSE = b"}", b"s", b"u", b"\x88", b"\x89"


class Pickler:
    """Emits opcodes; memoises like the standard pickler (BINPUT below 256,
    LONG_BINPUT from there) and fetches repeats with BINGET/LONG_BINGET."""

    def __init__(self, memo_start=0):
        self.out = bytearray()
        self.next_memo = memo_start
        self.memo = {}  # (kind, value) -> index

    def raw(self, b):
        self.out += b

    def put(self, key=None):
        i = self.next_memo
        self.next_memo += 1
        self.out += BINPUT + bytes([i]) if i < 256 else LONG_BINPUT + struct.pack("<I", i)
        if key is not None:
            self.memo[key] = i

    def get(self, i):
        self.out += BINGET + bytes([i]) if i < 256 else LONG_BINGET + struct.pack("<I", i)

    def _memoised(self, key, emit):
        if key in self.memo:
            self.get(self.memo[key])
        else:
            emit()
            self.put(key)

    def string(self, s):
        b = s.encode()
        self._memoised(("s", s), lambda: self.raw(BINUNICODE + struct.pack("<I", len(b)) + b))

    def glob(self, module, name):
        self._memoised(("g", module, name), lambda: self.raw(GLOBAL + module.encode() + b"\n" + name.encode() + b"\n"))

    def integer(self, v):
        if 0 <= v < 256:
            self.raw(BININT1 + bytes([v]))
        elif 0 <= v < 65536:
            self.raw(BININT2 + struct.pack("<H", v))
        else:
            self.raw(BININT + struct.pack("<i", v))

    def int_tuple(self, values):
        if not values:
            self.raw(EMPTY_TUPLE)
        elif len(values) <= 3:
            for v in values:
                self.integer(v)
            self.raw((TUPLE1, TUPLE2, TUPLE3)[len(values) - 1])
        else:
            self.raw(MARK)
            for v in values:
                self.integer(v)
            self.raw(TUPLE)
        self.put()

    def ordered_dict(self):
        self.glob("collections", "OrderedDict")
        self.raw(EMPTY_TUPLE + REDUCE)
        self.put()


def strides(shape):
    out, step = [], 1
    for d in reversed(shape):
        out.insert(0, step)
        step *= d
    return out


class Tensor:
    """One state_dict entry: a view of `shape` at element `offset` of the
    storage `key`, which holds `numel` floats in all."""

    def __init__(self, name, key, offset, shape, numel, storage_type="FloatStorage", persid_head="storage",
                 persid_items=5, rebuild="_rebuild_tensor_v2", rebuild_args=6):
        self.name, self.key, self.offset, self.shape, self.numel = name, key, offset, list(shape), numel
        self.storage_type, self.persid_head, self.persid_items = storage_type, persid_head, persid_items
        self.rebuild, self.rebuild_args = rebuild, rebuild_args


def tensor_value(p, t):
    """Pushes the rebuilt tensor t."""
    if t.rebuild == "_rebuild_tensor_v2":
        p.glob("torch._utils", "_rebuild_tensor_v2")
    else:
        p.glob(*t.rebuild.split(" "))
    p.raw(MARK)
    # The persistent id: ('storage', torch.<type>, key, 'cpu', numel).
    p.raw(MARK)
    items = [lambda: p.string(t.persid_head), lambda: p.glob("torch", t.storage_type), lambda: p.string(t.key),
             lambda: p.string("cpu"), lambda: p.integer(t.numel)]
    for emit in items[:t.persid_items]:
        emit()
    p.raw(TUPLE)
    p.put()
    p.raw(BINPERSID)
    args = [lambda: p.integer(t.offset), lambda: p.int_tuple(t.shape), lambda: p.int_tuple(strides(t.shape)),
            lambda: p.raw(NEWFALSE), lambda: p.ordered_dict()]
    for emit in args[:t.rebuild_args - 1]:
        emit()
    p.raw(TUPLE)
    p.put()
    p.raw(REDUCE)
    p.put()


def state_dict_pickle(tensors, memo_start=0, stop=True, metadata=True, prefix=b"", batches=1):
    """The pickle of an OrderedDict of tensors. `batches` splits the items
    over that many MARK ... SETITEMS groups (a name may then repeat)."""
    p = Pickler(memo_start)
    p.raw(PROTO + b"\x02")
    p.raw(prefix)
    p.ordered_dict()
    per = max(1, -(-len(tensors) // batches)) if tensors else 1
    for start in range(0, len(tensors), per):
        p.raw(MARK)
        for t in tensors[start:start + per]:
            p.string(t.name)
            tensor_value(p, t)
        p.raw(SETITEMS)
    if metadata:
        # state = {'_metadata': OrderedDict([('', {'version': 1}), ...])}
        p.raw(EMPTY_DICT)
        p.put()
        p.string("_metadata")
        p.ordered_dict()
        p.raw(MARK)
        for module in ["", "cand", "syn"]:
            p.string(module)
            p.raw(EMPTY_DICT)
            p.put()
            p.string("version")
            p.integer(1)
            p.raw(SETITEM)
        p.raw(SETITEMS)
        p.raw(SETITEM)
        p.raw(BUILD)
    if stop:
        p.raw(STOP)
    return bytes(p.out)


class Zip:
    """A stored ZIP archive as torch writes one: every entry ZIP_STORED,
    each entry's data aligned to 64 bytes by padding its local extra field.
    `layout` records where each structure lies, for cutting variants."""

    def __init__(self, entries, align=64, trailing=b""):
        self.entries = entries  # (name, bytes)
        out = bytearray()
        self.local = []
        for name, data in entries:
            n = name.encode()
            at = len(out)
            base = at + 30 + len(n)
            pad = (-(base + 4)) % align if align else 0
            extra = (struct.pack("<HH", 0x4246, pad) + b"Z" * pad) if align else b""
            crc = zlib.crc32(data) & 0xFFFFFFFF
            out += struct.pack("<IHHHHHIIIHH", 0x04034B50, 20, 0, 0, 0, 0, crc, len(data), len(data), len(n),
                               len(extra))
            out += n + extra
            self.local.append((at, len(out)))
            out += data
        self.central_at = len(out)
        self.central = []
        for (name, data), (at, _) in zip(entries, self.local):
            n = name.encode()
            crc = zlib.crc32(data) & 0xFFFFFFFF
            self.central.append(len(out))
            out += struct.pack("<IHHHHHHIIIHHHHHII", 0x02014B50, 20, 20, 0, 0, 0, 0, crc, len(data), len(data),
                               len(n), 0, 0, 0, 0, 0, at)
            out += n
        self.end_at = len(out)
        out += struct.pack("<IHHHHIIH", 0x06054B50, 0, 0, len(entries), len(entries), self.end_at - self.central_at,
                           self.central_at, 0)
        out += trailing
        self.bytes = bytes(out)


def f32_bytes(values):
    return struct.pack("<%df" % len(values), *values)


def checkpoint(tensors, storages, name="archive", extra_entries=(), **pickle_args):
    """tensors: Tensor list; storages: key -> list of floats (or raw bytes).
    Returns the Zip."""
    entries = [(name + "/data.pkl", state_dict_pickle(tensors, **pickle_args))]
    entries += [(name + "/byteorder", b"little")]
    for key, values in storages.items():
        entries.append((name + "/data/" + key, values if isinstance(values, bytes) else f32_bytes(values)))
    entries += [(name + "/version", b"3\n"), (name + "/.data/serialization_id", b"0123456789012345678901234567890")]
    entries += list(extra_entries)
    return Zip(entries)
