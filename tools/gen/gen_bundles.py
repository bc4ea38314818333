#!/usr/bin/python3
"""Writes the engine's synthetic test data: small bundles, manifest variants
and IMX containers, deterministically (the same bytes on every run).

Usage: gen_bundles.py OUT_DIR

Layout of OUT_DIR:
  sample/              a complete small bundle under the members' primary names
  sample_canonical/    the same members stored under their canonical names
  manifests/<case>/    one bundle per manifest variant (manifest.json + P.f16)
  priors/<case>/       bundles that differ only in their warp prior members
  containers/*.imx     IMX containers: valid ones and one broken variant each
  audio/               speech encoders, clips and streaming-model bundles
                       (audio_graphs.py)

Later data (tensors, driver frames, graphs, audio, teeth) joins as new
builders beside these; each writes only under its own folder.
"""
import json
import os
import shutil
import struct
import sys

from bundle_data import Bundle, sample_bundle, manifest_text
import imx
import lip_data
import frames_data
import audio_graphs
import graphs
import ops_graphs
import render_graphs
import teeth_data


def write_manifest_cases(root):
    base = sample_bundle()
    cases = {}

    def case(name, text=None, **fields):
        cases[name] = text if text is not None else manifest_text(base.manifest, **fields)

    # The scanner: root keys, nested keys, keys inside strings.
    case("nested_h_beside_root",
         manifest_text(base.manifest, unified={"H": 512, "note": "nested H must not collide"}))
    case("two_root_h", manifest_text(base.manifest).replace('"H": 48,', '"H": 48, "H": 720,'))
    body = manifest_text(base.manifest).replace('"H": 48,', '')
    case("h_nested_twice", body.replace('"format"', '"unified": {"H": 512}, "tessera": {"H": 256}, "format"'))
    case("h_nested_once", body.replace('"format"', '"unified": {"H": 40}, "format"'))
    case("h_object_only", body.replace('"format"', '"H": {"rows": 48}, "format"'))
    case("key_in_string", manifest_text(base.manifest, agent='say \\"H\\": 9 and \\"W\\": 1'))
    # Aliases and missing keys.
    case("frame_count_alias", manifest_text(base.manifest, NT=None, frame_count=4))
    case("no_nt", manifest_text(base.manifest, NT=None))
    case("crop_size_alias", manifest_text(base.manifest, crop=None, crop_size=32))
    case("no_agent", manifest_text(base.manifest, agent=None))
    case("no_sigma", manifest_text(base.manifest, sigma=None))
    case("bad_format", manifest_text(base.manifest, format="le-bundle-v1"))
    case("unterminated_agent",
         manifest_text(base.manifest, agent=None).replace("}\n", ', "agent": "sample}\n'))
    case("absent_marker_h", manifest_text(base.manifest, H=-1e300))
    # Dimensions and the paste-space stamp.
    case("crop_zero_no_stamp", manifest_text(base.manifest, crop=0, M_src_w=None, M_src_h=None))
    case("nt_negative", manifest_text(base.manifest, NT=-3))
    case("fractional_dims", manifest_text(base.manifest, NT=4.9, crop=32.7))
    case("no_stamp", manifest_text(base.manifest, M_src_w=None, M_src_h=None))
    case("stamp_mixed_names",
         manifest_text(base.manifest, M_src_w=None, paste_source_width=96, M_src_h=72))
    case("stamp_zero", manifest_text(base.manifest, M_src_w=0))
    case("stamp_absent_marker", manifest_text(base.manifest, M_src_w=-1e300, paste_source_width=80))
    case("huge_dim", manifest_text(base.manifest, W=1e12))

    # Published outputs: a 1280x720 canvas.
    wide = dict(base.manifest, H=720, W=1280, M_src_w=1280, M_src_h=720)
    outputs = {
        "360": {"width": 640, "height": 360, "driver_mp4": "driver_360.mp4"},
        "405": {"width": 720, "height": 405, "driver_mp4": "driver_405.mp4"},
        "406": {"width": 406, "height": 720, "driver_mp4": "driver_406.mp4"},
        "540": {"width": 960, "height": 540, "driver_mp4": "..driver.mp4"},
        "450": {"width": 800, "height": 450, "driver_mp4": "sub/driver.mp4"},
        "480": {"width": 854, "height": 480, "driver_mp4": "missing.mp4"},
        "288": {"width": 512, "height": 288, "driver_mp4": "missing.mp4"},
        "270": {"height": 270, "driver_mp4": "driver_270.mp4"},
        "200": "not an object",
        "396": {"width": 704, "height": 396},
    }
    case("outputs", manifest_text(wide, outputs=outputs))
    case("outputs_twice", manifest_text(wide, outputs=outputs).replace(
        '"format"', '"outputs": {"360": {}}, "format"'))

    for name, text in cases.items():
        d = os.path.join(root, "manifests", name)
        Bundle(manifest=None, members={"P.f16": b"\0" * 16}).write_dir(d)
        with open(os.path.join(d, "manifest.json"), "w", encoding="utf-8") as f:
            f.write(text)
    with open(os.path.join(root, "manifests", "outputs", "driver_360.mp4"), "wb") as f:
        f.write(b"driver")


def write_prior_cases(root):
    base = sample_bundle()
    raw = base.members["P.f16"]
    # fs_red.f16 at its exact length: NT rows of 524,288 bytes.
    fs_red = bytes(base.manifest["NT"] * 524288)
    without = {k: v for k, v in base.members.items() if k != "P.f16"}

    def case(name, members, **fields):
        Bundle(dict(base.manifest, **fields), members).write_dir(os.path.join(root, "priors", name))

    case("fs_red_only", dict(without, **{"fs_red.f16": fs_red}))
    case("p_rgb_other_name", dict(without, **{"P_rgb.f16": raw}), P_rgb="P_rgb.f16")
    case("p_rgb_with_fs_red", dict(without, **{"P_rgb.f16": raw, "fs_red.f16": fs_red}), P_rgb="P_rgb.f16")
    case("no_prior", without)
    case("hevc_missing", without, P_hevc="prior.mov")
    case("hevc_present", dict(without, **{"prior.mov": b"movie"}), P_hevc="prior.mov")
    case("hevc_canonical", dict(without, **{"source_frames.hevc": b"movie"}), P_hevc="P_hevc.mov")
    case("p_canonical", dict(without, **{"source_frames.f16": raw}))


def main():
    if len(sys.argv) != 2:
        sys.exit("usage: gen_bundles.py OUT_DIR")
    out = sys.argv[1]
    if os.path.isdir(out):
        shutil.rmtree(out)
    os.makedirs(out)
    sample = sample_bundle()
    sample.write_dir(os.path.join(out, "sample"))
    sample.canonical().write_dir(os.path.join(out, "sample_canonical"))
    write_manifest_cases(out)
    write_prior_cases(out)
    imx.write_cases(os.path.join(out, "containers"), sample)
    lip_data.write_cases(os.path.join(out, "lip"))
    frames_data.write_frames_cases(out, sample)
    graphs.write_cases(os.path.join(out, "graphs"))
    ops_graphs.write_cases(os.path.join(out, "ops"))
    render_graphs.write_cases(os.path.join(out, "render"), sample)
    audio_graphs.write_cases(os.path.join(out, "audio"), sample)
    teeth_data.write_cases(os.path.join(out, "teeth"))


if __name__ == "__main__":
    main()
