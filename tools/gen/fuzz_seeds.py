#!/usr/bin/python3
"""Seed corpora of the fuzz harnesses (tests/fuzz), one folder per harness,
gathered from the test data that gen_bundles.py has written and completed
with a few inputs of their own.

Usage: fuzz_seeds.py DATA_DIR   (after gen_bundles.py DATA_DIR)

Layout under DATA_DIR/fuzz:
  manifest/              manifest.json texts
  imx/                   small IMX containers, valid and broken
  wire/                  ONNX graphs of every kind the tests use
  gridsample_fast/, blend_gemm/, head_cubic/   graphs for each rewrite
  compose_v2_splice/     flags | u32 member length | member | structure
  teeth_json/            JSON texts
  lip_template/          lip templates, accepted and refused
  compose_v2_structure/  lip templates with compose_v2 blocks, base64 texts
  a2x_meta/              a2x_meta.json texts
  teeth_members/         sidecar length (u32) | tessera_bank.v1.json | manifest.json
  head_pt/               head checkpoints, loading and refused
  head_pickle/           the data.pkl streams of those checkpoints
  serve_config/          head configs
  unified_pi/            manifests with a unified block
  source_cone/, warp_block/, warp_fuse/   the cone graphs and model_b1
  conv_model/            the convolution backend's refusals, the m4b shapes
  drive/                 manifest.json texts (3 frames read the harness's tables)
"""
import glob
import json
import os
import shutil
import struct
import sys
import zipfile

import imx


def _put(d, name, data):
    os.makedirs(d, exist_ok=True)
    with open(os.path.join(d, name), "wb") as f:
        f.write(data if isinstance(data, bytes) else data.encode())


def _copy(d, paths, data):
    """Copies each file under its path in the data tree, '/' made '_'."""
    os.makedirs(d, exist_ok=True)
    for p in sorted(paths):
        shutil.copyfile(p, os.path.join(d, os.path.relpath(p, data).replace(os.sep, "_")))


def _splice_input(flags, member, structure):
    return bytes([flags]) + struct.pack("<I", len(member)) + member + structure


def _weight_short_of_channels(path):
    """The director graph with the Conv after the head Resize (and the
    channel constant upstream) declaring 1048576 channels while its weight
    keeps its 432 bytes: the rewrite would have written 400 MiB of
    depthwise weight for it."""
    import onnx
    m = onnx.load(path)
    g = m.graph
    inits = {t.name: t for t in g.initializer}
    resized = [n.output[0] for n in g.node if n.op_type == "Resize"][0]
    conv = [n for n in g.node if n.op_type == "Conv" and resized in n.input][0]
    weight = inits[conv.input[1]]
    out_channels, _, kh, kw = weight.dims
    del weight.dims[:]
    weight.dims.extend([out_channels, 1048576, kh, kw])
    for t in g.initializer:
        if len(t.dims) == 3 and t.dims[1] == 1 and t.dims[2] == 1:
            t.dims[0] = 1048576
    return m.SerializeToString()


def _placeholder_twice(structure):
    """The structure with its first MemberNode placeholder repeated at the
    end of its nodes: each repeat would have copied the member node again."""
    import copy
    import onnx
    s = onnx.load_from_string(structure)
    first = [n for n in s.graph.node if n.op_type == "MemberNode"][0]
    s.graph.node.append(copy.deepcopy(first))
    return s.SerializeToString()


def _conv_model_seeds(d):
    """The convolution backend's refusal graphs, and the m4b topology itself
    with every initializer's dimensions and none of its 55 MB of weights
    (raw data short, or float data absent): the shapes prove the topology
    and the data read refuses."""
    import tempfile
    import conv_graphs
    from onnx import TensorProto, helper
    with tempfile.TemporaryDirectory() as tmp:
        conv_graphs._refusal_graphs(tmp)
        _copy(d, glob.glob(os.path.join(tmp, "refuse", "*.onnx")), os.path.join(tmp, "refuse"))
    weights = conv_graphs.m4b_weights()
    for name, raw in (("topology_raw_short.onnx", b"\0" * 8), ("topology_no_data.onnx", None)):
        inits = []
        for key, value in weights.items():
            t = TensorProto(name=key, data_type=TensorProto.FLOAT, dims=list(value.shape))
            if raw is not None:
                t.raw_data = raw
            inits.append(t)
        inputs = [helper.make_tensor_value_info("pooled64", TensorProto.FLOAT, [2, 64, 32, 32])]
        outputs = [helper.make_tensor_value_info("rgb", TensorProto.FLOAT, [2, 3, 512, 512])]
        graph = helper.make_graph([], "m4b", inputs, outputs, inits)
        model = helper.make_model(graph, opset_imports=[helper.make_opsetid("", conv_graphs.OPSET)])
        model.ir_version = conv_graphs.IR_VERSION
        _put(d, name, model.SerializeToString())


def write_cases(out, data):
    g = lambda pattern: sorted(glob.glob(os.path.join(data, pattern)))
    read = lambda rel: open(os.path.join(data, rel), "rb").read()

    _copy(os.path.join(out, "manifest"), g("manifests/*/manifest.json") + g("sample/manifest.json"), data)

    # The sample container is large: the small ones carry the same structure.
    d = os.path.join(out, "imx")
    _copy(d, [p for p in g("containers/*") if not os.path.basename(p).startswith("sample")], data)
    _put(d, "small_bundle.imx", imx.container([
        ("manifest.json", read("sample/manifest.json")), ("drive/xs.f32", b"\0" * 8),
        ("model_b1.onnx", b"\x08\x07"), ("empty.bin", b"")]))

    graphs = g("graphs/*.onnx") + g("graphs/*/*.onnx")
    _copy(os.path.join(out, "wire"), graphs, data)
    for name in ("gridsample_fast", "blend_gemm", "head_cubic"):
        folder = {"gridsample_fast": "gridsample", "blend_gemm": "blend", "head_cubic": "cubic"}[name]
        _copy(os.path.join(out, name), g("graphs/%s/*.onnx" % folder) + g("graphs/model_b1.onnx"), data)
    _put(os.path.join(out, "head_cubic"), "weight_short_of_channels.onnx",
         _weight_short_of_channels(os.path.join(data, "graphs/model_b1.onnx")))

    # The splice: each structure with the member it was cut for (model_b1
    # unless it names its own), as it stands, with its binding renewed, and
    # with both template hashes passed.
    d = os.path.join(out, "compose_v2_splice")
    member = read("graphs/model_b1.onnx")
    pairs = [("structure", member, read("graphs/structure.onnx")),
             ("graphless", read("graphs/splice/member_graphless.onnx"), read("graphs/splice/for_graphless.onnx")),
             ("placeholder_member", read("graphs/splice/member_with_placeholder.onnx"),
              read("graphs/splice/for_placeholder_member.onnx")),
             ("stale", read("graphs/splice/member_stale.onnx"), read("graphs/structure.onnx"))]
    for p in g("graphs/splice/*.onnx"):
        base = os.path.basename(p)[:-len(".onnx")]
        if not base.startswith(("member_", "for_")) and not base.endswith(".expected"):
            pairs.append((base, member, read(os.path.relpath(p, data))))
    for name, m, s in pairs:
        for flags in (0, 1, 7):
            _put(d, "%s.%d.bin" % (name, flags), _splice_input(flags, m, s))
    _put(d, "placeholder_twice.0.bin", _splice_input(0, member, _placeholder_twice(read("graphs/structure.onnx"))))

    jsons = g("lip/*/*.json") + g("lip/compose_v2/refuse/*.json") + g("graphs/lip_template.v1.json")
    d = os.path.join(out, "teeth_json")
    _copy(d, jsons, data)
    for name, text in [("escapes", '{"a\\u00e9b": "x\\n\\t\\\\\\"y", "c": [true, false, null]}'),
                       ("numbers", '[0, -1.5e3, 1e999, 0x10, nan, inf, .5, 1e-400]'),
                       ("nested", '{"a": [[{"b": [{}]}], {"c": {"d": []}}]}'),
                       ("duplicates", '{"k": 1, "k": "two", "no_colon" 3}'),
                       ("trailing", '[1, 2,]'), ("truncated", '{"a": [1, {"b": "'),
                       ("depth_256", "[" * 256 + "]" * 256), ("depth_257", "[" * 257 + "]" * 257)]:
        _put(d, name + ".json", text)
    _copy(os.path.join(out, "lip_template"), g("lip/*/*.json") + g("graphs/lip_template.v1.json"), data)
    d = os.path.join(out, "compose_v2_structure")
    _copy(d, g("lip/compose_v2/template.json") + g("lip/compose_v2/refuse/*.json") +
          g("graphs/lip_template.v1.json"), data)
    for name, text in [("b64_one", "QQ=="), ("b64_two", "QUI="), ("b64_three", "QUJD"), ("b64_bits", "QR=="),
                       ("b64_pad_inside", "QQ==QUJD"), ("b64_misplaced", "QQ=A")]:
        _put(d, name + ".txt", text)

    _copy(os.path.join(out, "a2x_meta"), g("audio/bundles/*/a2x_meta.json"), data)

    d = os.path.join(out, "teeth_members")
    for bundle in g("teeth/bundle") + g("teeth/accept/*") + g("teeth/refuse/*"):
        side, manifest = (os.path.join(bundle, n) for n in ("tessera_bank.v1.json", "manifest.json"))
        if os.path.isfile(side) and os.path.isfile(manifest):
            sidecar = open(side, "rb").read()
            _put(d, os.path.relpath(bundle, data).replace(os.sep, "_") + ".bin",
                 struct.pack("<I", len(sidecar)) + sidecar + open(manifest, "rb").read())
    heads = g("teeth/head/*.pt") + g("teeth/head/refuse/*.pt")
    _copy(os.path.join(out, "head_pt"), heads, data)
    d = os.path.join(out, "head_pickle")
    for p in heads:
        try:
            with zipfile.ZipFile(p) as z:
                for name in z.namelist():
                    if name.endswith("data.pkl"):
                        _put(d, os.path.relpath(p, data).replace(os.sep, "_") + ".pkl", z.read(name))
        except (zipfile.BadZipFile, NotImplementedError, ValueError, OSError):
            pass  # a broken container: its pickle is reached through head_pt
    _copy(os.path.join(out, "serve_config"), g("teeth/config/*.json") + g("teeth/config/refuse/*.json"), data)
    _copy(os.path.join(out, "unified_pi"), g("teeth/pi/*.json") + g("teeth/bundle/manifest.json"), data)

    # The cone graphs carry every shape the cut, the warp block and the warp
    # fuse prove or refuse.
    for name in ("source_cone", "warp_block", "warp_fuse"):
        _copy(os.path.join(out, name), g("graphs/cone/*.onnx") + g("graphs/model_b1.onnx"), data)
    _conv_model_seeds(os.path.join(out, "conv_model"))

    # The drive harness keeps three-row tables beside the manifest: the
    # sample's manifest at 3 frames reads them, the others refuse somewhere.
    d = os.path.join(out, "drive")
    _copy(d, g("manifests/*/manifest.json"), data)
    sample = json.loads(read("sample/manifest.json"))
    for name, frames in (("three_frames.json", 3), ("two_billion_frames.json", 2000000000)):
        _put(d, name, json.dumps(dict(sample, frames=frames)))


def main():
    if len(sys.argv) != 2:
        sys.exit("usage: fuzz_seeds.py DATA_DIR")
    data = sys.argv[1]
    out = os.path.join(data, "fuzz")
    if os.path.isdir(out):
        shutil.rmtree(out)
    write_cases(out, data)


if __name__ == "__main__":
    main()
