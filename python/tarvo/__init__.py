# SPDX-License-Identifier: MIT
"""Named chunks of one reserved, physically contiguous memory region that devices reach by DMA.

The calls of libtarvo, with the conventions and caveats of tarvo.h::

    import tarvo

    with tarvo.allocated("rx_ring", 64 * 1024, "my_driver") as ring:
        with ring.map() as memory:
            memory.view[:4] = b"ping"
            print(f"DMA address {ring.dma:#x}")

- Every failure is a TarvoError. Arguments for which the C call would end the process raise
  BadArgument before the call. What is left of that is said with each call: a driver that refuses a
  new chunk, and damaged records.
- A mapping's `view` is a writable memoryview; numpy.frombuffer(memory.view) wraps it without a copy
  (NumPy 1.20 and later).
- Threads may call at the same time: the calls wait for each other. A child of fork() must not use
  the library beside its parent.
- tarvo.area reads area files after the fact, without the library.
"""

from __future__ import annotations

from .chunks import *
from .chunks import __all__ as _chunks_all
from .device import *
from .device import __all__ as _device_all
from .errors import *
from .errors import __all__ as _errors_all
from .listing import *
from .listing import __all__ as _listing_all
from .mapping import *
from .mapping import __all__ as _mapping_all
from .region import *
from .region import __all__ as _region_all
from .registry import *
from .registry import __all__ as _registry_all

__version__ = "0.1.0"

__all__ = [
    *_chunks_all,
    *_device_all,
    *_errors_all,
    *_listing_all,
    *_mapping_all,
    *_region_all,
    *_registry_all,
]
