"""Graphs of the custom operator tests: one node each, every dimension left
free, so that a test can run an operator on tensors of any size.

Layout under OUT_DIR/ops:
  gridsample_std.onnx       ONNX GridSample, bilinear, border, align_corners=0
  gridsample_fast.onnx      com.kestrova::GridSampleFast(X, grid)
  warp_director.onnx        com.kestrova::WarpDirector(X, grid)
  fused_grid_clip.onnx      WarpDirectorFused(X, grid), clip=1, no up_h
  fused_flow_<h>x<w>.onnx   WarpDirectorFused(X, flow, base), up_h=h, up_w=w, clip=0
  fused_verify_<h>x<w>.onnx ONNX Runtime's grid (Resize, Transpose, Add) fed to
                            WarpDirectorFused as its fourth input, verify=1;
                            outputs the warp and that grid
  ort_grid.onnx             ONNX Runtime's grid alone: Resize(flow, scales)
                            linear half_pixel, Transpose to NHWC, Add base
  sub_bcast.onnx            com.kestrova::SubBcastKHWC(a, b), shapes unknown
  sub_bcast_typed.onnx      the same with a [1,1,H,W,2] and b [1,K,1,1,2]
  int8_conv_<case>.onnx     com.kestrova.int8::Int8ConvVNNI(X, W, scale, bias)
"""
import os

import onnx
from onnx import TensorProto, helper

OPSET = 17
IR_VERSION = 8
DOMAIN = "com.kestrova"
INT8_DOMAIN = "com.kestrova.int8"
FUSED_UPS = ((2, 2), (4, 4), (2, 3))


def _v(name, shape, elem=TensorProto.FLOAT):
    return helper.make_tensor_value_info(name, elem, shape)


def _model(nodes, inputs, outputs, initializers=()):
    graph = helper.make_graph(nodes, "ops", inputs, outputs, list(initializers))
    opsets = [helper.make_opsetid("", OPSET), helper.make_opsetid(DOMAIN, 1), helper.make_opsetid(INT8_DOMAIN, 1)]
    model = helper.make_model(graph, opset_imports=opsets, producer_name="ops_graphs")
    model.ir_version = IR_VERSION
    return model.SerializeToString()


def _nchw(name, c="C"):
    return _v(name, ["N", c, "H", "W"])


def _grid(name):
    return _v(name, ["N", "H", "W", 2])


def _fused(up=None, clip=0, verify=0):
    attrs = {"clip": clip, "verify": verify}
    if up is None:
        node = helper.make_node("WarpDirectorFused", ["X", "grid"], ["Y"], domain=DOMAIN, **attrs)
        return _model([node], [_nchw("X"), _grid("grid")], [_nchw("Y", 3)])
    h, w = up
    flow, base = _v("flow", ["N", 2, "h", "w"]), _v("base", [1, "H", "W", 2])
    fused_attrs = dict(up_h=h, up_w=w, **attrs)
    if not verify:
        node = helper.make_node("WarpDirectorFused", ["X", "flow", "base"], ["Y"], domain=DOMAIN, **fused_attrs)
        return _model([node], [_nchw("X"), flow, base], [_nchw("Y", 3)])
    scales = helper.make_tensor("scales", TensorProto.FLOAT, [4], [1.0, 1.0, float(h), float(w)])
    nodes = _ort_grid_nodes("scales") + [
        helper.make_node("WarpDirectorFused", ["X", "flow", "base", "grid"], ["Y"], domain=DOMAIN, **fused_attrs)]
    return _model(nodes, [_nchw("X"), flow, base], [_nchw("Y", 3), _grid("grid")], [scales])


def _ort_grid_nodes(scales):
    return [
        helper.make_node("Resize", ["flow", "", scales], ["up"], mode="linear",
                         coordinate_transformation_mode="half_pixel"),
        helper.make_node("Transpose", ["up"], ["upT"], perm=[0, 2, 3, 1]),
        helper.make_node("Add", ["upT", "base"], ["grid"]),
    ]


def _int8_conv(**attrs):
    node = helper.make_node("Int8ConvVNNI", ["X", "Wq", "scale", "bias"], ["Y"], domain=INT8_DOMAIN, **attrs)
    return _model([node], [_nchw("X"), _v("Wq", ["M", "C", "kH", "kW"], TensorProto.INT8), _v("scale", ["M"]),
                           _v("bias", ["M"])], [_v("Y", ["N", "M", "Ho", "Wo"])])


def cases():
    out = {}
    gs = helper.make_node("GridSample", ["X", "grid"], ["Y"], mode="bilinear", padding_mode="border",
                          align_corners=0)
    out["gridsample_std"] = _model([gs], [_nchw("X"), _grid("grid")], [_nchw("Y")])
    for op in ("GridSampleFast", "WarpDirector"):
        node = helper.make_node(op, ["X", "grid"], ["Y"], domain=DOMAIN)
        name = "gridsample_fast" if op == "GridSampleFast" else "warp_director"
        out[name] = _model([node], [_nchw("X"), _grid("grid")], [_nchw("Y")])
    out["fused_grid_clip"] = _fused(clip=1)
    for h, w in FUSED_UPS:
        out["fused_flow_%dx%d" % (h, w)] = _fused((h, w))
        out["fused_verify_%dx%d" % (h, w)] = _fused((h, w), verify=1)
    out["ort_grid"] = _model(_ort_grid_nodes("scales"),
                             [_v("flow", ["N", 2, "h", "w"]), _v("scales", [4]), _v("base", [1, "H", "W", 2])],
                             [_v("grid", ["N", "H", "W", 2])])
    sub = helper.make_node("SubBcastKHWC", ["a", "b"], ["Y"], domain=DOMAIN)
    out["sub_bcast"] = _model([sub], [_v("a", None), _v("b", None)], [_v("Y", None)])
    out["sub_bcast_typed"] = _model([sub], [_v("a", [1, 1, "H", "W", 2]), _v("b", [1, "K", 1, 1, 2])],
                                    [_v("Y", None)])
    out["int8_conv_default"] = _int8_conv()
    out["int8_conv_strided"] = _int8_conv(strides=[2, 2], pads=[1, 1, 1, 1], dilations=[1, 1], group=1)
    out["int8_conv_dilated"] = _int8_conv(strides=[1, 2], pads=[2, 1, 0, 2], dilations=[2, 1])
    out["int8_conv_short_attrs"] = _int8_conv(strides=[3], pads=[1, 1], dilations=[2], group=2)
    return out


def write_cases(root):
    os.makedirs(root, exist_ok=True)
    for name, data in cases().items():
        with open(os.path.join(root, name + ".onnx"), "wb") as f:
            f.write(data)
