"""marlith-deblur on z-stacks: every page restored and written back with its axes and voxel
size (ImageJ hyperstack, OME-TIFF, plain multi-page TIFF), read back with tifffile."""

import subprocess

import numpy as np
import pytest
import tifffile


def _stack(shape):
    rng = np.random.default_rng(5)
    return (rng.random(shape) * 20000 + 20000).astype(np.uint16)


# name: (array, tifffile.imwrite keywords, what tifffile must read back besides the pages)
CASES = {
    "imagej": (
        _stack((3, 2, 48, 40)),  # Z, C, Y, X
        dict(imagej=True, resolution=(1 / 0.065, 1 / 0.065),
             metadata=dict(axes="ZCYX", spacing=0.2, unit="micron")),
        lambda t: (t.imagej_metadata["slices"], t.imagej_metadata["channels"],
                   t.imagej_metadata["spacing"], t.imagej_metadata["unit"],
                   round(1 / (t.pages[0].tags["XResolution"].value[0]
                              / t.pages[0].tags["XResolution"].value[1]), 4)),
        (3, 2, 0.2, "micron", 0.065),
    ),
    "ome": (
        _stack((4, 48, 40)),
        dict(ome=True, metadata=dict(axes="ZYX", PhysicalSizeX=0.1, PhysicalSizeY=0.1,
                                     PhysicalSizeZ=0.3)),
        lambda t: (t.series[0].axes, 'PhysicalSizeZ="0.3"' in t.ome_metadata),
        ("ZYX", True),
    ),
    "pages": (_stack((5, 48, 40)), dict(), lambda t: len(t.pages), 5),
}


@pytest.mark.parametrize("name", CASES)
def test_stack_round_trips_every_page_with_its_axes_and_voxel_size(
        name, tmp_path, marlith_deblur):
    data, keywords, read_back, expected = CASES[name]
    src, out = tmp_path / "in.tif", tmp_path / "out.tif"
    tifffile.imwrite(src, data, **keywords)
    run = subprocess.run([str(marlith_deblur), "-k", "gaussian:1", "--noise", "0.05", "-v",
                          "-o", str(out), str(src)], capture_output=True, text=True)
    assert run.returncode == 0, run.stderr
    assert "restores each plane" in run.stderr
    with tifffile.TiffFile(out) as t:
        assert read_back(t) == expected
        result = t.asarray()
    assert result.shape == data.shape and result.dtype == np.uint16
    # Each page restored from its own data: pages stay as different as they were.
    flat, restored = data.reshape(-1, 48, 40), result.reshape(-1, 48, 40)
    for i in range(len(flat)):
        assert np.corrcoef(flat[i].ravel(), restored[i].ravel())[0, 1] > 0.5


def test_a_stack_to_a_one_page_type_or_a_3d_psf_is_refused(tmp_path, marlith_deblur):
    src = tmp_path / "in.tif"
    tifffile.imwrite(src, _stack((3, 48, 40)), photometric="minisblack")
    cases = [
        (["-k", "gaussian:1", "-o", str(tmp_path / "out.png")], "written as TIFF only"),
        (["-k", str(src), "-o", str(tmp_path / "o.tif")], "a 3-D PSF of 3 planes"),
        (["-k", "widefield:na=1.4,wavelength=520,ri=1.515,dxy=65,dz=200,nz=5",
          "-o", str(tmp_path / "o.tif")], "a 3-D PSF of 5 planes"),
    ]
    for options, words in cases:
        run = subprocess.run([str(marlith_deblur), *options, str(src)],
                             capture_output=True, text=True)
        assert run.returncode == 1 and words in run.stderr, (options, run.stderr)
        assert not (tmp_path / "out.png").exists()
