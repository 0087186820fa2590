# SPDX-License-Identifier: MIT
"""Named chunks of one reserved, physically contiguous memory region that devices reach by DMA.

Chunks:
    allocate(name, size, creator)   the Chunk of that name and size; a new one is zero
    allocated(name, size, creator)  the same in a with statement, freed at its end
    find_chunk(name)                the Chunk of that name
    find_address(dma)               the Chunk that a DMA address lies in
    free_chunk(name)                frees the chunk of that name, for all processes
    chunks()                        all chunks, in ascending address

PCI devices:
    register_device(device)         keeps all chunks mapped for a Device
    registered(device)              the same in a with statement, until its end
    unregister_device(device)       undoes it
    devices()                       all registered devices
    iommu_map(device, access)       maps the whole region for a Device; Access says how
    iommu_unmap(device)             undoes it

The region:
    get_limits()                    where it lies, as Limits
    get_overhead()                  bytes that the bookkeeping takes
    dma_to_pa(dma)                  the PhysicalAddress of a DMA address
    pa_to_dma(pa)                   the DmaAddress of a physical address

help(tarvo.allocate) shows results and errors; tarvo_py(3) has everything on one page. An example::

    import tarvo

    with tarvo.allocated("rx_ring", 64 * 1024, "my_driver") as ring:
        with ring.map() as memory:
            memory.view[:4] = b"ping"
            print(f"DMA address {ring.dma:#x}")

- Chunk.map() gives a Mapping, whose `view` is a writable memoryview; numpy.frombuffer(memory.view)
  wraps it without a copy (NumPy 1.20 and later). WholeRegion() maps the whole region.
- Listing gives chunks and devices in one consistent picture, and holds the lock meanwhile.
- Every failure is a TarvoError: BadArgument, Changed, Damaged, ListingOpen, MappingInUse, NoRoom,
  NotFound, NotLocked, NotRegistered, NotStarted, Refused, SizeMismatch or TooManyDevices. Arguments
  for which the C call would end the process raise BadArgument before the call. What still ends it
  is documented with each call: a driver that refuses a new chunk, and damaged records.
- Threads may call at the same time: the calls wait for each other. So do those of a child of
  os.fork() and of its parent; do not fork within a Listing, nor while another thread calls.
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
