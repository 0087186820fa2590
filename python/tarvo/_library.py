# SPDX-License-Identifier: MIT
"""The shared library and its calls."""

from __future__ import annotations

import ctypes
import functools
import threading

from .errors import NotStarted

SONAME = "libtarvo.so.0"

#: The library must not be entered by two threads at once. Whoever calls it holds this, and a
#: Listing holds it as long as it holds the lock of all processes.
calls = threading.RLock()

_text = ctypes.c_char_p
_u32 = ctypes.c_uint32
_size = ctypes.c_size_t
_limit = ctypes.POINTER(ctypes.c_uint32)

_PROTOTYPES = {
    "tarvo_alloc_func": (_u32, [_text, _size, _text]),
    "tarvo_free": (ctypes.c_int, [_text]),
    "tarvo_map": (ctypes.c_void_p, [_text, ctypes.c_bool, _size, _size]),
    "tarvo_dma_to_pa": (ctypes.c_uint64, [_u32]),
    "tarvo_pa_to_dma": (_u32, [ctypes.c_uint64]),
    "tarvo_get_limits": (ctypes.c_int, [_limit, _limit]),
    "tarvo_get_overhead": (_size, []),
    "tarvo_map_all": (ctypes.c_void_p, []),
    "tarvo_unmap_all": (None, []),
    "tarvo_dump_begin": (ctypes.c_bool, []),
    "tarvo_dump_next": (ctypes.c_bool, [ctypes.c_void_p, _size]),
    "tarvo_dump_next_iommu_device": (ctypes.c_bool, [ctypes.c_void_p, _size]),
    "tarvo_dump_end": (ctypes.c_int, []),
    "tarvo_register_device": (ctypes.c_int, [_u32, _u32, _u32]),
    "tarvo_unregister_device": (ctypes.c_int, [_u32, _u32, _u32]),
    "tarvo_iommu_map": (ctypes.c_int, [_u32, _u32, _u32, _u32]),
    "tarvo_iommu_unmap": (ctypes.c_int, [_u32, _u32, _u32]),
}


@functools.lru_cache(maxsize=None)
def library() -> ctypes.CDLL:
    """The library, loaded at the first call: tarvo.area works without it."""
    try:
        loaded = ctypes.CDLL(SONAME)
    except OSError as reason:
        raise NotStarted(f"cannot load {SONAME}: {reason}; install libtarvo0") from reason
    for name, (result, arguments) in _PROTOTYPES.items():
        call = getattr(loaded, name)
        call.restype = result
        call.argtypes = arguments
    return loaded


@functools.lru_cache(maxsize=None)
def c_library() -> ctypes.CDLL:
    """The C library that is loaded already."""
    loaded = ctypes.CDLL(None, use_errno=True)
    loaded.munmap.restype = ctypes.c_int
    loaded.munmap.argtypes = [ctypes.c_void_p, ctypes.c_size_t]
    return loaded
