"""vekr: realistic-rendering primitives on numpy arrays.

Volumes (z, y, x axis order, as in scipy.ndimage):
    resize, warp_affine, remap   uint8, uint16, float32 volumes
    convolve                     int16 volumes, integer kernels
Spherical harmonics (orders 0 to 15):
    sh_eval, sh_band, sh_project, sh_reconstruct
Ray queries:
    Scene(vertices, triangles).intersect / occluded / intersect_multiple
Threads:
    set_num_threads, get_num_threads

Inputs of any layout are converted (copied once) to C-contiguous, aligned
arrays; outputs are new arrays unless out= is given. The library runs without
the GIL. A negative library status raises VekrError (its message names the
status), a positive one issues a VekrWarning.

Example:
    >>> import numpy as np, vekr
    >>> v = np.random.rand(32, 32, 32).astype(np.float32)
    >>> vekr.resize(v, (64, 64, 64), interpolation='catmull-rom').shape
    (64, 64, 64)
"""
from ._vekr import (  # noqa: F401
    Hits,
    Occlusion,
    Scene,
    VekrError,
    VekrWarning,
    __version__,
    convolve,
    get_num_threads,
    library_version,
    remap,
    resize,
    set_num_threads,
    sh_band,
    sh_eval,
    sh_project,
    sh_reconstruct,
    warp_affine,
)

__all__ = [
    "Hits", "Occlusion", "Scene", "VekrError", "VekrWarning", "__version__", "convolve",
    "get_num_threads", "library_version", "remap", "resize", "set_num_threads", "sh_band",
    "sh_eval", "sh_project", "sh_reconstruct", "warp_affine",
]
