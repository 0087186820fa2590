// SPDX-License-Identifier: GPL-2.0
/*
 * /proc/tarvo. Read: the line that says where the region lies, and after it a line for each chunk
 * that the driver has handed out. Written, in a region called CMA: "a NAME SIZE" and
 * "r NAME SIZE", the size in hexadecimal.
 */
#include <linux/fs.h>
#include <linux/mm.h>
#include <linux/module.h>
#include <linux/proc_fs.h>
#include <linux/seq_file.h>
#include <linux/string.h>
#include <linux/uaccess.h>

#include "tarvo.h"

#define LISTING "tarvo"

/* The head of the list stands for the region's line. */
static void *listing_start(struct seq_file *seq, loff_t *pos)
{
	mutex_lock(&tarvo_lock);
	return seq_list_start_head(&tarvo_chunks, *pos);
}

static void *listing_next(struct seq_file *seq, void *at, loff_t *pos)
{
	return seq_list_next(at, &tarvo_chunks, pos);
}

static void listing_stop(struct seq_file *seq, void *at)
{
	mutex_unlock(&tarvo_lock);
}

static int listing_show(struct seq_file *seq, void *at)
{
	const struct tarvo_chunk *chunk = list_entry(at, struct tarvo_chunk, at);

	if (at == &tarvo_chunks)
		seq_printf(seq, "%llx\t%llx\t0\t%s\n", (u64)tarvo_region.start,
			   (u64)tarvo_region.last, tarvo_region.name);
	else if (chunk->held)
		seq_printf(seq, "%s\t%llx\t%llx\n", chunk->name, (u64)chunk->start, chunk->size);
	return 0;
}

static const struct seq_operations listing_lines = {
	.start = listing_start,
	.next = listing_next,
	.stop = listing_stop,
	.show = listing_show,
};

static int listing_open(struct inode *inode, struct file *file)
{
	return seq_open(file, &listing_lines);
}

static int carry_out(char *line)
{
	char *fields[3];
	u64 size;
	int err = -EINVAL;

	if (tarvo_fields(line, fields, ARRAY_SIZE(fields)) || !tarvo_is_name(fields[1]))
		return -EINVAL;
	if (tarvo_u64(fields[2], 16, &size) || size == 0 || !PAGE_ALIGNED(size))
		return -EINVAL;
	mutex_lock(&tarvo_lock);
	if (!strcmp(fields[0], "a"))
		err = tarvo_chunk_allocate(fields[1], size);
	else if (!strcmp(fields[0], "r"))
		err = tarvo_chunk_release(fields[1], size);
	mutex_unlock(&tarvo_lock);
	return err;
}

static ssize_t listing_write(struct file *file, const char __user *bytes, size_t count,
			     loff_t *pos)
{
	char line[TARVO_LINE_BYTES];
	int err;

	if (tarvo_region.backing == TARVO_PLAIN || count > sizeof(line))
		return -EINVAL;
	if (copy_from_user(line, bytes, count))
		return -EFAULT;
	err = tarvo_one_line(line, count);
	if (!err)
		err = carry_out(line);
	return err ?: count;
}

static const struct proc_ops listing_ops = {
	.proc_open = listing_open,
	.proc_read = seq_read,
	.proc_lseek = seq_lseek,
	.proc_release = seq_release,
	.proc_write = listing_write,
};

int tarvo_listing_init(void)
{
	return proc_create(LISTING, 0644, NULL, &listing_ops) ? 0 : -ENOMEM;
}

void tarvo_listing_exit(void)
{
	remove_proc_entry(LISTING, NULL);
}
