#!/usr/bin/python3
"""The fused m4b director at crop 512 for the fused convolution backend: the
graph (its weights under the names and shapes the backend proves, and nodes
that run the same network in ONNX Runtime), inputs for it, a plain float64
reference of the network written from its definition, a crop-512 bundle
around the graph, and small graphs for the backend's refusals.

The graph is large (about 55 MB of float initializers, most of it the
64 x 196608 image basis), so it is only ever generated, never committed.

Usage:
  conv_graphs.py cases OUT_DIR    the test data below (its own test fixture)
  conv_graphs.py bench OUT_DIR    the batch-2 graph (m4b.onnx) and its inputs
                                  (pooled64.f16, P.f16, kp_*.f32) for bench/conv

Layout of OUT_DIR for cases:
  bundle/                  a crop-512 bundle of 2 source frames whose
                           model_m4b.onnx is the batch-2 graph; its drive
                           tables hold the keypoints of both frames
  reference.f32            rgb [2,3,512,512] of the float64 reference on the
                           bundle's two frames and keypoints, rounded to
                           float32 (its last bits follow the machine's BLAS)
  stages/<name>.f32        item 0's intermediate results, under the names and
                           in the layouts of the backend's stage dumps
  refuse/<case>.onnx       small graphs the backend refuses at load

Weights, inputs and graph bytes are the same on every run: they come from
fixed seeds and plain arithmetic, with no linear-algebra library and no
vectorised transcendental function on the way.
"""
import os
import sys

import numpy as np
from onnx import TensorProto, helper, numpy_helper

from bundle_data import Bundle, f32, i32
from graphs import IR_VERSION, OPSET

CROP = 512
PRE_W, PRE_B, GRID32, BASIS = "onnx::Conv_313", "onnx::Conv_314", "onnx::Sub_316", "onnx::MatMul_338"

# name, Cout, Cin, k, init scale
CONVS = [
    ("s.e0.conv", 96, 96, 3, 1.0), ("s.e1.conv", 144, 96, 3, 1.0), ("s.e2.conv", 192, 144, 3, 1.0),
    ("s.d1.conv", 144, 336, 3, 1.0), ("s.d0.conv", 96, 240, 3, 1.0), ("s.ref.conv", 48, 96, 3, 1.0),
    ("s.mask", 22, 48, 3, 0.7), ("s.occ", 1, 48, 3, 0.3),
    ("s.corr.0.conv", 24, 7, 3, 1.0), ("s.corr.1.conv", 24, 24, 3, 1.0), ("s.corr.2", 12, 24, 3, 0.05),
    ("s.tile.0.conv", 32, 7, 3, 1.0), ("s.tile.1.conv", 32, 32, 3, 1.0), ("s.tile.2.conv", 32, 32, 3, 1.0),
    ("s.tile.3", 3, 32, 3, 0.05),
]


def _axis(n):
    """Centres of n cells on [-1, 1]."""
    return (np.arange(n, dtype=np.float64) * 2 + 1) / n - 1


def _grid(n):
    x = _axis(n)
    gx, gy = np.meshgrid(x, x)
    return np.stack([gx, gy], axis=-1)  # [n, n, 2]: x, then y


def _smoothstep(t):
    t = np.clip(t, 0.0, 1.0)
    return t * t * (3 - 2 * t)


def m4b_weights(seed=0xC0417):
    """Initializer name -> float32 array. He-scaled convolutions, so that the
    activations stay near 1 in every layer; small last layers, so that the
    corrections stay corrections."""
    rng = np.random.RandomState(seed)
    w = {}

    def conv(name, cout, cin, k, scale, bias_scale=0.05):
        std = scale * np.sqrt(2.0 / (cin * k * k))
        w[name + ".weight"] = (rng.standard_normal((cout, cin, k, k)) * std).astype(np.float32)
        w[name + ".bias"] = (rng.standard_normal(cout) * bias_scale).astype(np.float32)

    std = np.sqrt(2.0 / 85)
    w[PRE_W] = (rng.standard_normal((96, 85, 1, 1)) * std).astype(np.float32)
    w[PRE_B] = (rng.standard_normal(96) * 0.05).astype(np.float32)
    for name, cout, cin, k, scale in CONVS:
        conv(name, cout, cin, k, scale)
    w["s.mask.bias"][0] += np.float32(1.0)  # the background takes a share everywhere
    w["s.occ.bias"][0] = np.float32(1.5)
    w["s.wmlp.0.weight"] = (rng.standard_normal((128, 255)) * np.sqrt(2.0 / 255)).astype(np.float32)
    w["s.wmlp.0.bias"] = (rng.standard_normal(128) * 0.05).astype(np.float32)
    w["s.wmlp.2.weight"] = (rng.standard_normal((64, 128)) * 0.02).astype(np.float32)
    w["s.wmlp.2.bias"] = (rng.standard_normal(64) * 0.02).astype(np.float32)
    w[BASIS] = (rng.standard_normal((64, 196608)) * 0.5).astype(np.float32)
    w[GRID32] = _grid(32).reshape(1, 1, 32, 32, 2).astype(np.float32)
    w["s.grid64"] = _grid(64).astype(np.float32)
    fy = _smoothstep(np.minimum(np.arange(256) + 0.5, 256 - np.arange(256) - 0.5) / 48.0)
    fx = _smoothstep(np.minimum(np.arange(208) + 0.5, 208 - np.arange(208) - 0.5) / 40.0)
    w["s.feather"] = np.outer(fy, fx).reshape(1, 1, 256, 208).astype(np.float32)
    return w


def _const(name, value, dtype=np.int64):
    return helper.make_node("Constant", [], [name], name=name,
                            value=numpy_helper.from_array(np.asarray(value, dtype=dtype), name))


def m4b_model(weights, batch):
    """The network as ONNX nodes over the weights. Every constant that isn't
    a weight is a Constant node: the backend reads float initializers only."""
    n = helper.make_node
    nodes = [
        _const("c_xy_start", [0]), _const("c_xy_end", [2]), _const("c_ax2", [2]), _const("c_ax23", [2, 3]),
        _const("c_ax4", [4]), _const("c_ax1", [1]), _const("c_m1", [1]), _const("c_m22", [22]),
        _const("c_minus50", -50.0, np.float32), _const("c_up2", [1, 1, 2, 2], np.float32),
        _const("c_up8", [1, 1, 8, 8], np.float32), _const("c_flat", [-1, 63]),
        _const("c_basis_shape", [-1, 3, 256, 256]), _const("c_tile_start", [224, 144]),
        _const("c_tile_end", [480, 352]), _const("c_pads", [0, 0, 224, 144, 0, 0, 32, 160]),
    ]

    def add(op, inputs, output, **attrs):
        nodes.append(n(op, inputs, [output], name="/" + output, **attrs))
        return output

    def conv(x, name, out, relu, pad=1, weight=None, bias=None):
        y = add("Conv", [x, weight or name + ".weight", bias or name + ".bias"], out + "_conv",
                pads=[pad] * 4)
        return add("Relu", [y], out) if relu else y

    def resize(x, scales, out, mode):
        if mode == "nearest":
            return add("Resize", [x, "", scales], out, mode="nearest",
                       coordinate_transformation_mode="asymmetric", nearest_mode="floor")
        return add("Resize", [x, "", scales], out, mode="linear", coordinate_transformation_mode="half_pixel")

    # Keypoint heat maps at 32x32: exp(-50 |g - k|^2) over x and y.
    def heat(kp, tag):
        xy = add("Slice", [kp, "c_xy_start", "c_xy_end", "c_ax2"], tag + "_xy")
        k5 = add("Unsqueeze", [xy, "c_ax23"], tag + "_k5")
        d = add("Sub", [GRID32, k5], tag + "_d")
        sq = add("Mul", [d, d], tag + "_sq")
        d2 = add("ReduceSum", [sq, "c_ax4"], tag + "_d2", keepdims=0)
        return add("Exp", [add("Mul", [d2, "c_minus50"], tag + "_t")], tag + "_e")

    hm = add("Sub", [heat("kp_driving", "hd"), heat("kp_source", "hs")], "heat")
    x0 = add("Concat", ["pooled64", hm], "x0", axis=1)
    pre = conv(x0, None, "pre", True, pad=0, weight=PRE_W, bias=PRE_B)
    e0 = conv(pre, "s.e0.conv", "e0", True)
    e1 = conv(add("AveragePool", [e0], "e0p", kernel_shape=[2, 2], strides=[2, 2]), "s.e1.conv", "e1", True)
    e2 = conv(add("AveragePool", [e1], "e1p", kernel_shape=[2, 2], strides=[2, 2]), "s.e2.conv", "e2", True)
    d1in = add("Concat", [resize(e2, "c_up2", "e2u", "nearest"), e1], "d1in", axis=1)
    d1 = conv(d1in, "s.d1.conv", "d1", True)
    d0in = add("Concat", [resize(d1, "c_up2", "d1u", "nearest"), e0], "d0in", axis=1)
    d0 = conv(d0in, "s.d0.conv", "d0", True)
    ref = conv(resize(d0, "c_up2", "refin", "linear"), "s.ref.conv", "ref", True)
    mask = conv(ref, "s.mask", "mask", False)
    occl = conv(ref, "s.occ", "occl", False)
    # The motion field: the 64x64 grid moved by each keypoint's motion under
    # its mask (mask 0 is the background).
    m = add("Softmax", [mask], "m", axis=1)
    mk = add("Slice", [m, "c_m1", "c_m22", "c_ax1"], "mk")
    m5 = add("Unsqueeze", [mk, "c_ax4"], "m5")
    dk = add("Sub", ["kp_source", "kp_driving"], "dk")
    dk5 = add("Unsqueeze", [add("Slice", [dk, "c_xy_start", "c_xy_end", "c_ax2"], "dk_xy"), "c_ax23"], "dk5")
    flow = add("ReduceSum", [add("Mul", [m5, dk5], "mflow"), "c_ax1"], "flow", keepdims=0)
    grid_add = add("Add", ["s.grid64", flow], "grid_add")
    occ = add("Sigmoid", [occl], "occ")
    # The basis weights and the basis image.
    gm = add("ReduceMean", [e2], "e2mean", axes=[2, 3], keepdims=0)
    kd = add("Reshape", [add("Sub", ["kp_driving", "kp_source"], "kdiff"), "c_flat"], "kdiff_flat")
    v = add("Concat", [gm, kd], "wvec", axis=1)
    h = add("Relu", [add("Gemm", [v, "s.wmlp.0.weight", "s.wmlp.0.bias"], "wmlp0", transB=1)], "wmlp0_relu")
    w64 = add("Gemm", [h, "s.wmlp.2.weight", "s.wmlp.2.bias"], "w64", transB=1)
    basis_img = add("Reshape", [add("MatMul", [w64, BASIS], "basis_flat"), "c_basis_shape"], "basis_img")
    # The warp, the blend, the correction.
    occ512 = resize(occ, "c_up8", "occ512", "linear")
    g512 = add("Transpose", [resize(add("Transpose", [grid_add], "grid_nchw", perm=[0, 3, 1, 2]), "c_up8",
                                    "grid512_nchw", "linear")], "grid512", perm=[0, 2, 3, 1])
    warped = add("GridSample", ["P_rgb", g512], "warped", mode="bilinear", padding_mode="border", align_corners=0)
    blended = add("Add", [add("Mul", [warped, occ512], "warped_occ"), resize(basis_img, "c_up2", "basis512",
                                                                               "linear")], "blended")
    corr_in = add("Concat", [add("AveragePool", [warped], "warped_mean", kernel_shape=[2, 2], strides=[2, 2]),
                             add("AveragePool", [occ512], "occ_mean", kernel_shape=[2, 2], strides=[2, 2]),
                             basis_img], "corr_in", axis=1)
    c = conv(conv(conv(corr_in, "s.corr.0.conv", "corr0", True), "s.corr.1.conv", "corr1", True), "s.corr.2",
             "corr2", False)
    refined = add("Add", [blended, add("DepthToSpace", [c], "corr_d2s", blocksize=2, mode="CRD")], "refined")
    # The refinement tile over the mouth region, feathered in.
    crop = lambda x, tag: add("Slice", [x, "c_tile_start", "c_tile_end", "c_ax23"], tag)  # noqa: E731
    t = add("Concat", [crop(refined, "tile_r"), crop(warped, "tile_w"), crop(occ512, "tile_o")], "tile_in", axis=1)
    for i in range(4):
        name = "s.tile.%d%s" % (i, ".conv" if i < 3 else "")
        t = conv(t, name, "tile%d" % i, i < 3)
    ft = add("Mul", [t, "s.feather"], "tile_feathered")
    padded = add("Pad", [ft, "c_pads"], "tile_padded", mode="constant")
    nodes.append(n("Add", [refined, padded], ["rgb"], name="/rgb"))

    def value(name, shape):
        return helper.make_tensor_value_info(name, TensorProto.FLOAT, shape)

    inputs = [value("pooled64", [batch, 64, 32, 32]), value("P_rgb", [batch, 3, CROP, CROP]),
              value("kp_driving", [batch, 21, 3]), value("kp_source", [batch, 21, 3])]
    inits = [numpy_helper.from_array(a, name) for name, a in weights.items()]
    graph = helper.make_graph(nodes, "m4b", inputs, [value("rgb", [batch, 3, CROP, CROP])], inits)
    model = helper.make_model(graph, opset_imports=[helper.make_opsetid("", OPSET)], producer_name="kestrova-gen")
    model.ir_version = IR_VERSION
    return model


def m4b_inputs(batch, seed=0x1A7E):
    """pooled [B,64,32,32] and prior [B,3,512,512] as float16, and the
    source and driven keypoints [B,21,3] as float32."""
    rng = np.random.RandomState(seed)
    pooled = (rng.standard_normal((batch, 64, 32, 32)) * 0.5).astype(np.float16)
    y, x = np.mgrid[0:CROP, 0:CROP].astype(np.float64) / CROP
    prior = np.empty((batch, 3, CROP, CROP), dtype=np.float16)
    for b in range(batch):
        for c in range(3):
            # A smooth face-sized blob over gradients, with fine stripes.
            r2 = ((x - 0.5 - 0.03 * b) / 0.3) ** 2 + ((y - 0.5) / 0.38) ** 2
            blob = _smoothstep(1.0 - r2)
            stripes = ((x * (17 + 5 * c) + y * (11 + 3 * b)) % 1.0) * 0.1
            prior[b, c] = (0.2 + 0.1 * c + 0.4 * blob + 0.2 * y + stripes).astype(np.float16)
    ks = np.empty((batch, 21, 3), dtype=np.float32)
    ks[:, :, :2] = rng.uniform(-0.6, 0.6, (batch, 21, 2))
    ks[:, :, 2] = rng.uniform(-0.1, 0.1, (batch, 21))
    kd = (ks + rng.standard_normal((batch, 21, 3)) * 0.04).astype(np.float32)
    return pooled, prior, ks, kd


# ---------------------------------------------------------------------------
# The float64 reference, from the network's definition.

def _conv(x, w, b, pad):
    """x [C,H,W], w [O,C,k,k] -> [O,H,W] (stride 1)."""
    k = w.shape[2]
    xp = np.pad(x, ((0, 0), (pad, pad), (pad, pad)))
    win = np.lib.stride_tricks.sliding_window_view(xp, (k, k), axis=(1, 2))  # [C,H,W,k,k]
    return np.tensordot(w, win, axes=([1, 2, 3], [0, 3, 4])) + b[:, None, None]


def _lin(out, n):
    """Indices and weights of a half-pixel bilinear resize from n to out."""
    s = (n / out) * (np.arange(out) + 0.5) - 0.5
    f = np.floor(s)
    i0 = np.clip(f, 0, n - 1).astype(np.int64)
    i1 = np.minimum(np.maximum(f, -1) + 1, n - 1).astype(np.int64)
    return i0, i1, s - f


def _resize(img, out):
    """[..., n, n] -> [..., out, out], bilinear, half-pixel, edge-clamped."""
    i0, i1, fr = _lin(out, img.shape[-1])
    rows = img[..., i0, :] + fr[:, None] * (img[..., i1, :] - img[..., i0, :])
    return rows[..., i0] + fr * (rows[..., i1] - rows[..., i0])


def _warp(prior, gx, gy):
    """prior [3,512,512] sampled at grid coordinates: u = g * 256 + 255.5,
    clamped to the image."""
    def axis(g):
        u = np.clip(g * 256 + 255.5, 0, 511)
        i = np.minimum(np.floor(u), 510).astype(np.int64)
        return i, u - i
    x0, fx = axis(gx)
    y0, fy = axis(gy)
    p00, p01 = prior[:, y0, x0], prior[:, y0, x0 + 1]
    p10, p11 = prior[:, y0 + 1, x0], prior[:, y0 + 1, x0 + 1]
    top = p00 + fx * (p01 - p00)
    bottom = p10 + fx * (p11 - p10)
    return top + fy * (bottom - top)


def reference(weights, pooled, prior, ks, kd, stages=None):
    """rgb [B,3,512,512] in float64. stages, a dict, receives item 0's
    intermediate results under the names of the backend's stage dumps."""
    W = {k: np.asarray(v, dtype=np.float64) for k, v in weights.items()}
    relu = lambda a: np.maximum(a, 0.0)  # noqa: E731
    conv = lambda x, name, pad=1: _conv(x, W[name + ".weight"], W[name + ".bias"], pad)  # noqa: E731
    pool = lambda a: a.reshape(a.shape[0], a.shape[1] // 2, 2, a.shape[2] // 2, 2).mean(axis=(2, 4))  # noqa
    up = lambda a: a.repeat(2, axis=1).repeat(2, axis=2)  # noqa: E731
    out = []
    for b in range(pooled.shape[0]):
        keep = stages.__setitem__ if (stages is not None and b == 0) else (lambda name, value: None)
        p, P = pooled[b].astype(np.float64), prior[b].astype(np.float64)
        s, d = ks[b].astype(np.float64), kd[b].astype(np.float64)
        g32 = W[GRID32].reshape(32, 32, 2)
        heat = [np.exp(-50 * ((g32 - d[k, :2]) ** 2).sum(-1)) - np.exp(-50 * ((g32 - s[k, :2]) ** 2).sum(-1))
                for k in range(21)]
        pre = relu(_conv(np.concatenate([p, np.stack(heat)]), W[PRE_W], W[PRE_B], 0))
        e0 = relu(conv(pre, "s.e0.conv"))
        e1 = relu(conv(pool(e0), "s.e1.conv"))
        e2 = relu(conv(pool(e1), "s.e2.conv"))
        d1 = relu(conv(np.concatenate([up(e2), e1]), "s.d1.conv"))
        d0 = relu(conv(np.concatenate([up(d1), e0]), "s.d0.conv"))
        ref = relu(conv(_resize(d0, 64), "s.ref.conv"))
        z = conv(ref, "s.mask")
        e = np.exp(z - z.max(axis=0))
        m = e / e.sum(axis=0)
        motion = s[:, :2] - d[:, :2]  # [21, 2]
        grid_add = W["s.grid64"] + np.einsum("khw,kc->hwc", m[1:], motion)
        occ = 1 / (np.exp(-conv(ref, "s.occ")[0]) + 1)
        v = np.concatenate([e2.mean(axis=(1, 2)), (d - s).reshape(63)])
        h = relu(W["s.wmlp.0.bias"] + W["s.wmlp.0.weight"] @ v)
        w64 = W["s.wmlp.2.bias"] + W["s.wmlp.2.weight"] @ h
        basis_img = (w64 @ W[BASIS]).reshape(3, 256, 256)
        occ512 = _resize(occ, 512)
        warped = _warp(P, _resize(grid_add[:, :, 0], 512), _resize(grid_add[:, :, 1], 512))
        blended = warped * occ512 + _resize(basis_img, 512)
        corr_in = np.concatenate([pool(warped), pool(occ512[None]), basis_img])
        c0 = relu(conv(corr_in, "s.corr.0.conv"))
        c1 = relu(conv(c0, "s.corr.1.conv"))
        c2 = conv(c1, "s.corr.2")
        d2s = c2.reshape(3, 2, 2, 256, 256).transpose(0, 3, 1, 4, 2).reshape(3, 512, 512)
        refined = blended + d2s
        ys, xs = slice(224, 480), slice(144, 352)
        t = np.concatenate([refined[:, ys, xs], warped[:, ys, xs], occ512[None, ys, xs]])
        for i in range(4):
            t = conv(t, "s.tile.%d%s" % (i, ".conv" if i < 3 else ""))
            if i < 3:
                t = relu(t)
            if i == 2:
                keep("tile2_relu", t)
        rgb = refined.copy()
        rgb[:, ys, xs] += W["s.feather"][0, 0] * t
        out.append(rgb)
        for name, value in (("pre_relu", pre), ("e0_relu", e0), ("e1_relu", e1), ("e2_relu", e2),
                            ("d1_relu", d1), ("d0_relu", d0), ("ref_relu", ref), ("mask_conv", z),
                            ("occ_sig", occ), ("grid_add", grid_add), ("w64", w64), ("basisimg", basis_img),
                            ("occ512", occ512), ("warped", warped), ("corr0_relu", c0), ("corr1_relu", c1),
                            ("corr2_conv", c2), ("refined", refined), ("tile3_conv", t), ("rgb", rgb)):
            keep(name, value)
    return np.stack(out)


# ---------------------------------------------------------------------------
# Files.

def _write(path, data):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb") as f:
        f.write(data)


def _refusal_graphs(root):
    """Small graphs that fail the backend's load at each of its checks."""
    def model(inits, inputs=True, batch=1):
        ins = [helper.make_tensor_value_info("pooled64", TensorProto.FLOAT, [batch, 64, 32, 32])] if inputs else []
        outs = [helper.make_tensor_value_info("rgb", TensorProto.FLOAT, [1, 3, 4, 4])]
        g = helper.make_graph([], "refuse", ins, outs, inits)
        m = helper.make_model(g, opset_imports=[helper.make_opsetid("", OPSET)], producer_name="kestrova-gen")
        m.ir_version = IR_VERSION
        return m.SerializeToString()

    ok = numpy_helper.from_array(np.ones((2, 3), dtype=np.float32), "s.e0.conv.bias")
    int64 = numpy_helper.from_array(np.ones(3, dtype=np.int64), "shape_const")
    raw = TensorProto(name="short_raw", data_type=TensorProto.FLOAT, dims=[4], raw_data=b"\0" * 12)
    sparse = TensorProto(name="few_floats", data_type=TensorProto.FLOAT, dims=[3], float_data=[1.0, 2.0])
    cases = {
        "non_fp32": model([ok, int64]),
        "raw_size": model([ok, raw]),
        "no_data": model([sparse]),
        "no_pooled64": model([ok], inputs=False),
        "batch_symbolic": model([ok], batch="B"),
        "not_m4b": model([ok]),
    }
    for name, data in cases.items():
        _write(os.path.join(root, "refuse", name + ".onnx"), data)
    _write(os.path.join(root, "refuse", "not_onnx.onnx"), b"\x0a\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff")


def write_bench(root, batch):
    """The graph and its inputs, without a bundle or a reference."""
    pooled, prior, ks, kd = m4b_inputs(batch)
    _write(os.path.join(root, "m4b.onnx"), m4b_model(m4b_weights(), batch).SerializeToString())
    _write(os.path.join(root, "pooled64.f16"), pooled.astype("<f2").tobytes())
    _write(os.path.join(root, "P.f16"), prior.astype("<f2").tobytes())
    _write(os.path.join(root, "kp_source.f32"), ks.astype("<f4").tobytes())
    _write(os.path.join(root, "kp_driving.f32"), kd.astype("<f4").tobytes())


def write_cases(root):
    """The batch-2 graph inside a crop-512 bundle, its reference, refusals."""
    batch = 2
    weights = m4b_weights()
    pooled, prior, ks, kd = m4b_inputs(batch)
    manifest = {"format": "le-bundle-v0", "agent": "m4b", "NT": batch, "H": CROP, "W": CROP, "M_src_w": CROP,
                "M_src_h": CROP, "crop": CROP, "amount": 0.5, "sigma": 1.5, "ksize": 7, "frames": batch}
    members = {
        "model_m4b.onnx": m4b_model(weights, batch).SerializeToString(),
        "P.f16": prior.astype("<f2").tobytes(),
        "pooled64.f16": pooled.astype("<f2").tobytes(),
        "M.f32": f32([v for _ in range(batch) for v in (1.0, 0.0, 0.0, 0.0, 1.0, 0.0)]),
        "mask_512.u8": bytes(255 for _ in range(CROP * CROP)),
        "drive/xs.f32": ks.astype("<f4").tobytes(),
        "drive/xd.f32": kd.astype("<f4").tobytes(),
        "drive/si.i32": i32(list(range(batch))),
    }
    Bundle(manifest, members).write_dir(os.path.join(root, "bundle"))
    stages = {}
    ref = reference(weights, pooled, prior, ks, kd, stages)
    _write(os.path.join(root, "reference.f32"), ref.astype("<f4").tobytes())
    for name, value in stages.items():
        _write(os.path.join(root, "stages", name + ".f32"), np.asarray(value).astype("<f4").tobytes())
    _refusal_graphs(root)


if __name__ == "__main__":
    if len(sys.argv) != 3 or sys.argv[1] not in ("bench", "cases"):
        sys.exit("usage: conv_graphs.py bench|cases OUT_DIR")
    if sys.argv[1] == "bench":
        write_bench(sys.argv[2], 2)
    else:
        write_cases(sys.argv[2])
