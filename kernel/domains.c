// SPDX-License-Identifier: GPL-2.0
/*
 * What each device can reach. The IOMMU tells devices apart by groups, and so a domain (a table of
 * DMA addresses) belongs to a group: the driver owns the DMA of all its devices from the first
 * mapping to the last one. No device of the group may have a driver of its own, and none gets one
 * meanwhile, because the tables of two masters would contradict each other.
 *
 * Before the first mapping and after the last one, a device without a driver reaches what the
 * kernel has chosen for it: nothing, or, where it was booted with iommu=pt, all memory.
 */
#define pr_fmt(fmt) KBUILD_MODNAME ": " fmt

#include <linux/interval_tree.h>
#include <linux/iommu.h>
#include <linux/kernel.h>
#include <linux/notifier.h>
#include <linux/pci.h>
#include <linux/slab.h>
#include <linux/version.h>

#include "tarvo.h"

struct tarvo_domain {
	struct list_head at;			/* in domains */
	struct iommu_group *group;
	struct iommu_domain *iommu;
	struct list_head reserved;		/* DMA addresses that no mapping may touch */
	struct rb_root_cached mappings;		/* by DMA address */
};

/* Devices of one group that map the same range have one each; the IOMMU has one entry. */
struct tarvo_mapping {
	struct interval_tree_node dma;
	phys_addr_t start;
	int prot;
	struct pci_dev *pdev;			/* forgotten when it leaves its bus */
	struct tarvo_chunk *chunk;		/* of a region called CMA; NULL elsewhere */
};

static LIST_HEAD(domains);

#if LINUX_VERSION_CODE < KERNEL_VERSION(6, 11, 0)
static struct iommu_domain *iommu_paging_domain_alloc(struct device *dev)
{
	return iommu_domain_alloc(dev->bus) ?: ERR_PTR(-ENOMEM);
}
#endif

static int enter(struct tarvo_domain *domain, const struct tarvo_range *range, int prot)
{
#if LINUX_VERSION_CODE < KERNEL_VERSION(6, 3, 0)
	return iommu_map(domain->iommu, range->dma, range->start, range->size, prot);
#else
	return iommu_map(domain->iommu, range->dma, range->start, range->size, prot, GFP_KERNEL);
#endif
}

/* --- domains --- */

static struct tarvo_domain *domain_of(struct iommu_group *group)
{
	struct tarvo_domain *domain;

	list_for_each_entry(domain, &domains, at) {
		if (domain->group == group)
			return domain;
	}
	return NULL;
}

static void forget_reserved(struct tarvo_domain *domain)
{
	struct iommu_resv_region *reserved, *next;

	list_for_each_entry_safe(reserved, next, &domain->reserved, list)
		kfree(reserved);
}

/* Not the addresses of interrupts, nor those that the IOMMU cannot translate. */
static bool can_be_mapped(const struct tarvo_domain *domain, u64 first, u64 last)
{
	const struct iommu_domain_geometry *geometry = &domain->iommu->geometry;
	const struct iommu_resv_region *reserved;

	if (geometry->force_aperture &&
	    (first < geometry->aperture_start || last > geometry->aperture_end))
		return false;
	list_for_each_entry(reserved, &domain->reserved, list) {
		if (reserved->type != IOMMU_RESV_DIRECT_RELAXABLE &&
		    first < reserved->start + reserved->length && reserved->start <= last)
			return false;
	}
	return true;
}

/* Firmware that has the device write to memory of its own needs that memory mapped for ever. */
static bool firmware_uses(const struct tarvo_domain *domain)
{
	const struct iommu_resv_region *reserved;

	list_for_each_entry(reserved, &domain->reserved, list) {
		if (reserved->type == IOMMU_RESV_DIRECT)
			return true;
	}
	return false;
}

static int attach(struct tarvo_domain *domain)
{
	int err;

	if (iommu_group_claim_dma_owner(domain->group, &domains))
		return -EBUSY;
	err = iommu_attach_group(domain->iommu, domain->group);
	if (err)
		iommu_group_release_dma_owner(domain->group);
	return err;
}

static int set_up(struct tarvo_domain *domain, struct pci_dev *pdev)
{
	int err = iommu_get_group_resv_regions(domain->group, &domain->reserved);

	if (err)
		return err;
	if (firmware_uses(domain)) {
		pci_err(pdev, "tarvo: the firmware uses this device\n");
		return -EBUSY;
	}
	domain->iommu = iommu_paging_domain_alloc(&pdev->dev);
	if (IS_ERR(domain->iommu))
		return PTR_ERR(domain->iommu);
	err = attach(domain);
	if (err)
		iommu_domain_free(domain->iommu);
	return err;
}

/* Takes over the reference to the group if it succeeds. */
static struct tarvo_domain *new_domain(struct iommu_group *group, struct pci_dev *pdev)
{
	struct tarvo_domain *domain = kzalloc(sizeof(*domain), GFP_KERNEL);
	int err;

	if (!domain)
		return ERR_PTR(-ENOMEM);
	domain->group = group;
	domain->mappings = RB_ROOT_CACHED;
	INIT_LIST_HEAD(&domain->reserved);
	err = set_up(domain, pdev);
	if (err) {
		forget_reserved(domain);
		kfree(domain);
		return ERR_PTR(err);
	}
	list_add(&domain->at, &domains);
	return domain;
}

static void drop_unless_used(struct tarvo_domain *domain)
{
	if (!RB_EMPTY_ROOT(&domain->mappings.rb_root))
		return;
	list_del(&domain->at);
	iommu_detach_group(domain->iommu, domain->group);
	iommu_group_release_dma_owner(domain->group);
	iommu_domain_free(domain->iommu);
	iommu_group_put(domain->group);
	forget_reserved(domain);
	kfree(domain);
}

/* --- mappings --- */

static struct tarvo_mapping *mapping_of(struct interval_tree_node *node)
{
	return node ? container_of(node, struct tarvo_mapping, dma) : NULL;
}

static struct tarvo_mapping *first_in(struct tarvo_domain *domain, u64 first, u64 last)
{
	return mapping_of(interval_tree_iter_first(&domain->mappings, first, last));
}

static struct tarvo_mapping *next_in(struct tarvo_mapping *mapping, u64 first, u64 last)
{
	return mapping_of(interval_tree_iter_next(&mapping->dma, first, last));
}

static u64 last_of(const struct tarvo_range *range)
{
	return range->dma + range->size - 1;
}

static bool is_range(const struct tarvo_mapping *mapping, const struct tarvo_range *range)
{
	return mapping->start == range->start && mapping->dma.start == range->dma &&
	       mapping->dma.last == last_of(range);
}

/* How many devices of the group map exactly this range. */
static unsigned int sharers(struct tarvo_domain *domain, const struct tarvo_range *range)
{
	struct tarvo_mapping *mapping = first_in(domain, range->dma, last_of(range));
	unsigned int count = 0;

	for (; mapping; mapping = next_in(mapping, range->dma, last_of(range)))
		count += is_range(mapping, range);
	return count;
}

static struct tarvo_mapping *find(struct tarvo_domain *domain, const struct pci_dev *pdev,
				  const struct tarvo_range *range)
{
	struct tarvo_mapping *mapping = first_in(domain, range->dma, last_of(range));

	while (mapping && (mapping->pdev != pdev || !is_range(mapping, range)))
		mapping = next_in(mapping, range->dma, last_of(range));
	return mapping;
}

/* Whether something else lies there, or the same with another protection. */
static bool contradicts(struct tarvo_domain *domain, const struct tarvo_range *range, int prot)
{
	struct tarvo_mapping *mapping = first_in(domain, range->dma, last_of(range));

	for (; mapping; mapping = next_in(mapping, range->dma, last_of(range))) {
		if (!is_range(mapping, range) || mapping->prot != prot)
			return true;
	}
	return false;
}

/* A chunk that a device reaches is not given to others, even after it is released. */
static int find_chunk(struct tarvo_mapping *mapping, const struct tarvo_range *range)
{
	if (tarvo_region.backing != TARVO_PLAIN)
		mapping->chunk = tarvo_chunk_at(range->start, range->start + range->size - 1);
	return tarvo_region.backing == TARVO_CMA_RAM && !mapping->chunk ? -EINVAL : 0;
}

static int enter_once(struct tarvo_domain *domain, struct pci_dev *pdev,
		      const struct tarvo_range *range, int prot)
{
	if (sharers(domain, range))
		return 0;
	if (device_iommu_capable(&pdev->dev, IOMMU_CAP_CACHE_COHERENCY))
		prot |= IOMMU_CACHE;
	return enter(domain, range, prot);
}

static int add_mapping(struct tarvo_domain *domain, struct pci_dev *pdev,
		       const struct tarvo_range *range, int prot)
{
	struct tarvo_mapping *mapping = kzalloc(sizeof(*mapping), GFP_KERNEL);
	int err;

	if (!mapping)
		return -ENOMEM;
	mapping->pdev = pdev;
	mapping->prot = prot;
	mapping->start = range->start;
	mapping->dma.start = range->dma;
	mapping->dma.last = last_of(range);
	err = find_chunk(mapping, range);
	if (!err)
		err = enter_once(domain, pdev, range, prot);
	if (err) {
		kfree(mapping);
		return err;
	}
	if (mapping->chunk)
		tarvo_chunk_get(mapping->chunk);
	interval_tree_insert(&mapping->dma, &domain->mappings);
	return 0;
}

static void remove_mapping(struct tarvo_domain *domain, struct tarvo_mapping *mapping)
{
	const struct tarvo_range range = {
		.start = mapping->start,
		.dma = mapping->dma.start,
		.size = mapping->dma.last - mapping->dma.start + 1,
	};

	interval_tree_remove(&mapping->dma, &domain->mappings);
	if (!sharers(domain, &range))
		WARN_ON(iommu_unmap(domain->iommu, range.dma, range.size) != range.size);
	if (mapping->chunk)
		tarvo_chunk_put(mapping->chunk);
	kfree(mapping);
	tarvo_unpin();
}

static int map_in(struct tarvo_domain *domain, struct pci_dev *pdev,
		  const struct tarvo_range *range, int prot)
{
	int err;

	if (!can_be_mapped(domain, range->dma, last_of(range)))
		return -EINVAL;
	if (contradicts(domain, range, prot))
		return -EEXIST;
	/* A device that is registered again asks for what it has. */
	if (find(domain, pdev, range))
		return 0;
	err = tarvo_pin();
	if (err)
		return err;
	err = add_mapping(domain, pdev, range, prot);
	if (err)
		tarvo_unpin();
	return err;
}

/* To the library these say that the device is gone, or that no IOMMU holds it back. */
static int refusal(int err)
{
	return err == -ENODEV || err == -EUNATCH || err == -ENOSYS ? -EIO : err;
}

int tarvo_map(struct pci_dev *pdev, const struct tarvo_range *range, int prot)
{
	struct iommu_group *group = iommu_group_get(&pdev->dev);
	struct tarvo_domain *domain;
	int err;

	if (!group)
		return -ENOSYS;
	domain = domain_of(group);
	if (domain) {
		iommu_group_put(group);
	} else {
		domain = new_domain(group, pdev);
		if (IS_ERR(domain)) {
			iommu_group_put(group);
			return refusal(PTR_ERR(domain));
		}
	}
	err = map_in(domain, pdev, range, prot);
	drop_unless_used(domain);
	return refusal(err);
}

int tarvo_unmap(struct pci_dev *pdev, const struct tarvo_range *range)
{
	struct iommu_group *group = iommu_group_get(&pdev->dev);
	struct tarvo_domain *domain;
	struct tarvo_mapping *mapping;

	if (!group)
		return -ENOSYS;
	domain = domain_of(group);
	iommu_group_put(group);
	mapping = domain ? find(domain, pdev, range) : NULL;
	if (!mapping)
		return -ENOENT;
	remove_mapping(domain, mapping);
	drop_unless_used(domain);
	return 0;
}

/* All of them, or those of one device. */
static unsigned int remove_mappings(struct tarvo_domain *domain, const struct pci_dev *pdev)
{
	struct tarvo_mapping *mapping = first_in(domain, 0, ULONG_MAX);
	unsigned int removed = 0;

	while (mapping) {
		struct tarvo_mapping *next = next_in(mapping, 0, ULONG_MAX);

		if (!pdev || mapping->pdev == pdev) {
			remove_mapping(domain, mapping);
			removed++;
		}
		mapping = next;
	}
	drop_unless_used(domain);
	return removed;
}

void tarvo_unmap_device(const struct pci_dev *pdev)
{
	struct tarvo_domain *domain, *next;

	list_for_each_entry_safe(domain, next, &domains, at)
		remove_mappings(domain, pdev);
}

static unsigned int remove_all(void)
{
	struct tarvo_domain *domain, *next;
	unsigned int removed = 0;

	list_for_each_entry_safe(domain, next, &domains, at)
		removed += remove_mappings(domain, NULL);
	return removed;
}

/* --- devices that leave --- */

/* Before the IOMMU forgets the device: its group has to be free of owners by then. */
static int device_leaves(struct notifier_block *block, unsigned long action, void *data)
{
	if (action != BUS_NOTIFY_DEL_DEVICE)
		return NOTIFY_DONE;
	mutex_lock(&tarvo_lock);
	tarvo_unmap_device(to_pci_dev(data));
	mutex_unlock(&tarvo_lock);
	return NOTIFY_OK;
}

static struct notifier_block departures = {
	.notifier_call = device_leaves,
};

int tarvo_domains_init(void)
{
	return bus_register_notifier(&pci_bus_type, &departures);
}

/* No file takes requests any more. A device that leaves is noticed until nothing is mapped. */
void tarvo_domains_exit(void)
{
	unsigned int mappings, chunks;

	mutex_lock(&tarvo_lock);
	mappings = remove_all();
	chunks = tarvo_chunks_drop();
	mutex_unlock(&tarvo_lock);
	bus_unregister_notifier(&pci_bus_type, &departures);
	if (mappings || chunks)
		pr_warn("unloaded by force: %u mappings and %u chunks removed\n", mappings, chunks);
}
