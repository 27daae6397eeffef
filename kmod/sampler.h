/* SPDX-License-Identifier: GPL-2.0 OR MIT */
/*
 * Samples the machine while tracing is on: a probe on every context switch notes who ran, and a
 * thread writes the figures of those processes, the CPUs and the memory into the ring.
 */
#ifndef VESTRA_SAMPLER_H
#define VESTRA_SAMPLER_H

#include <linux/types.h>
#include <linux/wait.h>

struct vestra_command;

extern wait_queue_head_t vestra_readers; /* woken after each sample */

/* Once, before and after everything else. Create returns 0 or a negative errno. */
int vestra_sampler_create(void);
void vestra_sampler_destroy(void);

/*
 * Switches tracing. The caller sees to it that they alternate and do not overlap. Start returns 0 or
 * a negative errno. After stop nothing of this module is called by the scheduler any more.
 */
int vestra_sampler_start(void);
void vestra_sampler_stop(void);

/* Takes effect with the next sample. Any command but VESTRA_TRACING; any context that may sleep. */
void vestra_sampler_apply(const struct vestra_command *command);

/* Context switches while tracing was on, and samples, since the module was loaded. */
u64 vestra_sampler_switches(void);
u64 vestra_sampler_samples(void);

#endif
