/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The driver's own interface: what each of its files offers to the others. README.md says what
 * the driver offers to libtarvo.
 */
#ifndef TARVO_H
#define TARVO_H

#include <linux/list.h>
#include <linux/mutex.h>
#include <linux/types.h>

struct file;
struct page;
struct pci_dev;
struct seq_file;

/* Longer than the longest line of either file: 107 bytes for the IOMMU, 61 for a command. */
#define TARVO_LINE_BYTES 128
/* The library's names have 49 characters at most. */
#define TARVO_NAME_BYTES 50

/* --- main.c: the module itself --- */

/*
 * Guards chunks, domains and mappings. It is taken in page faults: whoever holds it touches no
 * user memory.
 */
extern struct mutex tarvo_lock;

/*
 * What stands (a chunk, a mapping) keeps the module loaded, unless its parameter "force" is set.
 * Called with tarvo_lock held. tarvo_pin() is -EBUSY when the module is being unloaded.
 */
int tarvo_pin(void);
void tarvo_unpin(void);

/* --- region.c: where the region lies, and what it is made of --- */

enum tarvo_backing {
	TARVO_PLAIN,		/* reserved memory; the library places the chunks */
	TARVO_CMA_RESERVED,	/* reserved memory; the driver places them */
	TARVO_CMA_RAM,		/* the kernel's own memory, lent to chunks */
};

struct tarvo_region {
	phys_addr_t start;
	phys_addr_t last;
	const char *name;
	enum tarvo_backing backing;
};

extern struct tarvo_region tarvo_region;

int tarvo_region_init(void);
void tarvo_region_exit(void);
bool tarvo_region_has(phys_addr_t start, phys_addr_t last);

/* --- chunks.c: the memory that a region called CMA has handed out --- */

struct tarvo_chunk {
	struct list_head at;	/* in tarvo_chunks */
	char name[TARVO_NAME_BYTES];
	phys_addr_t start;
	u64 size;		/* whole pages */
	bool held;		/* listed; false once it is released */
	unsigned int mappings;	/* for devices; while there are any, the memory is not free */
};

/* In ascending address, those included that are released and not yet free. */
extern struct list_head tarvo_chunks;

int tarvo_chunk_allocate(const char *name, u64 size);
int tarvo_chunk_release(const char *name, u64 size);
/* The held chunk that all these bytes belong to; NULL if there is none. */
struct tarvo_chunk *tarvo_chunk_at(phys_addr_t start, phys_addr_t last);
void tarvo_chunk_get(struct tarvo_chunk *chunk);
void tarvo_chunk_put(struct tarvo_chunk *chunk);
/* At unload: releases all chunks, and says how many there were. */
unsigned int tarvo_chunks_drop(void);

/* --- listing.c: /proc/tarvo --- */

int tarvo_listing_init(void);
void tarvo_listing_exit(void);

/* --- memory.c: /dev/tarvo_mem --- */

int tarvo_memory_init(void);
void tarvo_memory_exit(void);

/* --- domains.c: what each device's IOMMU maps --- */

/* Whole pages, of physical memory and of DMA addresses. */
struct tarvo_range {
	phys_addr_t start;
	u64 size;
	u64 dma;
};

int tarvo_domains_init(void);
void tarvo_domains_exit(void);
/* Both are called with tarvo_lock held, and with the PCI buses locked against removals. */
int tarvo_map(struct pci_dev *pdev, const struct tarvo_range *range, int prot);
int tarvo_unmap(struct pci_dev *pdev, const struct tarvo_range *range);
/* All that is mapped for a device. Called with tarvo_lock held. */
void tarvo_unmap_device(const struct pci_dev *pdev);

/* --- introduce.c: devices that the IOMMU does not know yet --- */

/* Called with the PCI buses locked against removals. */
int tarvo_introduce(struct pci_dev *pdev);

/* --- requests.c: /sys/kernel/tarvo_iommu_map_region --- */

int tarvo_requests_init(void);
void tarvo_requests_exit(void);

/* --- text.c: lines, fields and numbers --- */

/* Checks that the bytes are one whole line, and replaces its newline by the end of the text. */
int tarvo_one_line(char *bytes, size_t count);
/* Divides a line at its single blanks; -EINVAL unless it has exactly that many fields. */
int tarvo_fields(char *line, char **fields, unsigned int count);
int tarvo_u64(const char *field, unsigned int base, u64 *value);
int tarvo_u32(const char *field, u32 *value);
/* A number of 32 bits that is written as a signed one. */
int tarvo_s32(const char *field, u32 *value);
/* Whether a text can stand in a line of the listing as the name of a chunk or of the region. */
bool tarvo_is_name(const char *text);

#endif
