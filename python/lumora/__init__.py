"""Lumora Fusion: exposure fusion of NumPy arrays, with lumora-fuse's own code.

    >>> import lumora
    >>> frames = [lumora.read(p) for p in ("dark.png", "mid.png", "bright.png")]
    >>> fused = lumora.fuse(frames)             # H x W x 3 uint8, as lumora-fuse writes it
    >>> lumora.write("fused.jpg", fused, metadata_from="mid.png")

Every option takes lumora-fuse's default and range: a value it refuses raises
ValueError with the tool's own words. Frames are never cast: a wrong dtype
raises TypeError, a wrong shape ValueError.
"""

from numbers import Integral, Real

from . import _lumora
from ._lumora import Cancelled

__version__ = _lumora.__version__
__all__ = ["fuse", "align", "deghost", "read", "write", "Cancelled", "__version__"]

# Python keyword -> lumora-fuse option, for the numeric fusion parameters.
_PARAMETERS = {
    "strength": "--strength",
    "sharpness": "--sharpness",
    "saturation": "--saturation",
    "start_radius": "--start-radius",
    "radius_growth": "--radius-growth",
    "spatial_sigma": "--spatial-sigma",
    "range_sigma": "--range-sigma",
    "highlight_influence": "--highlight-influence",
}


def _options(look, parameters, preserve_highlights, loupe, depth, threads, verbose):
    """lumora-fuse's command line for these options (what is None keeps the tool's default)."""
    args = []
    if look is not None:
        if not isinstance(look, str):
            raise TypeError(f"look: expected a str, got {type(look).__name__}")
        args.append(f"--look={look}")
    for name, value in parameters.items():
        if value is None:
            continue
        if isinstance(value, bool) or not isinstance(value, Real):
            raise TypeError(f"{name}: expected a number, got {type(value).__name__}")
        args.append(f"{_PARAMETERS[name]}={float(value)!r}")
    if preserve_highlights is not None:
        if not isinstance(preserve_highlights, bool):
            raise TypeError(f"preserve_highlights: expected a bool, got {type(preserve_highlights).__name__}")
        args.append("--preserve-highlights" if preserve_highlights else "--no-preserve-highlights")
    for name, value in (("depth", depth), ("threads", threads)):
        if isinstance(value, bool) or not isinstance(value, Integral):
            raise TypeError(f"{name}: expected an int, got {type(value).__name__}")
    args.append(f"--depth={int(depth)}")
    if threads != 0:
        args.append(f"--threads={int(threads)}")
    if loupe is not None:
        if len(loupe) != 4 or any(isinstance(v, bool) or not isinstance(v, Integral) for v in loupe):
            raise TypeError("loupe: expected (x, y, width, height) as four ints")
        args.append("--loupe=" + ",".join(str(int(v)) for v in loupe))
    if verbose:
        args.append("--verbose")
    # Stand-ins for the files the tool would read and write.
    return args + ["a.png", "b.png", "-o", "fused.png"]


def fuse(frames, *, bgr=False, look=None, strength=None, sharpness=None, saturation=None, start_radius=None,
         radius_growth=None, spatial_sigma=None, range_sigma=None, highlight_influence=None,
         preserve_highlights=None, loupe=None, depth=8, threads=0, verbose=False, progress=None):
    """Fuses two or more exposures of one scene into one picture.

    frames: a sequence of H x W x 3 arrays, all uint8, or uint16 (reduced to
        8 bits as lumora-fuse reduces a 16-bit PNG), in any order; views of
        any layout are copied once. Of more than three, the darkest, the
        brightest and the one whose mean is nearest mid-grey are fused, as
        lumora-fuse picks frames that record no exposure.
    bgr: the frames and the result are in B, G, R order (OpenCV's).
    look: lumora-fuse's --look: "natural" (the default), "detail" or
        "library" (the fusion library's own defaults); the options below
        override it.
    strength ... highlight_influence, preserve_highlights: lumora-fuse's
        fusion options (--strength, ...); None keeps the tool's default.
    loupe: (x, y, width, height): fuse only that region, with the radii of
        the whole picture.
    depth: 8 (uint8 result) or 16 (uint16).
    threads: 0 for one per available core.
    verbose: let the fusion library's commentary through to file
        descriptor 2 (held back otherwise, while the fusion runs).
    progress: called with the fraction done (0 to 1); returning False
        cancels, which raises lumora.Cancelled. Ctrl-C cancels too
        (KeyboardInterrupt).

    Returns a new C-contiguous H x W x 3 array (the loupe's size when given),
    the bytes lumora-fuse writes for the same frames and options. The GIL is
    released while the fusion runs; fusions in one process run one at a time.
    """
    parameters = {"strength": strength, "sharpness": sharpness, "saturation": saturation,
                  "start_radius": start_radius, "radius_growth": radius_growth,
                  "spatial_sigma": spatial_sigma, "range_sigma": range_sigma,
                  "highlight_influence": highlight_influence}
    if progress is not None and not callable(progress):
        raise TypeError("progress: expected a callable")
    args = _options(look, parameters, preserve_highlights, loupe, depth, threads, verbose)
    return _lumora.fuse(frames, bool(bgr), args, progress)


def align(frames, *, threads=0):
    """Registers handheld frames as lumora-fuse --align does.

    frames: two or more H x W x 3 uint8 (or uint16) arrays of one scene.
    Every frame is registered to the middle one by brightness (shift and
    rotation, whatever the exposure difference), resampled onto its grid, and
    all are cut down to the largest rectangle they share.

    Returns (aligned, info): the aligned frames as new uint8 arrays, and a
    dict with "reference" (the index registered to), "transforms" (per frame
    the 2x3 affine map, row-major, from the reference's grid into it),
    "crop" ((x, y, width, height) kept), "largest_shift" (pixels, at a
    corner) and "largest_angle" (degrees). ValueError when a frame cannot be
    registered.
    """
    return _lumora.align(frames, threads)


def deghost(frames, *, reference=None, threads=0):
    """Makes the frames agree where the scene moved, as lumora-fuse --deghost does.

    frames: two or more H x W x 3 uint8 (or uint16) arrays of one scene, of
    one size (aligned first where handheld). Wherever a frame differs from
    the reference (the middle one by brightness, or the index given) beyond
    what exposure and noise explain, it shows the reference's content at its
    own exposure; where the reference is clipped or crushed, the frame best
    exposed there stands in. A frame with an empty mask comes back unchanged.

    Returns (frames, info): the frames as new uint8 arrays, and a dict with
    "reference" (the index), "replaced" (per frame the share of its pixels
    replaced, 0 to 1) and "masks" (per frame an H x W uint8 array, 255 where
    replaced whole). ValueError when reference is not a frame's index.
    """
    if reference is not None and (isinstance(reference, bool) or not isinstance(reference, Integral)):
        raise TypeError(f"reference: expected an int, got {type(reference).__name__}")
    return _lumora.deghost(frames, reference, threads)


def read(path):
    """Reads a JPEG, PNG or TIFF file as lumora-fuse does: an H x W x 3 uint8 RGB array.

    16-bit samples are reduced to 8 bits, greyscale and palette expanded,
    alpha dropped. ValueError, naming the file, when it cannot be read.
    """
    return _lumora.read(str(path))


def write(path, array, *, metadata_from=None, quality=95):
    """Writes an H x W x 3 uint8 or uint16 array as lumora-fuse writes its output.

    The format follows the extension (.jpg/.jpeg, .png, .tif/.tiff; JPEG
    holds uint8 only). The file is written whole or not at all. With
    metadata_from, the EXIF, XMP and ICC profile of that image file are
    copied in. ValueError when it cannot be written.
    """
    if isinstance(quality, bool) or not isinstance(quality, Integral):
        raise TypeError(f"quality: expected an int, got {type(quality).__name__}")
    _lumora.write(str(path), array, None if metadata_from is None else str(metadata_from), int(quality))
