#!/usr/bin/python3
"""Director graphs with a source cone and a warp block: the shapes that the
source-cone hoist and the warp block and warp fuse rewrites look for, the
director bundles the renderer tests load, one-change variants for every case
in which an edit must stay away, and the benchmark's bundle.

The cone director has the interface of every director (render_graphs.py) and
this inside:
  - the source cone: P_rgb edge-padded, its second differences along x and y
    and the mixed one (v + v for 2v, the order the warp kernel uses), and one
    Concat of P_rgb with the three, [B,12,crop,crop]: the boundary;
  - the grid: keypoint heat maps on a coarse crop/8 grid (the identity grid
    [1,1,h,w,2] minus the keypoints [B,21,1,1,2], once for the driving and
    once for the source row), a flow field from them plus the student blend's
    global offset, upsampled by a linear half-pixel Resize, transposed to
    NHWC and added to a constant base grid;
  - the warp block: a GridSample (bilinear, border) of the boundary, four
    Slices of its output, and the Muls, Subs and Adds that combine them with
    the correction factors ax, ay (computed from the grid beside the block)
    into ((b0 - ax*b1) - ay*b2) + (ax*ay)*b3: the warp kernel's own formula;
  - the exit: a Slice [0,3) on axis 1 and a Clip (0, 1);
  - the head and the ellipse compose of render_graphs.py.

Usage:
  cone_graphs.py bench OUT_DIR CROP   the benchmark's bundle at that crop

Layout (written by gen_bundles.py through write_cases):
  graphs/cone/member.onnx          the cone director, crop 32, batch 1
  graphs/cone/<case>.onnx          the member with one change
  render/cone/composed_<key>.onnx  a bundle member, composed (the unedited
                                   reference of a plain ONNX Runtime session)
  render/cone/bundle/              the sample bundle with the cone directors:
                                   b1_fp32 (batch 1), b4_fp32 (batch 4),
                                   symbolic (b1_fp32 with P_rgb's spatial size
                                   left symbolic, which the hoist can't cut:
                                   the same arithmetic, never hoisted), and
                                   plain (a warp with nothing around it to fuse)
"""
import copy
import os
import sys

import numpy as np
import onnx
from onnx import helper

from bundle_data import Bundle, Rng, f32, i32
from graphs import _f32, _init, _value
from render_graphs import (Director, compose_inits, compose_nodes, director_inputs, director_members,
                           director_model, head_inits, head_nodes, _base_grid)

CROP = 32
KP = 21
COARSE = 8  # the flow field is crop / COARSE on a side
SIGMA2 = 0.1
MOTION_GAIN = 0.05
GS = "/warp/GridSample"


def _i64(values):
    return np.array(values, dtype=np.int64)


class _Graph:
    """Nodes and initializers in the order they are made."""

    def __init__(self):
        self.nodes, self.inits = [], []
        self.shared = set()

    def init(self, name, array):
        self.inits.append(_init(name, array))
        return name

    def index(self, v):
        """A one-element int64 constant, shared by every node that needs it."""
        name = "i64_%d" % v
        if name not in self.shared:
            self.shared.add(name)
            self.init(name, _i64([v]))
        return name

    def node(self, op, inputs, output, name, **attrs):
        self.nodes.append(helper.make_node(op, inputs, [output], name=name, **attrs))
        return output

    def slice(self, x, out, start, end, axis, name):
        return self.node("Slice", [x, self.index(start), self.index(end), self.index(axis)], out, name)

    def second(self, a, b, c, out, name):
        """(a - (b + b)) + c."""
        twice = self.node("Add", [b, b], out + "_2", name + "/Add_2")
        return self.node("Add", [self.node("Sub", [a, twice], out + "_d", name + "/Sub"), c], out, name + "/Add")


def _coarse_grid(h):
    lin = (np.arange(h, dtype=np.float64) * 2 + 1) / h - 1
    gx, gy = np.meshgrid(lin, lin)
    return _f32(np.stack([gx, gy], axis=-1)).reshape(1, 1, h, h, 2)


def _cone(g, crop):
    """P_rgb -> the boundary "cone_planes"."""
    g.nodes.append(helper.make_node("Constant", [], ["cone_pads"], name="/cone/Constant",
                                    value=_init("cone_pads", _i64([0, 0, 1, 1, 0, 0, 1, 1]))))
    pp = g.node("Pad", ["P_rgb", "cone_pads"], "cone_pp", "/cone/Pad", mode="edge")
    e = crop + 2
    up = g.slice(pp, "cone_up", 0, crop, 2, "/cone/Slice_up")
    mid = g.slice(pp, "cone_mid", 1, crop + 1, 2, "/cone/Slice_mid")
    down = g.slice(pp, "cone_down", 2, e, 2, "/cone/Slice_down")
    vfull = g.second(up, mid, down, "cone_v", "/cone/v")
    dyy = g.slice(vfull, "cone_dyy", 1, crop + 1, 3, "/cone/Slice_dyy")
    vl = g.slice(vfull, "cone_vl", 0, crop, 3, "/cone/Slice_vl")
    vr = g.slice(vfull, "cone_vr", 2, e, 3, "/cone/Slice_vr")
    dxy = g.second(vl, dyy, vr, "cone_dxy", "/cone/dxy")
    left = g.slice(mid, "cone_left", 0, crop, 3, "/cone/Slice_left")
    centre = g.slice(mid, "cone_centre", 1, crop + 1, 3, "/cone/Slice_centre")
    right = g.slice(mid, "cone_right", 2, e, 3, "/cone/Slice_right")
    dxx = g.second(left, centre, right, "cone_dxx", "/cone/dxx")
    return g.node("Concat", ["P_rgb", dxx, dyy, dxy], "cone_planes", "/cone/Concat", axis=1)


def _heat(g, kp, tag):
    """exp(-|z - kp|^2 / SIGMA2) on the coarse grid, [B,21,h,w]."""
    k2 = g.slice(kp, "kp2_" + tag, 0, 2, 2, "/motion/Slice_" + tag)
    k5 = g.node("Reshape", [k2, "kp5_shape"], "kp5_" + tag, "/motion/Reshape_" + tag)
    d = g.node("Sub", ["id_grid", k5], "dist_" + tag, "/motion/Sub_" + tag)
    r2 = g.node("ReduceSum", [g.node("Mul", [d, d], "dist2_" + tag, "/motion/Mul_" + tag), "axis4"],
                "r2_" + tag, "/motion/ReduceSum_" + tag, keepdims=0)
    return g.node("Exp", [g.node("Mul", [r2, "neg_inv_sigma2"], "e_" + tag, "/motion/Scale_" + tag)],
                  "heat_" + tag, "/motion/Exp_" + tag)


def cone_model(crop, batch=1, symbolic_prior=False, plain_warp=False):
    """The cone director. symbolic_prior leaves P_rgb's spatial size free;
    plain_warp samples a grid of the global flow alone and leaves the warp's
    output as it is (no heat maps, no Resize, no exit Slice and Clip)."""
    rng = np.random.RandomState(0xC0DE + crop)
    h = crop // COARSE
    g = _Graph()
    g.init("kp_shape", _i64([-1, KP * 3]))
    g.init("blend_w", _f32(rng.normal(0.0, 0.03, (KP * 3, 4))))
    g.init("split_sizes", _i64([2, 2]))
    g.inits.extend(head_inits(crop, rng) + compose_inits(crop))
    g.init("base_grid", _base_grid(crop))

    # The student blend: a global offset of the grid.
    kp_delta = g.node("Sub", ["kp_driving", "kp_source"], "kp_delta", "/kp/Sub")
    flat = g.node("Reshape", [kp_delta, "kp_shape"], "kp_flat", "/kp/Reshape")
    blend = g.node("MatMul", [flat, "blend_w"], "blend_out", "/s2/blend")
    g.nodes.append(helper.make_node("Split", [blend, "split_sizes"], ["flow_a", "flow_b"], name="/s2/Split", axis=1))
    gflow = g.node("Add", ["flow_a", "flow_b"], "gflow", "/s2/Add")

    cone = _cone(g, crop)

    if plain_warp:
        g.init("gflow_shape", _i64([-1, 1, 1, 2]))
        g4 = g.node("Reshape", [gflow, "gflow_shape"], "gflow4", "/warp/Reshape")
        grid = g.node("Add", ["base_grid", g4], "grid", "/warp/Add")
    else:
        g.init("kp5_shape", _i64([-1, KP, 1, 1, 2]))
        g.init("id_grid", _coarse_grid(h))
        g.init("axis4", _i64([4]))
        g.init("neg_inv_sigma2", _f32([-1.0 / SIGMA2]))
        hd, hs = _heat(g, "kp_driving", "d"), _heat(g, "kp_source", "s")
        heat = g.node("Sub", [hd, hs], "heat", "/motion/Sub")
        g.init("axis2", _i64([2]))
        heat5 = g.node("Unsqueeze", [heat, "axis2"], "heat5", "/motion/Unsqueeze")
        g.init("kpd5_shape", _i64([-1, KP, 2, 1, 1]))
        d2 = g.slice(kp_delta, "kpd2", 0, 2, 2, "/motion/Slice_delta")
        d5 = g.node("Reshape", [d2, "kpd5_shape"], "kpd5", "/motion/Reshape_delta")
        g.init("axis1", _i64([1]))
        moved = g.node("ReduceSum", [g.node("Mul", [heat5, d5], "moved5", "/motion/Mul"), "axis1"], "moved",
                       "/motion/ReduceSum", keepdims=0)
        g.init("motion_gain", _f32([-MOTION_GAIN]))
        local = g.node("Mul", [moved, "motion_gain"], "local_flow", "/motion/Gain")
        g.init("gflow_shape", _i64([-1, 2, 1, 1]))
        g4 = g.node("Reshape", [gflow, "gflow_shape"], "gflow4", "/warp/Reshape")
        flow = g.node("Add", [local, g4], "flow", "/warp/Add_flow")
        g.init("up_scales", _f32([1, 1, COARSE, COARSE]))
        up = g.node("Resize", [flow, "", "up_scales"], "flow_up", "/warp/Resize", mode="linear",
                    coordinate_transformation_mode="half_pixel")
        nhwc = g.node("Transpose", [up], "flow_nhwc", "/warp/Transpose", perm=[0, 2, 3, 1])
        grid = g.node("Add", [nhwc, "base_grid"], "grid", "/warp/Add")

    # The correction factors, from the grid beside the block.
    g.init("one", _f32([1.0]))
    g.init("half", _f32([0.5]))
    g.init("size", _f32([float(crop)]))
    corr = []
    for axis, tag in ((0, "x"), (1, "y")):
        gv = g.slice(grid, "g" + tag, axis, axis + 1, 3, "/warp/Slice_g" + tag)
        t = g.node("Mul", [g.node("Add", [gv, "one"], "g1" + tag, "/warp/Add_" + tag), "size"], "gs" + tag,
                   "/warp/Mul_" + tag)
        i = g.node("Mul", [g.node("Sub", [t, "one"], "gm" + tag, "/warp/Sub_" + tag), "half"], "i" + tag,
                   "/warp/Half_" + tag)
        f = g.node("Sub", [i, g.node("Floor", [i], "fl" + tag, "/warp/Floor_" + tag)], "f" + tag,
                   "/warp/Frac_" + tag)
        a = g.node("Mul", [g.node("Mul", [f, g.node("Sub", ["one", f], "of" + tag, "/warp/OneMinus_" + tag)],
                                  "ff" + tag, "/warp/FF_" + tag), "half"], "a" + tag + "_nhwc", "/warp/A_" + tag)
        corr.append(g.node("Transpose", [a], "a" + tag, "/warp/Transpose_" + tag, perm=[0, 3, 1, 2]))
    axy = g.node("Mul", corr, "axy", "/warp/Mul_axy")

    # The warp block.
    gs = g.node("GridSample", [cone, grid], "gs_out", GS, mode="bilinear", padding_mode="border")
    b = [g.slice(gs, "b%d" % k, 3 * k, 3 * k + 3, 1, "/warp/Slice_b%d" % k) for k in range(4)]
    r1 = g.node("Sub", [b[0], g.node("Mul", [corr[0], b[1]], "m1", "/warp/Mul_1")], "r1", "/warp/Sub_1")
    r2 = g.node("Sub", [r1, g.node("Mul", [corr[1], b[2]], "m2", "/warp/Mul_2")], "r2", "/warp/Sub_2")
    last = "warped" if plain_warp else "warp_raw"
    raw = g.node("Add", [r2, g.node("Mul", [axy, b[3]], "m3", "/warp/Mul_3")], last, "/warp/Add_out")
    if not plain_warp:
        g.init("exit_starts", _i64([0]))
        g.init("exit_ends", _i64([3]))
        g.init("exit_axes", _i64([1]))
        g.init("exit_steps", _i64([1]))
        sl = g.node("Slice", [raw, "exit_starts", "exit_ends", "exit_axes", "exit_steps"], "warp_sl",
                    "/warp/Slice_out")
        g.init("clip_min", _f32(0.0))
        g.init("clip_max", _f32(1.0))
        g.node("Clip", [sl, "clip_min", "clip_max"], "warped", "/warp/Clip")

    g.nodes.extend(head_nodes() + compose_nodes())
    prior_hw = ["prior_h", "prior_w"] if symbolic_prior else None
    return director_model(g.nodes, g.inits, director_inputs(crop, batch, KP, prior_hw), crop, batch)


# ------------------------------------------------------------ variants

def _node(m, name):
    return next(n for n in m.graph.node if n.name == name)


def _index(m, name):
    return next(i for i, n in enumerate(m.graph.node) if n.name == name)


def _insert_after(m, name, nodes):
    at = _index(m, name) + 1
    for k, nd in enumerate(nodes):
        m.graph.node.insert(at + k, nd)


def _set_init(m, name, array):
    init = next(t for t in m.graph.initializer if t.name == name)
    init.CopyFrom(_init(name, array))


def _set_attr(node, name, value):
    keep = [a for a in node.attribute if a.name != name]
    del node.attribute[:]
    node.attribute.extend(keep)
    node.attribute.append(helper.make_attribute(name, value))


def _extra_output(m, after, op, inputs, output, shape=None):
    """A node reading inputs right after node `after`, its output a graph
    output: a second reader that the per-frame side keeps."""
    _insert_after(m, after, [helper.make_node(op, inputs, [output], name="/extra/" + output)])
    m.graph.output.append(_value(output, shape))


def _reader(m, tensor, after):
    """A second reader of tensor that the graph keeps."""
    _extra_output(m, after, "Identity", [tensor], tensor + "_also")


def hoist_variants():
    """Cases of the cut: name -> edit."""
    def two_concats(m):
        _insert_after(m, "/cone/Concat", [helper.make_node("Concat", ["P_rgb", "P_rgb"], ["twice"], name="/x/Concat",
                                                           axis=1)])
        m.graph.output.append(_value("twice", None))

    def prgb_outside(m):
        _extra_output(m, "/cone/Concat", "ReduceMean", ["P_rgb"], "prior_mean")

    def prgb_renamed(m):
        m.graph.input[1].name = "P_in"
        m.graph.node.insert(0, helper.make_node("Identity", ["P_in"], ["P_rgb"], name="/x/Identity"))

    def reads_input(m):
        m.graph.input.append(_value("prior_gain", [1]))
        _node(m, "/cone/Pad").input[0] = "P_gained"
        _insert_after(m, "/cone/Constant", [helper.make_node("Mul", ["P_rgb", "prior_gain"], ["P_gained"],
                                                             name="/x/Mul")])

    def ghost_leaf(m):
        _node(m, "/cone/dxx/Add").input[1] = "ghost"

    return {
        "two_concats": two_concats,
        "prgb_outside": prgb_outside,
        "cone_value_escapes": lambda m: _reader(m, "cone_dxx", "/cone/Concat"),
        "boundary_read_twice": lambda m: _reader(m, "cone_planes", "/cone/Concat"),
        "prgb_renamed": prgb_renamed,
        "reads_input": reads_input,
        "ghost_leaf": ghost_leaf,
    }


def block_variants():
    """Cases of findWarpBlock and of the warp node: name -> edit."""
    def tip_copied(m):
        _insert_after(m, "/cone/Concat", [helper.make_node("Identity", ["cone_planes"], ["cone_planes_id"],
                                                           name="/x/Identity")])
        _node(m, GS).input[0] = "cone_planes_id"

    def second_gs(m):
        _insert_after(m, GS, [helper.make_node("GridSample", ["cone_planes", "grid"], ["gs2"], name="/x/GridSample",
                                               mode="bilinear", padding_mode="border")])
        m.graph.output.append(_value("gs2", None))

    def baked(m):
        node = _node(m, GS)
        node.op_type, node.domain = "GridSampleFast", "com.kestrova"
        del node.attribute[:]
        m.opset_import.append(helper.make_opsetid("com.kestrova", 1))

    def grid_input(m):
        m.graph.input.append(_value("grid_in", [1, CROP, CROP, 2]))
        _node(m, GS).input[1] = "grid_in"

    def no_output(m):
        _node(m, GS).output[0] = ""

    def inner_add(m):
        # The recombination's output read once more inside the block.
        _insert_after(m, "/warp/Add_out", [helper.make_node("Add", ["warp_raw", "m3"], ["warp_raw2"],
                                                            name="/x/Add")])
        _node(m, "/warp/Slice_out").input[0] = "warp_raw2"

    def padding_zeros(m):
        _set_attr(_node(m, GS), "padding_mode", "zeros")

    return {
        "tip_copied": tip_copied,
        "second_gridsample": second_gs,
        "baked": baked,
        "grid_input": grid_input,
        "no_output": no_output,
        "two_exits": lambda m: _reader(m, "m1", "/warp/Add_out"),
        "inner_add": inner_add,
        "padding_zeros": padding_zeros,
    }


def fuse_variants():
    """Cases of the warp fuse (after the warp node): name -> edit."""
    def grid_copied(m):
        _node(m, "/warp/Add").output[0] = "grid0"
        _insert_after(m, "/warp/Add", [helper.make_node("Identity", ["grid0"], ["grid"], name="/x/Identity")])

    def base_computed(m):
        _insert_after(m, "/warp/Transpose", [helper.make_node("Identity", ["base_grid"], ["base_id"],
                                                              name="/x/Identity")])
        _node(m, "/warp/Add").input[1] = "base_id"

    def base_rank5(m):
        _set_init(m, "base_grid", _base_grid(CROP).reshape(1, 1, CROP, CROP, 2))

    def base_double(m):
        init = next(t for t in m.graph.initializer if t.name == "base_grid")
        init.CopyFrom(onnx.numpy_helper.from_array(_base_grid(CROP).astype(np.float64), "base_grid"))

    def perm(m):
        _set_attr(_node(m, "/warp/Transpose"), "perm", [0, 3, 2, 1])

    def transpose_of_relu(m):
        _insert_after(m, "/warp/Resize", [helper.make_node("Relu", ["flow_up"], ["flow_relu"], name="/x/Relu")])
        _node(m, "/warp/Transpose").input[0] = "flow_relu"

    def not_transpose(m):
        node = _node(m, "/warp/Transpose")
        node.op_type = "Identity"
        del node.attribute[:]

    def resize_attr(name, value):
        return lambda m: _set_attr(_node(m, "/warp/Resize"), name, value)

    def scales(values):
        return lambda m: _set_init(m, "up_scales", _f32(values))

    def scales_computed(m):
        _insert_after(m, "/warp/Add_flow", [helper.make_node("Identity", ["up_scales"], ["up_scales_id"],
                                                             name="/x/Identity")])
        _node(m, "/warp/Resize").input[2] = "up_scales_id"

    def roi(m):
        m.graph.initializer.append(_init("up_roi", _f32([0, 0, 0, 0, 1, 1, 1, 1])))
        _node(m, "/warp/Resize").input[1] = "up_roi"

    def exit_input(index, values):
        def edit(m):
            name = _node(m, "/warp/Slice_out").input[index]
            _set_init(m, name, _i64(values))
        return edit

    def slice_int64_data(m):
        # The bounds listed in int64_data rather than raw_data.
        for name, v in (("exit_starts", 0), ("exit_ends", 3), ("exit_axes", 1), ("exit_steps", 1)):
            init = next(t for t in m.graph.initializer if t.name == name)
            init.CopyFrom(helper.make_tensor(name, onnx.TensorProto.INT64, [1], [v]))

    def slice_three_inputs(m):
        del _node(m, "/warp/Slice_out").input[3:]

    def slice_bounds_computed(m):
        _insert_after(m, "/warp/Add_out", [helper.make_node("Identity", ["exit_ends"], ["exit_ends_id"],
                                                            name="/x/Identity")])
        _node(m, "/warp/Slice_out").input[2] = "exit_ends_id"

    def clip_min(value):
        return lambda m: _set_init(m, "clip_min", _f32(value))

    def clip_no_min(m):
        _node(m, "/warp/Clip").input[1] = ""

    def id_grid_rank4(m):
        _set_init(m, "id_grid", _coarse_grid(CROP // COARSE).reshape(1, CROP // COARSE, CROP // COARSE, 2))

    def second_warp_node(m):
        _insert_after(m, GS, [helper.make_node("WarpDirector", ["P_rgb", "grid"], ["w2"], name="/x/WarpDirector",
                                               domain="com.kestrova")])
        m.graph.output.append(_value("w2", None))

    def nothing_but_subs(m):
        not_transpose(m)
        _reader(m, "warp_raw", "/warp/Clip")

    def grid_alone(m):
        clip_no_min(m)
        id_grid_rank4(m)

    return {
        "grid_copied": grid_copied,
        "base_computed": base_computed,
        "base_rank5": base_rank5,
        "base_double": base_double,
        "perm": perm,
        "transpose_of_relu": transpose_of_relu,
        "not_transpose": not_transpose,
        "resize_nearest": resize_attr("mode", "nearest"),
        "resize_align_corners": resize_attr("coordinate_transformation_mode", "align_corners"),
        "resize_antialias": resize_attr("antialias", 1),
        "scales_computed": scales_computed,
        "roi": roi,
        "scales_65": scales([1, 1, 65, 65]),
        "scales_2_5": scales([1, 1, 2.5, 2.5]),
        "scales_64": scales([1, 1, 64, 64]),
        "resize_read_twice": lambda m: _reader(m, "flow_up", "/warp/Transpose"),
        "transpose_read_twice": lambda m: _reader(m, "flow_nhwc", "/warp/Add"),
        "grid_read_twice": lambda m: _reader(m, "grid", "/warp/Add"),
        "warp_read_twice": lambda m: _reader(m, "warp_raw", "/warp/Clip"),
        "slice_bounds_computed": slice_bounds_computed,
        "slice_int64_data": slice_int64_data,
        "slice_three_inputs": slice_three_inputs,
        "slice_axis_2": exit_input(3, [2]),
        "slice_steps_2": exit_input(4, [2]),
        "slice_ends_2": exit_input(2, [2]),
        "slice_read_twice": lambda m: _reader(m, "warp_sl", "/warp/Clip"),
        "clip_min_negative_zero": clip_min(-0.0),
        "clip_max_0_9": lambda m: _set_init(m, "clip_max", _f32(0.9)),
        "clip_no_min": clip_no_min,
        "subs_rank4": id_grid_rank4,
        "nothing_but_subs": nothing_but_subs,
        "grid_alone": grid_alone,
        "second_warp_node": second_warp_node,
    }


# ------------------------------------------------------------ writing

def _write(path, data):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb") as f:
        f.write(data)


def _variant(base, edit):
    m = copy.deepcopy(base)
    edit(m)
    return m.SerializeToString()


def write_cases(out, sample):
    """graphs/cone and render/cone under out, on the sample bundle."""
    member = cone_model(CROP)
    root = os.path.join(out, "graphs", "cone")
    _write(os.path.join(root, "member.onnx"), member.SerializeToString())
    _write(os.path.join(root, "plain.onnx"), cone_model(CROP, plain_warp=True).SerializeToString())
    for variants in (hoist_variants(), block_variants(), fuse_variants()):
        for name, edit in variants.items():
            _write(os.path.join(root, name + ".onnx"), _variant(member, edit))

    crop = sample.manifest["crop"]
    directors = {
        "b1_fp32": Director(crop, model=cone_model(crop)),
        "b4_fp32": Director(crop, model=cone_model(crop, batch=4)),
        "symbolic": Director(crop, model=cone_model(crop, symbolic_prior=True)),
        "plain": Director(crop, model=cone_model(crop, plain_warp=True)),
    }
    root = os.path.join(out, "render", "cone")
    for key in ("b1_fp32", "b4_fp32"):
        _write(os.path.join(root, "composed_%s.onnx" % key), directors[key].composed())
    keep = {k: v for k, v in sample.members.items() if not k.startswith("model_") and k != "lip_template.v1.json"}
    members = director_members(crop, {"model_%s.onnx" % k: d for k, d in directors.items()})
    Bundle(sample.manifest, dict(keep, **members)).write_dir(os.path.join(root, "bundle"))


def bench_bundle(out, crop):
    """The benchmark's bundle at crop: 8 source frames walked in a loop, and
    the cone director as "cone" (hoisted) and "symbolic" (the same, never
    hoisted)."""
    nt, frames = 8, 16
    rng = Rng(0xC0DE + crop)
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
    cone = Director(crop, model=cone_model(crop))
    members.update(director_members(crop, {"model_cone.onnx": cone,
                                           "model_symbolic.onnx": Director(crop, model=cone_model(
                                               crop, symbolic_prior=True))}))
    Bundle(manifest, members).write_dir(out)


if __name__ == "__main__":
    if len(sys.argv) != 4 or sys.argv[1] != "bench":
        sys.exit("usage: cone_graphs.py bench OUT_DIR CROP")
    bench_bundle(sys.argv[2], int(sys.argv[3]))
