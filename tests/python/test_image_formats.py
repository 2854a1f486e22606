"""Image files through the two commands: every TIFF sample type and colour space, PNG chunk bombs,
and metadata carried from input to output, read back with tifffile and Pillow, not marlith.

A 1 x 1 kernel with a vanishing noise strength restores an image to itself, so what comes out is
what was read."""

import io
import struct
import subprocess
import zlib

import numpy as np
import pytest
import tifffile
from PIL import Image, IptcImagePlugin, TiffImagePlugin

RNG = np.random.default_rng(5)
U = RNG.random((6, 8, 4))  # samples in [0, 1): height, width, up to 4 channels


def run(exe, *args):
    return subprocess.run([str(exe), *map(str, args)], capture_output=True, text=True,
                          timeout=120)


@pytest.fixture(scope="module")
def identity(tmp_path_factory):
    path = tmp_path_factory.mktemp("kernel") / "identity.txt"
    path.write_text("1\n")
    return path


def restore(marlith_deblur, identity, src, out):
    return run(marlith_deblur, "-k", identity, "--noise", "1e-9", "-o", out, src)


# name: (data, tifffile.imwrite keywords, expected dtype of the TIFF result, expected samples as
# float64 (height, width, channels), or None when refused with words of the reason).
def _cases():
    grey, rgb, rgba = U[..., 0], U[..., :3], U
    i16 = np.round(grey * 65535 - 32768).astype(np.int16)
    u32 = np.round(grey * 4e9).astype(np.uint32)
    cmyk = np.round(U * 255).astype(np.uint8)
    ink = cmyk / 255.0
    palette = np.round(RNG.random((3, 256)) * 65535).astype(np.uint16)
    index = np.round(grey * 255).astype(np.uint8)
    f16 = grey.astype(np.float16)
    premultiplied = np.dstack([rgb * rgba[..., 3:], rgba[..., 3:]]).astype(np.float32)
    return {
        "uint8 grey": (np.round(grey * 255).astype(np.uint8), {}, np.uint8,
                       np.round(grey * 255)[..., None] / 255),
        "uint16 RGB": (np.round(rgb * 65535).astype(np.uint16), {}, np.uint16,
                       np.round(rgb * 65535) / 65535),
        "bilevel": (grey > 0.5, {"photometric": "minisblack"}, np.uint8,
                    (grey > 0.5)[..., None] * 1.0),
        "white is zero": (np.round(grey * 255).astype(np.uint8), {"photometric": "miniswhite"},
                          np.uint8, 1 - np.round(grey * 255)[..., None] / 255),
        "uint32": (u32, {}, np.float32, u32[..., None] / 4294967295.0),
        "int8": (np.round(grey * 255 - 128).astype(np.int8), {}, np.float32,
                 np.round(grey * 255 - 128)[..., None] / 127),
        "int16": (i16, {}, np.float32, i16[..., None] / 32767.0),
        "int32": ((i16.astype(np.int32) << 16), {}, np.float32,
                  (i16.astype(np.int64) << 16)[..., None] / 2147483647.0),
        "half float": (f16, {}, np.float32, f16.astype(np.float64)[..., None]),
        "float64 RGB": (rgb * 3 - 1, {}, np.float32, rgb * 3 - 1),
        "RGBA unassociated": (np.round(rgba * 255).astype(np.uint8),
                              {"extrasamples": ["unassalpha"]}, np.uint8,
                              np.round(rgba * 255) / 255),
        "RGBA associated float": (premultiplied, {"extrasamples": ["assocalpha"]}, np.float32,
                                  rgba),
        "palette": (index, {"photometric": "palette", "colormap": palette}, np.uint16,
                    palette[:, index].transpose(1, 2, 0) / 65535.0),
        "CMYK": (cmyk, {"photometric": "separated"}, np.uint8,
                 (1 - ink[..., :3]) * (1 - ink[..., 3:])),
        "grey + unmarked extra": (np.round(U[..., :2] * 255).astype(np.uint8),
                                  {"photometric": "minisblack", "planarconfig": "contig"}, None,
                                  "not marked as alpha"),
        "CIELab": (cmyk[..., :3], {"photometric": "cielab"}, None, "L*a*b*"),
        "complex": (grey.astype(np.complex64), {}, None, "complex"),
    }


CASES = _cases()


@pytest.mark.parametrize("name", list(CASES))
def test_tiff_sample_types_and_colour_spaces(tmp_path, marlith_deblur, identity, name):
    data, keywords, dtype, expected = CASES[name]
    src, out = tmp_path / "in.tif", tmp_path / "out.tif"
    tifffile.imwrite(src, data, **keywords)
    r = restore(marlith_deblur, identity, src, out)
    if dtype is None:
        assert r.returncode == 1, r.stderr
        assert "in.tif" in r.stderr and expected in r.stderr, r.stderr
        assert len(r.stderr.strip().splitlines()) == 1, r.stderr
        assert not out.exists()
        return
    assert r.returncode == 0, r.stderr
    result = tifffile.imread(out)
    assert result.dtype == dtype
    result = result.reshape(expected.shape).astype(np.float64)
    if dtype in (np.uint8, np.uint16):
        result /= np.iinfo(dtype).max
    # Integer results to half a step; float ones to float32's precision of the data's scale.
    tolerance = 0.5 / np.iinfo(dtype).max + 1e-6 if dtype != np.float32 else 1e-5
    np.testing.assert_allclose(result, expected, atol=tolerance, rtol=0)


@pytest.mark.parametrize("name", ["CIELab", "int16"])
def test_six_argument_command_refuses_what_it_would_read_wrongly(tmp_path, marlith_exe, name):
    data, keywords, _, _ = CASES[name]
    src, kernel = tmp_path / "in.tif", tmp_path / "k.png"
    tifffile.imwrite(src, data, **keywords)
    Image.new("L", (1, 1), 255).save(kernel)
    r = run(marlith_exe, src, kernel, tmp_path / "out.png", 1, 0.1, 1)
    assert f"Cannot load image {src}" in r.stdout
    assert not (tmp_path / "out.png").exists()


def png(extra_chunks, width=16, height=8):
    def chunk(kind, data):
        return (struct.pack(">I", len(data)) + kind + data +
                struct.pack(">I", zlib.crc32(kind + data)))
    rows = b"".join(b"\0" + bytes((3 * x + 5 * y) % 256 for x in range(3 * width))
                    for y in range(height))
    header = struct.pack(">IIBBBBB", width, height, 8, 2, 0, 0, 0)
    return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", header) +
            b"".join(chunk(k, d) for k, d in extra_chunks) +
            chunk(b"IDAT", zlib.compress(rows)) + chunk(b"IEND", b""))


def test_png_chunk_bombs_and_long_comments_load_with_the_image(tmp_path, marlith_exe,
                                                               marlith_deblur, identity):
    # 256 MiB of zeros deflate to 256 KB; a reader inflating them whole takes that much memory.
    bomb = zlib.compress(bytes(256 << 20), 9)
    files = {
        "ztxt.png": png([(b"zTXt", b"Comment\0\0" + bomb)]),
        "itxt.png": png([(b"iTXt", b"Comment\0\1\0\0\0" + bomb)]),
        "iccp.png": png([(b"iCCP", b"icc\0\0" + bomb)]),
        "comment.png": png([(b"tEXt", b"Comment\0" + b"x" * 10_000_000)]),
    }
    kernel = tmp_path / "k.png"
    Image.new("L", (1, 1), 255).save(kernel)
    for name, data in files.items():
        src = tmp_path / name
        src.write_bytes(data)
        expected = np.asarray(Image.open(io.BytesIO(png([]))), np.float64)
        r = restore(marlith_deblur, identity, src, tmp_path / ("out-" + name))
        assert r.returncode == 0, r.stderr
        assert ("ICC profile" in r.stderr) == (name == "iccp.png"), r.stderr
        restored = np.asarray(Image.open(tmp_path / ("out-" + name)), np.float64)
        np.testing.assert_allclose(restored, expected, atol=0.5)
        r = run(marlith_exe, src, kernel, tmp_path / ("six-" + name), 1, 1e-9, 1)
        assert "Cannot load" not in r.stdout, r.stdout + r.stderr
        assert (tmp_path / ("six-" + name)).exists()


XMP = (b'<?xpacket begin="" id="W5M0MpCehiHzreSzNTczkc9d"?><x:xmpmeta xmlns:x="adobe:ns:meta/">'
       b'<rdf:RDF xmlns:rdf="http://www.w3.org/1999/02/22-rdf-syntax-ns#"><rdf:Description '
       b'xmlns:dc="http://purl.org/dc/elements/1.1/"><dc:creator>Ada L</dc:creator>'
       b'</rdf:Description></rdf:RDF></x:xmpmeta><?xpacket end="w"?>')
IIM = b"\x1c\x02\x00\x00\x02\x00\x04\x1c\x02\x74\x00\x05Ada L"  # version; copyright notice
ICC = (struct.pack(">I", 132) + bytes(4) + b"\x02\x10\0\0mntrRGB XYZ " + bytes(12) + b"acsp" +
       bytes(92))


def directory(entries, at):
    """A little-endian TIFF directory of (tag, type, count, value bytes) placed at offset at,
    larger values after it."""
    values_at = at + 2 + 12 * len(entries) + 4
    head, tail = struct.pack("<H", len(entries)), b""
    for tag, kind, count, value in sorted(entries):
        if len(value) <= 4:
            head += struct.pack("<HHI", tag, kind, count) + value.ljust(4, b"\0")
        else:
            head += struct.pack("<HHII", tag, kind, count, values_at + len(tail))
            tail += value + b"\0" * (len(value) % 2)
    return head + b"\0\0\0\0" + tail


ascii_ = lambda tag, text: (tag, 2, len(text) + 1, text.encode() + b"\0")
CAMERA_TAGS = [ascii_(271, "Canon"), ascii_(272, "EOS 5D"), ascii_(33432, "Ada L")]
EXPOSURE = [(33434, 5, 1, struct.pack("<II", 1, 250)), (33437, 5, 1, struct.pack("<II", 28, 10))]


def exif_block():
    """An EXIF block: the camera tags, and exposure time and f-number in its EXIF directory."""
    first = len(directory(CAMERA_TAGS + [(34665, 4, 1, bytes(4))], 8))
    exif_at = 8 + first + first % 2
    return (b"II*\0\x08\0\0\0" +
            directory(CAMERA_TAGS + [(34665, 4, 1, struct.pack("<I", exif_at))], 8) +
            b"\0" * (first % 2) + directory(EXPOSURE, exif_at))


def jpeg_with_everything(path):
    """A JPEG with EXIF (camera tags and exposure), an ICC profile, XMP (APP1) and IPTC
    (Photoshop's APP13)."""
    buffer = io.BytesIO()
    Image.fromarray(np.uint8(U[..., :3] * 255)).save(buffer, "JPEG", quality=95,
                                                     exif=b"Exif\0\0" + exif_block(),
                                                     icc_profile=ICC)
    data = buffer.getvalue()
    segment = lambda marker, body: b"\xff" + marker + struct.pack(">H", len(body) + 2) + body
    resource = b"8BIM\x04\x04\0\0" + struct.pack(">I", len(IIM)) + IIM + b"\0" * (len(IIM) % 2)
    path.write_bytes(data[:2] + segment(b"\xe1", b"http://ns.adobe.com/xap/1.0/\0" + XMP) +
                     segment(b"\xed", b"Photoshop 3.0\0" + resource) + data[2:])


def tiff_with_camera_tags(path):
    """A TIFF holding its camera tags and an EXIF directory of its own, no EXIF block."""
    pointer = struct.pack("<HHI", 34665, 4, 1)
    tifffile.imwrite(path, np.uint8(U[..., :3] * 255), extratags=[
        (271, "s", 0, "Canon", True), (272, "s", 0, "EOS 5D", True),
        (33432, "s", 0, "Ada L", True), (34665, "I", 1, 0, True)])
    data = bytearray(path.read_bytes())
    at = len(data) + len(data) % 2
    value = data.index(pointer + bytes(4)) + len(pointer)
    data += b"\0" * (at - len(data)) + directory(EXPOSURE, at)
    data[value:value + 4] = struct.pack("<I", at)
    path.write_bytes(bytes(data))


def exif_of(image):
    exif = image.getexif()
    sub = exif.get_ifd(0x8769)
    return (exif.get(271), exif.get(272), exif.get(33432), float(sub.get(33434, 0)),
            float(sub.get(33437, 0)))


CAMERA = ("Canon", "EOS 5D", "Ada L", 0.004, 2.8)


@pytest.mark.parametrize("source", ["jpg", "tif"])
def test_metadata_is_carried_where_the_output_type_holds_it(tmp_path, marlith_deblur, identity,
                                                            source):
    src = tmp_path / ("in." + source)
    (jpeg_with_everything if source == "jpg" else tiff_with_camera_tags)(src)
    full = source == "jpg"  # the TIFF input has camera tags only
    for kind in ["png", "jpg", "tif"]:
        out = tmp_path / ("out." + kind)
        r = restore(marlith_deblur, identity, src, out)
        assert r.returncode == 0, r.stderr
        image = Image.open(out)
        assert exif_of(image) == CAMERA, kind
        if kind == "png":  # profile in iCCP, XMP in iTXt: what Pillow reads
            chunks = out.read_bytes()
            assert (b"iCCP" in chunks) == full and b"Raw profile" not in chunks
            assert image.info.get("icc_profile") == (ICC if full else None)
            assert image.info.get("XML:com.adobe.xmp", "").encode() == (XMP if full else b"")
        elif kind == "jpg":
            assert image.info.get("icc_profile") == (ICC if full else None)
            assert (("APP1", b"http://ns.adobe.com/xap/1.0/\0" + XMP) in image.applist) == full
            iptc = IptcImagePlugin.getiptcinfo(image) or {}
            assert iptc.get((2, 116)) == (b"Ada L" if full else None)
        else:
            with tifffile.TiffFile(out) as tif:
                tags = tif.pages[0].tags
                assert tags["Make"].value == "Canon" and tags["Copyright"].value == "Ada L"
                exposure = tags["ExifTag"].value
                assert exposure["ExposureTime"] == (1, 250) and exposure["FNumber"] == (28, 10)
                for code, value in [(34675, ICC), (700, XMP), (33723, IIM)]:
                    held = tags.get(code)
                    assert (bytes(held.value) if held else None) == (value if full else None)
