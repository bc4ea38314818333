#!/usr/bin/python3
"""The demo avatar: a real face that speaks, built procedurally from NASA's
public-domain portrait of astronaut Eileen Collins (data/astronaut.png of
Debian's python3-skimage; tools/demo/fetch_photo.sh extracts just that file).

No learned face model exists here, so nothing in this bundle is learned:
  - the canvas is the photograph scaled by 1.5 (768 x 768); the driver loop
    is 50 frames of it with a subtle idle motion (the torso breathes, the
    head follows a little, the eyes blink once);
  - 21 keypoints are placed by hand on the photograph's face; rows 16 to 20
    are the mouth (16 chin, 17 upper lip, 18 lower lip, 19 left corner,
    20 right corner), as the streaming speech model moves them;
  - the director graph warps the source crop by the keypoints' moves: a
    smooth displacement field, the sum of one Gaussian per keypoint weighted
    by that keypoint's move, sampled with GridSample; where the lips part,
    the lip contour's region (the compose v2 lip mask, following the inner
    lips) darkens in proportion to the opening: the mouth's interior;
  - the streaming audio-to-keypoints members are the generated speech
    model's (tools/gen/audio_graphs.py), its mouth motion scaled up for a
    face of this size.

Usage: demo_avatar.py PHOTO OUT_DIR
"""
import base64
import io
import json
import math
import sys

import numpy as np
from onnx import helper

import audio_graphs
from bundle_data import Bundle, f32, i32
from graphs import IR_VERSION, OPSET, _f32, _init, _sha, _value
from render_graphs import ELLIPSE_FROM, structure_model

SCALE = 1.5
W = H = 768
CROP = 256
NT = 50
# The crop's top-left on the canvas: the face at its centre.
X0, Y0 = 208, 62
# Keypoints on the 512 x 512 photograph, in pixels.
LANDMARKS = [
    (195, 90), (250, 92),    # 0, 1: brows
    (205, 100), (246, 102),  # 2, 3: eyes
    (225, 105), (226, 127),  # 4, 5: nose bridge, nose tip
    (216, 130), (236, 130),  # 6, 7: nostrils
    (195, 125), (256, 126),  # 8, 9: cheeks
    (188, 142), (264, 142),  # 10, 11: jaw
    (198, 160), (252, 160),  # 12, 13: lower jaw
    (182, 105), (268, 106),  # 14, 15: temples
    (224, 170),              # 16: chin
    (224, 142), (224, 150),  # 17, 18: inner upper lip, inner lower lip
    (202, 140), (244, 141),  # 19, 20: mouth corners
]
MOUTH = (16, 17, 18, 19, 20)
# Reach of each keypoint's move, in crop pixels: the mouth's are local.
SIGMA_PX = [26.0] * 16 + [30.0, 11.0, 13.0, 12.0, 12.0]
# Darkening of the mouth's interior per unit of opening (normalised units).
DARK_GAIN = 5.0
DARK_MAX = 0.62
DARK_RGB = [0.55, 0.85, 0.85]  # the interior keeps a little red
# The speech model's mouth motion, scaled for this face.
MOUTH_GAIN = 1.35


def load_photo(path):
    from PIL import Image
    img = Image.open(path).convert("RGB")
    if img.size != (512, 512):
        raise SystemExit("demo_avatar: %s is not the 512 x 512 portrait" % path)
    return np.asarray(img.resize((W, H), Image.LANCZOS), dtype=np.float64)


def bilinear(img, sx, sy):
    """img sampled at float pixel coordinates (sx, sy), edges clamped."""
    h, w = img.shape[:2]
    sx = np.clip(sx, 0, w - 1.0)
    sy = np.clip(sy, 0, h - 1.0)
    x0 = np.minimum(np.floor(sx).astype(int), w - 2)
    y0 = np.minimum(np.floor(sy).astype(int), h - 2)
    fx = (sx - x0)[..., None]
    fy = (sy - y0)[..., None]
    top = img[y0, x0] * (1 - fx) + img[y0, x0 + 1] * fx
    bot = img[y0 + 1, x0] * (1 - fx) + img[y0 + 1, x0 + 1] * fx
    return top * (1 - fy) + bot * fy


def breath(i):
    return math.sin(2 * math.pi * i / NT)


def lift(y, i):
    """Vertical displacement in canvas pixels at row y in frame i: the torso
    rises by up to 2.4 px, the head by 0.8 px."""
    t = np.clip((y - 300.0) / 200.0, 0.0, 1.0)
    return -breath(i) * (0.8 + 1.6 * t * t * (3 - 2 * t))


def blink(i):
    return {30: 0.5, 31: 1.0, 32: 1.0, 33: 0.5}.get(i, 0.0)


def driver_frame(photo, i):
    yy, xx = np.mgrid[0:H, 0:W].astype(np.float64)
    frame = bilinear(photo, xx, yy - lift(yy, i))
    b = blink(i)
    if b > 0:
        for k in (2, 3):
            ex, ey = (c * SCALE for c in LANDMARKS[k])
            ey += lift(ey, i)
            skin = frame[int(ey + 14), int(ex)]
            r = np.sqrt(((xx - ex) / 13.0) ** 2 + ((yy - ey) / 6.5) ** 2)
            a = b * np.clip((1.0 - r) * 3.0, 0.0, 1.0)[..., None]
            frame = frame * (1 - a) + skin * a
    return np.clip(np.rint(frame), 0, 255).astype(np.uint8)


def keypoints(i):
    """63 floats: the landmarks of frame i in crop-normalised coordinates
    (-1 at the first pixel, +1 at the last), z 0."""
    row = []
    for (x, y) in LANDMARKS:
        cx, cy = x * SCALE, y * SCALE
        cy += lift(cy, i)
        row += [(cx - X0) / ((CROP - 1) / 2.0) - 1.0, (cy - Y0) / ((CROP - 1) / 2.0) - 1.0, 0.0]
    return row


def jpeg(rgb):
    from PIL import Image
    out = io.BytesIO()
    Image.fromarray(rgb).save(out, format="JPEG", quality=92, subsampling=0, optimize=False, progressive=False)
    return out.getvalue()


def soft_ellipse(cx, cy, rx, ry, edge):
    yy, xx = np.mgrid[0:CROP, 0:CROP].astype(np.float64)
    r = np.sqrt(((xx - cx) / rx) ** 2 + ((yy - cy) / ry) ** 2)
    return np.clip((1.0 - r) * edge, 0.0, 1.0)


def director():
    """The director graph: keypoint-driven warp of the source crop, the
    mouth's interior darkened as the lips part, and the ellipse compose that
    the lip template's compose v2 structure replaces at load."""
    S = CROP
    # The field is smooth at the scale of its narrowest Gaussian, so it is
    # evaluated on a coarse grid and widened bilinearly: a sixteenth of the
    # work of evaluating every pixel.
    F = S // 4
    lin_f = np.linspace(-1.0, 1.0, F)
    fx, fy = np.meshgrid(lin_f, lin_f)
    base = np.stack([fx, fy], -1).reshape(1, F * F, 1, 2)
    lin = np.linspace(-1.0, 1.0, S)
    gx, gy = np.meshgrid(lin, lin)
    full = np.stack([gx, gy], -1).reshape(1, S, S, 2)
    sigma = np.array(SIGMA_PX) / ((S - 1) / 2.0)
    ellipse = soft_ellipse(S / 2, S * 0.62, S * 0.3, S * 0.22, 4.0).reshape(1, 1, S, S)
    inits = [
        _init("base", _f32(base)),
        _init("full", _f32(full)),
        _init("field_shape", np.array([1, F, F, 2], dtype=np.int64)),
        _init("widen", _f32([1.0, 1.0, S / F, S / F])),
        _init("neg_inv_2s2", _f32(-1.0 / (2.0 * sigma ** 2))),
        _init("ks_shape", np.array([1, 1, 21, 2], dtype=np.int64)),
        _init("axis3", np.array([3], dtype=np.int64)),
        _init("xy_start", np.array([0], dtype=np.int64)),
        _init("xy_end", np.array([2], dtype=np.int64)),
        _init("axis2", np.array([2], dtype=np.int64)),
        _init("y17", np.array([17, 1], dtype=np.int64)),
        _init("y17_end", np.array([18, 2], dtype=np.int64)),
        _init("y18", np.array([18, 1], dtype=np.int64)),
        _init("y18_end", np.array([19, 2], dtype=np.int64)),
        _init("rows_cols", np.array([1, 2], dtype=np.int64)),
        _init("dark_gain", _f32([DARK_GAIN])),
        _init("dark_lo", _f32(0.0)),
        _init("dark_hi", _f32(DARK_MAX)),
        _init("dark_rgb", _f32(np.array(DARK_RGB).reshape(1, 3, 1, 1))),
        _init("one", _f32([1.0])),
        _init("zero", _f32([0.0])),
        _init("ellipse", _f32(ellipse)),
        _init("ellipse_inv", _f32(1.0 - ellipse)),
    ]
    n = helper.make_node
    nodes = [
        n("Slice", ["kp_driving", "xy_start", "xy_end", "axis2"], ["kd2"], name="/kp/SliceD"),
        n("Slice", ["kp_source", "xy_start", "xy_end", "axis2"], ["ks2"], name="/kp/SliceS"),
        n("Sub", ["kd2", "ks2"], ["move"], name="/kp/Sub"),
        n("Reshape", ["ks2", "ks_shape"], ["ks4"], name="/field/ReshapeSource"),
        n("Sub", ["base", "ks4"], ["diff"], name="/field/Sub"),
        n("Mul", ["diff", "diff"], ["sq"], name="/field/Mul"),
        n("ReduceSum", ["sq", "axis3"], ["dist2"], name="/field/ReduceSum", keepdims=0),
        n("Mul", ["dist2", "neg_inv_2s2"], ["expo"], name="/field/Scale"),
        n("Exp", ["expo"], ["weight"], name="/field/Exp"),
        n("MatMul", ["weight", "move"], ["flow"], name="/field/MatMul"),
        n("Reshape", ["flow", "field_shape"], ["flow_hw"], name="/field/Reshape"),
        n("Transpose", ["flow_hw"], ["flow_chw"], name="/field/Transpose", perm=[0, 3, 1, 2]),
        n("Resize", ["flow_chw", "", "widen"], ["flow_wide"], name="/field/Resize", mode="linear",
          coordinate_transformation_mode="align_corners"),
        n("Transpose", ["flow_wide"], ["flow_full"], name="/field/TransposeBack", perm=[0, 2, 3, 1]),
        n("Sub", ["full", "flow_full"], ["grid"], name="/warp/Sub"),
        n("GridSample", ["P_rgb", "grid"], ["moved"], name="/warp/GridSample", mode="bilinear",
          padding_mode="border", align_corners=1),
        n("Slice", ["kp_driving", "y17", "y17_end", "rows_cols"], ["kd17"], name="/mouth/SliceD17"),
        n("Slice", ["kp_driving", "y18", "y18_end", "rows_cols"], ["kd18"], name="/mouth/SliceD18"),
        n("Slice", ["kp_source", "y17", "y17_end", "rows_cols"], ["ks17"], name="/mouth/SliceS17"),
        n("Slice", ["kp_source", "y18", "y18_end", "rows_cols"], ["ks18"], name="/mouth/SliceS18"),
        n("Sub", ["kd18", "kd17"], ["gap_d"], name="/mouth/GapD"),
        n("Sub", ["ks18", "ks17"], ["gap_s"], name="/mouth/GapS"),
        n("Sub", ["gap_d", "gap_s"], ["opening"], name="/mouth/Opening"),
        n("Mul", ["opening", "dark_gain"], ["dark_raw"], name="/mouth/Gain"),
        n("Clip", ["dark_raw", "dark_lo", "dark_hi"], ["dark"], name="/mouth/Clip"),
        n("Unsqueeze", ["dark", "axis3"], ["dark4"], name="/mouth/Unsqueeze"),
        n("Mul", ["dark4", "dark_rgb"], ["shade"], name="/mouth/Shade"),
        n("Sub", ["one", "shade"], ["keep"], name="/mouth/Keep"),
        n("Mul", ["moved", "keep"], ["warped"], name="/mouth/Darken"),
        # The pooled features carry nothing here; reading them keeps the
        # director's interface whole.
        n("ReduceMean", ["pooled64"], ["pooled_mean"], name="/head/ReduceMean", keepdims=1),
        n("Mul", ["pooled_mean", "zero"], ["pooled_zero"], name="/head/Mul"),
        n("Add", ["moved", "pooled_zero"], ["head_rgb"], name="/head/Add"),
        n("Mul", ["warped", "ellipse"], ["cw"], name=ELLIPSE_FROM),
        n("Mul", ["head_rgb", "ellipse_inv"], ["ch"], name="/compose/Mul_1"),
        n("Add", ["cw", "ch"], ["rgb"], name="/compose/Add"),
    ]
    inputs = [_value("pooled64", [1, 64, 32, 32]), _value("P_rgb", [1, 3, S, S]),
              _value("kp_driving", [1, 21, 3]), _value("kp_source", [1, 21, 3])]
    graph = helper.make_graph(nodes, "demo_director", inputs, [_value("rgb", [1, 3, S, S])], inits)
    model = helper.make_model(graph, opset_imports=[helper.make_opsetid("", OPSET)], producer_name="kestrova-demo",
                              producer_version="1")
    model.ir_version = IR_VERSION
    return model


def lip_map():
    """Anchors 19 (left corner), 20 (right corner), 17 (inner upper lip), 18
    (inner lower lip). The polygon is the inner mouth: the corners and the lip
    midpoints, and between them points bowed outward by a fifth of the lips'
    gap, so that it closes to a sliver when the lips meet."""
    # Columns: the anchors' offsets from their mean, L.x L.y R.x R.y U.x U.y D.x D.y.
    def row(**c):
        r = [0.0] * 8
        for k, v in c.items():
            r[["Lx", "Ly", "Rx", "Ry", "Ux", "Uy", "Dx", "Dy"].index(k)] = v
        return r
    W = [
        row(Lx=1.0), row(Ly=1.0),                                    # left corner
        row(Lx=0.5, Ux=0.5), row(Ly=0.5, Uy=0.7, Dy=-0.2),           # bowed up
        row(Ux=1.0), row(Uy=1.0),                                    # upper lip
        row(Rx=0.5, Ux=0.5), row(Ry=0.5, Uy=0.7, Dy=-0.2),
        row(Rx=1.0), row(Ry=1.0),                                    # right corner
        row(Rx=0.5, Dx=0.5), row(Ry=0.5, Dy=0.7, Uy=-0.2),           # bowed down
        row(Dx=1.0), row(Dy=1.0),                                    # lower lip
        row(Lx=0.5, Dx=0.5), row(Ly=0.5, Dy=0.7, Uy=-0.2),
    ]
    return {"schema": "lip-map-v1", "kind": "anchor-linear", "lip_idx": [19, 20, 17, 18], "W": W,
            "b": [0.0] * 16, "canvas": CROP}


def lip_template(member, structure):
    t = {"format": "lip-template-v1", "edge": "outward", "canvas": CROP, "feather_px": 2.5,
         "u_canon": [[-1.1, 0.0], [-0.6, -0.7], [0.0, -0.85], [0.6, -0.7],
                     [1.1, 0.0], [0.6, 0.75], [0.0, 0.9], [-0.6, 0.75]],
         "lip_idx": [19, 20, 17, 18], "lip_map": lip_map(),
         "compose_v2": {"schema": "compose-v2-structure-v1",
                        "graphs": {"model_b1_fp32.onnx": {"source_sha256": _sha(member),
                                                          "structure": base64.b64encode(structure).decode(),
                                                          "structure_sha256": _sha(structure)}}}}
    return (json.dumps(t) + "\n").encode()


def speech_members():
    m = audio_graphs.sample_members()
    norm = np.frombuffer(m["a2x_norm.f32"], dtype="<f4").astype(np.float32).copy()
    for r in MOUTH:
        for c in (0, 1):
            norm[63 + 3 * r + c] *= MOUTH_GAIN
    m["a2x_norm.f32"] = norm.astype("<f4").tobytes()
    return m


def demo_bundle(photo_path, out):
    photo = load_photo(photo_path)
    frames = [driver_frame(photo, i) for i in range(NT)]
    kp = [keypoints(i) for i in range(NT)]
    prior = np.stack([f[Y0:Y0 + CROP, X0:X0 + CROP].transpose(2, 0, 1) / 255.0 for f in frames])
    mouth_cx = LANDMARKS[18][0] * SCALE - X0
    mouth_cy = (LANDMARKS[18][1] + 8) * SCALE - Y0
    mask = soft_ellipse(mouth_cx, mouth_cy, 100.0, 88.0, 3.0)
    model = director()
    member = model.SerializeToString()
    structure = structure_model(model, _sha(member), CROP).SerializeToString()
    manifest = {"format": "le-bundle-v0", "agent": "astronaut-demo", "NT": NT, "H": H, "W": W, "M_src_w": W,
                "M_src_h": H, "crop": CROP, "amount": 0.0, "sigma": 1.5, "ksize": 7, "frames": NT}
    members = {
        "P.f16": prior.astype("<f2").tobytes(),
        "pooled64.f16": bytes(NT * 65536 * 2),
        "M.f32": f32([v for _ in range(NT) for v in (1.0, 0.0, float(X0), 0.0, 1.0, float(Y0))]),
        "mask_512.u8": np.rint(mask * 255).astype(np.uint8).tobytes(),
        "drive/xs.f32": f32([v for row in kp for v in row]),
        "drive/xd.f32": f32([v for row in kp for v in row]),
        "drive/si.i32": i32(list(range(NT))),
        "xs_target.bin": f32([v for row in kp for v in row]),
        "model_b1_fp32.onnx": member,
        "lip_template.v1.json": lip_template(member, structure),
    }
    members.update({"target_frames/frame_%06d.jpg" % i: jpeg(f) for i, f in enumerate(frames)})
    members.update(speech_members())
    Bundle(manifest, members).write_dir(out)


if __name__ == "__main__":
    if len(sys.argv) != 3:
        sys.exit("usage: demo_avatar.py PHOTO OUT_DIR")
    demo_bundle(sys.argv[1], sys.argv[2])
