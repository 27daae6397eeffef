/* SPDX-License-Identifier: GPL-2.0 OR MIT */
/*
 * Frames that wait for a reader, in bounded memory: when there is no room, the oldest go.
 *
 * Any context that may sleep; each call takes the ring's lock.
 */
#ifndef VESTRA_RING_H
#define VESTRA_RING_H

#include <linux/types.h>

struct vestra_frame;

/* Frames made = read + dropped + waiting. */
struct vestra_ring_counts {
	u64 made;
	u64 made_bytes; /* with the length fields */
	u64 read;
	u64 dropped;
	u64 waiting;
	u64 blocks; /* reads that got a frame */
};

/* Returns 0 or -ENOMEM. */
int vestra_ring_create(size_t capacity);
void vestra_ring_destroy(void);

/* Adds the frame, and leaves it empty. */
void vestra_ring_put(struct vestra_frame *frame);

/* Drops all frames. */
void vestra_ring_clear(void);

/* Without the lock, so the answer may be old. */
bool vestra_ring_empty(void);

/*
 * Writes whole records, oldest first, and the empty record into `count` bytes at `out`. Returns the
 * bytes written, at least 4. Returns -EINVAL if there is no room for the oldest record, -EFAULT, or
 * -EINTR for a fatal signal; then nothing is taken.
 */
ssize_t vestra_ring_read(char __user *out, size_t count);

void vestra_ring_count(struct vestra_ring_counts *counts);

#endif
