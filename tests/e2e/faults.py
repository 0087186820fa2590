#!/usr/bin/env python3
"""Whether scripts/e2e would notice: puts faults, one at a time, into a copy of the library and the
driver, and has one machine look for it. The copy must pass without a fault first.

usage: tests/e2e/faults.py [NAME...], at the top of the project; all of them take some minutes.
Ends with 0 if every fault was noticed.
"""

import filecmp
import os
import shutil
import subprocess
import sys

COPY = "build-e2e/faulty"
COPIED = ("CMakeLists.txt", "cmake", "examples", "include", "kernel", "man", "packaging", "python",
          "completions", "src", "tools", "bench", "LICENSE", "README.md", "CHANGELOG.md")

# The high story is the quicker one. Some faults show in low addresses or in reserved memory alone.
HIGH = "6.12/high/plain"
LOW = "6.12/low/plain"
DEBUG = "6.12/high/debug"

# How scripts/e2e ends.
PASSED = 0
FAILED = 1
UNFINISHED = 2
# The faults that the kernel itself notices, and panics. All others fail a sentence of the story.
PANICS = ("driver: a chunk freed under a device",)

# Name, machine, file, what stands there once, what stands there instead.
FAULTS = (
    ("driver: the end a page short", HIGH, "kernel/requests.c",
     "PAGE_ALIGN(last + 1) - first", "((last + 1) & PAGE_MASK) - first"),
    ("driver: the end a page long", HIGH, "kernel/requests.c",
     "PAGE_ALIGN(last + 1) - first", "PAGE_ALIGN(last + 1) - first + PAGE_SIZE"),
    ("driver: the DMA address shifted", HIGH, "kernel/requests.c",
     "range->dma = dma;", "range->dma = (u64)dma + PAGE_SIZE;"),
    ("driver: the DMA address sign-extended", LOW, "kernel/requests.c",
     "range->dma = dma;", "range->dma = (s32)dma;"),
    ("driver: other memory mapped", HIGH, "kernel/requests.c",
     "range->start = first;", "range->start = first + PAGE_SIZE;"),
    ("driver: unmapping forgotten", HIGH, "kernel/domains.c",
     "WARN_ON(iommu_unmap(domain->iommu, range.dma, range.size) != range.size);",
     "(void)range.size;"),
    ("driver: a repetition mapped again", HIGH, "kernel/domains.c",
     "if (find(domain, pdev, range))", "if (0)"),
    ("driver: the protection ignored", HIGH, "kernel/domains.c",
     "return enter(domain, range, prot);",
     "return enter(domain, range, prot | IOMMU_READ | IOMMU_WRITE);"),
    ("driver: departures unnoticed", HIGH, "kernel/domains.c",
     "action != BUS_NOTIFY_DEL_DEVICE", "action != BUS_NOTIFY_ADD_DEVICE"),
    ("driver: a mapping leaked", DEBUG, "kernel/domains.c",
     "tarvo_chunk_put(mapping->chunk);\n\tkfree(mapping);", "tarvo_chunk_put(mapping->chunk);"),
    ("driver: a chunk freed under a device", DEBUG, "kernel/chunks.c",
     "if (chunk->held || chunk->mappings)", "if (chunk->held)"),
    ("driver: a chunk released by its name alone", HIGH, "kernel/chunks.c",
     "!chunk || chunk->size != size", "!chunk"),
    ("driver: the memory device a page off", LOW, "kernel/memory.c",
     "vma->vm_start, vma->vm_pgoff,", "vma->vm_start, vma->vm_pgoff + 1,"),
    ("driver: a number with a sign accepted", LOW, "kernel/text.c",
     "!only_digits(field + (*field == '-'), 10) || ", ""),
    ("driver: System RAM accepted", LOW, "kernel/region.c", "if (!cma)", "if (0)"),
    ("library: the end a page short", HIGH, "src/iommu/bookkeeping.cpp",
     "end_pa(chunk.pa + chunk.size - 1)", "end_pa(chunk.pa + chunk.size - 4097)"),
    ("library: the DMA window shifted", HIGH, "src/shared/dma_window.hpp",
     "high_region_dma = 0x20000000", "high_region_dma = 0x20001000"),
    ("library: the DMA address sign-extended", LOW, "src/iommu/request.cpp",
     "static_cast<uint32_t>(mapping->start_dma)",
     "static_cast<unsigned long>(mapping->start_dma)"),
    ("library: a new chunk not mapped", HIGH, "src/alloc/allocate.cpp",
     "if (map_chunk_all_devs(chunk) == 0)", "if (chunk->size != 0)"),
    ("library: a freed chunk not unmapped", HIGH, "src/alloc/free.cpp",
     "if (unmap_chunk_all_devs(chunk) != 0)", "if (chunk == nullptr)"),
    ("library: a request in pieces", HIGH, "src/iommu/request.cpp",
     "fprintf(driver, request_format, line.op, line.domain,",
     "fprintf(driver, \"%s \", line.op) + fprintf(driver, &request_format[3], line.domain,"),
    ("library: a device that is gone stays online", HIGH, "src/iommu/bookkeeping.cpp",
     "dev->online = 0;\n        return outcome::device_gone;", "return outcome::device_gone;"),
)


def renew(source, target):
    """With the time of now, or what was built of the last fault would count as up to date."""
    if not os.path.exists(target) or not filecmp.cmp(source, target, shallow=False):
        shutil.copyfile(source, target)
        shutil.copymode(source, target)


def fresh_copy():
    """The sources as they are; what was built of them stays, so that little is built anew."""
    os.makedirs(COPY, exist_ok=True)
    for name in COPIED:
        target = os.path.join(COPY, name)
        if os.path.isdir(name):
            shutil.copytree(name, target, dirs_exist_ok=True, copy_function=renew)
        else:
            renew(name, target)


def put(path, old, new):
    with open(path, encoding="utf-8") as source:
        text = source.read()
    if text.count(old) != 1:
        sys.exit(f"faults: {path} has {text.count(old)} times: {old}")
    with open(path, "w", encoding="utf-8") as source:
        source.write(text.replace(old, new))


def look(machine):
    """How scripts/e2e ends for the copy, and the line that says why, or all that it says."""
    run = subprocess.run(["scripts/e2e", "--sources", COPY, machine], text=True, check=False,
                         stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    words = [line for line in run.stdout.splitlines() if "FAILED" in line or "DID NOT" in line]
    return run.returncode, words[0] if words else run.stdout


def require_soundness(machines):
    """What a fault is to fail must pass without it."""
    fresh_copy()
    for machine in machines:
        status, words = look(machine)
        if status != PASSED:
            sys.exit(f"faults: without a fault {machine} ends with status {status}: {words}")


def is_noticed(name, machine, path, old, new):
    """A machine that ends in another way than the fault's own has noticed something else."""
    fresh_copy()
    put(os.path.join(COPY, path), old, new)
    status, words = look(machine)
    noticed = status == (UNFINISHED if name in PANICS else FAILED)
    print(f"{'noticed' if noticed else f'MISSED, status {status}'}  {name}: {words}", flush=True)
    return noticed


def main():
    wanted = [fault for fault in FAULTS if not sys.argv[1:] or fault[0] in sys.argv[1:]]
    if not wanted:
        sys.exit("faults: none has such a name")
    require_soundness(sorted({fault[1] for fault in wanted}))
    missed = [fault[0] for fault in wanted if not is_noticed(*fault)]
    print(f"faults: {len(wanted) - len(missed)} of {len(wanted)} noticed")
    sys.exit(1 if missed else 0)


if __name__ == "__main__":
    main()
