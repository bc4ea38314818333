"""Identity tensors, drive tables, masks and JPEG driver frames, and bundles
that each differ from a good one in one way, one for every refusal of the
identity loader, the drive tables and the driver cursor that a file can
provoke.

Layout under OUT_DIR/frames:
  identity/<case>/   the sample's members with one change each (sizes,
                     prior forms, paste-space stamps, drive tables, mask)
  driver/<case>/     a manifest and a driver: JPEG directories, movie
                     members (written by ffmpeg, movie_data.py), broken frames

Large members of the cases (pooled64.f16, fs_red.f16) are written as sparse
files: the exact length, zeros, and two marker bytes at the start of each
frame's row, so that the cases cost almost no disk.

JPEG frames come from PIL (Debian's python3-pil) at quality 95, 4:2:0. Each
frame encodes its own index in the flat 16x16 block at the top left, which
survives the lossy round trip: red = 16 * (i % 16) + 8, green =
16 * (i // 16 % 16) + 8, blue = 200. The rest is a gradient with a bar that
moves with the frame. frame_index() reads the index back.
"""
import io
import os
import struct

POOLED_ROW = 131072  # bytes of one pooled64.f16 row
FS_RED_ROW = 524288  # bytes of one fs_red.f16 row


def frame_rgb(i, w, h):
    """The raw RGB bytes of driver frame i."""
    px = bytearray(w * h * 3)
    bar = (i * 7) % w
    for y in range(h):
        g = y * 255 // max(1, h - 1)
        for x in range(w):
            o = (y * w + x) * 3
            if x < 16 and y < 16:
                px[o:o + 3] = bytes((16 * (i % 16) + 8, 16 * (i // 16 % 16) + 8, 200))
            elif bar <= x < bar + 4:
                px[o:o + 3] = b"\xf0\xf0\xf0"
            else:
                px[o:o + 3] = bytes((x * 255 // max(1, w - 1), g, 96))
    return bytes(px)


def jpeg_frame(i, w, h):
    """Driver frame i as JPEG bytes; the same bytes on every run."""
    from PIL import Image  # only the generator needs PIL
    img = Image.frombytes("RGB", (w, h), frame_rgb(i, w, h))
    out = io.BytesIO()
    img.save(out, format="JPEG", quality=95, subsampling=2, optimize=False, progressive=False)
    return out.getvalue()


def frame_index(rgb, w):
    """The index a decoded frame carries (see the module note)."""
    o = (8 * w + 8) * 3
    return round((rgb[o] - 8) / 16) + 16 * round((rgb[o + 1] - 8) / 16)


def driver_frames(nt, w, h, dir_name="target_frames"):
    """{member name: JPEG bytes} of a JPEG driver of nt frames."""
    return {"%s/frame_%06d.jpg" % (dir_name, i): jpeg_frame(i, w, h) for i in range(nt)}


def pooled_features(nt):
    """pooled64.f16 of nt frames: 65,536 halves per frame, each frame's row
    distinct so that an offset error shows."""
    rows = []
    for si in range(nt):
        vals = [((k * 37 + si * 101) % 997) / 997.0 - 0.5 for k in range(POOLED_ROW // 2)]
        rows.append(struct.pack("<%de" % len(vals), *vals))
    return b"".join(rows)


class Sparse:
    """A member written as a sparse file: `length` bytes of zeros and the
    marker bytes (si & 0xff, si >> 8 & 0xff, 0x5a, 0xa5) at each row start."""

    def __init__(self, length, row):
        self.length = length
        self.row = row

    def write(self, path):
        with open(path, "wb") as f:
            for off in range(0, self.length - 3, self.row):
                si = off // self.row
                f.seek(off)
                f.write(bytes((si & 0xFF, si >> 8 & 0xFF, 0x5A, 0xA5)))
            f.truncate(self.length)


def write_bundle(d, manifest, members):
    """A bundle directory; members map name -> bytes or Sparse."""
    from bundle_data import manifest_text
    os.makedirs(d, exist_ok=True)
    if manifest is not None:
        with open(os.path.join(d, "manifest.json"), "w", encoding="utf-8") as f:
            f.write(manifest if isinstance(manifest, str) else manifest_text(manifest))
    for name, data in sorted(members.items()):
        p = os.path.join(d, name)
        os.makedirs(os.path.dirname(p), exist_ok=True)
        if isinstance(data, Sparse):
            data.write(p)
        else:
            with open(p, "wb") as f:
                f.write(data)


def write_identity_cases(root, sample):
    """frames/identity/<case>: the sample with one change each."""
    from bundle_data import f32, i32
    base_m = dict(sample.manifest)
    nt, crop, frames = base_m["NT"], base_m["crop"], base_m["frames"]
    members = dict(sample.members)
    members["pooled64.f16"] = Sparse(nt * POOLED_ROW, POOLED_ROW)

    def case(name, changes=None, drop=(), **fields):
        m = dict(members)
        for k in drop:
            m.pop(k)
        m.update(changes or {})
        write_bundle(os.path.join(root, "frames", "identity", name), dict(base_m, **fields), m)

    p = members["P.f16"]
    mm = members["M.f32"]
    si = members["drive/si.i32"]
    # Lengths: one byte short and one byte long, and absent.
    case("pooled_short", {"pooled64.f16": Sparse(nt * POOLED_ROW - 1, POOLED_ROW)})
    case("pooled_long", {"pooled64.f16": Sparse(nt * POOLED_ROW + 1, POOLED_ROW)})
    case("pooled_missing", drop=["pooled64.f16"])
    case("p_short", {"P.f16": p[:-1]})
    case("p_long", {"P.f16": p + b"\0"})
    case("m_short", {"M.f32": mm[:-1]})
    case("m_long", {"M.f32": mm + b"\0"})
    case("m_missing", drop=["M.f32"])
    case("xs_short", {"drive/xs.f32": members["drive/xs.f32"][:-1]})
    case("xd_long", {"drive/xd.f32": members["drive/xd.f32"] + b"\0"})
    case("si_long", {"drive/si.i32": si + b"\0"})
    case("si_missing", drop=["drive/si.i32"])
    # Drive indices at the edge of [0, NT).
    case("si_nt", {"drive/si.i32": i32([0, 1, nt, 2, 3, 0][:frames])})
    case("si_nt_minus_1", {"drive/si.i32": i32([nt - 1] * frames)})
    case("si_negative", {"drive/si.i32": i32([0, -1, 1, 2, 3, 0][:frames])})
    case("frames_zero", {"drive/xs.f32": b"", "drive/xd.f32": b"", "drive/si.i32": b""}, frames=0)
    # Prior forms.
    case("both_priors", {"fs_red.f16": Sparse(nt * FS_RED_ROW, FS_RED_ROW)})
    case("fs_red_only", {"fs_red.f16": Sparse(nt * FS_RED_ROW, FS_RED_ROW)}, drop=["P.f16"])
    case("fs_red_short", {"fs_red.f16": Sparse(nt * FS_RED_ROW - 1, FS_RED_ROW)})
    from movie_data import prior_movie_bytes
    movie = prior_movie_bytes(nt, crop, 5)
    case("hevc_prior", {"P_hevc.mov": movie}, drop=["P.f16"], P_hevc="P_hevc.mov")
    case("hevc_prior_named", {"prior.mov": movie}, drop=["P.f16"], P_hevc="prior.mov")
    # Paste-space stamps: twice the canvas (every element halves), and 3/2
    # of it (a factor of 2/3 that rounds).
    case("stamp_double", M_src_w=2 * base_m["W"], M_src_h=2 * base_m["H"])
    case("stamp_three_halves", {"M.f32": f32([v for s in range(nt) for v in
                                              (1.1 + s, -0.3, 17.7 + s, 0.25, 0.9, 9.35 - s)])},
         M_src_w=3 * base_m["W"] // 2, M_src_h=3 * base_m["H"] // 2)
    # The compose mask one byte short.
    case("mask_short", {"mask_512.u8": members["mask_512.u8"][:-1]})


def write_driver_cases(root, sample):
    """frames/driver/<case>: a manifest and a driver each."""
    base_m = dict(sample.manifest)
    w, h = base_m["W"], base_m["H"]

    def case(name, members, **fields):
        write_bundle(os.path.join(root, "frames", "driver", name), dict(base_m, **fields), members)

    four = driver_frames(4, w, h)
    case("long", driver_frames(20, w, h), NT=20)
    case("wrong_size", dict(four, **{"target_frames/frame_000002.jpg": jpeg_frame(2, w // 2, h // 2)}))
    case("corrupt", dict(four, **{"target_frames/frame_000002.jpg": b"this is not a JPEG"}))
    case("none", {})
    case("missing_last", {k: v for k, v in four.items() if not k.endswith("3.jpg")})
    from movie_data import driver_movie_bytes
    movie = driver_movie_bytes(4, w, h)
    case("mp4_only", {"target_frames.mp4": movie})
    case("both", dict(four, **{"target_frames.mp4": movie}))
    case("custom_names", driver_frames(4, w, h, "body"), target_frames="body", target_frames_mp4="body.mp4")
    case("custom_mp4", {"body.mp4": movie}, target_frames_mp4="body.mp4")
    case("empty_names", four, target_frames="", target_frames_mp4="")
    outputs = {"24": {"width": w // 2, "height": h // 2, "driver_mp4": "driver_24.mp4"}}
    case("published", dict(four, **{"driver_24.mp4": driver_movie_bytes(4, w // 2, h // 2)}), outputs=outputs)


def write_frames_cases(root, sample):
    write_identity_cases(root, sample)
    write_driver_cases(root, sample)
