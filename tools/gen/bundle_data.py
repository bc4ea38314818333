"""Synthetic bundle contents: the manifest and the members of a small avatar.

Every byte comes from a fixed-seed generator, so two runs write the same
files. The geometry is tiny (crop 32, a 64x48 canvas, 4 source frames) so
that tests stay fast.
"""
import json
import os
import struct

# Primary name -> canonical name, as the engine resolves them.
CANONICAL = {
    "P.f16": "source_frames.f16",
    "P_hevc.mov": "source_frames.hevc",
    "a2x_enc_stream.onnx": "audio_motion_encoder.onnx",
    "a2x_dec.onnx": "audio_motion_decoder.onnx",
    "M.f32": "paste_transform.f32",
    "mask_512.u8": "paste_mask.u8",
    "pooled64.f16": "pooled_features.f16",
    "fs_red.f16": "feature_synth.f16",
    "xs_target.bin": "target_keypoints.bin",
    "drive/xs.f32": "idle_loop/source_keypoints.f32",
    "drive/xd.f32": "idle_loop/driven_keypoints.f32",
    "drive/si.i32": "idle_loop/source_index.i32",
}

def canonical_name(name):
    """The second name a newer bundle stores a member under."""
    if name in CANONICAL:
        return CANONICAL[name]
    if name.startswith("model_b") and name.endswith(".onnx") and len(name) > 12:
        batch, _, rest = name[7:-5].partition("_")
        return "render_model.batch" + batch + ("." + rest if rest else "") + ".onnx"
    return name


MANIFEST_ORDER = ["format", "agent", "NT", "H", "W", "M_src_w", "M_src_h", "crop",
                  "amount", "sigma", "ksize", "frames"]


class Rng:
    """xorshift64*: small, fixed, and the same in every language."""

    def __init__(self, seed):
        self.s = seed or 1

    def next(self):
        s = self.s
        s ^= (s >> 12)
        s ^= (s << 25) & 0xFFFFFFFFFFFFFFFF
        s ^= (s >> 27)
        self.s = s
        return (s * 0x2545F4914F6CDD1D) & 0xFFFFFFFFFFFFFFFF

    def unit(self):
        return (self.next() >> 11) / float(1 << 53)

    def bytes(self, n):
        return bytes(self.next() >> 56 for _ in range(n))


def f16(values):
    return struct.pack("<%de" % len(values), *values)


def f32(values):
    return struct.pack("<%df" % len(values), *values)


def i32(values):
    return struct.pack("<%di" % len(values), *values)


def manifest_text(fields, **changes):
    """JSON text of a manifest: known keys first in a fixed order, then the
    rest. A change of None removes the key."""
    m = dict(fields)
    for k, v in changes.items():
        if v is None:
            m.pop(k, None)
        else:
            m[k] = v
    keys = [k for k in MANIFEST_ORDER if k in m] + [k for k in m if k not in MANIFEST_ORDER]
    parts = []
    for k in keys:
        v = m[k]
        if isinstance(v, float) and v == -1e300:
            text = "-1e300"
        elif isinstance(v, str) and '\\"' in v:
            text = '"%s"' % v  # already escaped by the caller
        else:
            text = json.dumps(v)
        parts.append('"%s": %s' % (k, text))
    return "{" + ", ".join(parts) + "}\n"


class Bundle:
    def __init__(self, manifest, members):
        self.manifest = manifest
        self.members = members  # name -> bytes

    def write_dir(self, d):
        os.makedirs(d, exist_ok=True)
        if self.manifest is not None:
            with open(os.path.join(d, "manifest.json"), "w", encoding="utf-8") as f:
                f.write(manifest_text(self.manifest))
        for name, data in sorted(self.members.items()):
            p = os.path.join(d, name)
            os.makedirs(os.path.dirname(p), exist_ok=True)
            with open(p, "wb") as f:
                f.write(data)

    def files(self):
        """(name, bytes) of every file, sorted by name as the packer does."""
        out = dict(self.members)
        if self.manifest is not None:
            out["manifest.json"] = manifest_text(self.manifest).encode()
        return sorted(out.items())

    def canonical(self):
        return Bundle(dict(self.manifest),
                      {canonical_name(k): v for k, v in self.members.items()})


def sample_bundle():
    nt, crop, frames, h, w = 4, 32, 6, 48, 64
    rng = Rng(0x5EED)
    manifest = {
        "format": "le-bundle-v0", "agent": "sample", "NT": nt, "H": h, "W": w,
        "M_src_w": w, "M_src_h": h, "crop": crop, "amount": 0.5, "sigma": 1.5,
        "ksize": 7, "frames": frames,
    }
    members = {
        "P.f16": f16([rng.unit() for _ in range(nt * crop * crop * 3)]),
        "M.f32": f32([v for _ in range(nt) for v in (1.0, 0.0, 16.0, 0.0, 1.0, 8.0)]),
        "mask_512.u8": rng.bytes(crop * crop),
        "drive/xs.f32": f32([rng.unit() * 2 - 1 for _ in range(frames * 63)]),
        "drive/xd.f32": f32([rng.unit() * 2 - 1 for _ in range(frames * 63)]),
        "drive/si.i32": i32([i % nt for i in range(frames)]),
        "xs_target.bin": f32([rng.unit() * 2 - 1 for _ in range(nt * 63)]),
    }
    # The pooled features, the JPEG driver, the director with its lip
    # template (model_b1_fp32.onnx), and the streaming speech model.
    from frames_data import driver_frames, pooled_features
    from render_graphs import sample_members
    import audio_graphs
    members["pooled64.f16"] = pooled_features(nt)
    members.update(sample_members(crop))
    members.update(audio_graphs.sample_members())
    members.update(driver_frames(nt, w, h))
    return Bundle(manifest, members)
