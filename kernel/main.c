// SPDX-License-Identifier: GPL-2.0
/*
 * tarvo: the kernel's side of libtarvo. This file starts and stops the parts, and decides when the
 * module may be unloaded.
 */
#define pr_fmt(fmt) KBUILD_MODNAME ": " fmt

#include <linux/kernel.h>
#include <linux/module.h>
#include <linux/moduleparam.h>
#include <linux/version.h>

#include "tarvo.h"

/* Some functions take other values elsewhere, and no compiler notices. */
#if LINUX_VERSION_CODE < KERNEL_VERSION(6, 1, 0) || LINUX_VERSION_CODE >= KERNEL_VERSION(6, 17, 0)
#error "the driver is for kernels 6.1 to 6.16"
#endif

DEFINE_MUTEX(tarvo_lock); /* see tarvo.h */

/* Chunks and mappings together. */
static unsigned long standing;
static bool force;

int tarvo_pin(void)
{
	if (standing == 0 && !force && !try_module_get(THIS_MODULE))
		return -EBUSY;
	standing++;
	return 0;
}

void tarvo_unpin(void)
{
	standing--;
	if (standing == 0 && !force)
		module_put(THIS_MODULE);
}

static int set_force(const char *text, const struct kernel_param *param)
{
	bool wanted;
	int err = kstrtobool(text, &wanted);

	if (err)
		return err;
	mutex_lock(&tarvo_lock);
	if (standing && wanted && !force)
		module_put(THIS_MODULE);
	if (standing && !wanted && force)
		__module_get(THIS_MODULE);
	force = wanted;
	mutex_unlock(&tarvo_lock);
	return 0;
}

static const struct kernel_param_ops force_ops = {
	.set = set_force,
	.get = param_get_bool,
};
module_param_cb(force, &force_ops, &force, 0600);
MODULE_PARM_DESC(force, "Y: the module can be unloaded whatever is mapped or allocated");

/*
 * In this order, so that whoever sees /proc/tarvo finds the rest as well; the library looks for it
 * first.
 */
static const struct {
	int (*init)(void);
	void (*exit)(void);
} parts[] = {
	{ tarvo_region_init, tarvo_region_exit },
	{ tarvo_domains_init, tarvo_domains_exit },
	{ tarvo_memory_init, tarvo_memory_exit },
	{ tarvo_requests_init, tarvo_requests_exit },
	{ tarvo_listing_init, tarvo_listing_exit },
};

/* The first so many parts, the last one first. */
static void stop_parts(size_t count)
{
	while (count > 0)
		parts[--count].exit();
}

static int __init tarvo_init(void)
{
	size_t i;

	for (i = 0; i < ARRAY_SIZE(parts); i++) {
		int err = parts[i].init();

		if (err) {
			stop_parts(i);
			return err;
		}
	}
	return 0;
}
module_init(tarvo_init);

/* The last user may still be writing when this begins; no file is left once the parts stop. */
static void __exit tarvo_exit(void)
{
	stop_parts(ARRAY_SIZE(parts));
}
module_exit(tarvo_exit);

MODULE_DESCRIPTION("Region, contiguous memory and IOMMU requests of libtarvo");
MODULE_LICENSE("GPL");
