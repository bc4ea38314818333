"""Movie members, written by Debian's ffmpeg command at test time, with the
raw planes of an independent decode beside each one that plays.

Layout under OUT_DIR/movies:
  driver/<case>.mp4      driver movies: H.264 and HEVC 4:2:0 with B-frames
                         (stored out of presentation order), the layouts the
                         driver refuses, a wrong size, broken files
  driver/<case>.yuv      ffmpeg's own decode of a playable case: the frames
                         in presentation order, each its Y, U, V planes
                         (yuv420p) as the decoder gave them
  prior/<case>.mov       warp prior movies: lossless HEVC 4:4:4 (8 and 10
                         bits, tagged hvc1 and hev1), and the forms refused
  prior/<case>.yuv       the same for a playable prior (yuv444p or
                         yuv444p10le)
  bundles/movie/         the sample bundle whose driver (target_frames.mp4,
                         lossless H.264) and prior (P_hevc.mov, lossless
                         HEVC 4:4:4) are movies, with no P.f16 and no JPEGs
  bundles/teeth_bank/    a teeth bank track (lossless H.264 RGB) and its
                         sidecar, with donors.rgb beside the bundle: the
                         frames in donor order, as le-bundle donors must
                         write them; teeth_bank_yuv/ stores the same frames
                         as YUV, which that command refuses
  bundles/jpeg_twin/     the same bundle with the same frames as a JPEG
                         directory and P.f16: its driver frames decode to
                         the movie's bytes and its P.f16 is the conversion of
                         ffmpeg's decode of the prior, so both render the
                         same finished frames

Driver frames carry their index like the JPEG driver's (frames_data.py).
The twin's driver frames are grey 8x8 blocks: a lossless movie keeps any
luma exactly, and a quality 100 greyscale JPEG keeps a flat block exactly,
so both decode to the grey that the engine's BT.601 conversion gives.

Encodes run single-threaded with bit-exact flags, so two runs write the same
bytes for a given ffmpeg build.
"""
import io
import os
import shutil
import subprocess
import tempfile

import numpy as np

from frames_data import frame_rgb

RATE = "25"
EXACT = ["-fflags", "+bitexact", "-flags:v", "+bitexact", "-map_metadata", "-1", "-threads", "1"]
X265 = "log-level=error:pools=none:frame-threads=1"


def ffmpeg(args, stdin=None):
    """Runs the ffmpeg command; its failure stops the generator."""
    subprocess.run(["ffmpeg", "-nostdin", "-hide_banner", "-loglevel", "error", "-y"] + args,
                   input=stdin, check=True)


def encode(out, raw, pix_in, w, h, codec_args):
    """Encodes raw frames (pix_in, w x h, 25 per second) into out."""
    ffmpeg(["-f", "rawvideo", "-pix_fmt", pix_in, "-s", "%dx%d" % (w, h), "-r", RATE, "-i", "-"]
           + codec_args + EXACT + [out], stdin=raw)


def decode_raw(movie, pix_fmt, out):
    """ffmpeg's decode of a movie to raw planes, every frame in order, as the
    decoder gave it (pix_fmt is the decoder's own layout, so nothing is
    converted)."""
    ffmpeg(["-i", movie, "-f", "rawvideo", "-pix_fmt", pix_fmt, "-fps_mode", "passthrough", out])


def rgb_frames(nt, w, h):
    return b"".join(frame_rgb(i, w, h) for i in range(nt))


def h264(pix, extra=()):
    return ["-c:v", "libx264", "-pix_fmt", pix, "-g", "5", "-bf", "2", "-crf", "12",
            "-movflags", "+faststart"] + list(extra)


def hevc(pix, params="", tag="hvc1"):
    p = "keyint=5:min-keyint=5:bframes=2:" + X265 + (":" + params if params else "")
    return ["-c:v", "libx265", "-pix_fmt", pix, "-x265-params", p, "-tag:v", tag, "-movflags", "+faststart"]


def driver_movie(path, nt, w, h, args):
    encode(path, rgb_frames(nt, w, h), "rgb24", w, h, args)


def prior_planes(nt, crop, seed, bits=8):
    """Raw yuv444p (or yuv444p10le) frames covering every sample value, so
    that the conversion's clipping is reached."""
    rng = np.random.RandomState(seed)
    top = (1 << bits) - 1
    planes = rng.randint(0, top + 1, size=(nt, 3, crop, crop))
    # A smooth part too, as real priors are: the encoder's prediction works.
    yy, xx = np.mgrid[0:crop, 0:crop]
    for i in range(nt):
        planes[i, 0, : crop // 2] = (yy[: crop // 2] * 7 + xx[: crop // 2] * 3 + i * 11) % (top + 1)
    dtype = "<u2" if bits > 8 else "u1"
    return planes.astype(dtype)


def prior_movie(path, planes, args, bits=8):
    nt, _, crop, _ = planes.shape
    encode(path, planes.tobytes(), "yuv444p10le" if bits > 8 else "yuv444p", crop, crop, args)


def prior_half_rows(planes):
    """P.f16 bytes of 8-bit 4:4:4 frames, by the integer formula."""
    y = planes[:, 0].astype(np.int32)
    u = planes[:, 1].astype(np.int32) - 128
    v = planes[:, 2].astype(np.int32) - 128
    base = y * 76312 - 1188224
    lut = (np.arange(256, dtype=np.float32) / np.float32(255)).astype(np.float16)

    def clip(t):
        t = t.astype(np.int64) & 0xFFFFFFFF
        return np.where(t > 511, 0, np.where(t > 255, 255, t))

    r = lut[clip((base + v * 104600) >> 16)]
    g = lut[clip((base - u * 25672 - v * 53280) >> 16)]
    b = lut[clip((base + u * 132200) >> 16)]
    return np.stack([r, g, b], axis=1).astype("<f2").tobytes()


def grey_block_lumas(nt, w, h):
    """Luma of the twin's driver frames: one value per 8x8 block."""
    out = np.zeros((nt, h, w), dtype=np.uint8)
    for i in range(nt):
        for by in range(h // 8):
            for bx in range(w // 8):
                out[i, by * 8:by * 8 + 8, bx * 8:bx * 8 + 8] = 16 + (bx * 29 + by * 53 + i * 37) % 220
    return out


def grey_of(luma):
    """The engine's BT.601 limited-range conversion of a grey sample."""
    return np.clip((298 * luma.astype(np.int32) - 4640) >> 8, 0, 255).astype(np.uint8)


def corrupt(data, at, n):
    """data with n bytes from `at` (a fraction of its length) inverted."""
    b = bytearray(data)
    o = int(len(b) * at)
    for k in range(o, min(len(b), o + n)):
        b[k] ^= 0xFF
    return bytes(b)


def write_driver_cases(root, tmp):
    d = os.path.join(root, "driver")
    os.makedirs(d)
    nt = 12

    def path(name):
        return os.path.join(d, name + ".mp4")

    driver_movie(path("h264"), nt, 64, 48, h264("yuv420p"))
    driver_movie(path("hevc"), nt, 64, 48, hevc("yuv420p"))
    # A width whose rows the decoder pads, and odd chroma-row pairs.
    driver_movie(path("h264_66x38"), nt, 66, 38, h264("yuv420p"))
    for name in ("h264", "hevc", "h264_66x38"):
        decode_raw(path(name), "yuv420p", os.path.join(d, name + ".yuv"))
    # Layouts the driver refuses: 4:4:4, 4:2:2, 10 bits, full range.
    driver_movie(path("h264_yuv444p"), 4, 64, 48, h264("yuv444p"))
    driver_movie(path("h264_yuv422p"), 4, 64, 48, h264("yuv422p"))
    driver_movie(path("hevc_yuv420p10le"), 4, 64, 48, hevc("yuv420p10le"))
    driver_movie(path("h264_yuvj420p"), 4, 64, 48, h264("yuvj420p"))
    # Broken: the stored index is at the front and the samples end early;
    # the index is at the end and gone; samples damaged in place; not a movie;
    # a movie with no picture.
    whole = open(path("h264"), "rb").read()
    with open(path("truncated"), "wb") as f:
        f.write(whole[: len(whole) * 3 // 5])
    plain = os.path.join(tmp, "plain.mp4")
    driver_movie(plain, nt, 64, 48, [a for a in h264("yuv420p") if a not in ("-movflags", "+faststart")])
    with open(path("truncated_index"), "wb") as f:
        f.write(open(plain, "rb").read()[:-200])
    with open(path("corrupt"), "wb") as f:
        f.write(corrupt(whole, 0.5, 64))
    with open(path("not_a_movie"), "wb") as f:
        f.write(b"a text file where a movie should be\n" * 8)
    ffmpeg(["-f", "lavfi", "-i", "sine=frequency=440:sample_rate=16000:duration=0.5", "-c:a", "aac"] + EXACT
           + [path("audio_only")])


def write_prior_cases(root, tmp):
    d = os.path.join(root, "prior")
    os.makedirs(d)
    nt, crop = 10, 32
    lossless = "lossless=1"

    def path(name):
        return os.path.join(d, name + ".mov")

    planes = prior_planes(nt, crop, 7)
    prior_movie(path("hevc444"), planes, hevc("yuv444p", lossless))
    prior_movie(path("hevc444_hev1"), planes, hevc("yuv444p", lossless, tag="hev1"))
    prior_movie(path("hevc444_lossy"), planes, hevc("yuv444p", "crf=20"))
    deep = prior_planes(nt, crop, 8, bits=10)
    prior_movie(path("hevc444_10bit"), deep, hevc("yuv444p10le", lossless), bits=10)
    for name, pix in (("hevc444", "yuv444p"), ("hevc444_hev1", "yuv444p"), ("hevc444_lossy", "yuv444p"),
                      ("hevc444_10bit", "yuv444p10le")):
        decode_raw(path(name), pix, os.path.join(d, name + ".yuv"))
    # Refused at opening by the stored chroma format, or at the first frame
    # by the surface (RGB coded as 4:4:4 decodes to planar GBR).
    rgb = rgb_frames(4, crop, crop)
    encode(path("hevc420"), rgb, "rgb24", crop, crop, hevc("yuv420p"))
    encode(path("hevc422"), rgb, "rgb24", crop, crop, hevc("yuv422p"))
    encode(path("h264_high"), rgb, "rgb24", crop, crop, h264("yuv420p"))
    encode(path("h264_444"), rgb, "rgb24", crop, crop, h264("yuv444p"))
    encode(path("h264_baseline"), rgb, "rgb24", crop, crop, h264("yuv420p", ["-profile:v", "baseline"]))
    encode(path("hevc_gbrp"), rgb, "rgb24", crop, crop, hevc("gbrp", lossless))
    prior_movie(path("hevc444_48"), prior_planes(4, 48, 10), hevc("yuv444p", lossless))
    # Two samples with one presentation time.
    ffmpeg(["-i", path("hevc444"), "-c", "copy", "-bsf:v", r"setts=pts=if(eq(N\,3)\,PREV_INPTS\,PTS)"]
           + EXACT + [path("duplicate_times")])
    whole = open(path("hevc444"), "rb").read()
    with open(path("truncated"), "wb") as f:
        f.write(whole[: len(whole) * 3 // 5])
    # Damage in place is only seen where the stream can show it: this one
    # carries an MD5 of every picture, which the decoder checks.
    hashed = os.path.join(tmp, "hashed.mov")
    prior_movie(hashed, planes, hevc("yuv444p", lossless + ":hash=1"))
    with open(path("corrupt"), "wb") as f:
        f.write(corrupt(open(hashed, "rb").read(), 0.5, 64))


def write_bundles(root, sample):
    from bundle_data import Bundle
    base = sample.manifest
    nt, w, h, crop = base["NT"], base["W"], base["H"], base["crop"]
    kept = {k: v for k, v in sample.members.items() if k != "P.f16" and not k.startswith("target_frames/")}
    with tempfile.TemporaryDirectory() as tmp:
        luma = grey_block_lumas(nt, w, h)
        chroma = np.full((nt, 2, h // 2, w // 2), 128, dtype=np.uint8)
        raw = b"".join(luma[i].tobytes() + chroma[i].tobytes() for i in range(nt))
        driver = os.path.join(tmp, "driver.mp4")
        encode(driver, raw, "yuv420p", w, h, ["-c:v", "libx264", "-qp", "0", "-pix_fmt", "yuv420p", "-g", "2",
                                              "-bf", "1", "-movflags", "+faststart"])
        decoded = os.path.join(tmp, "driver.yuv")
        decode_raw(driver, "yuv420p", decoded)
        if open(decoded, "rb").read() != raw:
            raise SystemExit("movie_data: the lossless driver movie did not decode to its frames")
        prior = os.path.join(tmp, "prior.mov")
        prior_movie(prior, prior_planes(nt, crop, 11), hevc("yuv444p", "lossless=1"))
        # The twin's P.f16 converts ffmpeg's decode of the prior, which is
        # what the movie holds whether or not the encoder kept every sample.
        decode_raw(prior, "yuv444p", decoded)
        planes = np.frombuffer(open(decoded, "rb").read(), dtype=np.uint8).reshape(nt, 3, crop, crop)
        movie = dict(kept)
        movie["target_frames.mp4"] = open(driver, "rb").read()
        movie["P_hevc.mov"] = open(prior, "rb").read()
        Bundle(dict(base, P_hevc="P_hevc.mov"), movie).write_dir(os.path.join(root, "bundles", "movie"))

    from PIL import Image
    twin = dict(kept)
    for i in range(nt):
        img = Image.fromarray(grey_of(luma[i]), mode="L")
        out = io.BytesIO()
        img.save(out, format="JPEG", quality=100, optimize=False, progressive=False)
        twin["target_frames/frame_%06d.jpg" % i] = out.getvalue()
    twin["P.f16"] = prior_half_rows(planes)
    Bundle(dict(base), twin).write_dir(os.path.join(root, "bundles", "jpeg_twin"))


def write_teeth_banks(root, tmp):
    import json
    geometry = {"canvas_w": 64, "canvas_h": 48, "window_x0": 16, "window_y0": 20, "window_w": 32,
                "window_h": 20, "pad": 4, "band_r0": 4, "band_r1": 14, "band_c0": 6, "band_c1": 26,
                "shift_margin": 2}
    w, h, n = 24, 14, 5  # the stored patch of that stamp
    order = [3, 0, 4, 1, 2]
    sidecar = {"format": "tessera_bank.v1", "geometry": geometry, "n_donors": n, "track_order": order,
               "cent": [[10.0 + i, 5.0] for i in range(n)], "aperture": [0.1 * i for i in range(n)],
               "c_canon": [12.0, 5.0], "codec": {"codec": "h264", "pix_fmt": "rgb24"}}
    frames = [frame_rgb(i, w, h) for i in range(n)]
    for name, args in (("teeth_bank", ["-c:v", "libx264rgb", "-qp", "0", "-pix_fmt", "rgb24"]),
                       ("teeth_bank_yuv", ["-c:v", "libx264", "-qp", "0", "-pix_fmt", "yuv444p"])):
        d = os.path.join(root, "bundles", name)
        os.makedirs(d)
        encode(os.path.join(d, "tessera_bank.v1.mp4"), b"".join(frames), "rgb24", w, h, args)
        with open(os.path.join(d, "tessera_bank.v1.json"), "w", encoding="utf-8") as f:
            json.dump(sidecar, f)
    donors = [None] * n
    for i, slot in enumerate(order):
        donors[slot] = frames[i]
    with open(os.path.join(root, "bundles", "teeth_bank_donors.rgb"), "wb") as f:
        f.write(b"".join(donors))


def driver_movie_bytes(nt, w, h):
    """A playable H.264 driver of nt index-carrying frames, as bytes."""
    with tempfile.TemporaryDirectory() as tmp:
        p = os.path.join(tmp, "d.mp4")
        driver_movie(p, nt, w, h, h264("yuv420p"))
        return open(p, "rb").read()


def prior_movie_bytes(nt, crop, seed):
    """A playable lossless HEVC 4:4:4 prior of nt frames, as bytes."""
    with tempfile.TemporaryDirectory() as tmp:
        p = os.path.join(tmp, "p.mov")
        prior_movie(p, prior_planes(nt, crop, seed), hevc("yuv444p", "lossless=1"))
        return open(p, "rb").read()


def write_cases(root, sample):
    os.makedirs(root)
    tmp = tempfile.mkdtemp()
    try:
        write_driver_cases(root, tmp)
        write_prior_cases(root, tmp)
        write_bundles(root, sample)
        write_teeth_banks(root, tmp)
    finally:
        shutil.rmtree(tmp)
