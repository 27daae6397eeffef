// SPDX-License-Identifier: GPL-2.0 OR MIT
#include "ring.h"

#include <linux/minmax.h>
#include <linux/mm.h>
#include <linux/mutex.h>
#include <linux/uaccess.h>

#include "frame.h"

static DEFINE_MUTEX(ring_lock); /* guards everything below */
static u8 *ring;
static size_t ring_size; /* bytes */
static size_t oldest;	 /* offset of the oldest record; it may go on at offset 0 */
static size_t used;	 /* bytes of all records */
static struct vestra_ring_counts count;

int vestra_ring_create(size_t capacity)
{
	ring = kvmalloc(capacity, GFP_KERNEL);
	ring_size = capacity;
	return ring ? 0 : -ENOMEM;
}

void vestra_ring_destroy(void)
{
	kvfree(ring);
}

/* Bytes from `offset` to the end of the memory. */
static size_t before_wrap(size_t offset, size_t size)
{
	return min(size, ring_size - offset);
}

static u32 record_size(size_t at)
{
	u8 length[VESTRA_LENGTH_FIELD];
	int i;

	for (i = 0; i < VESTRA_LENGTH_FIELD; i++)
		length[i] = ring[(oldest + at + i) % ring_size];
	return vestra_record_size(length);
}

static void remove_oldest(size_t size)
{
	oldest = (oldest + size) % ring_size;
	WRITE_ONCE(used, used - size);
}

static void drop_oldest(void)
{
	remove_oldest(record_size(0));
	count.dropped++;
}

void vestra_ring_put(struct vestra_frame *frame)
{
	size_t at, first;

	mutex_lock(&ring_lock);
	while (ring_size - used < frame->size)
		drop_oldest();
	at = (oldest + used) % ring_size;
	first = before_wrap(at, frame->size);
	memcpy(ring + at, frame->bytes, first);
	memcpy(ring, frame->bytes + first, frame->size - first);
	WRITE_ONCE(used, used + frame->size);
	count.made++;
	count.made_bytes += frame->size;
	mutex_unlock(&ring_lock);
	frame->size = 0;
}

void vestra_ring_clear(void)
{
	mutex_lock(&ring_lock);
	while (used > 0)
		drop_oldest();
	mutex_unlock(&ring_lock);
}

bool vestra_ring_empty(void)
{
	return READ_ONCE(used) == 0;
}

static ssize_t read_locked(char __user *out, size_t room)
{
	static const u8 end[VESTRA_LENGTH_FIELD];
	size_t size = 0, first;
	u64 frames = 0;

	while (size < used) {
		const u32 record = record_size(size);

		if (record > room - sizeof(end) - size)
			break;
		size += record;
		frames++;
	}
	if (size == 0 && used > 0)
		return -EINVAL;
	first = before_wrap(oldest, size);
	if (copy_to_user(out, ring + oldest, first) ||
	    copy_to_user(out + first, ring, size - first) ||
	    copy_to_user(out + size, end, sizeof(end)))
		return -EFAULT;
	remove_oldest(size);
	count.read += frames;
	count.blocks += frames > 0;
	return size + sizeof(end);
}

ssize_t vestra_ring_read(char __user *out, size_t room)
{
	ssize_t result;

	if (room < VESTRA_LENGTH_FIELD)
		return -EINVAL;
	if (mutex_lock_killable(&ring_lock))
		return -EINTR;
	result = read_locked(out, min_t(size_t, room, VESTRA_BLOCK_MAX));
	mutex_unlock(&ring_lock);
	return result;
}

void vestra_ring_count(struct vestra_ring_counts *counts)
{
	mutex_lock(&ring_lock);
	*counts = count;
	counts->waiting = count.made - count.read - count.dropped;
	mutex_unlock(&ring_lock);
}
