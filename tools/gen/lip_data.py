"""Lip template test data: templates, keypoint rows, the contour each
template gives on each row, and one-change variants for every refusal of the
template and of its compose_v2 block.

The expected polygons, boxes, masks and feathered contours are computed here
by a plain reference written from the contour's definition (doubles for the
polygon, numpy float32 scalars for the feather, one operation at a time), so
that the engine's results are checked against a second implementation.

Layout under OUT_DIR/lip:
  contour/kp.f32                 keypoint rows, 63 float32 each
  contour/<t>.json               a template (map, extents, idx)
  contour/<t>.poly.f64           per row: 2 * nv doubles
  contour/<t>.box.i32            per row: x0, y0, x1, y1
  contour/<t>.mask.u8            per row: the box's scanline mask
  contour/<t>.contour.f32        per row: the S*S feathered canvas
  refuse/<case>.json             a template that is refused
  accept/<case>.json             a template variant that is accepted
  compose_v2/template.json       a template with a compose_v2 block
  compose_v2/<graph>.bin, .source, .sha   what each entry decodes to
  compose_v2/refuse/<case>.json  a compose_v2 variant that is refused
"""
import base64
import copy
import hashlib
import json
import math
import os
import struct

import numpy as np

from bundle_data import Rng, f32

# The sample bundle's crop: director bundles built from it compose on this
# canvas, so the template that they carry is baked on it.
CANVAS = 32
FEATHER = 2.5
DEFAULT_LIP_IDX = [17, 18, 19, 20]
# Around the lips from the left corner, in units of the anchors' half extent.
U_CANON = [[-1.1, 0.0], [-0.6, -0.7], [0.0, -0.85], [0.6, -0.7],
           [1.1, 0.0], [0.6, 0.75], [0.0, 0.9], [-0.6, 0.75]]


def lip_map():
    """An anchor-linear map over rows 17 (left corner), 18 (right corner),
    19 (upper lip), 20 (lower lip): roughly the extents rule, with a seeded
    perturbation so that every coefficient matters."""
    rng = Rng(0x11B5)
    W, b = [], []
    for ux, uy in U_CANON:
        row_x = [0.03 * (rng.unit() - 0.5) for _ in range(8)]
        row_x[2] += 0.55 * ux   # right corner dx
        row_x[0] -= 0.55 * ux   # left corner dx
        row_y = [0.03 * (rng.unit() - 0.5) for _ in range(8)]
        row_y[7] += 0.5 * uy    # lower lip dy
        row_y[5] -= 0.5 * uy    # upper lip dy
        W += [row_x, row_y]
        b += [0.6 * (rng.unit() - 0.5), 0.6 * (rng.unit() - 0.5)]
    return {"schema": "lip-map-v1", "kind": "anchor-linear", "lip_idx": list(DEFAULT_LIP_IDX),
            "W": W, "b": b, "canvas": CANVAS}


def lip_template(compose_v2=None):
    """The valid template with a lip map, as a JSON-able dict. compose_v2, if
    given, is the value of the "compose_v2" key."""
    t = {"format": "lip-template-v1", "edge": "outward", "canvas": CANVAS, "feather_px": FEATHER,
         "u_canon": copy.deepcopy(U_CANON), "lip_idx": list(DEFAULT_LIP_IDX), "lip_map": lip_map()}
    if compose_v2 is not None:
        t["compose_v2"] = compose_v2
    return t


def extents_template():
    """No map and no lip_idx: the polygon follows the extents of rows 17-20."""
    return {"format": "lip-template-v1", "canvas": CANVAS, "feather_px": FEATHER,
            "u_canon": copy.deepcopy(U_CANON)}


def idx_template():
    """Five anchors, one of them fractional, a non-string edge and a
    fractional canvas, all of which are accepted."""
    return {"format": "lip-template-v1", "edge": 5, "canvas": CANVAS + 0.75, "feather_px": 1.75,
            "u_canon": copy.deepcopy(U_CANON), "lip_idx": [16.9, 17, 18, 19, 20]}


def text(t):
    return json.dumps(t) + "\n"


# ---------------------------------------------------------------- keypoints

def keypoint_rows():
    rng = Rng(0x1F5)
    rows = []

    def row(lips):
        kp = [(rng.unit() * 2 - 1) * 0.6 for _ in range(63)]
        for r, (x, y) in zip(DEFAULT_LIP_IDX, lips):
            kp[3 * r], kp[3 * r + 1] = x, y
        rows.append(kp)

    def mouth(cx, cy, hw, up, down):
        j = [0.02 * (rng.unit() - 0.5) for _ in range(4)]
        row([(cx - hw, cy + j[0]), (cx + hw, cy + j[1]), (cx + j[2], cy - up), (cx + j[3], cy + down)])

    mouth(0.02, 0.31, 0.36, 0.10, 0.12)      # closed, centred
    mouth(-0.05, 0.28, 0.40, 0.22, 0.30)     # wide open
    mouth(-0.92, -0.95, 0.30, 0.10, 0.15)    # clipped at the top left
    mouth(0.90, 0.93, 0.30, 0.10, 0.10)      # clipped at the bottom right
    mouth(3.0, 3.0, 0.30, 0.10, 0.10)        # off the canvas: an empty box
    row([(0.1, 0.2), (0.1, 0.25), (0.1, 0.35), (0.1, 0.4)])    # anchors coincide in x
    row([(-0.3, 0.3), (0.35, 0.3), (0.0, 0.3), (0.05, 0.3)])   # anchors on one row
    # Anchor means of exactly 10.5 and 20.5 px: vertices on a .5 tie.
    row([(-0.53125, 0.28125), (-0.15625, 0.28125), (-0.34375, 0.15625), (-0.34375, 0.40625)])
    v = [(rng.unit() * 2 - 1) * 0.6 for _ in range(8)]
    row([(v[i], v[i + 1]) for i in range(0, 8, 2)])             # anywhere: edges may cross
    return [[float(v) for v in np.array(kp, dtype=np.float32)] for kp in rows]


# ------------------------------------------------------- contour reference

def ref_polygon(t, kp):
    s = int(t["canvas"])
    h = s * 0.5
    m = t.get("lip_map")
    idx = [int(v) for v in (m.get("lip_idx", DEFAULT_LIP_IDX) if m else t.get("lip_idx", DEFAULT_LIP_IDX))]
    px = [h * (kp[3 * i] + 1.0) for i in idx]
    py = [h * (kp[3 * i + 1] + 1.0) for i in idx]
    ax = ay = 0.0
    for a, b in zip(px, py):
        ax += a
        ay += b
    ax /= len(idx)
    ay /= len(idx)
    out = []
    if m:
        d = []
        for a, b in zip(px, py):
            d += [a - ax, b - ay]
        for r, (wr, br) in enumerate(zip(m["W"], m["b"])):
            acc = br
            for wc, dc in zip(wr, d):
                acc += wc * dc
            acc += ax if r % 2 == 0 else ay
            out.append(acc)
        return out
    sx = max(max(abs(a - ax) for a in px), 1e-6)
    sy = max(max(abs(b - ay) for b in py), 1e-6)
    for ux, uy in t["u_canon"]:
        out += [ax + sx * ux, ay + sy * uy]
    return out


def ref_box(t, poly):
    s = int(t["canvas"])
    m = float(np.float32(t["feather_px"])) + 2.0
    xs, ys = poly[0::2], poly[1::2]
    x0 = max(math.floor(min(xs) - m), 0)
    y0 = max(math.floor(min(ys) - m), 0)
    x1 = max(min(math.ceil(max(xs) + m) + 1, s), x0)
    y1 = max(min(math.ceil(max(ys) + m) + 1, s), y0)
    return x0, y0, x1, y1


def trunc_div(a, b):
    q = abs(a) // abs(b)
    return q if (a < 0) == (b < 0) else -q


def ref_mask(poly, box):
    x0, y0, x1, y1 = box
    w, h = x1 - x0, y1 - y0
    if w < 1 or h < 1:
        return bytearray()
    mask = bytearray(w * h)
    pts = [(round(poly[i]) - x0, round(poly[i + 1]) - y0) for i in range(0, len(poly), 2)]
    n = len(pts)
    edges = [(pts[i], pts[(i + 1) % n]) for i in range(n)]
    for (xa, ya), (xb, yb) in edges:
        if xb < xa:
            xa, ya, xb, yb = xb, yb, xa, ya
        dx, dy = xb - xa, yb - ya
        step = -1 if dy < 0 else 1
        major, minor = max(dx, abs(dy)), min(dx, abs(dy))
        y_major = abs(dy) > dx
        err = major - 2 * minor
        x, y = xa, ya
        for _ in range(major + 1):
            if 0 <= x < w and 0 <= y < h:
                mask[y * w + x] = 255
            neg = err < 0
            err -= 2 * minor
            if neg:
                err += 2 * major
            if y_major:
                y += step
                x += 1 if neg else 0
            else:
                x += 1
                y += step if neg else 0
    table = []
    for (xa, ya), (xb, yb) in edges:
        if ya == yb:
            continue
        (xt, yt), (xbot, ybot) = ((xa, ya), (xb, yb)) if ya < yb else ((xb, yb), (xa, ya))
        table.append((yt, ybot, xt * 65536, trunc_div(xbot * 65536 - xt * 65536, ybot - yt)))
    if not table:
        return mask
    for y in range(max(min(e[0] for e in table), 0), min(h, max(e[1] for e in table))):
        xs = sorted(x + dx * (y - yt) for yt, yb, x, dx in table if yt <= y < yb)
        for k in range(1, len(xs), 2):
            lo, hi = max((xs[k - 1] + 65535) >> 16, 0), min(xs[k] >> 16, w - 1)
            for x in range(lo, hi + 1):
                mask[y * w + x] = 255
    return mask


def ref_contour(t, poly, box, mask):
    s = int(t["canvas"])
    canvas = np.zeros(s * s, dtype=np.float32)
    x0, y0, x1, y1 = box
    w, h = x1 - x0, y1 - y0
    if w < 1 or h < 1:
        return canvas
    a, b, far = np.float32(0.955), np.float32(1.3693), np.float32(1e10)
    d = [[np.float32(0)] * w for _ in range(h)]
    inside = [[mask[y * w + x] != 0 for x in range(w)] for y in range(h)]
    for y in range(h):
        for x in range(w):
            if inside[y][x]:
                continue
            cand = [far] if y == 0 else [d[y - 1][x] + a]
            if y > 0 and x > 0:
                cand.append(d[y - 1][x - 1] + b)
            if y > 0 and x + 1 < w:
                cand.append(d[y - 1][x + 1] + b)
            if x > 0:
                cand.append(d[y][x - 1] + a)
            d[y][x] = min(cand)
    for y in reversed(range(h)):
        for x in reversed(range(w)):
            if inside[y][x]:
                continue
            cand = [d[y][x]]
            if y + 1 < h:
                if x + 1 < w:
                    cand.append(d[y + 1][x + 1] + b)
                cand.append(d[y + 1][x] + a)
                if x > 0:
                    cand.append(d[y + 1][x - 1] + b)
            if x + 1 < w:
                cand.append(d[y][x + 1] + a)
            d[y][x] = min(cand)
    feather = np.float32(t["feather_px"])
    one, three = np.float32(1), np.float32(3)
    for y in range(h):
        for x in range(w):
            tt = one - d[y][x] / feather
            alpha = np.float32(0)
            if tt > 0:
                tt = min(tt, one)
                alpha = tt * tt * (three - (tt + tt))
            canvas[(y0 + y) * s + x0 + x] = alpha
    return canvas


def write_contour_cases(root):
    d = os.path.join(root, "contour")
    os.makedirs(d)
    rows = keypoint_rows()
    with open(os.path.join(d, "kp.f32"), "wb") as f:
        f.write(f32([v for kp in rows for v in kp]))
    for name, t in (("map", lip_template()), ("extents", extents_template()), ("idx", idx_template())):
        polys, boxes, masks, canvases = b"", b"", b"", b""
        for kp in rows:
            poly = ref_polygon(t, kp)
            box = ref_box(t, poly)
            mask = ref_mask(poly, box)
            polys += struct.pack("<%dd" % len(poly), *poly)
            boxes += struct.pack("<4i", *box)
            masks += bytes(mask)
            canvases += ref_contour(t, poly, box, mask).astype("<f4").tobytes()
        for ext, data in (("json", text(t).encode()), ("poly.f64", polys), ("box.i32", boxes),
                          ("mask.u8", masks), ("contour.f32", canvases)):
            with open(os.path.join(d, name + "." + ext), "wb") as f:
                f.write(data)


# ------------------------------------------------------------- refusals

def changed(base, path, value):
    """A deep copy of base with the key at path set to value, or removed
    when value is DROP."""
    t = copy.deepcopy(base)
    node = t
    for k in path[:-1]:
        node = node[k]
    if value is DROP:
        del node[path[-1]]
    else:
        node[path[-1]] = value
    return t


DROP = object()


def template_refusals():
    """Each refused template differs from the valid one in one respect."""
    base = lip_template()
    ok = text(base)
    c = {}

    def case(name, path, value):
        c[name] = text(changed(base, path, value))

    c["not_json"] = ok.replace('"feather_px": 2.5', '"feather_px": oops')
    c["not_object"] = "[" + ok.strip() + "]\n"
    case("format_missing", ["format"], DROP)
    case("format_number", ["format"], 1)
    case("format_other", ["format"], "lip-template-v2")
    case("edge_inward", ["edge"], "inward")
    case("canvas_missing", ["canvas"], DROP)
    case("canvas_string", ["canvas"], "32")
    case("canvas_other", ["canvas"], 64)
    case("feather_missing", ["feather_px"], DROP)
    case("feather_string", ["feather_px"], "2.5")
    case("feather_zero", ["feather_px"], 0)
    case("feather_negative", ["feather_px"], -1.5)
    case("u_canon_missing", ["u_canon"], DROP)
    case("u_canon_empty", ["u_canon"], [])
    case("u_canon_object", ["u_canon"], {"x": 1})
    case("u_canon_row_3", ["u_canon", 2], [0.0, -0.85, 1.0])
    case("u_canon_row_scalar", ["u_canon", 5], 0.5)
    case("lip_idx_number", ["lip_idx"], 17)
    case("lip_idx_empty", ["lip_idx"], [])
    case("lip_idx_21", ["lip_idx"], [17, 18, 19, 21.5])
    case("lip_idx_negative", ["lip_idx"], [-1, 18, 19, 20])
    case("map_array", ["lip_map"], [])
    case("map_schema_other", ["lip_map", "schema"], "lip-map-v2")
    case("map_schema_missing", ["lip_map", "schema"], DROP)
    case("map_kind_other", ["lip_map", "kind"], "anchor-affine")
    case("map_kind_missing", ["lip_map", "kind"], DROP)
    case("map_lip_idx_9", ["lip_map", "lip_idx"], list(range(12, 21)))
    case("map_lip_idx_empty", ["lip_map", "lip_idx"], [])
    case("map_lip_idx_number", ["lip_map", "lip_idx"], 17)
    case("map_lip_idx_fraction", ["lip_map", "lip_idx"], [17, 18, 3.5, 20])
    case("map_lip_idx_21", ["lip_map", "lip_idx"], [17, 18, 19, 21])
    case("map_lip_idx_string", ["lip_map", "lip_idx"], [17, "18", 19, 20])
    case("map_w_missing", ["lip_map", "W"], DROP)
    case("map_b_object", ["lip_map", "b"], {"0": 1.0})
    case("map_w_short", ["lip_map", "W"], base["lip_map"]["W"][:-1])
    case("map_b_long", ["lip_map", "b"], base["lip_map"]["b"] + [0.0])
    case("map_w_row_narrow", ["lip_map", "W", 3], base["lip_map"]["W"][3][:-1])
    case("map_w_row_scalar", ["lip_map", "W", 0], 1.0)
    case("map_w_string", ["lip_map", "W", 4, 2], "0.5")
    case("map_b_null", ["lip_map", "b", 7], None)
    c["map_w_infinite"] = text(changed(base, ["lip_map", "W", 9, 1], 12345.0)).replace("12345.0", "1e999")
    c["map_b_infinite"] = text(changed(base, ["lip_map", "b", 0], 12345.0)).replace("12345.0", "-1e999")
    case("map_canvas_other", ["lip_map", "canvas"], 64)
    case("map_canvas_string", ["lip_map", "canvas"], "32")
    # Nine anchors with no map to replace them: the polygon step holds eight.
    c["anchors_9"] = text(changed(changed(base, ["lip_map"], DROP), ["lip_idx"], list(range(12, 21))))
    return c


def template_accepts():
    base = lip_template()
    return {
        "edge_number": text(changed(base, ["edge"], 5)),
        "edge_missing": text(changed(base, ["edge"], DROP)),
        "canvas_fraction": text(changed(base, ["canvas"], 32.99)),
        "map_canvas_missing": text(changed(base, ["lip_map", "canvas"], DROP)),
        "map_lip_idx_missing": text(changed(base, ["lip_map", "lip_idx"], DROP)),
        # The map has anchors of its own, so nine template rows do no harm.
        "anchors_9_with_map": text(changed(base, ["lip_idx"], list(range(12, 21)))),
        "no_lip_idx": text(changed(base, ["lip_idx"], DROP)),
    }


# ------------------------------------------------------------ compose v2

def compose_v2_entries():
    """graph key -> (structure bytes, source sha, structure_sha256 value or
    DROP). Lengths 1, 2, 3 and more cover both paddings and none."""
    rng = Rng(0xC0DE)
    out = {}
    for key, n, own in (("b1", 1, "hash"), ("b2", 2, None), ("b3", 3, DROP), ("b4", 200, "")):
        data = rng.bytes(n)
        source = hashlib.sha256(b"member graph " + key.encode()).hexdigest()
        out[key] = (data, source, hashlib.sha256(data).hexdigest() if own == "hash" else own)
    return out


def compose_v2_block():
    graphs = {}
    for key, (data, source, own) in compose_v2_entries().items():
        e = {"source_sha256": source, "structure": base64.b64encode(data).decode()}
        if own is not DROP:
            e["structure_sha256"] = own
        graphs[key] = e
    return {"schema": "compose-v2-structure-v1", "graphs": graphs}


def compose_v2_refusals():
    base = lip_template(compose_v2_block())
    ok = text(base)
    c = {}

    def case(name, path, value):
        c[name] = text(changed(base, ["compose_v2"] + path, value))

    c["not_json"] = ok.replace('"canvas": 32,', '"canvas": 32,,')
    c["not_object"] = '"' + "lip-template-v1" + '"\n'
    case("block_string", [], "compose-v2-structure-v1")
    case("schema_other", ["schema"], "compose-v2-structure-v2")
    case("schema_missing", ["schema"], DROP)
    case("schema_number", ["schema"], 1)
    case("graphs_missing", ["graphs"], DROP)
    case("graphs_array", ["graphs"], [])
    case("entry_array", ["graphs", "b1"], [])
    case("source_missing", ["graphs", "b1", "source_sha256"], DROP)
    src = base["compose_v2"]["graphs"]["b1"]["source_sha256"]
    case("source_upper", ["graphs", "b1", "source_sha256"], src.upper())
    case("source_short", ["graphs", "b1", "source_sha256"], src[:63])
    case("source_non_hex", ["graphs", "b1", "source_sha256"], src[:63] + "g")
    case("structure_missing", ["graphs", "b1", "structure"], DROP)
    case("structure_empty", ["graphs", "b1", "structure"], "")
    case("structure_number", ["graphs", "b1", "structure"], 7)
    case("structure_sha_number", ["graphs", "b1", "structure_sha256"], 5)
    case("structure_sha_long", ["graphs", "b1", "structure_sha256"], src + "0")
    case("structure_sha_upper", ["graphs", "b1", "structure_sha256"], src.upper())
    case("structure_length", ["graphs", "b1", "structure"], "QQQ")
    case("structure_pad_inside", ["graphs", "b1", "structure"], "QQ==QUFB")
    case("structure_pad_misplaced", ["graphs", "b1", "structure"], "QQ=A")
    case("structure_pad_bits", ["graphs", "b1", "structure"], "QR==")
    case("structure_alphabet", ["graphs", "b1", "structure"], "QUFB-UFB")
    case("structure_url_safe", ["graphs", "b1", "structure"], "QUF_")
    return c


def write_compose_v2_cases(root):
    d = os.path.join(root, "compose_v2")
    os.makedirs(os.path.join(d, "refuse"))
    with open(os.path.join(d, "template.json"), "w", encoding="utf-8") as f:
        f.write(text(lip_template(compose_v2_block())))
    for key, (data, source, own) in compose_v2_entries().items():
        for ext, payload in (("bin", data), ("source", source.encode()),
                             ("sha", (own if own not in (None, DROP) else "").encode())):
            with open(os.path.join(d, key + "." + ext), "wb") as f:
                f.write(payload)
    for name, body in compose_v2_refusals().items():
        with open(os.path.join(d, "refuse", name + ".json"), "w", encoding="utf-8") as f:
            f.write(body)


def write_cases(root):
    """Everything above, under root (OUT_DIR/lip)."""
    write_contour_cases(root)
    for sub, cases in (("refuse", template_refusals()), ("accept", template_accepts())):
        os.makedirs(os.path.join(root, sub))
        for name, body in cases.items():
            with open(os.path.join(root, sub, name + ".json"), "w", encoding="utf-8") as f:
                f.write(body)
    write_compose_v2_cases(root)
