// SPDX-License-Identifier: GPL-2.0
/*
 * /sys/kernel/tarvo_iommu_map_region: one line for one range and one device,
 *
 *	map|unmap DOMAIN BUS DEVFN FIRST LAST DMA PROT
 *
 * all numbers decimal, and the error of the write is the answer:
 *
 *	EINVAL	 not such a line, or no range of this region
 *	ENODEV	 no such device
 *	ENOSYS	 no IOMMU holds this device back
 *	EUNATCH	 the device is listed, but does not answer; nothing is mapped for it any more
 *	EBUSY	 the device, or another of its IOMMU group, has a driver
 *	EEXIST	 something else is mapped at these DMA addresses
 *	ENOENT	 to unmap: not mapped
 */
#include <linux/delay.h>
#include <linux/kernel.h>
#include <linux/kobject.h>
#include <linux/mm.h>
#include <linux/pci.h>
#include <linux/pm_runtime.h>
#include <linux/string.h>
#include <linux/sysfs.h>

#include "tarvo.h"

#define READ_AND_WRITE 3

struct request {
	bool map;
	u32 domain;
	u32 bus;
	u32 devfn;
	u32 prot;
	struct tarvo_range range;
};

static int read_operation(const char *word, bool *map)
{
	*map = !strcmp(word, "map");
	return *map || !strcmp(word, "unmap") ? 0 : -EINVAL;
}

/*
 * Requests for a chunk end a byte early, those for the whole region with its last byte. Both mean
 * whole pages.
 */
static int read_range(char **fields, struct tarvo_range *range)
{
	u64 first, last;
	u32 dma;

	if (tarvo_u64(fields[0], 10, &first) || tarvo_u64(fields[1], 10, &last) ||
	    tarvo_u32(fields[2], &dma))
		return -EINVAL;
	if (!PAGE_ALIGNED(first) || !PAGE_ALIGNED(dma) || !tarvo_region_has(first, last))
		return -EINVAL;
	range->start = first;
	range->size = PAGE_ALIGN(last + 1) - first;
	range->dma = dma;
	return range->dma + range->size - 1 > U32_MAX ? -EINVAL : 0;
}

static int read_request(char *line, struct request *request)
{
	char *fields[8];

	if (tarvo_fields(line, fields, ARRAY_SIZE(fields)) ||
	    read_operation(fields[0], &request->map) ||
	    tarvo_s32(fields[1], &request->domain) || tarvo_s32(fields[2], &request->bus) ||
	    tarvo_s32(fields[3], &request->devfn) || tarvo_s32(fields[7], &request->prot))
		return -EINVAL;
	/* Requests to unmap carry any protection. */
	if (request->map && (request->prot == 0 || request->prot > READ_AND_WRITE))
		return -EINVAL;
	return read_range(fields + 4, &request->range);
}

static struct pci_dev *find_device(const struct request *request)
{
	if (request->domain > S32_MAX || request->bus > U8_MAX || request->devfn > U8_MAX)
		return NULL;
	return pci_get_domain_bus_and_slot(request->domain, request->bus, request->devfn);
}

/* One that sleeps is woken to be asked. */
static bool answers(struct pci_dev *pdev)
{
	bool present;

	pm_runtime_get_sync(&pdev->dev);
	present = pci_device_is_present(pdev);
	pm_runtime_put(&pdev->dev);
	return present;
}

/* Called with tarvo_lock held. */
static int map_or_unmap(struct pci_dev *pdev, const struct request *request, bool gone)
{
	if (!request->map)
		return tarvo_unmap(pdev, &request->range);
	if (!gone)
		return tarvo_map(pdev, &request->range, request->prot);
	/* From this answer on the library asks for nothing, and would never have them unmapped. */
	tarvo_unmap_device(pdev);
	return -EUNATCH;
}

static int ask_for(struct pci_dev *pdev, const struct request *request)
{
	int err = tarvo_introduce(pdev);
	bool gone;

	if (err)
		return err;
	/* What cannot be reached can still lose its mappings, and has to. */
	gone = request->map && device_iommu_mapped(&pdev->dev) && !answers(pdev);
	mutex_lock(&tarvo_lock);
	err = map_or_unmap(pdev, request, gone);
	mutex_unlock(&tarvo_lock);
	return err;
}

/*
 * Virtual functions come and go under the lock of their physical one, too. Some kernels take that
 * before the lock of the buses and some after it, so it is only tried for.
 */
static bool try_to_keep(struct pci_dev *pdev)
{
	return !pdev->is_virtfn || device_trylock(&pci_physfn(pdev)->dev);
}

/* Nobody takes the device away from now on. NULL: there is none. */
static struct pci_dev *keep_device(const struct request *request)
{
	struct pci_dev *pdev;

	pci_lock_rescan_remove();
	while ((pdev = find_device(request)) && !try_to_keep(pdev)) {
		pci_dev_put(pdev);
		pci_unlock_rescan_remove();
		usleep_range(1000, 2000);
		pci_lock_rescan_remove();
	}
	return pdev;
}

static void let_go(struct pci_dev *pdev)
{
	if (pdev && pdev->is_virtfn)
		device_unlock(&pci_physfn(pdev)->dev);
	pci_dev_put(pdev);
	pci_unlock_rescan_remove();
}

static int carry_out(const struct request *request)
{
	struct pci_dev *pdev = keep_device(request);
	int err = -ENODEV;

	/* A virtual function may have gone after it was found. */
	if (pdev && device_is_registered(&pdev->dev))
		err = ask_for(pdev, request);
	let_go(pdev);
	return err;
}

static ssize_t request_store(struct kobject *kobj, struct kobj_attribute *attribute,
			     const char *bytes, size_t count)
{
	char line[TARVO_LINE_BYTES];
	struct request request;
	int err;

	if (count > sizeof(line))
		return -EINVAL;
	memcpy(line, bytes, count);
	err = tarvo_one_line(line, count);
	if (!err)
		err = read_request(line, &request);
	if (!err)
		err = carry_out(&request);
	return err ?: count;
}

static struct kobj_attribute request_file =
	__ATTR(tarvo_iommu_map_region, 0200, NULL, request_store);

int tarvo_requests_init(void)
{
	return sysfs_create_file(kernel_kobj, &request_file.attr);
}

void tarvo_requests_exit(void)
{
	sysfs_remove_file(kernel_kobj, &request_file.attr);
}
