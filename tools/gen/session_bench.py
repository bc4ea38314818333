#!/usr/bin/python3
"""A bundle for the live-session benchmark: a 1280x720 driver loop of JPEG
frames with the face crop pasted at its centre through a feathered mask, the
director at the given crop (the frame graph of batch 1 and a chunk graph of
batch 4), and the sample's streaming speech members.

Usage: session_bench.py OUT_DIR CROP
"""
import io
import sys

import numpy as np

import audio_graphs
from bundle_data import Bundle, Rng, f32, i32
from render_graphs import CHUNK_KEY, SAMPLE_KEY, Director, director_members

W, H, NT, FRAMES = 1280, 720, 8, 16


def jpeg(i):
    from PIL import Image  # only the generator needs PIL
    y, x = np.mgrid[0:H, 0:W]
    rgb = np.stack([(x * 255 // (W - 1)), (y * 255 // (H - 1)), np.full_like(x, 60 + 10 * i)], -1)
    rgb[:, (i * 37) % W:(i * 37) % W + 8] = 240  # a bar that moves with the frame
    out = io.BytesIO()
    Image.fromarray(rgb.astype(np.uint8)).save(out, format="JPEG", quality=90)
    return out.getvalue()


def feathered_mask(crop):
    yy, xx = np.mgrid[0:crop, 0:crop].astype(np.float64)
    c = (crop - 1) / 2.0
    r = np.sqrt(((xx - c) / (0.48 * crop)) ** 2 + ((yy - c) / (0.48 * crop)) ** 2)
    return (np.clip((1.0 - r) * 8.0, 0.0, 1.0) * 255).astype(np.uint8).tobytes()


def bench_bundle(out, crop):
    rng = Rng(0x5E55 + crop)
    x0, y0 = (W - crop) // 2, (H - crop) // 2
    manifest = {"format": "le-bundle-v0", "agent": "session-bench", "NT": NT, "H": H, "W": W, "M_src_w": W,
                "M_src_h": H, "crop": crop, "amount": 0.5, "sigma": 1.5, "ksize": 7, "frames": FRAMES}
    prior = (np.arange(NT * 3 * crop * crop, dtype=np.float64) * 0.618034) % 1.0
    pooled = (np.arange(NT * 65536, dtype=np.float64) * 0.381966) % 1.0 - 0.5
    members = {
        "P.f16": prior.astype("<f2").tobytes(),
        "pooled64.f16": pooled.astype("<f2").tobytes(),
        "M.f32": f32([v for _ in range(NT) for v in (1.0, 0.0, float(x0), 0.0, 1.0, float(y0))]),
        "mask_512.u8": feathered_mask(crop),
        "drive/xs.f32": f32([(rng.unit() * 2 - 1) * 0.5 for _ in range(FRAMES * 63)]),
        "drive/xd.f32": f32([(rng.unit() * 2 - 1) * 0.5 for _ in range(FRAMES * 63)]),
        "drive/si.i32": i32([i % NT for i in range(FRAMES)]),
        "xs_target.bin": f32([(rng.unit() * 2 - 1) * 0.5 for _ in range(NT * 63)]),
    }
    members.update({"target_frames/frame_%06d.jpg" % i: jpeg(i) for i in range(NT)})
    members.update(director_members(crop, {"model_%s.onnx" % SAMPLE_KEY: Director(crop),
                                           "model_%s.onnx" % CHUNK_KEY: Director(crop, batch=4)}))
    members.update(audio_graphs.sample_members())
    Bundle(manifest, members).write_dir(out)


if __name__ == "__main__":
    if len(sys.argv) != 3:
        sys.exit("usage: session_bench.py OUT_DIR CROP")
    bench_bundle(sys.argv[1], int(sys.argv[2]))
