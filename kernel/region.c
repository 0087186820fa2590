// SPDX-License-Identifier: GPL-2.0
/*
 * Where the region lies. The administrator says so when the module is loaded, and everything that
 * libtarvo could not live with is refused here, with a sentence in the kernel's log:
 *
 * - The region is whole pages, and its size fits into 32 bits.
 * - Devices reach it at DMA addresses of 32 bits: at its physical addresses where it lies below
 *   4 GiB, from 0x20000000 on where it reaches above.
 * - Its memory is nobody else's. System RAM is the kernel's, and is lent to single chunks only:
 *   that takes a region called CMA. What is reserved has been RAM until the administrator reserved
 *   it, and is neither the firmware's nor a device's.
 */
#define pr_fmt(fmt) KBUILD_MODNAME ": " fmt

#include <linux/ioport.h>
#include <linux/kernel.h>
#include <linux/memory_hotplug.h>
#include <linux/mm.h>
#include <linux/module.h>
#include <linux/moduleparam.h>
#include <linux/pageblock-flags.h>
#include <linux/sizes.h>
#include <linux/string.h>

#ifdef CONFIG_X86
#include <asm/e820/api.h>
#endif

#include "tarvo.h"

#define HIGH_REGION_DMA 0x20000000ULL

static char *region;
module_param(region, charp, 0444);
MODULE_PARM_DESC(region, "SIZE@START of the region, as in 256M@0x80000000");

static char *name = "tarvo";
module_param(name, charp, 0444);
MODULE_PARM_DESC(name, "its name, one word; CMA: the driver hands out its memory");

struct tarvo_region tarvo_region;

/* Names the range in /proc/iomem. It is never claimed busy, or /dev/mem would refuse it. */
static struct resource resource = {
	.name = KBUILD_MODNAME,
	.flags = IORESOURCE_MEM,
};

bool tarvo_region_has(phys_addr_t start, phys_addr_t last)
{
	return tarvo_region.start <= start && start <= last && last <= tarvo_region.last;
}

static int refuse(const char *why)
{
	pr_err("region %s: %s\n", region, why);
	return -EINVAL;
}

static int read_region(void)
{
	u64 size, start;
	char *rest;

	if (!region) {
		pr_err("no region: load the module with region=SIZE@START, as in 256M@0x80000000\n");
		return -EINVAL;
	}
	size = memparse(region, &rest);
	if (*rest != '@')
		return refuse("not of the form SIZE@START, as in 256M@0x80000000");
	start = memparse(rest + 1, &rest);
	if (*rest != '\0')
		return refuse("not of the form SIZE@START, as in 256M@0x80000000");
	if (start == 0 || size == 0 || !PAGE_ALIGNED(start) || !PAGE_ALIGNED(size))
		return refuse("start and size must be whole pages, and not 0");
	if (size > U32_MAX)
		return refuse("it must be smaller than 4 GiB");
	if (start + size < start || start + size - 1 > PHYS_ADDR_MAX)
		return refuse("it ends above the highest address");
	tarvo_region.start = start;
	tarvo_region.last = start + size - 1;
	return 0;
}

static int check_name(void)
{
	if (!tarvo_is_name(name))
		return refuse("its name must be one word of at most 49 characters");
	tarvo_region.name = name;
	return 0;
}

static int check_dma(void)
{
	const u64 size = tarvo_region.last - tarvo_region.start + 1;

	/* The library takes the address after the last byte into account. */
	if (tarvo_region.last + 1 >= SZ_4G && HIGH_REGION_DMA + size > U32_MAX)
		return refuse("above 4 GiB it must be smaller than 3.5 GiB");
	return 0;
}

/* alloc_contig_range() takes pages of one zone. */
static bool in_one_zone(void)
{
	const unsigned long last = PHYS_PFN(tarvo_region.last);
	unsigned long pfn = PHYS_PFN(tarvo_region.start);
	struct page *first = pfn_to_online_page(pfn);

	for (; pfn <= last; pfn = ALIGN(pfn + 1, pageblock_nr_pages)) {
		struct page *page = pfn_to_online_page(pfn);

		if (!page || page_zone(page) != page_zone(first))
			return false;
	}
	return true;
}

#ifdef CONFIG_X86
static int add_size(struct resource *part, void *sum)
{
	*(u64 *)sum += resource_size(part);
	return 0;
}

/* All of it: region_intersects() would be content with a part, and nothing beside it. */
static bool is_reserved(u64 size)
{
	u64 reserved = 0;

	walk_iomem_res_desc(IORES_DESC_RESERVED, IORESOURCE_MEM, tarvo_region.start,
			    tarvo_region.last, &reserved, add_size);
	return reserved == size;
}

static bool was_ram_at(u64 address)
{
	return e820__mapped_raw_any(address, address + 1, E820_TYPE_RAM);
}

/* memmap= leaves the firmware's own map alone: what is reserved by it is still RAM there. */
static bool was_ram(void)
{
	u64 page;

	for (page = tarvo_region.start; page < tarvo_region.last; page += PAGE_SIZE) {
		if (!was_ram_at(page) || !was_ram_at(page + PAGE_SIZE - 1))
			return false;
	}
	return true;
}

static int check_reservation(u64 size)
{
	if (!is_reserved(size))
		return refuse("not all of it is reserved; boot with memmap=SIZE$START");
	if (!was_ram())
		return refuse("the firmware keeps part of it; choose RAM of /sys/firmware/memmap");
	return 0;
}
#else
/* Elsewhere there is no such map, and nothing says who reserved a range. */
static int check_reservation(u64 size)
{
	return 0;
}
#endif

static int check_backing(void)
{
	const bool cma = !strcmp(tarvo_region.name, "CMA");
	const u64 size = tarvo_region.last - tarvo_region.start + 1;

	switch (region_intersects(tarvo_region.start, size, IORESOURCE_SYSTEM_RAM,
				  IORES_DESC_NONE)) {
	case REGION_DISJOINT:
		tarvo_region.backing = cma ? TARVO_CMA_RESERVED : TARVO_PLAIN;
		return check_reservation(size);
	case REGION_INTERSECTS:
		if (!cma)
			return refuse("it is System RAM; use memmap=SIZE$START or name it CMA");
		if (!in_one_zone())
			return refuse("it is System RAM of several zones; choose one");
		tarvo_region.backing = TARVO_CMA_RAM;
		return 0;
	default:
		return refuse("part of it is System RAM; reserve all of it or nothing");
	}
}

int tarvo_region_init(void)
{
	int err = read_region();

	if (!err)
		err = check_name();
	if (!err)
		err = check_dma();
	if (!err)
		err = check_backing();
	if (err)
		return err;

	if (tarvo_region.backing != TARVO_CMA_RAM) {
		resource.start = tarvo_region.start;
		resource.end = tarvo_region.last;
		if (insert_resource(&iomem_resource, &resource))
			return refuse("a driver or device has it; see /proc/iomem");
	}
	pr_info("region %pa-%pa, %s\n", &tarvo_region.start, &tarvo_region.last,
		tarvo_region.name);
	return 0;
}

void tarvo_region_exit(void)
{
	if (tarvo_region.backing != TARVO_CMA_RAM)
		remove_resource(&resource);
}
