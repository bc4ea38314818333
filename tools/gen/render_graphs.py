#!/usr/bin/python3
"""Director graphs for the renderer: a member graph of any crop, batch and
keypoint row count, its compose v2 structure, the composed graph the splice
must give (the unedited reference a plain ONNX Runtime session runs), a lip
template that binds them, and bundles built on the sample bundle with one
director change each.

The member follows the director's interface: inputs pooled64 [B,64,32,32],
P_rgb [B,3,crop,crop], kp_driving and kp_source [B,rows,3], output
rgb [B,3,crop,crop]. It holds every pattern the load-time edits look for:
the student blend MatMul "/s2/blend" over the keypoint deltas, a standard
bilinear border GridSample of P_rgb, and a head whose per-channel bias Add
and Relu feed the cubic x2 half-pixel Resize and a Conv; the ellipse compose
at its end is what the compose v2 structure replaces.

Usage:
  render_graphs.py bench OUT_DIR CROP   a small bundle at that crop (bench)

Layout under OUT_DIR/render (written by gen_bundles.py through write_cases):
  composed_b1.onnx, composed_b4.onnx   the sample member (batch 1) and the
                                       chunk member (batch 4), composed
  baked_composed.onnx                  the baked member, composed
  bundles/<case>/                      the sample bundle with one change
"""
import base64
import copy
import json
import os
import sys

import numpy as np
from onnx import helper

import lip_data
from bundle_data import Bundle, Rng, f32, i32
from graphs import CV2_DOMAIN, IR_VERSION, OPSET, SOURCE_KEY, _f32, _init, _placeholder, _sha, _value, composed_model

HEAD_C = 8
ELLIPSE_FROM = "/compose/Mul"
SAMPLE_KEY = "b1_fp32"
CHUNK_KEY = "b4_fp32"


def _ellipse(crop):
    y, x = np.mgrid[0:crop, 0:crop].astype(np.float64)
    c = (crop - 1) / 2.0
    r2 = ((x - c) / (0.45 * crop)) ** 2 + ((y - c) / (0.38 * crop)) ** 2
    return _f32(0.1 + 0.8 * np.clip(1.0 - r2, 0.0, 1.0)).reshape(1, 1, crop, crop)


def _base_grid(crop):
    lin = (np.arange(crop, dtype=np.float64) * 2 + 1) / crop - 1
    gx, gy = np.meshgrid(lin, lin)
    return _f32(np.stack([gx * 0.9, gy * 0.9], axis=-1)).reshape(1, crop, crop, 2)


def member_model(crop, batch=1, rows=21, baked=False):
    """The director graph. batch None declares a symbolic batch; rows None a
    symbolic keypoint row count. baked puts GridSampleFast into the graph."""
    rng = np.random.RandomState(0x5EED + crop)
    kp_rows = 21 if rows is None else rows
    inits = [
        _init("kp_shape", np.array([-1, kp_rows * 3], dtype=np.int64)),
        _init("blend_w", _f32(rng.normal(0.0, 0.03, (kp_rows * 3, 4)))),
        _init("split_sizes", np.array([2, 2], dtype=np.int64)),
        _init("flow_shape", np.array([-1, 1, 1, 2], dtype=np.int64)),
        _init("base_grid", _base_grid(crop)),
    ] + head_inits(crop, rng) + compose_inits(crop)
    n = helper.make_node
    if baked:
        warp = n("GridSampleFast", ["P_rgb", "grid"], ["warped"], name="/warp/GridSample", domain="com.kestrova")
    else:
        warp = n("GridSample", ["P_rgb", "grid"], ["warped"], name="/warp/GridSample", mode="bilinear",
                 padding_mode="border")
    nodes = [
        n("Sub", ["kp_driving", "kp_source"], ["kp_delta"], name="/kp/Sub"),
        n("Reshape", ["kp_delta", "kp_shape"], ["kp_flat"], name="/kp/Reshape"),
        n("MatMul", ["kp_flat", "blend_w"], ["blend_out"], name="/s2/blend"),
        n("Split", ["blend_out", "split_sizes"], ["flow_a", "flow_b"], name="/s2/Split", axis=1),
        n("Add", ["flow_a", "flow_b"], ["flow"], name="/s2/Add"),
        n("Reshape", ["flow", "flow_shape"], ["flow4"], name="/warp/Reshape"),
        n("Add", ["base_grid", "flow4"], ["grid"], name="/warp/Add"),
        warp,
    ] + head_nodes() + compose_nodes()
    b = "batch" if batch is None else batch
    r = "rows" if rows is None else rows
    return director_model(nodes, inits, director_inputs(crop, b, r), crop, b,
                          ["com.kestrova"] if baked else [])


def head_inits(crop, rng):
    """The head's weights, drawn from rng in a fixed order."""
    return [
        _init("head_w0", _f32(rng.normal(0.0, 0.1, (HEAD_C, 64, 1, 1)))),
        _init("head_scales0", _f32([1, 1, crop / 64.0, crop / 64.0])),
        _init("head_bias", _f32(rng.normal(0.0, 0.2, (HEAD_C, 1, 1)))),
        _init("head_scales", _f32([1, 1, 2, 2])),
        _init("head_w1", _f32(rng.normal(0.0, 0.2, (3, HEAD_C, 3, 3)))),
    ]


def head_nodes():
    """pooled64 -> head_rgb: a Conv, a linear Resize to crop/2, the per-channel
    bias and Relu, the cubic x2 Resize and a Conv."""
    n = helper.make_node
    return [
        n("Conv", ["pooled64", "head_w0"], ["head_c0"], name="/head/Conv", kernel_shape=[1, 1]),
        n("Resize", ["head_c0", "", "head_scales0"], ["head_s0"], name="/head/Resize_0",
          coordinate_transformation_mode="half_pixel", mode="linear"),
        n("Add", ["head_s0", "head_bias"], ["head_b0"], name="/head/Add"),
        n("Relu", ["head_b0"], ["head_x"], name="/head/Relu"),
        n("Resize", ["head_x", "", "head_scales"], ["head_up"], name="/head/Resize",
          coordinate_transformation_mode="half_pixel", mode="cubic"),
        n("Conv", ["head_up", "head_w1"], ["head_rgb"], name="/head/Conv_1", kernel_shape=[3, 3],
          pads=[1, 1, 1, 1]),
    ]


def compose_inits(crop):
    ellipse = _ellipse(crop)
    return [_init("ellipse", ellipse), _init("ellipse_inv", _f32(np.float32(1) - ellipse))]


def compose_nodes():
    """The ellipse compose of "warped" and "head_rgb", which compose v2
    replaces from ELLIPSE_FROM on."""
    n = helper.make_node
    return [
        n("Mul", ["warped", "ellipse"], ["cw"], name="/compose/Mul"),
        n("Mul", ["head_rgb", "ellipse_inv"], ["ch"], name="/compose/Mul_1"),
        n("Add", ["cw", "ch"], ["rgb"], name="/compose/Add"),
    ]


def director_inputs(crop, b, r, prior_hw=None):
    """pooled64, P_rgb, kp_driving, kp_source; prior_hw overrides P_rgb's
    spatial dimensions."""
    hw = prior_hw or [crop, crop]
    return [_value("pooled64", [b, 64, 32, 32]), _value("P_rgb", [b, 3] + hw),
            _value("kp_driving", [b, r, 3]), _value("kp_source", [b, r, 3])]


def director_model(nodes, inits, inputs, crop, b, domains=()):
    graph = helper.make_graph(nodes, "director", inputs, [_value("rgb", [b, 3, crop, crop])], inits)
    opsets = [helper.make_opsetid("", OPSET)] + [helper.make_opsetid(d, 1) for d in domains]
    model = helper.make_model(graph, opset_imports=opsets, producer_name="kestrova-gen", producer_version="1")
    model.ir_version = IR_VERSION
    return model


def structure_model(member, binding, lip_canvas):
    """The compose v2 structure cut for member: its nodes up to the ellipse
    compose as placeholders, then the lip compose."""
    keep = next(i for i, nd in enumerate(member.graph.node) if nd.name == ELLIPSE_FROM)
    n = helper.make_node
    nodes = [_placeholder(member.graph.node[k], k) for k in range(keep)] + [
        n("Sub", ["cv2_one", "lip_delivery"], ["lip_inv"], name="/cv2/Sub"),
        n("Mul", ["warped", "lip_delivery"], ["cw2"], name="/cv2/Mul"),
        n("Mul", ["head_rgb", "lip_inv"], ["ch2"], name="/cv2/Mul_1"),
        n("Add", ["cw2", "ch2"], ["rgb"], name="/cv2/Add"),
    ]
    batch = member.graph.input[0].type.tensor_type.shape.dim[0]
    b = batch.dim_param if batch.dim_param else batch.dim_value
    inputs = list(copy.deepcopy(member.graph.input)) + [_value("lip_delivery", [b, 1, lip_canvas, lip_canvas])]
    graph = helper.make_graph(nodes, "director_compose_v2", inputs, copy.deepcopy(list(member.graph.output)),
                              [_init("cv2_one", _f32([1.0]))])
    model = helper.make_model(graph, opset_imports=[helper.make_opsetid("", OPSET),
                                                    helper.make_opsetid(CV2_DOMAIN, 1)],
                              producer_name="kestrova-gen")
    model.ir_version = IR_VERSION
    helper.set_model_props(model, {SOURCE_KEY: binding})
    return model


class Director:
    """One member graph with its structure, as bytes."""

    def __init__(self, crop, batch=1, rows=21, baked=False, lip_canvas=None, bind_to=None, model=None):
        self.model = model if model is not None else member_model(crop, batch, rows, baked)
        self.member = self.model.SerializeToString()
        binding = _sha(bind_to if bind_to is not None else self.member)
        self.structure_model = structure_model(self.model, binding, lip_canvas or crop)
        self.structure = self.structure_model.SerializeToString()

    def composed(self):
        return composed_model(self.model, self.structure_model).SerializeToString()


def lip_template_text(crop, entries, lip_map=True, compose=True):
    """entries: member file name -> Director."""
    block = {"schema": "compose-v2-structure-v1",
             "graphs": {name: {"source_sha256": _sha(d.member), "structure": base64.b64encode(d.structure).decode(),
                               "structure_sha256": _sha(d.structure)} for name, d in entries.items()}}
    t = lip_data.lip_template(block if compose else None)
    t["canvas"] = crop
    t["lip_map"]["canvas"] = crop
    if not lip_map:
        del t["lip_map"]
    return json.dumps(t) + "\n"


def director_members(crop, entries, **template):
    out = {name: d.member for name, d in entries.items()}
    out["lip_template.v1.json"] = lip_template_text(crop, entries, **template).encode()
    return out


def sample_members(crop):
    """The sample bundle's director: its graph and the lip template."""
    return director_members(crop, {"model_%s.onnx" % SAMPLE_KEY: Director(crop)})


def _write(path, data):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb") as f:
        f.write(data)


def write_cases(root, sample):
    """The reference graphs and the director bundles under root."""
    crop = sample.manifest["crop"]
    b1, b4 = Director(crop), Director(crop, batch=4)
    baked = Director(crop, baked=True)
    _write(os.path.join(root, "composed_b1.onnx"), b1.composed())
    _write(os.path.join(root, "composed_b4.onnx"), b4.composed())
    _write(os.path.join(root, "baked_composed.onnx"), baked.composed())
    key = "model_%s.onnx" % SAMPLE_KEY
    without = {k: v for k, v in sample.members.items() if k not in (key, "lip_template.v1.json")}

    def bundle(name, members):
        Bundle(sample.manifest, dict(without, **members)).write_dir(os.path.join(root, "bundles", name))

    bundle("chunk", director_members(crop, {key: b1, "model_%s.onnx" % CHUNK_KEY: b4}))
    bundle("baked", director_members(crop, {key: baked}))
    bundle("kp22", director_members(crop, {key: Director(crop, rows=22)}))
    bundle("kp23", director_members(crop, {key: Director(crop, rows=23)}))
    bundle("kp_dynamic", director_members(crop, {key: Director(crop, rows=None)}))
    bundle("batch_dynamic", director_members(crop, {key: Director(crop, batch=None)}))
    bundle("no_template", {key: b1.member})
    bundle("plate_template", director_members(crop, {key: b1}, lip_map=False))
    bundle("no_compose", director_members(crop, {key: b1}, compose=False))
    bundle("stale_structure", director_members(crop, {key: Director(crop, bind_to=b4.member)}))
    bundle("canvas_64", director_members(crop, {key: Director(crop, lip_canvas=64)}))


def bench_bundle(out, crop):
    """A two-frame bundle at the given crop: identity, idle loop and director."""
    nt, frames = 2, 8
    rng = Rng(0xBE4C + crop)
    manifest = {"format": "le-bundle-v0", "agent": "bench", "NT": nt, "H": crop, "W": crop, "M_src_w": crop,
                "M_src_h": crop, "crop": crop, "amount": 0.5, "sigma": 1.5, "ksize": 7, "frames": frames}
    prior = (np.arange(nt * 3 * crop * crop, dtype=np.float64) * 0.618034) % 1.0
    pooled = (np.arange(nt * 65536, dtype=np.float64) * 0.381966) % 1.0 - 0.5
    members = {
        "P.f16": prior.astype("<f2").tobytes(),
        "pooled64.f16": pooled.astype("<f2").tobytes(),
        "M.f32": f32([v for _ in range(nt) for v in (1.0, 0.0, 0.0, 0.0, 1.0, 0.0)]),
        "mask_512.u8": bytes(255 for _ in range(crop * crop)),
        "drive/xs.f32": f32([(rng.unit() * 2 - 1) * 0.5 for _ in range(frames * 63)]),
        "drive/xd.f32": f32([(rng.unit() * 2 - 1) * 0.5 for _ in range(frames * 63)]),
        "drive/si.i32": i32([i % nt for i in range(frames)]),
    }
    d = Director(crop)
    members.update(director_members(crop, {"model_%s.onnx" % SAMPLE_KEY: d}))
    members["composed.onnx"] = d.composed()
    Bundle(manifest, members).write_dir(out)


if __name__ == "__main__":
    if len(sys.argv) != 4 or sys.argv[1] != "bench":
        sys.exit("usage: render_graphs.py bench OUT_DIR CROP")
    bench_bundle(sys.argv[2], int(sys.argv[3]))
