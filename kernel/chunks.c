// SPDX-License-Identifier: GPL-2.0
/*
 * The chunks of a region called CMA, where the driver chooses each one's address.
 *
 * The library releases a chunk first and has it unmapped for the devices afterwards. So a chunk
 * that is released leaves the listing at once, and its memory stays away from everyone until the
 * last device has lost it. Memory lent by the kernel is held by processes as well: their mappings
 * hold its pages, see memory.c.
 */
#include <linux/gfp.h>
#include <linux/highmem.h>
#include <linux/mm.h>
#include <linux/pageblock-flags.h>
#include <linux/sched.h>
#include <linux/slab.h>
#include <linux/string.h>

#include "tarvo.h"

/* As many as the library's own list has room for. */
#define MAX_CHUNKS 16384

LIST_HEAD(tarvo_chunks);
static unsigned int chunk_count;

static phys_addr_t end_of(const struct tarvo_chunk *chunk)
{
	return chunk->start + chunk->size;
}

static struct tarvo_chunk *held_by_name(const char *name)
{
	struct tarvo_chunk *chunk;

	list_for_each_entry(chunk, &tarvo_chunks, at) {
		if (chunk->held && !strcmp(chunk->name, name))
			return chunk;
	}
	return NULL;
}

struct tarvo_chunk *tarvo_chunk_at(phys_addr_t start, phys_addr_t last)
{
	struct tarvo_chunk *chunk;

	list_for_each_entry(chunk, &tarvo_chunks, at) {
		if (chunk->held && chunk->start <= start && last < end_of(chunk))
			return chunk;
	}
	return NULL;
}

/* Each page has one reference now, the chunk's; a mapping into a process adds its own. */
static int borrow_pages(phys_addr_t start, u64 bytes)
{
	const unsigned long first = PHYS_PFN(start), end = PHYS_PFN(start + bytes);
	const int err = alloc_contig_range(first, end, MIGRATE_MOVABLE, GFP_KERNEL);
	unsigned long pfn;

	if (err)
		return err;
	/* What was in them belongs to others, and devices may read it before the library zeroes. */
	for (pfn = first; pfn < end; pfn++) {
		clear_highpage(pfn_to_page(pfn));
		cond_resched();
	}
	return 0;
}

/* free_contig_range() would complain about pages that a process still has mapped. */
static void give_pages_back(const struct tarvo_chunk *chunk)
{
	unsigned long pfn;

	for (pfn = PHYS_PFN(chunk->start); pfn < PHYS_PFN(end_of(chunk)); pfn++)
		put_page(pfn_to_page(pfn));
}

/* -ENOMEM: not in this gap. */
static int take_from_gap(struct tarvo_chunk *chunk, phys_addr_t gap, phys_addr_t gap_end)
{
	int err;

	while (gap <= gap_end && gap_end - gap >= chunk->size) {
		chunk->start = gap;
		if (tarvo_region.backing == TARVO_CMA_RESERVED)
			return 0;
		/* Pages that cannot be moved away: try further up. A killed process stops. */
		err = borrow_pages(gap, chunk->size);
		if (err != -EBUSY && err != -ENOMEM)
			return err;
		gap = PFN_PHYS(ALIGN(PHYS_PFN(gap) + 1, pageblock_nr_pages));
	}
	return -ENOMEM;
}

/* First fit, and into the list at that place. */
static int place(struct tarvo_chunk *chunk)
{
	phys_addr_t gap = tarvo_region.start;
	struct tarvo_chunk *next;
	int err;

	list_for_each_entry(next, &tarvo_chunks, at) {
		err = take_from_gap(chunk, gap, next->start);
		if (err != -ENOMEM)
			break;
		gap = end_of(next);
	}
	if (list_entry_is_head(next, &tarvo_chunks, at))
		err = take_from_gap(chunk, gap, tarvo_region.last + 1);
	if (!err)
		list_add_tail(&chunk->at, &next->at);
	return err;
}

static int make_chunk(const char *name, u64 size)
{
	struct tarvo_chunk *chunk = kzalloc(sizeof(*chunk), GFP_KERNEL);
	int err;

	if (!chunk)
		return -ENOMEM;
	strscpy(chunk->name, name, sizeof(chunk->name));
	chunk->size = size;
	chunk->held = true;
	err = place(chunk);
	if (err)
		kfree(chunk);
	else
		chunk_count++;
	return err;
}

int tarvo_chunk_allocate(const char *name, u64 size)
{
	int err;

	if (held_by_name(name))
		return -EEXIST;
	if (size > tarvo_region.last - tarvo_region.start + 1)
		return -ENOMEM;
	if (chunk_count == MAX_CHUNKS)
		return -ENOSPC;
	err = tarvo_pin();
	if (err)
		return err;
	err = make_chunk(name, size);
	if (err)
		tarvo_unpin();
	return err;
}

static void free_unless_used(struct tarvo_chunk *chunk)
{
	if (chunk->held || chunk->mappings)
		return;
	list_del(&chunk->at);
	if (tarvo_region.backing == TARVO_CMA_RAM)
		give_pages_back(chunk);
	kfree(chunk);
	chunk_count--;
	tarvo_unpin();
}

/*
 * With its size: after a refused request the library releases a name that it does not hold, or
 * that is held with another size by somebody else.
 */
int tarvo_chunk_release(const char *name, u64 size)
{
	struct tarvo_chunk *chunk = held_by_name(name);

	if (!chunk || chunk->size != size)
		return -ENOENT;
	chunk->held = false;
	free_unless_used(chunk);
	return 0;
}

void tarvo_chunk_get(struct tarvo_chunk *chunk)
{
	chunk->mappings++;
}

void tarvo_chunk_put(struct tarvo_chunk *chunk)
{
	chunk->mappings--;
	free_unless_used(chunk);
}

unsigned int tarvo_chunks_drop(void)
{
	struct tarvo_chunk *chunk, *next;
	unsigned int dropped = 0;

	list_for_each_entry_safe(chunk, next, &tarvo_chunks, at) {
		chunk->held = false;
		free_unless_used(chunk);
		dropped++;
	}
	return dropped;
}
