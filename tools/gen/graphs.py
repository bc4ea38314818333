"""Director graph test data: a small member graph that holds every pattern the
load-time graph edits look for, its compose v2 structure, the model that the
splice must give, a lip template binding the structure to the member, and
one-change variants for every case in which an edit must stay away.

The member follows the director's interface at crop 32, batch 1: inputs
pooled64 [1,64,32,32], P_rgb [1,3,32,32], kp_driving and kp_source [1,21,3],
output rgb [1,3,32,32]. Inside it:
  - the student blend: a MatMul named /s2/blend over the keypoint deltas;
  - the warp: a standard GridSample (bilinear, border) of P_rgb;
  - the head: Conv, a per-channel bias Add [4,1,1], Relu, then the cubic x2
    half-pixel Resize feeding a Conv;
  - the ellipse compose: warp and head blended through the ellipse mask.

Layout under OUT_DIR/graphs:
  model_b1.onnx              the member
  structure.onnx             its compose v2 structure (ellipse end replaced)
  composed.onnx              the exact bytes the splice must give
  lip_template.v1.json       a complete lip template with the compose_v2 block
  sha256_vectors.txt         "<length> <hex>" of a byte pattern, by hashlib
  gridsample/<case>.onnx     the member with one change to the GridSample
  blend/<case>.onnx          ... to the blend MatMul
  cubic/<case>.onnx          ... to the head Resize or its surroundings
  splice/<case>.onnx         structures, and members (member_*), for each
                             refusal of the splice and its layout cases
  splice/<case>.expected.onnx  what the splice gives for an accepted case

Every file is the same on every run: weights come from fixed seeds and the
protobuf serialiser writes fields in number order.
"""
import base64
import copy
import hashlib
import json
import os

import numpy as np
import onnx
from onnx import TensorProto, helper, numpy_helper

import lip_data

CROP = 32
HEAD_C = 4
OPSET = 17
IR_VERSION = 8
MEMBER_KEY = "model_b1.onnx"
CV2_DOMAIN = "ai.kestrova.compose_v2"
SOURCE_KEY = "compose_v2.source_sha256"
# Member nodes up to here are shared with compose v2; those after are the
# ellipse compose that the structure replaces.
ELLIPSE_FROM = "/compose/Mul"


def _f32(a):
    return np.asarray(a, dtype=np.float32)


def _init(name, array):
    return numpy_helper.from_array(np.asarray(array), name)


def _value(name, shape):
    return helper.make_tensor_value_info(name, TensorProto.FLOAT, shape)


def _i64(name, values):
    return _init(name, np.array(values, dtype=np.int64))


def _model(nodes, inputs, outputs, inits, name, domains=()):
    """The serialised model of one graph, importing the standard opset and
    version 1 of each domain named."""
    graph = helper.make_graph(nodes, name, inputs, outputs, inits)
    opsets = [helper.make_opsetid("", OPSET)] + [helper.make_opsetid(d, 1) for d in domains]
    model = helper.make_model(graph, opset_imports=opsets, producer_name="kestrova-gen", producer_version="1")
    model.ir_version = IR_VERSION
    return model.SerializeToString()


def _ellipse():
    """A soft ellipse, strictly between 0 and 1, so both ends contribute."""
    y, x = np.mgrid[0:CROP, 0:CROP].astype(np.float64)
    c = (CROP - 1) / 2.0
    r2 = ((x - c) / (0.45 * CROP)) ** 2 + ((y - c) / (0.38 * CROP)) ** 2
    return _f32(0.1 + 0.8 * np.clip(1.0 - r2, 0.0, 1.0)).reshape(1, 1, CROP, CROP)


def _base_grid():
    lin = (np.arange(CROP, dtype=np.float64) * 2 + 1) / CROP - 1
    gx, gy = np.meshgrid(lin, lin)
    return _f32(np.stack([gx * 0.9, gy * 0.9], axis=-1)).reshape(1, CROP, CROP, 2)


def member_model():
    rng = np.random.RandomState(0x5EED)
    ellipse = _ellipse()
    inits = [
        _init("kp_shape", np.array([1, 63], dtype=np.int64)),
        _init("blend_w", _f32(rng.normal(0.0, 0.02, (63, 4)))),
        _init("split_sizes", np.array([2, 2], dtype=np.int64)),
        _init("flow_shape", np.array([1, 1, 1, 2], dtype=np.int64)),
        _init("base_grid", _base_grid()),
        _init("head_w0", _f32(rng.normal(0.0, 0.1, (HEAD_C, 64, 2, 2)))),
        _init("head_bias", _f32(rng.normal(0.0, 0.2, (HEAD_C, 1, 1)))),
        _init("head_scales", _f32([1, 1, 2, 2])),
        _init("head_w1", _f32(rng.normal(0.0, 0.3, (3, HEAD_C, 3, 3)))),
        _init("ellipse", ellipse),
        _init("ellipse_inv", _f32(np.float32(1) - ellipse)),
    ]
    n = helper.make_node
    nodes = [
        n("Sub", ["kp_driving", "kp_source"], ["kp_delta"], name="/kp/Sub"),
        n("Reshape", ["kp_delta", "kp_shape"], ["kp_flat"], name="/kp/Reshape"),
        n("MatMul", ["kp_flat", "blend_w"], ["blend_out"], name="/s2/blend"),
        n("Split", ["blend_out", "split_sizes"], ["flow_a", "flow_b"], name="/s2/Split", axis=1),
        n("Add", ["flow_a", "flow_b"], ["flow"], name="/s2/Add"),
        n("Reshape", ["flow", "flow_shape"], ["flow4"], name="/warp/Reshape"),
        n("Add", ["base_grid", "flow4"], ["grid"], name="/warp/Add"),
        n("GridSample", ["P_rgb", "grid"], ["warped"], name="/warp/GridSample",
          doc_string="samples the warp prior", mode="bilinear", padding_mode="border"),
        n("Conv", ["pooled64", "head_w0"], ["head_c0"], name="/head/Conv", kernel_shape=[2, 2], strides=[2, 2]),
        n("Add", ["head_c0", "head_bias"], ["head_b0"], name="/head/Add"),
        n("Relu", ["head_b0"], ["head_x"], name="/head/Relu"),
        n("Resize", ["head_x", "", "head_scales"], ["head_up"], name="/head/Resize",
          coordinate_transformation_mode="half_pixel", mode="cubic"),
        n("Conv", ["head_up", "head_w1"], ["head_rgb"], name="/head/Conv_1", kernel_shape=[3, 3],
          pads=[1, 1, 1, 1]),
        n("Mul", ["warped", "ellipse"], ["cw"], name="/compose/Mul"),
        n("Mul", ["head_rgb", "ellipse_inv"], ["ch"], name="/compose/Mul_1"),
        n("Add", ["cw", "ch"], ["rgb"], name="/compose/Add"),
    ]
    inputs = [_value("pooled64", [1, 64, 32, 32]), _value("P_rgb", [1, 3, CROP, CROP]),
              _value("kp_driving", [1, 21, 3]), _value("kp_source", [1, 21, 3])]
    graph = helper.make_graph(nodes, "director", inputs, [_value("rgb", [1, 3, CROP, CROP])], inits)
    model = helper.make_model(graph, opset_imports=[helper.make_opsetid("", OPSET)],
                              producer_name="kestrova-gen", producer_version="1")
    model.ir_version = IR_VERSION
    return model


# ------------------------------------------------------------ variants

def _node(model, name):
    return next(n for n in model.graph.node if n.name == name)


def _index(model, name):
    return next(i for i, n in enumerate(model.graph.node) if n.name == name)


def _set_attr(node, name, value):
    _drop_attr(node, name)
    node.attribute.append(helper.make_attribute(name, value))


def _drop_attr(node, name):
    keep = [a for a in node.attribute if a.name != name]
    del node.attribute[:]
    node.attribute.extend(keep)


def _variant(base, edit):
    m = copy.deepcopy(base)
    edit(m)
    return m


def _insert_after(model, name, nodes):
    at = _index(model, name) + 1
    for k, nd in enumerate(nodes):
        model.graph.node.insert(at + k, nd)


def _node_edits(node_name):
    """Editors of one node, by name: set an attribute, drop one, set the
    domain."""
    def attr(name, value):
        return lambda m: _set_attr(_node(m, node_name), name, value)

    def drop(name):
        return lambda m: _drop_attr(_node(m, node_name), name)

    def domain(d):
        def edit(m):
            _node(m, node_name).domain = d
        return edit

    return attr, drop, domain


def gridsample_variants():
    gs = "/warp/GridSample"
    attr, drop, domain = _node_edits(gs)

    def align_without_i(m):
        _node(m, gs).attribute.append(onnx.AttributeProto(name="align_corners", type=onnx.AttributeProto.INT))

    def imported(m):
        m.opset_import.append(helper.make_opsetid("com.kestrova", 1))

    def two(m):
        _insert_after(m, gs, [helper.make_node("GridSample", ["P_rgb", "grid"], ["warped2"], name="/warp/GridSample_1",
                                               mode="bilinear", padding_mode="border")])
        m.graph.output.append(_value("warped2", [1, 3, CROP, CROP]))

    def fast_elsewhere(m):
        node = _node(m, gs)
        node.op_type, node.domain = "GridSampleFast", "com.other"
        del node.attribute[:]

    return {
        "padding_zeros": attr("padding_mode", "zeros"),
        "padding_reflection": attr("padding_mode", "reflection"),
        "padding_absent": drop("padding_mode"),
        "mode_absent": drop("mode"),
        "mode_nearest": attr("mode", "nearest"),
        "mode_linear": attr("mode", "linear"),
        "align_1": attr("align_corners", 1),
        "align_0": attr("align_corners", 0),
        "align_without_i": align_without_i,
        "domain_ai_onnx": domain("ai.onnx"),
        "domain_other": domain("com.other"),
        "imported": imported,
        "two": two,
        "fast_elsewhere": fast_elsewhere,
    }


def blend_variants():
    bl = "/s2/blend"

    def third_input(m):
        _node(m, bl).input.append("blend_w")

    attr, _, domain = _node_edits(bl)

    def renamed(m):
        _node(m, bl).name = "/s2/blend_1"

    def gemm(m):
        _node(m, bl).op_type = "Gemm"

    return {"third_input": third_input, "attribute": attr("alpha", 1.0), "domain_other": domain("com.other"),
            "domain_ai_onnx": domain("ai.onnx"), "renamed": renamed, "gemm": gemm}


def cubic_variants():
    rz = "/head/Resize"
    attr, drop, domain = _node_edits(rz)

    def two(m):
        _insert_after(m, rz, [helper.make_node("Resize", ["head_x", "", "head_scales"], ["head_up2"],
                                               name="/head/Resize_1", coordinate_transformation_mode="half_pixel",
                                               mode="cubic")])
        m.graph.output.append(_value("head_up2", [1, HEAD_C, CROP, CROP]))

    def scales(values):
        def edit(m):
            init = next(t for t in m.graph.initializer if t.name == "head_scales")
            init.CopyFrom(_init("head_scales", _f32(values)))
        return edit

    def scales_computed(m):
        _insert_after(m, "/head/Relu", [helper.make_node("Identity", ["head_scales"], ["head_scales_id"],
                                                         name="/head/Identity")])
        _node(m, rz).input[2] = "head_scales_id"

    def scales_constant_node(m):
        _insert_after(m, "/head/Relu", [helper.make_node("Constant", [], ["head_scales_c"], name="/head/Constant",
                                                         value=_init("head_scales_c", _f32([1, 1, 2, 2])))])
        _node(m, rz).input[2] = "head_scales_c"

    def scales_float_data(m):
        init = next(t for t in m.graph.initializer if t.name == "head_scales")
        init.CopyFrom(helper.make_tensor("head_scales", TensorProto.FLOAT, [4], [1.0, 1.0, 2.0, 2.0]))

    def roi(m):
        m.graph.initializer.append(_init("head_roi", _f32([0, 0, 0, 0, 1, 1, 1, 1])))
        _node(m, rz).input[1] = "head_roi"

    def consumer(op):
        def edit(m):
            _insert_after(m, rz, [helper.make_node(op, ["head_up"], ["head_up_r"], name="/head/" + op)])
            _node(m, "/head/Conv_1").input[0] = "head_up_r"
        return edit

    def second_consumer(m):
        _insert_after(m, rz, [helper.make_node("Identity", ["head_up"], ["head_up_id"], name="/head/Identity")])
        m.graph.output.append(_value("head_up_id", [1, HEAD_C, CROP, CROP]))

    def weight_computed(m):
        _insert_after(m, rz, [helper.make_node("Identity", ["head_w1"], ["head_w1_id"], name="/head/Identity")])
        _node(m, "/head/Conv_1").input[1] = "head_w1_id"

    def conv_group2(m):
        _set_attr(_node(m, "/head/Conv_1"), "group", 2)

    def bias(channels):
        def edit(m):
            init = next(t for t in m.graph.initializer if t.name == "head_bias")
            init.CopyFrom(_init("head_bias", _f32(np.full((channels, 1, 1), 0.05))))
        return edit

    def bias_back(hops):
        """The bias constant of one channel, hops producers before the Resize."""
        def edit(m):
            bias(1)(m)
            chain = [helper.make_node("Identity", ["head_x" if k == 0 else "head_i%d" % k], ["head_i%d" % (k + 1)],
                                      name="/head/Identity_%d" % k) for k in range(hops - 2)]
            _insert_after(m, "/head/Relu", chain)
            _node(m, rz).input[0] = "head_i%d" % (hops - 2) if hops > 2 else "head_x"
        return edit

    def taken(m):
        name = "rz%d_padout" % _index(m, rz)
        m.graph.node.append(helper.make_node("Identity", ["rgb"], [name], name="/taken"))
        m.graph.output.append(_value(name, [1, 3, CROP, CROP]))

    def unnamed(m):
        _node(m, rz).name = ""

    return {
        "two_resize": two,
        "scales_1123": scales([1, 1, 2, 3]),
        "scales_computed": scales_computed,
        "scales_constant_node": scales_constant_node,
        "scales_float_data": scales_float_data,
        "domain_ai_onnx": domain("ai.onnx"),
        "mode_linear": attr("mode", "linear"),
        "ctm_absent": drop("coordinate_transformation_mode"),
        "ctm_align_corners": attr("coordinate_transformation_mode", "align_corners"),
        "exclude_outside": attr("exclude_outside", 1),
        "antialias": attr("antialias", 1),
        "axes": attr("axes", [2, 3]),
        "keep_aspect_not_larger": attr("keep_aspect_ratio_policy", "not_larger"),
        "keep_aspect_stretch": attr("keep_aspect_ratio_policy", "stretch"),
        "coeff_a_half": attr("cubic_coeff_a", -0.5),
        "roi": roi,
        "consumer_relu": consumer("Relu"),
        "second_consumer": second_consumer,
        "weight_computed": weight_computed,
        "conv_group2": conv_group2,
        "bias_mismatch": bias(1),
        "bias_mismatch_4_back": bias_back(4),
        "bias_mismatch_5_back": bias_back(5),
        "taken_name": taken,
        "unnamed": unnamed,
    }


# ------------------------------------------------------------ compose v2

def _sha(data):
    return hashlib.sha256(data).hexdigest()


def _placeholder(node, k):
    return helper.make_node("MemberNode", list(node.input), list(node.output), name="member_%d" % k,
                            domain=CV2_DOMAIN, k=k)


def _cv2_nodes(lip="lip_delivery"):
    n = helper.make_node
    return [
        n("Sub", ["cv2_one", lip], ["lip_inv"], name="/cv2/Sub"),
        n("Mul", ["warped", lip], ["cw2"], name="/cv2/Mul"),
        n("Mul", ["head_rgb", "lip_inv"], ["ch2"], name="/cv2/Mul_1"),
        n("Add", ["cw2", "ch2"], ["rgb"], name="/cv2/Add"),
    ]


def _structure_inputs(member, lip_shape=(1, 1, CROP, CROP), lip="lip_delivery"):
    return list(copy.deepcopy(member.graph.input)) + [_value(lip, list(lip_shape))]


def structure_model(member, binding, own_inits=None, nodes=None, inputs=None):
    """The compose v2 structure cut for member: placeholders for the shared
    nodes, the lip compose in place of the ellipse."""
    keep = _index(member, ELLIPSE_FROM)
    if nodes is None:
        nodes = [_placeholder(member.graph.node[k], k) for k in range(keep)] + _cv2_nodes()
    if own_inits is None:
        own_inits = [_init("cv2_one", _f32([1.0]))]
    graph = helper.make_graph(nodes, "director_compose_v2", inputs or _structure_inputs(member),
                              [_value("rgb", [1, 3, CROP, CROP])], own_inits)
    model = helper.make_model(graph, opset_imports=[helper.make_opsetid("", OPSET),
                                                    helper.make_opsetid(CV2_DOMAIN, 1)],
                              producer_name="kestrova-gen")
    model.ir_version = IR_VERSION
    if binding is not None:
        helper.set_model_props(model, {SOURCE_KEY: binding})
    return model


def composed_model(member, structure):
    """What the splice gives: the structure's graph with the member's nodes in
    the placeholders' places and the member weights that anything reads
    behind the structure's own, on the member's top level."""
    def k_of(node):
        return next(a.i for a in node.attribute if a.name == "k")

    graph = copy.deepcopy(structure.graph)
    nodes = [copy.deepcopy(member.graph.node[k_of(n)] if n.op_type == "MemberNode" else n) for n in graph.node]
    read = {i for n in nodes for i in n.input}
    own = {t.name for t in graph.initializer}
    del graph.node[:]
    graph.node.extend(nodes)
    graph.initializer.extend(copy.deepcopy(t) for t in member.graph.initializer
                             if t.name in read and t.name not in own)
    model = copy.deepcopy(member)
    model.graph.CopyFrom(graph)
    return model


def _pb_varint(v):
    out = bytearray()
    while v >= 0x80:
        out.append((v & 0x7F) | 0x80)
        v >>= 7
    out.append(v)
    return bytes(out)


def splice_cases(member, member_bytes):
    """name -> bytes. Structures are bound to the member unless their name
    says otherwise; member_* files are members the tests splice onto."""
    sha = _sha(member_bytes)
    keep = _index(member, ELLIPSE_FROM)
    place = [_placeholder(member.graph.node[k], k) for k in range(keep)]
    split_at = _index(member, "/s2/Split")
    out = {}

    def structure(**kw):
        return structure_model(member, sha, **kw).SerializeToString()

    def accepted(name, **kw):
        model = structure_model(member, sha, **kw)
        out[name] = model.SerializeToString()
        out[name + ".expected"] = composed_model(member, model).SerializeToString()

    base = structure()
    graph_field = helper.make_graph([], "second", [], []).SerializeToString()
    out["two_graphs"] = base + b"\x3a" + _pb_varint(len(graph_field)) + graph_field
    out["no_binding"] = structure_model(member, None).SerializeToString()
    out["truncated"] = base[:-3]

    def with_place(k, edit):
        nodes = copy.deepcopy(place) + _cv2_nodes()
        edit(nodes[k])
        return structure(nodes=nodes)

    out["no_k"] = with_place(split_at, lambda nd: nd.ClearField("attribute"))
    out["k_past_end"] = with_place(keep - 1, lambda nd: nd.attribute[0].CopyFrom(
        helper.make_attribute("k", len(member.graph.node))))
    out["outputs_swapped"] = with_place(split_at, lambda nd: nd.output.reverse())
    out["output_renamed"] = with_place(split_at, lambda nd: nd.output.__setitem__(1, "flow_c"))
    ghosts = [helper.make_node("Sum", ["zz_ghost", "aa_ghost", "mm_ghost", "bb_ghost", "cw2"], ["ghost_sum"],
                               name="/ghost")]
    out["missing_four"] = structure(nodes=place + _cv2_nodes() + ghosts)
    out["missing_one"] = structure(nodes=place + _cv2_nodes() + [
        helper.make_node("Add", ["cw2", "ghost"], ["ghost_sum"], name="/ghost")])
    out["lip_rank3"] = structure(inputs=_structure_inputs(member, (1, CROP, CROP)))
    out["lip_renamed"] = structure(nodes=place + _cv2_nodes("lip_mask"),
                                   inputs=_structure_inputs(member, lip="lip_mask"))
    # Accepted structures whose own initializers place the member weights.
    one = helper.make_node("Constant", [], ["cv2_one"], name="/cv2/Constant", value=_init("cv2_one", _f32([1.0])))
    accepted("no_own_init", nodes=[one] + place + _cv2_nodes(), own_inits=[])
    accepted("shadow", own_inits=[_init("cv2_one", _f32([1.0])), _init("head_bias", _f32(np.zeros((HEAD_C, 1, 1))))])

    # Members with one change, and structures bound to them.
    # One bit of one weight: a valid graph, and not the one the structure
    # was cut for.
    stale = bytearray(member_bytes)
    stale[member_bytes.index(_ellipse().tobytes()) + 401] ^= 0x01
    out["member_stale"] = bytes(stale)
    graphless = copy.deepcopy(member)
    graphless.ClearField("graph")
    out["member_graphless"] = graphless.SerializeToString()
    out["for_graphless"] = structure_model(member, _sha(out["member_graphless"])).SerializeToString()
    holder = copy.deepcopy(member)
    node = holder.graph.node[split_at + 1]
    node.op_type, node.domain = "MemberNode", CV2_DOMAIN
    out["member_with_placeholder"] = holder.SerializeToString()
    out["for_placeholder_member"] = structure_model(holder, _sha(out["member_with_placeholder"])).SerializeToString()
    return out


def compose_v2_block(member_bytes, structure_bytes):
    return {"schema": "compose-v2-structure-v1",
            "graphs": {MEMBER_KEY: {"source_sha256": _sha(member_bytes),
                                    "structure": base64.b64encode(structure_bytes).decode(),
                                    "structure_sha256": _sha(structure_bytes)}}}


# ------------------------------------------------------------ writing

def sha256_vectors():
    lines = []
    for n in (0, 1, 3, 55, 56, 57, 63, 64, 65, 111, 119, 120, 127, 128, 129, 1000, 4095, 100003):
        data = bytes((i * 131 + 7) & 0xFF for i in range(n))
        lines.append("%d %s" % (n, _sha(data)))
    return "\n".join(lines) + "\n"


def _write(path, data):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb") as f:
        f.write(data)


def write_cases(root):
    member = member_model()
    member_bytes = member.SerializeToString()
    structure = structure_model(member, _sha(member_bytes))
    structure_bytes = structure.SerializeToString()
    _write(os.path.join(root, MEMBER_KEY), member_bytes)
    _write(os.path.join(root, "structure.onnx"), structure_bytes)
    _write(os.path.join(root, "composed.onnx"), composed_model(member, structure).SerializeToString())
    template = lip_data.lip_template(compose_v2_block(member_bytes, structure_bytes))
    _write(os.path.join(root, "lip_template.v1.json"), (json.dumps(template) + "\n").encode())
    _write(os.path.join(root, "sha256_vectors.txt"), sha256_vectors().encode())
    for sub, variants in (("gridsample", gridsample_variants()), ("blend", blend_variants()),
                          ("cubic", cubic_variants())):
        for name, edit in variants.items():
            _write(os.path.join(root, sub, name + ".onnx"), _variant(member, edit).SerializeToString())
    for name, data in splice_cases(member, member_bytes).items():
        _write(os.path.join(root, "splice", name + ".onnx"), data)
