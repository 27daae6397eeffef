// SPDX-License-Identifier: GPL-2.0 OR MIT
/*
 * orna_vestra_kmod: the source of vestrad's trace. This file has the control node and the module;
 * docs/kernel-module.md has the whole picture.
 *
 *   node.c     /proc/vesertra_info, counts in sysfs, load and unload
 *   sampler.c  who ran, and the figures
 *   ring.c     frames that wait for a reader
 *   frame.c    the trace format;  command.c  what is written into the node
 */
#include <linux/fs.h>
#include <linux/module.h>
#include <linux/mutex.h>
#include <linux/proc_fs.h>
#include <linux/sysfs.h>
#include <linux/uaccess.h>
#include <linux/version.h>

#include "command.h"
#include "ring.h"
#include "sampler.h"

static const char node_name[] = "vesertra_info";

static unsigned int buffer_kib = 1024;
module_param(buffer_kib, uint, 0444);
MODULE_PARM_DESC(buffer_kib, "KiB of frames that wait for a reader, 16 to 65536");

static DEFINE_MUTEX(control_lock); /* guards the next three; held while tracing is switched */
static bool tracing;
static u64 writes;
static u64 refused;

static bool leaving; /* set once, when the module is unloaded */

/* ------------------------------ The node ------------------------------ */

static int node_open(struct inode *inode, struct file *file)
{
	return stream_open(inode, file);
}

/* A reader gets a turn each second, also without data, so that it sees when it has to stop. */
static ssize_t node_read(struct file *file, char __user *out, size_t count, loff_t *unused)
{
	if (vestra_ring_empty()) {
		long left;

		if (file->f_flags & O_NONBLOCK)
			return -EAGAIN;
		left = wait_event_interruptible_timeout(
			vestra_readers, !vestra_ring_empty() || READ_ONCE(leaving), HZ);
		if (left < 0)
			return left;
	}
	if (READ_ONCE(leaving))
		return -ENODEV;
	return vestra_ring_read(out, count);
}

static int switch_tracing(bool on)
{
	int result = 0;

	if (on == tracing)
		return 0;
	if (on) {
		result = vestra_sampler_start();
	} else {
		vestra_sampler_stop();
		vestra_ring_clear();
	}
	if (result == 0)
		tracing = on;
	return result;
}

static int apply(const struct vestra_command *command)
{
	if (command->kind == VESTRA_TRACING)
		return switch_tracing(command->value);
	vestra_sampler_apply(command);
	return 0;
}

static ssize_t node_write(struct file *file, const char __user *in, size_t count, loff_t *unused)
{
	struct vestra_command command;
	char text[VESTRA_COMMAND_MAX];
	bool known;
	int result = -EINVAL;

	if (count <= sizeof(text) && copy_from_user(text, in, count))
		return -EFAULT;
	known = count <= sizeof(text) && vestra_parse_command(text, count, &command);
	if (mutex_lock_interruptible(&control_lock))
		return -ERESTARTSYS;
	writes++;
	if (known)
		result = apply(&command);
	else
		refused++;
	mutex_unlock(&control_lock);
	return result == 0 ? (ssize_t)count : result;
}

/*
 * No poll: one that waits would leave its entry in vestra_readers, and remove_proc_entry waits for
 * calls only. When the poll ended after the module, it would write into memory that is gone.
 */
static const struct proc_ops node_ops = {
	.proc_open = node_open,
	.proc_read = node_read,
	.proc_write = node_write,
};

/* ------------------------------ Counts ------------------------------ */

/* Files in /sys/module/orna_vestra_kmod/counts. */

struct counts {
	u64 switches, samples, writes, refused;
	struct vestra_ring_counts frames;
};

struct count_file {
	struct module_attribute attribute;
	size_t offset; /* of its number in struct counts */
};

#if LINUX_VERSION_CODE >= KERNEL_VERSION(6, 14, 0)
static ssize_t show_count(const struct module_attribute *attribute, struct module_kobject *module,
			  char *out)
#else
static ssize_t show_count(struct module_attribute *attribute, struct module_kobject *module,
			  char *out)
#endif
{
	const struct count_file *file = container_of(attribute, struct count_file, attribute);
	struct counts counts;

	counts.switches = vestra_sampler_switches();
	counts.samples = vestra_sampler_samples();
	mutex_lock(&control_lock);
	counts.writes = writes;
	counts.refused = refused;
	mutex_unlock(&control_lock);
	vestra_ring_count(&counts.frames);
	return sysfs_emit(out, "%llu\n", *(const u64 *)((const char *)&counts + file->offset));
}

#define COUNT_FILE(name_, member)                                   \
	static struct count_file name_##_file = {                   \
		.attribute = __ATTR(name_, 0444, show_count, NULL), \
		.offset = offsetof(struct counts, member),          \
	}

COUNT_FILE(switches, switches);
COUNT_FILE(samples, samples);
COUNT_FILE(frames, frames.made);
COUNT_FILE(bytes, frames.made_bytes);
COUNT_FILE(frames_read, frames.read);
COUNT_FILE(frames_dropped, frames.dropped);
COUNT_FILE(frames_waiting, frames.waiting);
COUNT_FILE(blocks, frames.blocks);
COUNT_FILE(writes, writes);
COUNT_FILE(refused, refused);

static struct attribute *count_attributes[] = {
	&switches_file.attribute.attr,
	&samples_file.attribute.attr,
	&frames_file.attribute.attr,
	&bytes_file.attribute.attr,
	&frames_read_file.attribute.attr,
	&frames_dropped_file.attribute.attr,
	&frames_waiting_file.attribute.attr,
	&blocks_file.attribute.attr,
	&writes_file.attribute.attr,
	&refused_file.attribute.attr,
	NULL,
};

static const struct attribute_group count_group = {.name = "counts", .attrs = count_attributes};

/* ------------------------------ Load and unload ------------------------------ */

static int __init load(void)
{
	int result;

	if (buffer_kib < 16 || buffer_kib > 65536)
		return -EINVAL;
	result = vestra_ring_create((size_t)buffer_kib * 1024);
	if (result)
		return result;
	result = vestra_sampler_create();
	if (result)
		goto destroy_ring;
	result = sysfs_create_group(&THIS_MODULE->mkobj.kobj, &count_group);
	if (result)
		goto destroy_sampler;
	if (proc_create(node_name, 0600, NULL, &node_ops))
		return 0;
	result = -ENOMEM;
	sysfs_remove_group(&THIS_MODULE->mkobj.kobj, &count_group);
destroy_sampler:
	vestra_sampler_destroy();
destroy_ring:
	vestra_ring_destroy();
	return result;
}

/*
 * The node may be open, read and written. remove_proc_entry waits for calls that are in progress, and
 * none comes after it.
 */
static void __exit unload(void)
{
	WRITE_ONCE(leaving, true);
	wake_up_all(&vestra_readers);
	remove_proc_entry(node_name, NULL);
	sysfs_remove_group(&THIS_MODULE->mkobj.kobj, &count_group);
	mutex_lock(&control_lock);
	switch_tracing(false);
	mutex_unlock(&control_lock);
	vestra_sampler_destroy();
	vestra_ring_destroy();
}

module_init(load);
module_exit(unload);

MODULE_LICENSE("Dual MIT/GPL");
MODULE_DESCRIPTION("Samples processes, CPUs and memory for vestrad");
MODULE_VERSION("1");
