/* SPDX-License-Identifier: MIT */
#ifndef TARVO_H
#define TARVO_H

/**
 * @file tarvo.h
 * Named chunks of one reserved, physically contiguous memory region that devices reach by DMA,
 * shared by all processes of a Linux machine.
 *
 * Conventions and caveats that hold for every call:
 *
 *  1. Units. Sizes and offsets are bytes. A chunk's size is rounded up to whole pages.
 *
 *  2. 32 bits. Records, and the arithmetic on sizes, are 32-bit in every build. A size of 4 GiB and
 *     more is allocated modulo 4 GiB. Chunks of more than 2 GiB cannot be mapped for devices.
 *
 *  3. Two kinds of addresses. A physical address (`pa`, 64-bit) is where memory lies for the
 *     processor; a DMA address (`dma`, 32-bit) is where a device sees it. Only tarvo_dma_to_pa()
 *     and tarvo_pa_to_dma() convert. Neither is a pointer: map the chunk.
 *
 *  4. The DMA window. Both addresses are equal for a region that lies, and ends, below 4 GiB. Any
 *     other region is seen from DMA address 0x20000000 on. The DMA addresses of its bytes from
 *     0xe0000000 on wrap, and converting such an address back ends the process.
 *
 *  5. A DMA address of 0 means failure. No chunk has it, save in a region whose addresses wrap.
 *
 *  6. Start-up. The first call in a process that needs the region finds it and maps the bookkeeping
 *     file; for that it takes the lock, whatever the call itself is said to take. Only these calls
 *     never start the library: tarvo_get_overhead(), tarvo_unmap_all(), tarvo_dump_next(),
 *     tarvo_dump_next_iommu_device() and tarvo_dump_end().
 *
 *  7. A failed start. The reason goes to standard error, followed by "tarvo: failed to initialize
 *     library"; the call returns its failure value, and the next call tries again. A kernel driver
 *     that describes an impossible region ends the process ("start && (end > start)"). When the
 *     bookkeeping file cannot be given its size, descriptor 0 of the program is closed, too.
 *
 *  8. Simulation is selected by the environment variable SIMULATION_VMID (its presence, not its
 *     value), or by the file /var/tmp/tarvo, if it exists.
 *
 *  9. No shut-down. Three descriptors, close-on-exec and never 0, 1 or 2, stay open until the
 *     process ends, and dlclose() does not unload the library.
 *
 * 10. Descriptors. A program that closes all of its descriptors after its first call, and then
 *     opens files of its own, gives them the numbers of the library's three: the next allocation
 *     zeroes such a file, and locks are taken on another. Call close_range(3, ~0U, 0) and the like
 *     before the first call of the library, not after it. CLOSE_RANGE_CLOEXEC does no harm.
 *
 * 11. The lock. One flock() on a lock file separates processes. Calls marked "takes the lock" wait
 *     for it without limit. A process that is stopped in the middle of a call, or between
 *     tarvo_dump_begin() and tarvo_dump_end(), makes all others wait.
 *
 * 12. Signals. A wait for the lock that a signal interrupts (a handler without SA_RESTART) fails
 *     with "tarvo: failed to accquire lock: Interrupted system call" and is not repeated. A lock
 *     that cannot be released ends the process (SIGABRT).
 *
 * 13. Two lock files. Processes with SIMULATION_VMID set lock /var/tmp/tarvo_lock, all others
 *     /var/lock/subsys/tarvo_lock. On a machine where /var/tmp/tarvo selects simulation, processes
 *     with and without the variable share the region and NOT the lock: set it for all or for none.
 *
 * 14. What ends the process. Wrong use and damaged records end the process with an assertion
 *     message on standard error and SIGABRT; each call lists its own. Whatever such a process had
 *     half changed stays; its lock goes with it.
 *
 * 15. Damaged lists end the process in every call that reads them: a link out of range ("idx >= 0
 *     && idx < MAX"); links that lead in a circle ("visited <= MAX", also where a listing that
 *     changes meanwhile comes to more elements than a list holds); an element in the wrong state
 *     ("cur->allocated", "!chunk->allocated", "cur->allocated && new_elem->allocated",
 *     "_head != -1 && _tail != -1").
 *
 * 16. Impossible requests end the process in every call that would send them: for a chunk of more
 *     than 2 GiB ("end_dma - start_dma == end_pa - start_pa"), and for a chunk whose record lies
 *     outside the region ("pa >= dma_chunk_head->pa && pa <= dma_chunk_tail->pa").
 *
 * 17. Threads. The lock separates processes, not threads: a program must not be in the library with
 *     two threads at once.
 *
 * 18. Children. A child of fork() keeps what its parent has mapped, and opens the lock file anew
 *     before fork() returns: the child, its parent and its siblings exclude each other, and a
 *     listing stays the parent's alone. A child that may not open that file, such as one whose
 *     parent gave up its rights before, shares its parent's lock and must not use the library while
 *     its parent does. vfork(), _Fork(), and clone() called directly, bypass this: such a child
 *     must not use the library at all. After exec a program starts afresh.
 *
 * 19. One name, many owners. A chunk belongs to no single process: one tarvo_free() frees it for
 *     everybody, mapped or not. Mappings of a freed chunk go on showing memory that may by then be
 *     another chunk's. Agree on who frees.
 *
 * 20. Freed while allocated. New memory is zeroed, and its address read, after the lock is
 *     released. A process that allocates a name while another one frees it can be ended by that
 *     ("pa >= dma_chunk_head->pa && pa <= dma_chunk_tail->pa", or "tarvo_alloc: mmap failed!" and
 *     "cur->allocated"), or can zero, and be given, the memory of a chunk that a third process
 *     makes meanwhile.
 *
 * 21. Messages go to standard error and are meant for people; errno after a call means nothing.
 *
 * 22. Tracing. ZUL_TRACE=tarvo=5 in the environment, read once, adds trace records to standard
 *     error (3: failures, 5: progress and the failures of tarvo_map(), 6: each address
 *     translation).
 *
 * 23. Room. Building the bookkeeping file takes 67 MiB of its file system; without them the start
 *     fails ("tarvo_init: failed to map shared memory"). The simulated memory takes room for each
 *     chunk that is made; without it tarvo_alloc_func() ends the process ("tarvo_alloc: mmap
 *     failed!" and "cur->allocated") and the chunk is not listed. Before Linux 5.14, SIGBUS ends
 *     the process without a message in both cases, and the chunk stays listed. "tarvoctl doctor"
 *     checks for room beforehand.
 *
 * 24. Shortened and removed files. A bookkeeping file or simulated memory that is shortened while
 *     processes have it mapped ends each of them by SIGBUS at the first access to what is gone; the
 *     next process to start makes the file as long as before, by zeros, and the records that it
 *     held are lost. /dev/mem cannot be full or shortened. The lock file is empty and of no fixed
 *     length, but must not be removed while it is in use: the next process would make, and lock,
 *     another one.
 */

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C++" { /* whatever the linkage where this header is included */
#include <memory>
#include <string>
}
#endif

#if defined(__GNUC__)
#define TARVO_API __attribute__((visibility("default")))
#else
#define TARVO_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Chunks ---------------------------------------------------------------------------------- */

/**
 * Gets the chunk called `name`: the one that exists, or a new one whose memory is zero.
 *
 * A chunk of that name whose size, in whole pages, is the one asked for is shared: nothing is
 * allocated, zeroed or mapped, and `creator` is not stored. If the lowest chunk of that name has
 * another size, "tarvo: find_chunk_desc() size mismatch, see tarvo" and an empty line go to
 * standard error and a second chunk of the same name is made; every call by name finds the one at
 * the lower address, whichever that is. A new chunk takes the lowest gap that is large enough, or
 * the place the kernel driver gives where the region is named "CMA", and is mapped for every
 * registered device that is online.
 *
 * @param name     1 to 49 bytes, compared exactly; not null.
 * @param size     bytes, 1 to 0xfffff000 with 4 KiB pages; rounded up to whole pages. Above that
 *                 it wraps: a size that rounds to 0 ends the process when the chunk is mapped for a
 *                 device ("pa >= dma_chunk_head->pa && pa <= dma_chunk_tail->pa", and the chunk
 *                 stays listed) or else when its memory is zeroed.
 * @param creator  who allocates, for people; not empty, not null. Of 100 bytes and more, the first
 *                 47 and the last 47 are kept with " ... " between them.
 * @return the chunk's DMA address; 0 when the library cannot start, the lock cannot be taken, no
 *         record (16382 chunks exist) or no space is left, or the record, found or new, does not
 *         lie in the region ("tarvo: chunk_desc_check() - DMA memory corrupted: ..." on standard
 *         error; that chunk is then taken off the list). Being out of space or records is only
 *         traced; in a "CMA" region a driver that does not answer is reported as
 *         get_cma_allocation() says.
 *
 * Ends the process when the name's length is not 1 to 49 ("len_name > 0 && (len_name < 50)"), the
 * creator is empty ("len_agent_name > 0") or the size is 0 ("size"); when the mapping for a device
 * fails with anything but ENODEV, EUNATCH or ENOSYS ("cur->allocated", after "Error IOMMU mapping
 * chunk ..."; "pa >= dma_chunk_head->pa && pa <= dma_chunk_tail->pa" while the first device record
 * is in use and online); and likewise when the new memory cannot be mapped to be zeroed
 * ("tarvo_alloc: mmap failed!"). The chunk is then no longer listed. A null text faults.
 *
 * Takes the lock; zeroes the memory after releasing it. Other processes can find the chunk before
 * it is zeroed.
 */
TARVO_API uint32_t tarvo_alloc_func(const char* name, size_t size, const char* creator);

/**
 * Frees the lowest chunk called `name`, for all processes. Its memory is not touched and stays
 * visible through mappings that exist.
 *
 * @param name  not empty; null faults. "__HEAD" is not found. "__TAIL" is found and ends the
 *              process ("cur->allocated"), after a "CMA" region's driver, and the device with the
 *              first record if it is online, were asked to give it up; where that driver cannot be
 *              reached, it returns -1 instead.
 * @return 0; -1 when the library cannot start, the lock cannot be taken, no chunk has the name
 *         (nothing is printed), the kernel driver cannot be asked to release the memory of a "CMA"
 *         region ("Error opening /proc/tarvo: ..." or "Error freeing CMA ..."; nothing is changed
 *         then; a driver that refuses goes unnoticed), or unmapping it for a device fails ("Error
 *         IOMMU unmapping chunk ..."; the chunk then stays listed, mapped for no device on
 *         record, and CMA memory is released all the same).
 *
 * Ends the process when the name is empty ("len"). Takes the lock.
 */
TARVO_API int tarvo_free(const char* name);

/**
 * Maps the lowest chunk called `name`, or a window of it, into the calling process.
 *
 * @param name      not empty, not null.
 * @param writable  false: reading only, a write faults.
 * @param offset    first byte of the window within the chunk; a multiple of the page size.
 * @param size      bytes; 0: from `offset` to the chunk's end.
 * @return the mapping's address; it is the caller's until tarvo_unmap() and outlives the chunk.
 *         Null when the library cannot start, the lock cannot be taken, no chunk has the name, the
 *         window does not lie in the chunk (" offset ... > chunk->size ... or offset + size ... is"
 *         on standard error), or the system refuses the mapping, as it does a window of no bytes
 *         or an offset within a page. Names not found and refused mappings are only traced. The
 *         window's end is computed in 32 bits: in a chunk of 2 GiB and more it can wrap, which is
 *         not caught.
 *
 * Ends the process when `name` is null ("name") or empty ("strlen(name)"), and when the chunk's
 * record is damaged ("0", after the report that tarvo_alloc_func() describes). Takes the lock.
 */
TARVO_API void* tarvo_map(const char* name, bool writable, size_t offset, size_t size);

/**
 * Removes a mapping of the calling process.
 *
 * @param name  a chunk that exists; not empty, not null.
 * @param va    start of the mapping; not null. It is not compared with the chunk.
 * @param size  bytes, at most the chunk's; 0: the chunk's size.
 * @return 0, also when the system refuses ("tarvo: failed to unmap chunk, ..." on standard error);
 *         -1 when the library cannot start or the lock cannot be taken.
 *
 * Ends the process when the name is empty or `va` null ("strlen(name) && va"), when no chunk has
 * the name ("found"), so unmap before anybody frees, and when `size` is more than the chunk has
 * ("size <= chunk->size"). A null name faults. Takes the lock.
 */
TARVO_API int tarvo_unmap(const char* name, void* va, size_t size);

/**
 * Finds the chunk that a DMA address lies in.
 *
 * @param dma        a DMA address within the region, its end included.
 * @param chunk_dma  receives the DMA address of the chunk's first byte, or 0; not null. Not written
 *                   when the library cannot start or the lock cannot be taken.
 * @return the chunk's name, in the shared bookkeeping itself and not a copy: it changes when the
 *         chunk is freed. Null when the address lies in no chunk, the library cannot start or the
 *         lock cannot be taken.
 *
 * Ends the process for an address outside the region, as tarvo_dma_to_pa() does. Takes the lock.
 */
TARVO_API const char* tarvo_find(uint32_t dma, uint32_t* chunk_dma);

/* ---- The region ------------------------------------------------------------------------------ */

/**
 * The physical address of a DMA address; 0 when the library cannot start. Takes no lock.
 *
 * Ends the process for an address that is not in the region, whose end counts as in it
 * ("res >= dma_chunk_head->pa && res <= dma_chunk_tail->pa").
 */
TARVO_API uint64_t tarvo_dma_to_pa(uint32_t dma);

/**
 * The DMA address of a physical address; 0 when the library cannot start. Takes no lock.
 *
 * Ends the process for an address that is not in the region, whose end counts as in it
 * ("pa >= dma_chunk_head->pa && pa <= dma_chunk_tail->pa").
 */
TARVO_API uint32_t tarvo_pa_to_dma(uint64_t pa);

/**
 * The region as devices see it. Takes no lock.
 *
 * @param start_dma  receives the DMA address of the first byte; not null.
 * @param end_dma    receives the one after the last byte; not null.
 * @return 0; -1 when the library cannot start, and nothing is written.
 */
TARVO_API int tarvo_get_limits(uint32_t* start_dma, uint32_t* end_dma);

/**
 * Bytes that the shared bookkeeping takes: 70130716 rounded up to whole pages, 70131712 with pages
 * of 4 KiB. Does not start the library and takes no lock.
 */
TARVO_API size_t tarvo_get_overhead(void);

/**
 * Maps the whole region, readable and writable, once for the calling process, and counts the calls.
 *
 * @return the mapping's address, the same for every call until as many tarvo_unmap_all(); null when
 *         the library cannot start, or when the mapping fails ("tarvo: failed to mmap size ..." on
 *         standard error). A failed mapping is counted and not tried again: the next call of either
 *         function ends the process ("tarvo_mapall_refcount == 0", "tarvo_mapall_va").
 *
 * Takes no lock; other processes are not affected.
 */
TARVO_API void* tarvo_map_all(void);

/**
 * Undoes one tarvo_map_all(); the last one unmaps. A system that refuses to is reported ("tarvo:
 * failed to unmap chunk, ..." on standard error) and the mapping is given up all the same.
 *
 * Ends the process when the region is not mapped ("tarvo_mapall_va"). Takes no lock.
 */
TARVO_API void tarvo_unmap_all(void);

/* ---- Listing --------------------------------------------------------------------------------- */

/**
 * Opens a listing of the chunks and devices. Takes the lock and holds it to tarvo_dump_end(), so
 * that the listing is one consistent picture; every other process waits meanwhile. Any other call
 * of this process that takes the lock also releases it, and so ends the consistency.
 *
 * @return true when the lock is held; false when the library cannot start or the lock cannot be
 *         taken, and then there is nothing to end.
 */
TARVO_API bool tarvo_dump_begin(void);

/**
 * Writes the next chunk, in ascending address, as one line without a newline: element number (3
 * columns), name (60, left), creator (110, left), physical address ("0x" and 12 hexadecimal
 * digits), size in bytes (9 columns, signed), with one blank between.
 *
 * @param dst  receives the line and a NUL.
 * @param n    bytes in `dst`; 256 always do.
 * @return true when a line was written; false at the end, outside a listing, and when the line does
 *         not fit in `n` bytes: it is then offered again.
 */
TARVO_API bool tarvo_dump_next(char* dst, size_t n);

/**
 * Writes the next registered device, in order of registration, as one line such as
 * "0000:03:00.0: online" or "0000:03:00.0: offline". Arguments and result as tarvo_dump_next(); the
 * two can be called in any order, each keeps its own place.
 */
TARVO_API bool tarvo_dump_next_iommu_device(char* dst, size_t n);

/**
 * Ends the listing and releases the lock. Returns 0. Without a listing that was begun it still
 * releases the lock, and ends the process where the library was never started.
 */
TARVO_API int tarvo_dump_end(void);

/* ---- Devices --------------------------------------------------------------------------------- */
/*
 * A PCI device is named by its domain (segment), bus and devfn (slot * 8 + function), compared
 * exactly as given and not limited. A registered device sees every chunk at its DMA address: each
 * chunk is mapped by a line written to /sys/kernel/tarvo_iommu_map_region. A request that fails is
 * reported on standard error, whatever the reason: by "tarvo: failed to open sysfs file: ...",
 * "tarvo: failed to set _IONBF: ...", "tarvo: failed to iommu ..." when it is refused, or "tarvo:
 * fclose failed: ...", then, for a chunk, by "map_unmap_chunk: ...", and by what the call itself
 * adds.
 *
 * ENOSYS says that there is no IOMMU: success, and nothing is printed. ENODEV and EUNATCH in answer
 * to a request for a chunk say that the device is gone: it goes offline, which is not an error of
 * the call, and no chunk made later is mapped for it until it is registered again.
 *
 * The error is looked at after it was reported. Where the report changes errno the request counts
 * as refused: always where standard error cannot be written, and after "failed to open sysfs file"
 * where that is the first that the program writes to a standard error which is open for writing
 * alone.
 */

/**
 * Registers a device, or revives one that is registered, and maps every chunk for it, also those
 * that are mapped for it already. If it goes offline on the way it is asked for the rest all the
 * same.
 *
 * @return 0; -1 when the library cannot start, the lock cannot be taken, or a chunk could not be
 *         mapped ("Error IOMMU mapping chunk ..." and "tarvo: tarvo_register_device: failed to map
 *         chunk"). The device is then registered all the same, and unmapped again from the chunks
 *         as far as it is online and accepts that.
 *
 * A 257th device ends the process by a memory fault (SIGSEGV). Takes the lock, also while it writes
 * the requests. The registration outlives the process.
 */
TARVO_API int tarvo_register_device(uint32_t domain, uint32_t bus, uint32_t devfn);

/**
 * Unmaps every chunk for a device and forgets it. An offline device is forgotten without a request,
 * and what it leaves on record is inherited by the next device that takes its place.
 *
 * @return 0; -2 when the device is not registered ("tarvo: Device not registered"); -1 when the
 *         library cannot start, the lock cannot be taken, or a chunk could not be unmapped ("tarvo:
 *         Error unmapping all chunks"), and the device then stays registered.
 *
 * Takes the lock, also while it writes the requests.
 */
TARVO_API int tarvo_unregister_device(uint32_t domain, uint32_t bus, uint32_t devfn);

/**
 * Maps the whole region for a device by one request; nothing is recorded.
 *
 * @param prot  protection mask, handed on as it is: 1 read, 2 write.
 * @return 0, or a negative value when the request failed, also with ENODEV and EUNATCH.
 *
 * Ends the process when the library cannot start ("tarvo_get_limits(&start_dma, &end_dma) == 0"),
 * for a region of 2 GiB and more ("end_dma - start_dma == end_pa - start_pa"), and for one whose
 * DMA addresses do not end below 4 GiB ("res >= dma_chunk_head->pa && res <= dma_chunk_tail->pa").
 * Takes no lock; sent whether the device is registered, and online, or not.
 */
TARVO_API int tarvo_iommu_map(uint32_t domain, uint32_t bus, uint32_t devfn, uint32_t prot);

/**
 * Undoes tarvo_iommu_map(). A registered device is unregistered instead, with the results of
 * tarvo_unregister_device(), and no request for the whole region is made. For any other device
 * "tarvo: Device not registered" goes to standard error, then the request is made.
 *
 * @return 0, or a negative value when unregistering or the request failed.
 *
 * Ends the process as tarvo_iommu_map() does, before the registry is looked at. Takes the lock for
 * the registry only.
 */
TARVO_API int tarvo_iommu_unmap(uint32_t domain, uint32_t bus, uint32_t devfn);

/* ---- Inner steps ----------------------------------------------------------------------------- */
/*
 * The steps that the calls above are made of. They work on records of the shared bookkeeping, whose
 * layout is not public, and none takes the lock: unless it says otherwise the caller holds it, and
 * the library is started. They are here for tools that are built together with the library.
 *
 * Each has two symbols for the one function: that of a C++ function, which C++ calls, and its plain
 * name, which C calls and other languages look up.
 */

#ifdef __cplusplus
} /* extern "C" */
extern "C++" {
struct dma_chunk_t;
struct iommu_dev_t;
struct iommu_dev_ref;
#else
typedef struct dma_chunk_t dma_chunk_t;
typedef struct iommu_dev_t iommu_dev_t;
typedef struct iommu_dev_ref iommu_dev_ref;
#endif

/** Bytes between the end of `a` and the start of its successor `b`. Needs neither lock nor start.
 */
TARVO_API uint64_t free_size(dma_chunk_t* a, dma_chunk_t* b);

/**
 * Asks the kernel driver for `size` bytes of contiguous memory under that name; a name the driver
 * already holds is good, too. Returns the physical address, or all 64 bits set after a failure.
 * The failure is reported on standard error, unless the driver just does not list that name and
 * size.
 */
TARVO_API uint64_t get_cma_allocation(const char* name, uint32_t size);

/**
 * Gives such memory back. Returns 0 when the command was handed on, though the driver may refuse it
 * unnoticed; -1 when it could not be handed on, which is reported on standard error.
 */
TARVO_API int64_t free_cma_allocation(const char* name, uint32_t size);

/** Records that the chunk is mapped for the device; once is enough. */
TARVO_API void add_dev_to_chunk(dma_chunk_t* chunk, iommu_dev_t* dev);

/** Removes one such record. Returns the one after it, null if it was the last. */
TARVO_API iommu_dev_ref* remove_dev_from_chunk(dma_chunk_t* chunk, iommu_dev_ref* ref);

/**
 * Sends one request, `op` "map" or "unmap". Returns 0, or a negative value after a failure that
 * was reported on standard error; errno is then what the request and its report left, in most cases
 * the kernel driver's answer.
 */
TARVO_API int map_unmap_chunk(const char* op, dma_chunk_t* chunk, iommu_dev_t* dev);

/** Maps a new chunk for every online device. -1 when one refused: it is then mapped for none. */
TARVO_API int map_chunk_all_devs(dma_chunk_t* chunk);

/** Unmaps a chunk from its devices and removes all of them from its list; -1 when one refused. */
TARVO_API int unmap_chunk_all_devs(dma_chunk_t* chunk);

/**
 * Maps every chunk for a device. -1 when a request was refused: unmap_dev_all_chunks() was then
 * called.
 */
TARVO_API int map_chunks_to_dev(iommu_dev_t* dev);

/**
 * Unmaps a device from every chunk, and removes it from the lists of those where that was accepted;
 * -1 when one was refused.
 */
TARVO_API int unmap_dev_all_chunks(iommu_dev_t* dev);

#ifdef __cplusplus
#if defined(__GLIBCXX__) && _GLIBCXX_USE_CXX11_ABI && __cplusplus >= 201103L
/**
 * What stands in for a text that could not be formatted: "Error formatting string". Not declared
 * for programs with another C++ library, with the strings of g++ before 5, or before C++11: they do
 * not have this type. A program that declares it itself, with or without "C", links as well.
 */
extern "C" TARVO_API std::shared_ptr<std::string> to_string_err;
#endif
} /* extern "C++" */
#endif

#endif /* TARVO_H */
