// SPDX-License-Identifier: GPL-2.0
/*
 * /dev/tarvo_mem: the region, and no other memory, at offsets that are physical addresses, as in
 * /dev/mem. Bound over /dev/mem it serves the library where that cannot be opened (a locked-down
 * kernel) or refuses the range (System RAM).
 */
#include <linux/fs.h>
#include <linux/miscdevice.h>
#include <linux/mm.h>
#include <linux/module.h>
#include <linux/version.h>

#include "tarvo.h"

#if LINUX_VERSION_CODE < KERNEL_VERSION(6, 3, 0)
static void vm_flags_set(struct vm_area_struct *vma, vm_flags_t flags)
{
	vma->vm_flags |= flags;
}
#endif

/*
 * Memory that the kernel lends appears page by page, and only where a chunk is. The mapping holds
 * each page that it has seen: a page goes back to the kernel when the last one lets go of it.
 */
static vm_fault_t lent_fault(struct vm_fault *vmf)
{
	const phys_addr_t at = PFN_PHYS((phys_addr_t)vmf->pgoff);
	vm_fault_t result = VM_FAULT_SIGBUS;

	mutex_lock(&tarvo_lock);
	if (tarvo_chunk_at(at, at)) {
		vmf->page = pfn_to_page(vmf->pgoff);
		get_page(vmf->page);
		result = 0;
	}
	mutex_unlock(&tarvo_lock);
	return result;
}

static const struct vm_operations_struct lent_ops = {
	.fault = lent_fault,
};

static int memory_mmap(struct file *file, struct vm_area_struct *vma)
{
	const unsigned long pages = vma_pages(vma);
	const unsigned long last_page = PHYS_PFN(tarvo_region.last);

	if (vma->vm_pgoff < PHYS_PFN(tarvo_region.start) || vma->vm_pgoff > last_page ||
	    pages - 1 > last_page - vma->vm_pgoff)
		return -EINVAL;
	/*
	 * A private copy of memory that a device writes shows nothing of what it writes. VM_SHARED
	 * is missing from shared mappings, too, where the device was opened for reading alone.
	 */
	if (!(vma->vm_flags & VM_MAYSHARE))
		return -EINVAL;
	if (tarvo_region.backing == TARVO_CMA_RAM) {
		vm_flags_set(vma, VM_DONTEXPAND | VM_DONTDUMP);
		vma->vm_ops = &lent_ops;
		return 0;
	}
	return remap_pfn_range(vma, vma->vm_start, vma->vm_pgoff, PFN_PHYS(pages),
			       vma->vm_page_prot);
}

static const struct file_operations memory_ops = {
	.owner = THIS_MODULE,
	.mmap = memory_mmap,
	.llseek = noop_llseek,
};

static struct miscdevice memory_device = {
	.minor = MISC_DYNAMIC_MINOR,
	.name = "tarvo_mem",
	.fops = &memory_ops,
	.mode = 0600,
};

int tarvo_memory_init(void)
{
	return misc_register(&memory_device);
}

void tarvo_memory_exit(void)
{
	misc_deregister(&memory_device);
}
